// What a call prints through KTPrintf, without the debug output's line heads.
#ifndef KTBASE_TESTS_KTTESTPRINT_H
#define KTBASE_TESTS_KTTESTPRINT_H

#include <gtest/gtest.h>

#include <string>

/// The lines printed since testing::internal::CaptureStdout.
inline std::string KTTestPrinted() {
    const std::string headEnd = "\x1B[0m ";
    std::string text = testing::internal::GetCapturedStdout();
    std::size_t line = 0;
    while (line < text.size()) {
        const std::size_t end = text.find(headEnd, line);
        if (end < text.find('\n', line))
            text.erase(line, end + headEnd.size() - line);
        const std::size_t next = text.find('\n', line);
        line = next == std::string::npos ? text.size() : next + 1;
    }
    return text;
}

#endif
