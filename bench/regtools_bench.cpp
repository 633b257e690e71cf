// The live protection log and the register mailbox on the virtual amplifier pair:
//  - how many samples per second tervox_prot_rtlog sustains at a 1 ms interval (one run of a
//    few seconds, ended by SIGINT as a user ends it; the log stops for good after that, so it
//    runs once per process);
//  - how long the register monitor takes to return after SIGINT when the signal lands on another
//    thread than the one sampling, with a one-hour period (each measurement in a child process of
//    its own, since the stop is for good);
//  - one register read through the library (tervox_log_reg_read on one channel: open card 0,
//    read command, read back, close) beside the same read through alsa-lib's control API.
// The phone paths are mapped by the simulator's preload: the program re-runs itself with it.
#include "phone.h"
#include "tvoxsp.h"

#include <alsa/asoundlib.h>
#include <benchmark/benchmark.h>

#include <atomic>
#include <chrono>
#include <csignal>
#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <fcntl.h>
#include <filesystem>
#include <fstream>
#include <iterator>
#include <pthread.h>
#include <string>
#include <sys/wait.h>
#include <thread>
#include <unistd.h>

namespace
{

constexpr const char *kAlsaCtl = "tvoxsim:0";
constexpr const char *kMailbox = "T AMP WR Registers";
constexpr uint32_t kRegister = 0x2020;
constexpr auto kLogRun = std::chrono::seconds(3);

std::string g_dir;
double g_library_us = 0; // mean wall time of one read, the last run of each benchmark
double g_alsa_us = 0;

// Standard streams into /dev/null for the duration: the tools print every read and sample.
class Quiet
{
  public:
    Quiet()
    {
        std::fflush(nullptr);
        out_ = dup(1);
        err_ = dup(2);
        const int null = open("/dev/null", O_WRONLY);
        dup2(null, 1);
        dup2(null, 2);
        close(null);
    }
    ~Quiet()
    {
        std::fflush(nullptr);
        dup2(out_, 1);
        dup2(err_, 2);
        close(out_);
        close(err_);
    }
    Quiet(const Quiet &) = delete;
    Quiet &operator=(const Quiet &) = delete;

  private:
    int out_;
    int err_;
};

void rtlog_1ms(benchmark::State &state)
{
    for (auto _ : state) {
        const pid_t self_pid = getpid();
        std::thread stopper([self_pid] {
            std::this_thread::sleep_for(kLogRun);
            kill(self_pid, SIGINT);
        });
        const auto start = std::chrono::steady_clock::now();
        int32_t result = 0;
        {
            Quiet quiet;
            result = tervox_prot_rtlog(1);
        }
        const std::chrono::duration<double> elapsed = std::chrono::steady_clock::now() - start;
        stopper.join();
        if (result != 0) {
            state.SkipWithError("tervox_prot_rtlog failed");
            break;
        }
        std::ifstream log(g_dir + "/phone/sdcard/Download/rtlog.txt");
        long samples = 0;
        for (std::string line; std::getline(log, line);)
            ++samples;
        state.counters["samples"] = static_cast<double>(samples);
        state.counters["samples_per_s"] = static_cast<double>(samples) / elapsed.count();
    }
}

// In a child: the monitor sleeps on a thread that keeps SIGINT blocked; the signal lands on this
// one. Writes the seconds from the signal to the monitor's return into `result`.
int measure_sigint_stop(int result)
{
    const int null = open("/dev/null", O_WRONLY);
    dup2(null, 1);
    close(null);
    std::atomic<pid_t> tid{0};
    std::atomic<int64_t> returned_ns{0};
    std::thread monitor([&] {
        sigset_t sigint;
        sigemptyset(&sigint);
        sigaddset(&sigint, SIGINT);
        pthread_sigmask(SIG_BLOCK, &sigint, nullptr);
        tid = gettid();
        tervox_regs_monitor(nullptr, 0, 3'600'000);
        returned_ns = std::chrono::steady_clock::now().time_since_epoch().count();
    });
    // Asleep in its first period (state S in its stat line).
    for (;;) {
        std::this_thread::sleep_for(std::chrono::milliseconds(5));
        std::ifstream stat("/proc/self/task/" + std::to_string(tid.load()) + "/stat");
        const std::string line((std::istreambuf_iterator<char>(stat)), {});
        const size_t end = line.rfind(')');
        if (tid != 0 && end != std::string::npos && line.compare(end, 4, ") S ") == 0)
            break;
    }
    const int64_t sent_ns = std::chrono::steady_clock::now().time_since_epoch().count();
    pthread_kill(pthread_self(), SIGINT);
    monitor.join();
    const double seconds = static_cast<double>(returned_ns - sent_ns) * 1e-9;
    return write(result, &seconds, sizeof seconds) == sizeof seconds ? 0 : 1;
}

void sigint_stop(benchmark::State &state)
{
    for (auto _ : state) {
        int result[2];
        if (pipe(result) != 0) {
            state.SkipWithError("pipe failed");
            break;
        }
        const pid_t child = fork();
        if (child == 0)
            _exit(measure_sigint_stop(result[1]));
        close(result[1]);
        double seconds = -1;
        const bool got = read(result[0], &seconds, sizeof seconds) == sizeof seconds;
        close(result[0]);
        int status = 0;
        waitpid(child, &status, 0);
        if (!got || !WIFEXITED(status) || WEXITSTATUS(status) != 0) {
            state.SkipWithError("the monitor did not report its stop");
            break;
        }
        state.SetIterationTime(seconds);
    }
}

// Mean wall time per iteration of a read loop, kept for the ratio line.
class MeanTime
{
  public:
    MeanTime(benchmark::State &state, double &mean_us)
        : state_(state), mean_us_(mean_us), start_(std::chrono::steady_clock::now())
    {
    }
    ~MeanTime()
    {
        const std::chrono::duration<double, std::micro> elapsed =
            std::chrono::steady_clock::now() - start_;
        if (state_.iterations() > 0)
            mean_us_ = elapsed.count() / static_cast<double>(state_.iterations());
    }
    MeanTime(const MeanTime &) = delete;
    MeanTime &operator=(const MeanTime &) = delete;

  private:
    benchmark::State &state_;
    double &mean_us_;
    std::chrono::steady_clock::time_point start_;
};

void library_read(benchmark::State &state)
{
    Quiet quiet;
    const MeanTime mean(state, g_library_us);
    for (auto _ : state) {
        if (tervox_log_reg_read(kRegister) != 0) {
            state.SkipWithError("tervox_log_reg_read failed");
            break;
        }
    }
}

// The same read as alsa-lib code would do it: open, write the read command, read the block
// back, close.
int alsa_read(uint32_t &value)
{
    snd_ctl_t *ctl = nullptr;
    int err = snd_ctl_open(&ctl, kAlsaCtl, 0);
    if (err < 0)
        return err;
    snd_ctl_elem_value_t *elem;
    snd_ctl_elem_value_alloca(&elem);
    snd_ctl_elem_value_set_interface(elem, SND_CTL_ELEM_IFACE_MIXER);
    snd_ctl_elem_value_set_name(elem, kMailbox);
    const unsigned char block[12] = {0, 0, 0x01, 0x81, 0, 0, kRegister >> 8, kRegister & 0xFF};
    for (unsigned int i = 0; i < sizeof block; ++i)
        snd_ctl_elem_value_set_byte(elem, i, block[i]);
    err = snd_ctl_elem_write(ctl, elem);
    if (err >= 0)
        err = snd_ctl_elem_read(ctl, elem);
    if (err >= 0) {
        const auto *bytes = static_cast<const unsigned char *>(snd_ctl_elem_value_get_bytes(elem));
        value = static_cast<uint32_t>(bytes[8]) << 24 | bytes[9] << 16 | bytes[10] << 8 | bytes[11];
    }
    snd_ctl_close(ctl);
    return err < 0 ? err : 0;
}

void alsa_lib_read(benchmark::State &state)
{
    const MeanTime mean(state, g_alsa_us);
    uint32_t value = 0;
    for (auto _ : state) {
        if (alsa_read(value) != 0) {
            state.SkipWithError("alsa-lib read failed");
            break;
        }
        benchmark::DoNotOptimize(value);
    }
}

} // namespace

int main(int argc, char **argv)
{
    if (std::getenv("TVOXSIM_DIR") == nullptr) {
        // First run: a simulator folder of our own, the phone paths mapped by the preload.
        char dir[] = "/tmp/tvoxsp-bench-XXXXXX";
        int err = 0;
        if (mkdtemp(dir) == nullptr || !tvox::sim::State::create(dir, err) ||
            tvox::sim::install_phone(dir) != 0) {
            std::fprintf(stderr, "cannot make the simulator folder\n");
            return 1;
        }
        setenv("TVOXSIM_DIR", dir, 1);
        setenv("ALSA_CONFIG_PATH", "/usr/share/alsa/alsa.conf:" TVOXSIM_ALSA_CONF, 1);
        setenv("TINYALSA_CARD_0", kAlsaCtl, 1);
        setenv("LD_PRELOAD", TVOXSIM_PRELOAD, 1);
        execv("/proc/self/exe", argv);
        std::perror("execv");
        return 1;
    }
    g_dir = std::getenv("TVOXSIM_DIR");
    struct tervox ctx = {};
    tervox_cal_init(&ctx);
    ctx.num_channels = 1;

    benchmark::RegisterBenchmark("register_read/library", library_read)
        ->Unit(benchmark::kMicrosecond);
    benchmark::RegisterBenchmark("register_read/alsa_lib", alsa_lib_read)
        ->Unit(benchmark::kMicrosecond);
    benchmark::RegisterBenchmark("sigint_stop/monitor_1h", sigint_stop)
        ->Iterations(20)
        ->UseManualTime()
        ->Unit(benchmark::kMicrosecond);
    benchmark::RegisterBenchmark("rtlog_1ms", rtlog_1ms)
        ->Iterations(1)
        ->UseRealTime()
        ->Unit(benchmark::kMillisecond);
    benchmark::Initialize(&argc, argv);
    benchmark::RunSpecifiedBenchmarks();
    if (g_alsa_us > 0)
        std::printf("\nregister read: library %.1f us, alsa-lib %.1f us, ratio %.2f\n",
                    g_library_us, g_alsa_us, g_library_us / g_alsa_us);
    benchmark::Shutdown();
    tervox_cal_deinit(&ctx);

    std::error_code ignored;
    std::filesystem::remove_all(g_dir, ignored);
    return 0;
}
