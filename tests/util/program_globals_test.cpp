// A program with globals of its own named `self` and `DEVICE_FILE_NAME` that it never takes from
// the library: the library neither writes them nor reads them, and keeps its own. (Programs that
// do take the library's variables, through a copy of them: the calibration and tuning tests.)
// This file names neither variable itself: the header's declarations would reach the program's.
#include "support/capture.h"
#include "tvoxsp.h"

#include <gtest/gtest.h>

#include <dlfcn.h>

#include <memory>
#include <string>

extern "C" long program_self(void);
extern "C" const char *program_device_file_name(void);

namespace
{

TEST(ProgramGlobals, AProgramsOwnSelfAndDevicePathAreNotTheLibrarys)
{
    const std::unique_ptr<void, int (*)(void *)> lib(dlopen("libtvoxsp.so", RTLD_NOW | RTLD_NOLOAD),
                                                     dlclose);
    ASSERT_NE(lib, nullptr);
    auto *own_self = static_cast<struct tervox **>(dlsym(lib.get(), "self"));
    ASSERT_NE(own_self, nullptr);

    struct tervox ctx = {};
    ASSERT_EQ(tervox_cal_init(&ctx), 0);
    EXPECT_EQ(*own_self, &ctx);
    EXPECT_EQ(program_self(), 42);

    // Transfers open the library's device path (absent on this host), not the program's.
    tvox::test::LogCapture log;
    EXPECT_EQ(tervox_qdsp_enable(1), 0);
    EXPECT_TRUE(
        log.contains("tervox_qdsp_single_transfer: Can't open '/dev/msm_tervox_playback' \n"));
    EXPECT_STREQ(program_device_file_name(), "/tvoxsp-test/the-program-s-own-device");

    EXPECT_EQ(tervox_cal_deinit(&ctx), 0);
    EXPECT_EQ(program_self(), 42);
}

} // namespace
