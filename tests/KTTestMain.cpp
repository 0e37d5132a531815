// main of every test program: runs the tests, then finds leaks in the library's own tables.
#include "KTTestTables.h"

int main(int argc, char** argv) {
    testing::InitGoogleTest(&argc, argv);
    const int result = RUN_ALL_TESTS();
    const KTTestTables left = KTTestReadTables();
    if (left.objects == 0 && left.blocks == 0)
        return result;
    std::printf("left behind: %u objects, %u blocks\n%s", left.objects, left.blocks,
                KTTestDump(true).c_str());
    return 1;
}
