#include "Names.h"

namespace {

const char* const kH264Units[] = {
    "Unspecified",
    "Coded slice of a non-IDR picture",
    "Coded slice data partition A",
    "Coded slice data partition B",
    "Coded slice data partition C",
    "Coded slice of an IDR picture",
    "Supplemental enhancement information (SEI)",
    "Sequence parameter set",
    "Picture parameter set",
    "Access unit delimiter",
    "End of sequence",
    "End of stream",
    "Filler data",
    "Sequence parameter set extension",
    "Prefix NAL unit",
    "Subset sequence parameter set",
    "Depth parameter set",
    "Reserved",
    "Reserved",
    "Coded slice of an auxiliary coded picture",
    "Coded slice extension",
    "Coded slice extension for a depth view",
    "Reserved",
    "Reserved",
};

const char* const kH265Slices[] = {
    "TRAIL_N",     "TRAIL_R",     "TSA_N",       "TSA_R",       "STSA_N",      "STSA_R",
    "RADL_N",      "RADL_R",      "RASL_N",      "RASL_R",      "RSV_VCL_N10", "RSV_VCL_R11",
    "RSV_VCL_N12", "RSV_VCL_R13", "RSV_VCL_N14", "RSV_VCL_R15", "BLA_W_LP",    "BLA_W_RADL",
    "BLA_N_LP",    "IDR_W_RADL",  "IDR_N_LP",    "CRA_NUT",
};

const char* const kH265Others[] = {
    "VPS_NUT", "SPS_NUT", "PPS_NUT",        "AUD_NUT",        "EOS_NUT",
    "EOB_NUT", "FD_NUT",  "PREFIX_SEI_NUT", "SUFFIX_SEI_NUT",
};

const char* const kH265Profiles[] = {
    "",
    "Main",
    "Main 10",
    "Main Still Picture",
    "Format range extensions",
    "High throughput",
    "Multiview Main",
    "Scalable Main",
    "3D Main",
    "Screen content coding extensions",
    "Scalable format range extensions",
    "High throughput screen content coding extensions",
};

template <std::size_t count>
const char* Find(const char* const (&names)[count], unsigned int index) {
    return index < count ? names[index] : nullptr;
}

std::string WithNumber(const char* name, unsigned int number) {
    return name + std::to_string(number);
}

/// Level 3.1 is 31 tenths.
std::string Tenths(unsigned int tenths) {
    return std::to_string(tenths / 10) + "." + std::to_string(tenths % 10);
}

}  // namespace

std::string UnitName(bool h265, unsigned int type) {
    if (!h265) {
        const char* const name = Find(kH264Units, type);
        return name != nullptr ? name : "Unspecified";
    }
    if (const char* const name = Find(kH265Slices, type))
        return name;
    if (type < 24)
        return WithNumber("RSV_IRAP_VCL", type);
    if (type < 32)
        return WithNumber("RSV_VCL", type);
    if (const char* const name = Find(kH265Others, type - 32))
        return name;
    return WithNumber(type < 48 ? "RSV_NVCL" : "UNSPEC", type);
}

std::string H264Profile(unsigned int profileIdc, unsigned int constraints) {
    const bool set1 = (constraints & 0x40) != 0;
    const bool set3 = (constraints & 0x10) != 0;
    const bool set4 = (constraints & 0x08) != 0;
    const bool set5 = (constraints & 0x04) != 0;
    switch (profileIdc) {
        case 44:
            return "CAVLC 4:4:4 Intra";
        case 66:
            return set1 ? "Constrained Baseline" : "Baseline";
        case 77:
            return "Main";
        case 83:
            return "Scalable Baseline";
        case 86:
            return "Scalable High";
        case 88:
            return "Extended";
        case 100:
            if (set4)
                return set5 ? "Constrained High" : "Progressive High";
            return "High";
        case 110:
            return set3 ? "High 10 Intra" : set4 ? "Progressive High 10" : "High 10";
        case 118:
            return "Multiview High";
        case 122:
            return set3 ? "High 4:2:2 Intra" : "High 4:2:2";
        case 128:
            return "Stereo High";
        case 134:
            return "MFC High";
        case 135:
            return "MFC Depth High";
        case 138:
            return "Multiview Depth High";
        case 139:
            return "Enhanced Multiview Depth High";
        case 244:
            return set3 ? "High 4:4:4 Intra" : "High 4:4:4 Predictive";
        default:
            return "unknown";
    }
}

std::string H264Level(unsigned int profileIdc, unsigned int constraints, unsigned int levelIdc) {
    // Level 1b is 9, or 11 with constraint_set3_flag in the profiles that came first.
    const bool first = profileIdc == 66 || profileIdc == 77 || profileIdc == 88;
    if (levelIdc == 9 || (levelIdc == 11 && first && (constraints & 0x10) != 0))
        return "1b";
    return Tenths(levelIdc);
}

std::string H265Profile(unsigned int profileIdc) {
    const char* const name = profileIdc != 0 ? Find(kH265Profiles, profileIdc) : nullptr;
    return name != nullptr ? name : "unknown";
}

std::string H265Level(unsigned int levelIdc) {
    return Tenths(levelIdc / 3);  // general_level_idc is 30 times the level
}
