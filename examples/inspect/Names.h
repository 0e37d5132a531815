// Names of unit types, profiles and levels, by ITU-T H.264 and H.265.
#ifndef KTINSPECT_NAMES_H
#define KTINSPECT_NAMES_H

#include <string>

/// H.264: the content of table 7-1; H.265: the name of table 7-1.
std::string UnitName(bool h265, unsigned int type);

/// H.264, annex A and on. constraints: the byte behind profile_idc, constraint_set0_flag highest.
std::string H264Profile(unsigned int profileIdc, unsigned int constraints);
std::string H264Level(unsigned int profileIdc, unsigned int constraints, unsigned int levelIdc);

/// H.265, annex A and on.
std::string H265Profile(unsigned int profileIdc);
std::string H265Level(unsigned int levelIdc);

#endif
