// Soak: one process calls every exported entry point of the library many times on the virtual
// amplifier pair and compares its open descriptors, threads, resident memory and heap in use
// before and after. A HAL keeps the library for the life of the phone, so whatever one call
// leaves behind adds up.
//
//   soak [--rounds N] [--calibrations N] [--rss-tolerance KIB]
//
// A round calls the mixer paths, the control setter and readers, the calibration files and
// checks, the driver slot, the three tuning loads and the module switches, the register tools and
// DSP switches, a short WAV and a short graph playback, and the string and number helpers. The
// calibrations (3 s of silence each) run --calibrations times per kind; the live log runs once,
// since SIGINT ends it for the rest of the process (the later log and monitor calls take the stop
// path). A warm-up (a round, a calibration of each kind, the live log, a round with the stop
// paths) runs before the first figures, so what alsa-lib, liblog and the C library set up once is
// not counted; the live log's run is valgrind's to check (scripts/valgrind.sh).
//
// Tolerances: descriptors and threads may not grow at all; the heap in use may grow by 64 KiB
// (allocator bookkeeping) and the resident size by --rss-tolerance KiB (default 1024: pages the
// allocator keeps after a peak). Exit status 0 when nothing grew beyond them and every call gave
// its expected result, 1 otherwise, 2 for a usage error.
//
// Outside the simulator the program makes a simulator folder of its own, runs itself inside it
// (tvoxsim run) and removes the folder afterwards; inside one (tvoxsim run -- soak) it uses it.
#include "tvoxsp.h"

#include <tinyalsa/asoundlib.h>

#include <dirent.h>
#include <fcntl.h>
#include <malloc.h>
#include <signal.h>
#include <spawn.h>
#include <sys/wait.h>
#include <unistd.h>

#include <chrono>
#include <cinttypes>
#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <filesystem>
#include <fstream>
#include <map>
#include <string>
#include <thread>
#include <vector>

extern char **environ;

namespace
{

constexpr int64_t kHeapToleranceBytes = 64 * 1024;
constexpr auto kLiveLogRun = std::chrono::seconds(1);

struct Options {
    long rounds = 1000;
    long calibrations = 3;
    long rss_tolerance_kib = 1024;
};

// What the process holds at one moment.
struct Usage {
    int64_t descriptors = 0;
    int64_t threads = 0;
    int64_t resident_kib = 0;
    int64_t heap_bytes = 0;
};

int64_t entries(const char *folder)
{
    DIR *dir = opendir(folder);
    if (dir == nullptr)
        return -1;
    int64_t count = 0;
    while (const dirent *entry = readdir(dir))
        count += entry->d_name[0] != '.';
    closedir(dir);
    return count - (std::strcmp(folder, "/proc/self/fd") == 0); // the listing's own descriptor
}

Usage usage()
{
    Usage now;
    now.descriptors = entries("/proc/self/fd");
    now.threads = entries("/proc/self/task");
    std::ifstream status("/proc/self/status");
    for (std::string line; std::getline(status, line);)
        if (line.rfind("VmRSS:", 0) == 0)
            now.resident_kib = std::strtoll(line.c_str() + 6, nullptr, 10);
    now.heap_bytes = static_cast<int64_t>(mallinfo2().uordblks);
    return now;
}

// Results that differ from what a call should give, counted per call.
std::map<std::string, long> g_failures;

void expect(const char *call, bool good)
{
    if (!good)
        ++g_failures[call];
}

std::string g_dir;
bool g_log_stopped = false; // the live log has had its SIGINT
FILE *g_report = stdout;    // the real standard output while the library's chatter is discarded

// A short canonical WAV file: 10 ms of 48 kHz stereo 16-bit silence.
void write_short_wav(const std::string &path)
{
    constexpr uint32_t kFrames = 480, kRate = 48000, kChannels = 2, kBytesPerFrame = 4;
    constexpr uint32_t data_size = kFrames * kBytesPerFrame;
    std::string out;
    auto put = [&out](uint32_t value, int bytes) {
        for (int i = 0; i < bytes; ++i)
            out += static_cast<char>(value >> (8 * i));
    };
    out += "RIFF";
    put(36 + data_size, 4);
    out += "WAVEfmt ";
    put(16, 4);
    put(1, 2); // PCM
    put(kChannels, 2);
    put(kRate, 4);
    put(kRate * kBytesPerFrame, 4);
    put(kBytesPerFrame, 2);
    put(16, 2);
    out += "data";
    put(data_size, 4);
    out.append(data_size, '\0');
    std::ofstream(path, std::ios::binary) << out;
}

// A tuning block of `payload` words, sealed with the library's CRC.
std::string sealed_block(std::vector<uint32_t> payload)
{
    payload.insert(payload.begin(), static_cast<uint32_t>(payload.size() + 2));
    payload.push_back(0);
    payload.back() = crc32(payload.data());
    std::string text;
    for (uint32_t word : payload)
        text += (text.empty() ? "" : ",") + std::to_string(word);
    return text;
}

struct Files {
    std::string wav, rx_config, delta, params, values;
};

Files write_files()
{
    Files files{g_dir + "/soak-short.wav", g_dir + "/soak-rx.txt", g_dir + "/soak-delta.txt",
                g_dir + "/soak-params.txt", g_dir + "/soak-values.bin"};
    write_short_wav(files.wav);
    std::ofstream(files.rx_config) << "QORA_CONFIG_RX_LEFT " << sealed_block({1, 2, 3}) << "\n"
                                   << "QORA_CONFIG_RX_RIGHT " << sealed_block({4, 5, 6}) << "\n";
    std::ofstream(files.delta) << sealed_block({100, 200, 300}) << "\n"
                               << sealed_block({7}) << "\n";
    std::ofstream(files.params) << sealed_block({0xA1AF0D, 1, 2}) << "\n";
    return files;
}

void mixer_calls(const std::string &values_path)
{
    static constexpr tervox_mixer_path_entry amp_on[] = {
        {"T PCM Source", "DSP"},
        {"T AMP Enable Switch", "1"},
        {"B PCM Source", "DSP"},
        {"B AMP Enable Switch", "1"},
    };
    expect("tervox_apply_mixer_path", tervox_apply_mixer_path(amp_on, std::size(amp_on)) == 0);
    expect("tervox_calib_exit", tervox_calib_exit() == 0);
    tervox_cal_exit();

    struct mixer *mixer = mixer_open(0);
    expect("mixer_open", mixer != nullptr);
    if (mixer != nullptr) {
        expect("tervox_tmixer_set int", tervox_tmixer_set(mixer, "T DSP Mode", "0x1") == 0);
        expect("tervox_tmixer_set enum", tervox_tmixer_set(mixer, "B PCM Source", "DSP") == 0);
        expect("tervox_tmixer_set bytes",
               tervox_tmixer_set(mixer, "T DSP1 Protection 5f210 CH_BAL", "0 0 0x20 0") == 0);
        expect("tervox_tmixer_set tlv",
               tervox_tmixer_set(mixer, "T DSP1 Protection cd RTLOG_ENABLE", "0,0,0,1") == 0);
        expect("tervox_tmixer_set missing", tervox_tmixer_set(mixer, "No Such Control", "1") == 2);
        uint8_t bytes[64] = {};
        expect("tervox_tmixer_get", tervox_tmixer_get(mixer, "T DSP Mode", bytes) == 1);
        expect("tervox_tmixer_get bytes", tervox_tmixer_get(mixer, "Tervox SP Delta", bytes) == 64);
        tervox_dsp_tmixer_get(mixer, "T DSP1 Protection 5f210 CAL_R");
        mixer_close(mixer);
    }
    expect("tervox_tmixer_test", tervox_tmixer_test() == 0);

    uint32_t values[2] = {8400, 8500};
    uint32_t back[2] = {};
    expect("tervox_default_fwrite", tervox_default_fwrite(values, 2, values_path.c_str()) == 0);
    expect("tervox_default_fread",
           tervox_default_fread(back, 2, values_path.c_str()) == 0 && back[1] == values[1]);
    expect("tervox_ascii_fwrite", tervox_ascii_fwrite(values, 2, values_path.c_str()) == 0);
}

void storage_calls()
{
    uint32_t cal_r[2] = {9000, 9100};
    uint32_t f0[2] = {800, 810};
    uint32_t back[2] = {};
    expect("tervox_cal_fwrite", tervox_cal_fwrite(cal_r, 2) == 0);
    expect("tervox_cal_fread", tervox_cal_fread(back, 2) == 0 && back[0] == cal_r[0]);
    expect("tervox_f0_fwrite", tervox_f0_fwrite(f0, 2) == 0);
    expect("tervox_f0_fread", tervox_f0_fread(back, 2) == 0 && back[1] == f0[1]);
    expect("tervox_cal_fread_and_check", tervox_cal_fread_and_check() > 0); // printf's count
    expect("tervox_cal_slot_write", tervox_cal_slot_write(cal_r, 2) == 0);
    expect("tervox_cal_slot_read", tervox_cal_slot_read(back, 2) == 0 && back[1] == cal_r[1]);
    expect("tervox_cal_apply", tervox_cal_apply(cal_r, 2) == 0);

    uint32_t records[2][6] = {{1, 0, 9000, 2, 800, 0}, {1, 0, 9100, 2, 810, 0}};
    expect("tervox_cal_check", tervox_cal_check(&records[0][0], 2) == 0);
    expect("tervox_cal_diag_check", tervox_cal_diag_check(&records[0][0], 2) == 0);
    float ohms[2] = {};
    expect("tervox_cal_get_result", tervox_cal_get_result(ohms, 2) == 0);
    expect("tervox_cal_f0_get_result", tervox_cal_f0_get_result(f0, 2) == 0);
    char text[512];
    expect("tervox_cal_str_format_out", tervox_cal_str_format_out(text, sizeof text) >= 0);
}

void qdsp_calls(const Files &files)
{
    expect("tervox_qdsp_load_tuning", tervox_qdsp_load_tuning(files.rx_config.c_str()) == 0);
    expect("tervox_qdsp_delta_tuning", tervox_qdsp_delta_tuning(files.delta.c_str()) == 0);
    expect("tervox_qdsp_set_params", tervox_qdsp_set_params(files.params.c_str()) == 0);
    expect("tervox_qdsp_enable", tervox_qdsp_enable(1) == 0);
    expect("tervox_qdsp_channel_swap", tervox_qdsp_channel_swap(1) == 0);
    expect("tervox_qdsp_config_select", tervox_qdsp_config_select(nullptr, 0) == 0);
    expect("tervox_qdsp_channel_swap off", tervox_qdsp_channel_swap(0) == 0);
}

void register_calls()
{
    expect("tervox_log_reg_write", tervox_log_reg_write(0x2020, 8) == 0);
    expect("tervox_log_reg_read", tervox_log_reg_read(0x2020) == 0);
    expect("tervox_log_reg_update_bits", tervox_log_reg_update_bits(0x2020, 0xF, 0x9) == 0);
    if (g_log_stopped) {
        // SIGINT has ended the log and the monitor for this process: their stop path.
        static constexpr uint32_t regs[] = {0x2020, 0x4308};
        expect("tervox_regs_monitor", tervox_regs_monitor(regs, std::size(regs), 1) == 0);
        expect("tervox_prot_rtlog stopped", tervox_prot_rtlog(1) == 0);
    }
    expect("tervox_show_info", tervox_show_info() == 0);
    expect("tervox_dsp_bypass on", tervox_dsp_bypass("T", 1) == 0);
    expect("tervox_dsp_bypass off", tervox_dsp_bypass(nullptr, 0) == 0);
    expect("tervox_reload_firmware", tervox_reload_firmware() == 0);
    expect("tervox_boot_loader", tervox_boot_loader() == 0);
    expect("tervox_vesk_channel_swap", tervox_vesk_channel_swap(1) == 0);
    expect("tervox_channel_swap", tervox_channel_swap(0) == 0);
}

void playback_calls(tervox &ctx, const Files &files)
{
    const char *silent = ctx.silent_wav_path;
    ctx.silent_wav_path = files.wav.c_str();
    expect("tervox_tplay", tervox_tplay(&ctx) == 0);
    expect("tervox_agmplay", tervox_agmplay(&ctx) == 0);
    ctx.silent_wav_path = silent;
    expect("sample_is_playable", sample_is_playable(0, 0, 2, 48000, 16, 1024, 4) == 1);
    struct pcm_params *params = pcm_params_get(0, 0, PCM_OUT);
    expect("pcm_params_get", params != nullptr);
    if (params != nullptr) {
        expect("check_param", check_param(params, PCM_PARAM_RATE, 48000, "Sample rate", "Hz") == 1);
        pcm_params_free(params);
    }
}

void util_calls()
{
    str_builder *builder = str_builder_create(8);
    str_builder_add_str(builder, "CAL_R ", 0);
    str_builder_add_int(builder, -2889977, 16);
    str_builder_add_char(builder, ';');
    str_builder_truncate(builder, 10);
    str_builder_drop(builder, 2);
    uint64_t length = 0;
    char *dump = str_builder_dump(builder, &length);
    expect("str_builder_dump", dump != nullptr && length == str_builder_len(builder) &&
                                   std::strcmp(dump, str_builder_peek(builder)) == 0);
    std::free(dump);
    str_builder_clear(builder);
    str_builder_destroy(builder);
    char digits[40];
    expect("itoa", std::strcmp(itoa(-255, digits, 10), "-255") == 0);
    expect("sign_extend32", sign_extend32(0xFFFFFF, 23) == -1);
    expect("endian_flip", endian_flip(0x11223344) == 0x44332211);
}

// One round: a context of its own from init to deinit, and every cheap entry point.
void round(const Files &files)
{
    tervox ctx = {};
    expect("tervox_cal_init", tervox_cal_init(&ctx) == 0);
    mixer_calls(files.values);
    storage_calls();
    qdsp_calls(files);
    register_calls();
    playback_calls(ctx, files);
    util_calls();
    expect("tervox_cal_deinit", tervox_cal_deinit(&ctx) == 0);
}

// The calibrations of each kind: online, diagnostic, and the older sequence; and the engineering
// loop file, which also takes a while (0.5 s).
void calibrations(long count)
{
    for (long i = 0; i < count; ++i) {
        tervox ctx = {};
        tervox_cal_init(&ctx);
        expect("tervox_cal_run_calibration", tervox_cal_run_calibration() == 0);
        ctx.diag_mode = 1;
        expect("tervox_cal_run_diagnostic", tervox_cal_run_calibration() == 0);
        ctx.diag_mode = 0;
        expect("tervox_cal_calibration", tervox_cal_calibration() == 0);
        expect("tervox_tplay_test", tervox_tplay_test() == 0);
        tervox_cal_deinit(&ctx);
    }
}

// The live log at 1 ms until SIGINT, as a user ends it; returns the samples it wrote.
long live_log()
{
    tervox ctx = {};
    tervox_cal_init(&ctx);
    const pid_t self_pid = getpid();
    std::thread stopper([self_pid] {
        std::this_thread::sleep_for(kLiveLogRun);
        kill(self_pid, SIGINT);
    });
    expect("tervox_prot_rtlog", tervox_prot_rtlog(1) == 0);
    stopper.join();
    g_log_stopped = true;
    tervox_cal_deinit(&ctx);
    std::ifstream log(g_dir + "/phone/sdcard/Download/rtlog.txt");
    long samples = 0;
    for (std::string line; std::getline(log, line);)
        ++samples;
    return samples;
}

bool report_row(const char *name, int64_t before, int64_t after, int64_t tolerance)
{
    const bool good = after - before <= tolerance;
    std::fprintf(g_report, "%-16s %12" PRId64 " %12" PRId64 " %10" PRId64 " %10" PRId64 "  %s\n",
                 name, before, after, after - before, tolerance, good ? "ok" : "GREW");
    return good;
}

int soak(const Options &options)
{
    // The library prints every read, sample and play: keep only this program's report.
    std::fflush(nullptr);
    g_report = fdopen(dup(STDOUT_FILENO), "w");
    const int null = open("/dev/null", O_WRONLY);
    dup2(null, STDOUT_FILENO);
    dup2(null, STDERR_FILENO);
    close(null);

    const Files files = write_files();
    const auto start = std::chrono::steady_clock::now();
    round(files);
    calibrations(1);
    const long samples = live_log();
    round(files);
    const Usage before = usage();
    for (long i = 0; i < options.rounds; ++i)
        round(files);
    calibrations(options.calibrations);
    const Usage after = usage();
    const std::chrono::duration<double> elapsed = std::chrono::steady_clock::now() - start;

    std::fprintf(g_report,
                 "soak: %ld rounds, %ld calibrations of each kind, live log %ld samples, %.1f s\n",
                 options.rounds, options.calibrations, samples, elapsed.count());
    std::fprintf(g_report, "%-16s %12s %12s %10s %10s\n", "", "before", "after", "growth",
                 "tolerance");
    bool good = report_row("descriptors", before.descriptors, after.descriptors, 0);
    good &= report_row("threads", before.threads, after.threads, 0);
    good &= report_row("resident KiB", before.resident_kib, after.resident_kib,
                       options.rss_tolerance_kib);
    good &= report_row("heap bytes", before.heap_bytes, after.heap_bytes, kHeapToleranceBytes);
    for (const auto &[call, count] : g_failures)
        std::fprintf(g_report, "unexpected result: %s (%ld times)\n", call.c_str(), count);
    std::fflush(g_report);
    return good && g_failures.empty() ? 0 : 1;
}

// Runs this program inside a simulator folder of its own and removes the folder afterwards.
int in_own_simulator(char **argv)
{
    char dir[] = "/tmp/tvoxsp-soak-XXXXXX";
    if (mkdtemp(dir) == nullptr) {
        std::perror("soak: mkdtemp");
        return 1;
    }
    auto spawn = [](std::vector<const char *> args) {
        args.push_back(nullptr);
        pid_t pid = 0;
        int status = 0;
        if (posix_spawn(&pid, args[0], nullptr, nullptr, const_cast<char **>(args.data()),
                        environ) != 0 ||
            waitpid(pid, &status, 0) != pid)
            return 1;
        return WIFEXITED(status) ? WEXITSTATUS(status) : 1;
    };
    const std::string self = std::filesystem::read_symlink("/proc/self/exe");
    int status = spawn({TVOXSIM_TOOL, "init", dir});
    if (status == 0) {
        std::vector<const char *> args = {TVOXSIM_TOOL, "run", "--dir", dir, "--", self.c_str()};
        for (char **arg = argv + 1; *arg != nullptr; ++arg)
            args.push_back(*arg);
        status = spawn(args);
    }
    std::error_code ignored;
    std::filesystem::remove_all(dir, ignored);
    return status;
}

bool parse(int argc, char **argv, Options &options)
{
    for (int i = 1; i < argc; i += 2) {
        long *target = std::strcmp(argv[i], "--rounds") == 0          ? &options.rounds
                       : std::strcmp(argv[i], "--calibrations") == 0  ? &options.calibrations
                       : std::strcmp(argv[i], "--rss-tolerance") == 0 ? &options.rss_tolerance_kib
                                                                      : nullptr;
        char *end = nullptr;
        if (target == nullptr || i + 1 >= argc ||
            (*target = std::strtol(argv[i + 1], &end, 0), *end != '\0' || *target < 0)) {
            std::fprintf(stderr,
                         "soak: bad argument '%s'\nusage: soak [--rounds N] "
                         "[--calibrations N] [--rss-tolerance KIB]\n",
                         argv[i]);
            return false;
        }
    }
    return true;
}

} // namespace

int main(int argc, char **argv)
{
    Options options;
    if (!parse(argc, argv, options))
        return 2;
    const char *dir = std::getenv("TVOXSIM_DIR");
    if (dir == nullptr)
        return in_own_simulator(argv);
    g_dir = dir;
    return soak(options);
}
