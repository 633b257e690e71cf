// The installed package as a user of it sees it: headers, libraries and tvoxsp found through
// libtvoxsp.pc under a prefix that is not where the build put them.
#include "support/sim_fixture.h"

#include <gtest/gtest.h>

#include <string>

namespace
{

// Sets the DSP mode through the setter and reads it back.
constexpr const char *kProgram = R"(#include <stdio.h>
#include <tinyalsa/asoundlib.h>
#include <tvoxsp/mixer.h>

int main(void)
{
    struct mixer *mixer = mixer_open(0);
    int32_t value = 0;
    if (mixer == NULL)
        return 3;
    int32_t status = tervox_tmixer_set(mixer, "T DSP Mode", "3");
    int32_t count = tervox_tmixer_get(mixer, "T DSP Mode", &value);
    printf("set %d count %d value %d\n", status, count, value);
    mixer_close(mixer);
    return 0;
}
)";

using Package = tvox::test::SimTest;

TEST_F(Package, InstalledLibraryBuildsWithPkgConfigAndRunsOnTheVirtualCard)
{
    const std::string prefix = sim_dir() + "/prefix";
    const std::string source = folder_file("program.c", kProgram);
    const std::string pc = "PKG_CONFIG_PATH=" + prefix + "/lib/pkgconfig pkg-config ";
    const auto install = run_command(std::string(TVOXSP_CMAKE) +
                                     " --install " TVOXSP_BUILD_DIR " --prefix " + prefix);
    ASSERT_EQ(install.status, 0) << install.output;

    // Moved after installing: nothing may point back at the install prefix or the build.
    const std::string moved = sim_dir() + "/moved";
    ASSERT_EQ(run_command("mv " + prefix + " " + moved).status, 0);
    const std::string moved_pc = "PKG_CONFIG_PATH=" + moved + "/lib/pkgconfig pkg-config ";
    const auto build = run_command(std::string(TVOXSP_CC) + " " TVOXSP_PACKAGE_CFLAGS " " + source +
                                   " -o " + sim_dir() + "/program $(" + moved_pc +
                                   "--cflags --libs libtvoxsp) -Wl,-rpath,$(" + moved_pc +
                                   "--variable=libdir libtvoxsp)");
    ASSERT_EQ(build.status, 0) << build.output;

    const auto run = run_command(sim_dir() + "/program");
    EXPECT_EQ(run.status, 0) << run.output;
    EXPECT_EQ(run.output, "set 0 count 1 value 3\n");
    EXPECT_EQ(amixer_values(0, "T DSP Mode"), "3");

    const auto tool = run_command(moved + "/bin/tvoxsp --help");
    EXPECT_EQ(tool.status, 0) << tool.output;
}

} // namespace
