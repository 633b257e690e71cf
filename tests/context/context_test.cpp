#include "calibration/context_fixture.h"
#include "util/exported_data.h"

#include <dlfcn.h>
#include <memory>

namespace
{

using tvox::test::LogCapture;

// The library's own definition of an exported variable (this program may hold a copy of it).
template <typename T> T *library_symbol(const char *name)
{
    const std::unique_ptr<void, int (*)(void *)> lib(dlopen("libtvoxsp.so", RTLD_NOW | RTLD_NOLOAD),
                                                     dlclose);
    return lib == nullptr ? nullptr : static_cast<T *>(dlsym(lib.get(), name));
}

// This program reads the exported self directly, which GCC's position-independent executables do
// through a copy of the variable in the program: the copy follows every write of the library.
TEST(ContextInit, AProgramsCopyOfSelfFollowsTheContext)
{
    struct tervox **own = library_symbol<struct tervox *>("self");
    ASSERT_NE(own, nullptr);
    ASSERT_NE(own, &self) << "expected a copy relocation of self in this program";

    struct tervox first = {};
    struct tervox second = {};
    ASSERT_EQ(tervox_cal_init(&first), 0);
    EXPECT_EQ(self, &first);
    ASSERT_EQ(tervox_cal_init(&second), 0);
    EXPECT_EQ(self, &second);
    EXPECT_EQ(*own, &second);
    EXPECT_EQ(tervox_cal_deinit(&first), 0);
    EXPECT_EQ(self, &first);
    EXPECT_EQ(*own, &first);
    EXPECT_EQ(tervox_cal_deinit(&second), 0);
}

// What the library finds for an exported name: this program's copy of self (which this program
// writes, as a HAL may write an exported setting), none for a name the program has no copy of.
TEST(ContextInit, ExportedNamesResolveToTheProgramsCopy)
{
    struct tervox **own = library_symbol<struct tervox *>("self");
    ASSERT_NE(own, nullptr);
    EXPECT_EQ(tvox::program_copy_of(own, "self"), &self);
    struct tervox ctx = {};
    self = &ctx;
    EXPECT_EQ(tvox::live(*own, "self"), &ctx);
    EXPECT_EQ(&tvox::live(*own, "self"), &self);

    // tervox_this lives in the library only, and a name nobody defines has no copy.
    void **this_slot = library_symbol<void *>("tervox_this");
    ASSERT_NE(this_slot, nullptr);
    EXPECT_EQ(tvox::program_copy_of(this_slot, "tervox_this"), nullptr);
    EXPECT_EQ(tvox::program_copy_of(own, "tvoxsp_no_such_name"), nullptr);
    void *other = nullptr;
    EXPECT_EQ(&tvox::live(other, "tervox_this"), &other);
    self = nullptr;
}

TEST(ContextInit, FillsDefaultsAndSharedTablesAndLogsTheChannelLines)
{
    LogCapture log;
    struct tervox ctx = {};
    ctx.cal[0].cal_r = 1234; // members init does not own keep what the HAL left in them
    ctx.diag_mode = 1;
    ASSERT_EQ(tervox_cal_init(&ctx), 0);
    EXPECT_EQ(self, &ctx);
    EXPECT_EQ(ctx.cal[0].cal_r, 1234);
    EXPECT_EQ(ctx.diag_mode, 0);
    EXPECT_EQ(ctx.cal_r_range[1].min, 6500u);
    EXPECT_STREQ(ctx.f0_path, "/mnt/vendor/persist/audio/tvox_f0.bin");
    EXPECT_EQ(ctx.get_result, &tervox_cal_get_result);
    EXPECT_EQ(pthread_mutex_trylock(&ctx.mutex), 0); // initialised, and never held by the library
    EXPECT_EQ(pthread_mutex_unlock(&ctx.mutex), 0);
    EXPECT_EQ(tvox::test::tervox_lines(log, ANDROID_LOG_ERROR),
              (std::vector<std::string>{"channel[0] : 2 - 2\n", "channel[1] : 2 - 2\n",
                                        "channel[2] : 2 - 2\n"}));

    // Bottom names are the top names with "B" for the leading "T"; ids a table lacks are null.
    EXPECT_STREQ(ctx.prot_ctls[0][CTL_DIAG_Z_LOW_DIFF], "T Protection 5f210 DIAG_Z_LOW_DIFF");
    for (const char **const *tables : {ctx.set_ctls, ctx.get_ctls, ctx.prot_ctls})
        for (int id = 0; id < TERVOX_NUM_CTLS; ++id) {
            const char *top = tables[0][id];
            ASSERT_EQ(top == nullptr, tables[1][id] == nullptr) << id;
            if (top != nullptr) {
                EXPECT_EQ(top[0], 'T');
                EXPECT_EQ("B" + std::string(top + 1), tables[1][id]) << top;
            }
        }

    // The tables are the library's writable data: a HAL repoints a name for every context.
    const char *saved = ctx.set_ctls[1][CTL_SET_CAL_R];
    ctx.set_ctls[1][CTL_SET_CAL_R] = "B Other CAL_R";
    struct tervox other = {};
    ASSERT_EQ(tervox_cal_init(&other), 0);
    EXPECT_STREQ(other.set_ctls[1][CTL_SET_CAL_R], "B Other CAL_R");
    ctx.set_ctls[1][CTL_SET_CAL_R] = saved;
    EXPECT_EQ(tervox_cal_deinit(&other), 0);
    EXPECT_EQ(tervox_cal_deinit(&ctx), 0);
}

} // namespace
