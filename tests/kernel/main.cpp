// Runs the tests in a network of their own, thrown away with the process.
#include <RealKernel.h>

#include <cstdio>

#include <gtest/gtest.h>

int main(int argc, char** argv)
{
    testing::InitGoogleTest(&argc, argv);
    if (!testing::GTEST_FLAG(list_tests) && !Vesk::Testing::enterOwnNetwork()) {
        std::puts("SKIPPED: root alone may have a network of its own");
        return 77;
    }
    return RUN_ALL_TESTS();
}
