// Reads the accounting tables the way a user can: from what KTMemoryDump prints.
#ifndef KTBASE_TESTS_KTTESTTABLES_H
#define KTBASE_TESTS_KTTESTTABLES_H

#include <KTBase/KTObject.h>
#include <gtest/gtest.h>

#include <cstdio>
#include <string>

struct KTTestTables {
    unsigned int objects = 0, objectBytes = 0, objectMax = 0;
    unsigned int blocks = 0, blockBytes = 0, blockMax = 0;
};

inline std::string KTTestDump(bool detail) {
    testing::internal::CaptureStdout();
    KTMemoryDump(detail);
    std::fflush(stdout);
    return testing::internal::GetCapturedStdout();
}

inline KTTestTables KTTestReadTables() {
    const std::string text = KTTestDump(false);
    KTTestTables t;
    const int fields = std::sscanf(
        text.c_str(),
        "===========================Memory====================================\n"
        "object num = %8u, object used = %8u, object max = %8u\n"
        "memory num = %8u, memory used = %8u, memory max = %8u\n",
        &t.objects, &t.objectBytes, &t.objectMax, &t.blocks, &t.blockBytes, &t.blockMax);
    EXPECT_EQ(fields, 6) << text;
    return t;
}

#endif
