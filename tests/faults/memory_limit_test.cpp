// Running out of memory is an answer, never the end of the process: the library is built without
// exceptions, so a std::bad_alloc leaving an entry point would end the audio server, and no
// allocation failure may abort it either. Each entry point that allocates for its input gets an
// input whose copy or buffer needs more memory than a child process may have, and must answer.
//
// Only requests sized by the input (128 MiB and more) may fail, so that ALSA and the stand-ins
// still get theirs (a mixer maps the simulator's 20 MiB state). Without a sanitizer the child's
// address space is limited (RLIMIT_AS) to what it maps plus 64 MiB. Under AddressSanitizer that
// limit also starves the sanitizer's own allocator, so there the sanitizer refuses every request
// above 64 MiB instead (max_allocation_size_mb); allocator_may_return_null makes its malloc answer
// null as the C library's does, while its throwing operator new still ends the process, as the
// exception would. The inputs are mapped directly, so the test itself never asks malloc for that
// much.
#include "calibration/context_fixture.h"
#include "mixer/mixer_handle.h"

#include <fcntl.h>
#include <sys/mman.h>
#include <sys/resource.h>
#include <sys/wait.h>
#include <unistd.h>

#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <functional>

#if defined(__SANITIZE_ADDRESS__)
#define TVOXSP_TEST_ASAN 1
#elif defined(__has_feature)
#if __has_feature(address_sanitizer)
#define TVOXSP_TEST_ASAN 1
#endif
#endif

extern "C" const char *__asan_default_options()
{
    return "allocator_may_return_null=1:max_allocation_size_mb=64";
}

namespace
{

constexpr size_t kHeadroom = size_t{64} << 20;
constexpr size_t kLarge = size_t{128} << 20;

// Limits this process's address space to what it maps now plus kHeadroom; under
// AddressSanitizer its allocation limit is in place from the start.
bool limit_memory()
{
#ifdef TVOXSP_TEST_ASAN
    return true;
#else
    unsigned long long pages = 0;
    std::FILE *statm = std::fopen("/proc/self/statm", "r");
    const bool read = statm != nullptr && std::fscanf(statm, "%llu", &pages) == 1;
    if (statm != nullptr)
        std::fclose(statm);
    // rlim_t is 32 bits on a 32-bit ABI: the sum is made there, not in the page count's type.
    const rlimit limit{static_cast<rlim_t>(pages) * static_cast<rlim_t>(sysconf(_SC_PAGESIZE)) +
                           kHeadroom,
                       RLIM_INFINITY};
    return read && setrlimit(RLIMIT_AS, &limit) == 0;
#endif
}

// `size` copies of `fill` and a NUL, mapped outside malloc.
class LargeText
{
  public:
    LargeText(char fill, size_t size)
        : size_(size + 1), data_(static_cast<char *>(mmap(nullptr, size_, PROT_READ | PROT_WRITE,
                                                          MAP_PRIVATE | MAP_ANONYMOUS, -1, 0)))
    {
        std::memset(data_, fill, size);
    }
    ~LargeText() { munmap(data_, size_); }
    LargeText(const LargeText &) = delete;
    LargeText &operator=(const LargeText &) = delete;
    char *c_str() const { return data_; }

  private:
    size_t size_;
    char *data_;
};

class MemoryLimitTest : public tvox::test::SimContextTest
{
  protected:
    struct Call {
        const char *name;
        std::function<int32_t()> call;
        int32_t answer;
    };

    // Runs the calls in order in a child whose address space is limited; one line "name answer"
    // per call that returned, the child's output (its streams and log) discarded.
    static std::string answers_under_limit(const std::vector<Call> &calls)
    {
        int fds[2];
        if (pipe(fds) != 0)
            return "no pipe";
        const pid_t child = fork();
        if (child == 0) {
            close(fds[0]);
            const int null = open("/dev/null", O_WRONLY);
            dup2(null, STDOUT_FILENO);
            dup2(null, STDERR_FILENO);
            if (!limit_memory())
                _exit(2);
            // An exception that leaves a call ends the child here, not in the test framework.
            [&]() noexcept {
                for (const Call &c : calls)
                    dprintf(fds[1], "%s %d\n", c.name, c.call());
            }();
            _exit(0);
        }
        close(fds[1]);
        std::string answers;
        char buffer[256];
        for (ssize_t got; (got = read(fds[0], buffer, sizeof buffer)) > 0;)
            answers.append(buffer, static_cast<size_t>(got));
        close(fds[0]);
        int status = 0;
        waitpid(child, &status, 0);
        if (!WIFEXITED(status) || WEXITSTATUS(status) != 0)
            answers += "child ended with status " + std::to_string(status) + "\n";
        return answers;
    }
};

TEST_F(MemoryLimitTest, EveryEntryPointAnswersWhenMemoryRunsOut)
{
    // User-mode emulation (qemu) reserves its guest's address space itself, so an address-space
    // limit set by the guest never makes an allocation fail: the test has nothing to show there.
    const std::vector<Call> probe = {{"probe",
                                      [] {
                                          void *volatile block = std::malloc(4 * kHeadroom);
                                          const bool got = block != nullptr;
                                          std::free(block);
                                          return got ? 1 : 0;
                                      },
                                      0}};
    if (answers_under_limit(probe) != "probe 0\n")
        GTEST_SKIP() << "an address-space limit does not make allocations fail here (emulation)";
    install_phone();
    // One token as a value, a name or path nothing can hold, a line no buffer can take.
    const LargeText large(' ', kLarge);
    large.c_str()[0] = '1';
    const char *value = large.c_str();
    const char *name = large.c_str();
    const std::string line = sim_dir() + "/line.txt";
    const int fd = open(line.c_str(), O_WRONLY | O_CREAT | O_TRUNC, 0644);
    ASSERT_EQ(write(fd, large.c_str(), kLarge), static_cast<ssize_t>(kLarge));
    ASSERT_EQ(write(fd, ",1\n", 3), 3);
    close(fd);
    const std::string wav = phone("/odm/etc/audio/silent-3sec.wav");
    uint32_t values[2] = {6000, 6100};
    str_builder *small = str_builder_create(8);
    str_builder_add_str(small, "abc", 0);
    const tvox::MixerHandle mixer = tvox::open_mixer();
    ASSERT_TRUE(mixer && small);

    const tvox::PathEntry path[] = {{"T DSP Mode", value}};
    const std::vector<Call> calls = {
        {"tervox_tmixer_set", [&] { return tervox_tmixer_set(mixer.get(), "T DSP Mode", value); },
         -1},
        {"tervox_apply_mixer_path", [&] { return tvox::apply_path(path); }, -1},
        {"tervox_agmplay",
         [&] {
             ctx_.silent_wav_path = wav.c_str();
             ctx_.backend_name = name;
             return tervox_agmplay(&ctx_);
         },
         0},
        {"tervox_default_fwrite", [&] { return tervox_default_fwrite(values, 2, name); }, -1},
        {"tervox_ascii_fwrite", [&] { return tervox_ascii_fwrite(values, 2, name); }, -1},
        {"tervox_cal_fwrite",
         [&] {
             ctx_.cal_txt_path = name;
             return tervox_cal_fwrite(values, 2);
         },
         -1},
        {"tervox_f0_fwrite",
         [&] {
             ctx_.f0_path = name;
             return tervox_f0_fwrite(values, 2);
         },
         -1},
        // A line that does not fit is no end of the file: the block on it is missing.
        {"tervox_qdsp_load_tuning", [&] { return tervox_qdsp_load_tuning(line.c_str()); }, -1},
        {"tervox_qdsp_delta_tuning", [&] { return tervox_qdsp_delta_tuning(line.c_str()); }, -1},
        {"tervox_qdsp_set_params", [&] { return tervox_qdsp_set_params(line.c_str()); }, -1},
        // No builder, and an append that leaves the text as it was.
        {"str_builder_create", [] { return str_builder_create(2 * kLarge) == nullptr ? -1 : 0; },
         -1},
        {"str_builder_add_str",
         [&] {
             str_builder_add_str(small, name, 0);
             return static_cast<int32_t>(str_builder_len(small));
         },
         3},
    };
    std::string expected;
    for (const Call &c : calls)
        expected += std::string(c.name) + " " + std::to_string(c.answer) + "\n";
    EXPECT_EQ(answers_under_limit(calls), expected);
    str_builder_destroy(small);
}

} // namespace
