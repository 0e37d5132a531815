// The command line.
#ifndef KTRECORDER_OPTIONS_H
#define KTRECORDER_OPTIONS_H

#include <KTBase/KTUrl.h>

#include <string>
#include <vector>

struct Options {
    std::vector<CKTUrl> cameras;
    std::string group;  // empty: no discovery
    unsigned short groupPort = 0;
    std::string folder;
    unsigned int seconds = 0;  // 0: until Ctrl-C
    bool page = false;
    unsigned short pagePort = 0;  // 0: one that is free
    std::string log;
    bool help = false;
};

/// Returns "", or what is wrong.
std::string ReadOptions(int argc, char** argv, Options& options);

extern const char* const kUsage;
extern const char* const kHelp;

#endif
