// Running out of memory is an answer, never the end of the process: the library is built without
// exceptions, so a std::bad_alloc leaving an entry point would end the audio server, and no
// allocation failure may abort it either. Each entry point that allocates for its input gets an
// input whose copy or buffer needs more memory than a child process may have, and must answer.
//
// The limit is the child's address space (RLIMIT_AS): it may map 16 MiB more than it holds when
// the limit is set, so the small allocations of ALSA and the stand-ins still succeed, and only
// requests sized by the input (32 MiB and more) fail. AddressSanitizer serves such large requests
// with fresh mappings too, so the limit refuses them the same way there; allocator_may_return_null
// makes its malloc answer null as the C library's does, while its throwing operator new still ends
// the process, as the exception would. A malloc-failing interposer is no choice: the sanitizer
// owns malloc.
#include "calibration/context_fixture.h"
#include "mixer/mixer_handle.h"

#include <fcntl.h>
#include <sys/resource.h>
#include <sys/wait.h>
#include <unistd.h>

#include <cstdio>
#include <functional>

extern "C" const char *__asan_default_options()
{
    return "allocator_may_return_null=1";
}

namespace
{

constexpr size_t kHeadroom = size_t{16} << 20;
constexpr size_t kLarge = size_t{32} << 20;

// Limits this process's address space to what it maps now plus kHeadroom.
bool limit_address_space()
{
    unsigned long long pages = 0;
    std::FILE *statm = std::fopen("/proc/self/statm", "r");
    const bool read = statm != nullptr && std::fscanf(statm, "%llu", &pages) == 1;
    if (statm != nullptr)
        std::fclose(statm);
    const rlimit limit{pages * static_cast<rlim_t>(sysconf(_SC_PAGESIZE)) + kHeadroom,
                       RLIM_INFINITY};
    return read && setrlimit(RLIMIT_AS, &limit) == 0;
}

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
            if (!limit_address_space())
                _exit(2);
            for (const Call &c : calls)
                dprintf(fds[1], "%s %d\n", c.name, c.call());
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
    install_phone();
    const std::string value = "1" + std::string(kLarge, ' '); // one token, a large copy
    const std::string name(kLarge, 'X');
    const std::string line = folder_file("line.txt", std::string(kLarge, '7') + ",1\n");
    const std::string wav = phone("/odm/etc/audio/silent-3sec.wav");
    uint32_t values[2] = {6000, 6100};
    str_builder *small = str_builder_create(8);
    str_builder_add_str(small, "abc", 0);
    str_builder *large = str_builder_create(kLarge + 1);
    str_builder_add_str(large, name.c_str(), 0);
    const tvox::MixerHandle mixer = tvox::open_mixer();
    ASSERT_TRUE(mixer && small && large);

    const tvox::PathEntry path[] = {{"T DSP Mode", value.c_str()}};
    const std::vector<Call> calls = {
        {"tervox_tmixer_set",
         [&] { return tervox_tmixer_set(mixer.get(), "T DSP Mode", value.c_str()); }, -1},
        {"tervox_apply_mixer_path", [&] { return tvox::apply_path(path); }, -1},
        {"tervox_agmplay",
         [&] {
             ctx_.silent_wav_path = wav.c_str();
             ctx_.backend_name = name.c_str();
             return tervox_agmplay(&ctx_);
         },
         0},
        {"tervox_default_fwrite", [&] { return tervox_default_fwrite(values, 2, name.c_str()); },
         -1},
        {"tervox_ascii_fwrite", [&] { return tervox_ascii_fwrite(values, 2, name.c_str()); }, -1},
        {"tervox_cal_fwrite",
         [&] {
             ctx_.cal_txt_path = name.c_str();
             return tervox_cal_fwrite(values, 2);
         },
         -1},
        {"tervox_f0_fwrite",
         [&] {
             ctx_.f0_path = name.c_str();
             return tervox_f0_fwrite(values, 2);
         },
         -1},
        // A line that does not fit is no end of the file: the block on it is missing.
        {"tervox_qdsp_load_tuning", [&] { return tervox_qdsp_load_tuning(line.c_str()); }, -1},
        {"tervox_qdsp_delta_tuning", [&] { return tervox_qdsp_delta_tuning(line.c_str()); }, -1},
        {"tervox_qdsp_set_params", [&] { return tervox_qdsp_set_params(line.c_str()); }, -1},
        // No builder, an append that leaves the text as it was, no copy.
        {"str_builder_create", [] { return str_builder_create(2 * kLarge) == nullptr ? -1 : 0; },
         -1},
        {"str_builder_add_str",
         [&] {
             str_builder_add_str(small, name.c_str(), 0);
             return static_cast<int32_t>(str_builder_len(small));
         },
         3},
        {"str_builder_dump", [&] { return str_builder_dump(large, nullptr) == nullptr ? -1 : 0; },
         -1},
    };
    std::string expected;
    for (const Call &c : calls)
        expected += std::string(c.name) + " " + std::to_string(c.answer) + "\n";
    EXPECT_EQ(answers_under_limit(calls), expected);

    // Unlimited, the same inputs are taken: the answers above come from the limit.
    EXPECT_EQ(tervox_tmixer_set(mixer.get(), "T DSP Mode", value.c_str()), 0);
    EXPECT_EQ(str_builder_len(large), kLarge);
    str_builder_destroy(small);
    str_builder_destroy(large);
}

} // namespace
