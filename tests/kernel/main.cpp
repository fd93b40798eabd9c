// Runs the tests in a network of their own, thrown away with the process.
#include <RealKernel.h>
#include <ReplyRecorder.h>

#include <cstdio>
#include <cstdlib>

#include <sys/utsname.h>
#include <unistd.h>

#include <gtest/gtest.h>

int main(int argc, char** argv)
{
    testing::InitGoogleTest(&argc, argv);
    if (testing::GTEST_FLAG(list_tests))
        return RUN_ALL_TESTS();
    if (!Vesk::Testing::enterOwnNetwork()) {
        std::puts("SKIPPED: root alone may have a network of its own");
        return 77;
    }
    if (const char* const folder = std::getenv("VESK_RECORD_REPLIES"))
        Vesk::Testing::recordReplies(folder);
    utsname kernel{};
    uname(&kernel);
    std::printf("On Linux %s, pages of %d KiB\n", kernel.release, getpagesize() / 1024);
    return RUN_ALL_TESTS();
}
