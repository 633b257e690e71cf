// Calibration files replaced whole: on a full or read-only partition, beside a second writer,
// when the writer dies at any point, and where the folder holds links, FIFOs or long names.
#include "calibration/context_fixture.h"
#include "support/permission_bits.h"
#include "support/traced_child.h"

#include <sys/stat.h>
#include <sys/wait.h>
#include <sys/xattr.h>
#include <unistd.h>

#include <algorithm>
#include <functional>
#include <iostream>

namespace
{

using tvox::test::LogCapture;
using tvox::test::read_file;
using tvox::test::tervox_lines;
using tvox::test::words_bytes;
using tvox::test::write_file;

// Runs `body` with permission bits that bind as they bind the audio server.
int32_t with_permission_bits(const std::function<int32_t()> &body)
{
    const tvox::test::PermissionBits bits;
    return body();
}

bool exited_with(int status, int code)
{
    return WIFEXITED(status) && WEXITSTATUS(status) == code;
}

// A rewrite that fails on the device or in the folder keeps the previous file whole.
class FileReplacementTest : public tvox::test::SimContextTest
{
  protected:
    void SetUp() override
    {
        SimContextTest::SetUp();
        install_phone();
        ctx_.cal_bin_path = kPersistBin;
        ctx_.cal_txt_path = kPersistTxt;
        ctx_.f0_path = kPersistF0;
        write_previous_files();
    }
    void write_previous_files()
    {
        write_file(phone(kPersistBin), words_bytes({7000, 7001}));
        write_file(phone(kPersistTxt), "previous text\n");
        write_file(phone(kPersistF0), words_bytes({800, 790}));
    }
    void expect_previous_files()
    {
        EXPECT_EQ(read_file(phone(kPersistBin)), words_bytes({7000, 7001}));
        EXPECT_EQ(read_file(phone(kPersistTxt)), "previous text\n");
        EXPECT_EQ(read_file(phone(kPersistF0)), words_bytes({800, 790}));
        EXPECT_EQ(folder_names(),
                  (std::vector<std::string>{"tvox_calr.bin", "tvox_calr.txt", "tvox_f0.bin"}));
    }
    std::string folder() const { return phone(kFolder); }
    std::vector<std::string> folder_names() const
    {
        std::vector<std::string> names;
        for (const auto &entry : std::filesystem::directory_iterator(folder()))
            names.push_back(entry.path().filename().string());
        std::sort(names.begin(), names.end());
        return names;
    }

    static constexpr const char *kFolder = "/mnt/vendor/persist/audio";
    static constexpr const char *kPersistBin = "/mnt/vendor/persist/audio/tvox_calr.bin";
    static constexpr const char *kPersistTxt = "/mnt/vendor/persist/audio/tvox_calr.txt";
    static constexpr const char *kPersistF0 = "/mnt/vendor/persist/audio/tvox_f0.bin";
};
TEST_F(FileReplacementTest, AFullDeviceFailsEveryWriteAndKeepsThePreviousFiles)
{
    uint32_t values[2] = {8391, 8392};
    ASSERT_EQ(tool("persist full").status, 0);
    LogCapture log;
    EXPECT_EQ(tervox_default_fwrite(values, 2, kPersistBin), -1);
    EXPECT_EQ(tervox_ascii_fwrite(values, 2, kPersistTxt), -1);
    EXPECT_EQ(tervox_cal_fwrite(values, 2), -1);
    EXPECT_EQ(tervox_lines(log, ANDROID_LOG_ERROR),
              (std::vector<std::string>{
                  "can't write CAL_R to persist slot!\n",
                  std::string("can't open ") + kPersistTxt + " \n",
                  "can't write CAL_R to persist slot!\n",
                  std::string("can't open ") + kPersistTxt + " \n",
              }));
    expect_previous_files();
    // Reading is not affected.
    uint32_t stored[2] = {};
    EXPECT_EQ(tervox_cal_fread(stored, 2), 0);
    EXPECT_EQ(stored[1], 7001u);
}

TEST_F(FileReplacementTest, ReadOnlyFoldersAndFilesBehaveAsAnOpenForWritingWould)
{
    uint32_t values[2] = {8391, 8392};
    // A file that refuses writing stays as it is, even where the folder would take a new one.
    chmod(phone(kPersistBin).c_str(), 0444);
    EXPECT_EQ(with_permission_bits([&] { return tervox_default_fwrite(values, 2, kPersistBin); }),
              -1);
    chmod(phone(kPersistBin).c_str(), 0644);
    chmod(phone(kPersistTxt).c_str(), 0444);
    EXPECT_EQ(with_permission_bits([&] { return tervox_ascii_fwrite(values, 2, kPersistTxt); }),
              -1);
    expect_previous_files();

    // A read-only folder takes no new file, but its writable files are rewritten in place; a file
    // that is not there cannot be made.
    chmod(phone(kPersistTxt).c_str(), 0644);
    chmod(folder().c_str(), 0555);
    EXPECT_EQ(with_permission_bits([&] { return tervox_cal_fwrite(values, 2); }), 0);
    EXPECT_EQ(with_permission_bits(
                  [&] { return tervox_default_fwrite(values, 1, "/mnt/vendor/persist/audio/x"); }),
              -1);
    chmod(folder().c_str(), 0755);
    EXPECT_EQ(read_file(phone(kPersistBin)), words_bytes({8391, 8392}));
    EXPECT_EQ(read_file(phone(kPersistTxt)), "CH[0] T : 8391 (6.00)\nCH[1] B : 8392 (6.00)\n");
    EXPECT_EQ(folder_names().size(), 3u);
}

// What the file held before, owner, permission bits and SELinux label included, survives the
// replacement; a new file gets fopen's permissions under the umask.
TEST_F(FileReplacementTest, TheReplacementKeepsOwnerPermissionsAndLabel)
{
    const std::string bin = phone(kPersistBin);
    ASSERT_EQ(chown(bin.c_str(), 1041, 1005), 0);
    ASSERT_EQ(chmod(bin.c_str(), 0660), 0);
    const std::string label = "u:object_r:persist_audio_file:s0";
    const bool labelled =
        setxattr(bin.c_str(), "security.selinux", label.c_str(), label.size() + 1, 0) == 0;
    const mode_t umask_before = umask(022);
    uint32_t values[2] = {8391, 8392};
    EXPECT_EQ(tervox_default_fwrite(values, 2, kPersistBin), 0);
    EXPECT_EQ(tervox_default_fwrite(values, 2, "/mnt/vendor/persist/audio/new.bin"), 0);
    umask(umask_before);

    struct stat info = {};
    ASSERT_EQ(stat(bin.c_str(), &info), 0);
    EXPECT_EQ(info.st_uid, 1041u);
    EXPECT_EQ(info.st_gid, 1005u);
    EXPECT_EQ(info.st_mode & 07777, 0660u);
    ASSERT_EQ(stat(phone("/mnt/vendor/persist/audio/new.bin").c_str(), &info), 0);
    EXPECT_EQ(info.st_mode & 07777, 0644u);
    EXPECT_EQ(read_file(bin), words_bytes({8391, 8392}));
    if (!labelled)
        GTEST_SKIP() << "this file system keeps no SELinux label";
    char copied[64] = {};
    EXPECT_EQ(getxattr(bin.c_str(), "security.selinux", copied, sizeof copied),
              static_cast<ssize_t>(label.size() + 1));
    EXPECT_EQ(copied, label);
}

// A link planted in the folder is replaced, never written through; a FIFO that no one reads is
// replaced without waiting for a reader; a name too long for a replacement fails as a full
// partition does, and keeps the file.
TEST_F(FileReplacementTest, LinksFifosAndLongNamesNeverCostTheFileOrAnother)
{
    uint32_t values[2] = {8391, 8392};
    const std::string outside = sim_dir() + "/outside.bin";
    write_file(outside, "outside");
    std::filesystem::remove(phone(kPersistBin));
    std::filesystem::create_symlink(outside, phone(kPersistBin));
    chmod(folder().c_str(), 0555);
    EXPECT_EQ(with_permission_bits([&] { return tervox_default_fwrite(values, 2, kPersistBin); }),
              -1);
    chmod(folder().c_str(), 0755);
    EXPECT_EQ(tervox_default_fwrite(values, 2, kPersistBin), 0);
    EXPECT_FALSE(std::filesystem::is_symlink(phone(kPersistBin)));
    EXPECT_EQ(read_file(phone(kPersistBin)), words_bytes({8391, 8392}));
    EXPECT_EQ(read_file(outside), "outside");

    std::filesystem::remove(phone(kPersistTxt));
    ASSERT_EQ(mkfifo(phone(kPersistTxt).c_str(), 0644), 0);
    EXPECT_TRUE(exited_with(tvox::test::run_in_child([&] {
                                alarm(10); // a writer waiting for a reader ends here
                                return tervox_ascii_fwrite(values, 2, kPersistTxt);
                            }),
                            0));
    ASSERT_TRUE(std::filesystem::is_regular_file(phone(kPersistTxt)));
    EXPECT_EQ(read_file(phone(kPersistTxt)), "CH[0] T : 8391 (6.00)\nCH[1] B : 8392 (6.00)\n");

    const std::string name = std::string(kFolder) + "/" + std::string(250, 'n') + ".bin";
    write_file(phone(name), "old");
    LogCapture log;
    EXPECT_EQ(tervox_default_fwrite(values, 2, name.c_str()), -1);
    EXPECT_EQ(tervox_lines(log, ANDROID_LOG_ERROR),
              std::vector<std::string>{"can't open " + name + " \n"});
    EXPECT_EQ(read_file(phone(name)), "old");
}

// Two writers of the same file and a reader: the reader always finds one writer's whole
// contents, and every write that reports success was in place at some moment.
TEST_F(FileReplacementTest, TwoWritersAndAReaderSeeOnlyWholeFiles)
{
    constexpr size_t kWords = 256;
    constexpr int kWrites = 300;
    const auto contents = [](uint32_t value) { return std::vector<uint32_t>(kWords, value); };
    write_file(phone(kPersistBin), words_bytes(contents(1)));
    pid_t writers[2] = {};
    for (uint32_t writer = 0; writer < 2; ++writer) {
        std::fflush(nullptr);
        writers[writer] = fork();
        if (writers[writer] == 0) {
            std::vector<uint32_t> words = contents(2 + writer);
            int failed = 0;
            for (int i = 0; i < kWrites; ++i)
                failed += tervox_default_fwrite(words.data(), kWords, kPersistBin) != 0;
            _exit(std::min(failed, 100));
        }
        ASSERT_GT(writers[writer], 0);
    }
    size_t rounds = 0;
    size_t broken = 0;
    for (int running = 2; running > 0;) {
        const std::string bytes = read_file(phone(kPersistBin));
        ++rounds;
        const bool whole = bytes.size() == kWords * sizeof(uint32_t) &&
                           (bytes == words_bytes(contents(1)) ||
                            bytes == words_bytes(contents(2)) || bytes == words_bytes(contents(3)));
        broken += !whole;
        for (pid_t &writer : writers) {
            int status = 0;
            if (writer > 0 && waitpid(writer, &status, WNOHANG) == writer) {
                EXPECT_TRUE(exited_with(status, 0)) << "failed writes: " << WEXITSTATUS(status);
                writer = 0;
                --running;
            }
        }
    }
    EXPECT_EQ(broken, 0u) << "empty or mixed in " << rounds << " reads";
    std::cout << broken << " empty or mixed files in " << rounds << " reads\n";
    const std::string last = read_file(phone(kPersistBin));
    EXPECT_TRUE(last == words_bytes(contents(2)) || last == words_bytes(contents(3)));
    EXPECT_EQ(folder_names().size(), 3u);
}

// A writer killed on entering any of its system calls leaves every file it was writing old or
// new, whole; the next writer is not confused by what it left and clears it away. A name too
// long for a replacement is never written in place.
TEST_F(FileReplacementTest, AWriterKilledAtAnySystemCallLeavesWholeFiles)
{
    const std::string long_name = std::string(kFolder) + "/" + std::string(250, 'n') + ".bin";
    const auto write = [&] {
        uint32_t values[2] = {8391, 8392};
        tervox_default_fwrite(values, 2, long_name.c_str());
        return tervox_cal_fwrite(values, 2) == 0 ? 0 : 1;
    };
    const std::string old_bin = words_bytes({7000, 7001});
    const std::string new_bin = words_bytes({8391, 8392});
    const std::string new_txt = "CH[0] T : 8391 (6.00)\nCH[1] B : 8392 (6.00)\n";
    write_file(phone(long_name), "old");
    const LogCapture quiet; // the children's failures are expected
    // Each round kills the writer one system call later, until it gets through.
    size_t points = 0;
    size_t held = 0;
    for (;; ++points) {
        write_previous_files();
        const tvox::test::TracedRun run =
            tvox::test::run_traced(write, [points](pid_t, size_t call) { return call <= points; });
        if (run.untraceable)
            GTEST_SKIP()
                << "no process can be traced here (qemu user-mode emulation has no ptrace)";
        if (!run.killed) {
            EXPECT_TRUE(exited_with(run.status, 0));
            break;
        }
        const std::string bin = read_file(phone(kPersistBin));
        const std::string txt = read_file(phone(kPersistTxt));
        const bool whole_files = (bin == old_bin || bin == new_bin) &&
                                 (txt == "previous text\n" || txt == new_txt) &&
                                 read_file(phone(long_name)) == "old";
        EXPECT_TRUE(whole_files) << "killed at system call " << points + 1;
        held += whole_files;
        uint32_t values[2] = {8391, 8392};
        EXPECT_EQ(tervox_cal_fwrite(values, 2), 0);
        EXPECT_EQ(folder_names().size(), 4u) << "killed at system call " << points + 1;
    }
    EXPECT_GT(points, 20u);
    std::cout << "whole files after " << held << " of " << points << " kill points\n";
}

} // namespace
