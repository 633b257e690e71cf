// Nothing the library opens is inherited by a program its host starts: every descriptor of a
// file or of the driver device is close-on-exec for as long as it is open.
#include "calibration/context_fixture.h"
#include "support/traced_child.h"

#include <fcntl.h>
#include <unistd.h>

#include <algorithm>
#include <cstdlib>
#include <set>
#include <sstream>

namespace
{

using tvox::test::write_file;

// The descriptors of process `pid` by number, each with what it refers to.
std::map<int, std::string> descriptors(pid_t pid)
{
    std::map<int, std::string> open;
    const std::string folder = "/proc/" + std::to_string(pid) + "/fd";
    std::error_code ec;
    for (const auto &entry : std::filesystem::directory_iterator(folder, ec))
        open[std::atoi(entry.path().filename().c_str())] =
            std::filesystem::read_symlink(entry.path(), ec).string();
    return open;
}

// The open flags the kernel shows for a descriptor (O_CLOEXEC among them).
long open_flags(pid_t pid, int fd)
{
    std::istringstream info(
        tvox::test::read_file("/proc/" + std::to_string(pid) + "/fdinfo/" + std::to_string(fd)));
    for (std::string line; std::getline(info, line);)
        if (line.starts_with("flags:"))
            return std::strtol(line.c_str() + 6, nullptr, 8);
    return 0;
}

class DescriptorsTest : public tvox::test::SimContextTest
{
};

// The calibration files written and read, the driver's slot and a tuning load (its device),
// a played WAV file and the live log's file: each seen open at some system call, none of them
// inheritable at any.
TEST_F(DescriptorsTest, EverythingTheLibraryOpensIsCloseOnExec)
{
    install_phone();
    ctx_.cal_bin_path = "/mnt/vendor/persist/audio/tvox_calr.bin";
    ctx_.cal_txt_path = "/mnt/vendor/persist/audio/tvox_calr.txt";
    write_file(phone(ctx_.cal_bin_path), tvox::test::words_bytes({8000, 8001}));
    const std::string tuning = phone("/odm/delta.txt");
    write_file(tuning, "3,7,1987764275\n");
    const std::string clip = phone("/odm/clip.wav");
    write_file(clip, "RIFF\x24\0\0\0AVI ");
    ctx_.silent_wav_path = clip.c_str();
    ASSERT_EQ(tool("control remove \"B DSP1 Protection cd RTLOG_STATE\"").status, 0);

    const std::string phone_root = phone("/");
    std::map<int, std::string> before;
    std::set<std::string> seen, inherited;
    const auto look = [&](pid_t pid, size_t call) {
        std::map<int, std::string> open = descriptors(pid);
        if (call == 1)
            before = open;
        for (const auto &[fd, target] : open) {
            if (before.contains(fd) ||
                (!target.starts_with(phone_root) && target != "anon_inode:[eventfd]"))
                continue;
            seen.insert(target.substr(target.rfind('/') + 1));
            if ((open_flags(pid, fd) & O_CLOEXEC) == 0)
                inherited.insert(target);
        }
        return true;
    };
    const tvox::test::TracedRun run = tvox::test::run_traced(
        [&] {
            uint32_t values[2] = {8391, 8392};
            const bool done = tervox_cal_fwrite(values, 2) == 0 &&
                              tervox_cal_fread(values, 2) == 0 &&
                              tervox_cal_slot_read(values, 2) == 0 &&
                              tervox_qdsp_delta_tuning(tuning.c_str()) == 0;
            tervox_tplay(&ctx_);   // not a WAV file: read, then refused
            tervox_prot_rtlog(50); // stops at its first sample
            return done ? 0 : 1;
        },
        look);
    if (run.untraceable)
        GTEST_SKIP() << "no process can be traced here (qemu user-mode emulation has no ptrace)";
    EXPECT_TRUE(WIFEXITED(run.status) && WEXITSTATUS(run.status) == 0);
    for (const char *name : {"tvox_calr.bin", "tvox_calr.txt", "anon_inode:[eventfd]", "delta.txt",
                             "clip.wav", "rtlog.txt"})
        EXPECT_TRUE(std::any_of(seen.begin(), seen.end(),
                                [&](const std::string &s) { return s.starts_with(name); }))
            << name << " never seen open";
    EXPECT_EQ(inherited, std::set<std::string>{});
}

} // namespace
