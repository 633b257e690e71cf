// The live protection log: the firmware of every amplifier logs four variables, which are sampled
// with the amplifier's temperature register and active flag until SIGINT.
#include "mixer/control.h"
#include "mixer/mixer_handle.h"
#include "mixer/paths.h"
#include "regtools/registers.h"
#include "regtools/sampling.h"
#include "tvoxsp/regtools.h"
#include "tvoxsp/util.h"
#include "util/fatal.h"
#include "util/file_handle.h"
#include "util/text.h"

#include <cstdarg>
#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <ctime>
#include <sys/time.h>

namespace
{

constexpr const char *kLogPath = "/sdcard/Download/rtlog.txt";
constexpr int32_t kDataSize = 160;
constexpr std::size_t kLineSize = 128;
constexpr int32_t kRetries = 5;

// The amplifier register sampled beside the log (its low 12 bits), and the two bits that feed
// the firmware's log: bit 3 of 0x2020 and bit 10 of 0x2018.
constexpr uint32_t kSampledRegister = 0x4308;
constexpr uint32_t kSampledMask = 0xFFF;
constexpr uint32_t kFeedRegister = 0x2020;
constexpr uint32_t kFeedBit = 0x8;
constexpr uint32_t kLogRegister = 0x2018;
constexpr uint32_t kLogBit = 0x400;

// Scales of the logged variables (24-bit words, bit 23 the sign).
constexpr double kScale14 = 1.0 / (1 << 14);
constexpr double kScale19 = 1.0 / (1 << 19);
constexpr double kScale23 = 1.0 / (1 << 23);

tervox_rtlog_channel &record(int32_t channel)
{
    return tvox::checked_at(self->rtlog, static_cast<std::size_t>(channel));
}

const char *control(int32_t channel, tervox_ctl_id id)
{
    return tvox::checked_at(self->set_ctls, static_cast<std::size_t>(channel))[id];
}

void free_buffers(tervox_rtlog_channel &r)
{
    std::free(r.data);
    std::free(r.line);
    r.data = nullptr;
    r.line = nullptr;
}

// Fresh records with all maxima at 0. Buffers a failed run left behind are released first.
// False when memory runs out: no record then keeps a buffer.
bool reset_records()
{
    for (int32_t i = 0; i < self->num_channels; ++i) {
        tervox_rtlog_channel &r = record(i);
        free_buffers(r);
        r = tervox_rtlog_channel{};
        r.data_size = kDataSize;
        r.data = static_cast<uint8_t *>(std::calloc(kDataSize, 1));
        r.line = static_cast<char *>(std::calloc(kLineSize, 1));
        if (r.data == nullptr || r.line == nullptr) {
            for (int32_t j = 0; j <= i; ++j)
                free_buffers(record(j));
            return false;
        }
    }
    return true;
}

uint32_t data_word(const tervox_rtlog_channel &r, std::size_t word)
{
    uint32_t value = 0;
    for (std::size_t i = word * 4; i < word * 4 + 4; ++i)
        value = value << 8 | r.data[i];
    return value;
}

double logged(const tervox_rtlog_channel &r, std::size_t word)
{
    return sign_extend32(data_word(r, word), 23);
}

void decode(tervox_rtlog_channel &r)
{
    r.var1 = logged(r, 1) * kScale14;
    const double var2 = logged(r, 3) * kScale19;
    r.var3_raw = logged(r, 5);
    r.var4_raw = logged(r, 7);
    const double var3 = r.var3_raw * kScale19;
    const double var4 = r.var4_raw * kScale23;
    r.combined = var4 + var2 * var3;
    if (r.var1 > r.var1_max)
        r.var1_max = r.var1;
    if (r.combined > r.combined_max)
        r.combined_max = r.combined;
}

void format_line(tervox_rtlog_channel &r)
{
    std::memset(r.line, 0, kLineSize);
    std::snprintf(r.line, kLineSize, "%.2f, %.2f, %.4f, %.4f, %3d, %3d, %s", r.var1, r.var1_max,
                  r.combined, r.combined_max, static_cast<int>(r.reg_now),
                  static_cast<int>(r.reg_max), r.active != 0 ? "Y" : "N");
}

// Sets `bit` of `reg` when it is clear; nothing is read back or printed.
void assert_bit(struct mixer *mixer, const char *regs, uint32_t reg, uint32_t bit)
{
    const uint32_t old = tvox::regs::read_register(mixer, regs, reg);
    if ((old | bit) != old)
        tvox::regs::write_register(mixer, regs, reg, old | bit);
}

void sample_channel(struct mixer *mixer, int32_t channel)
{
    tervox_rtlog_channel &r = record(channel);
    const char *regs = control(channel, CTL_AMP_WR_REGISTERS);

    r.reg_now = static_cast<int32_t>(tvox::regs::read_register(mixer, regs, kSampledRegister) &
                                     kSampledMask);
    if (r.reg_now > r.reg_max)
        r.reg_max = r.reg_now;

    // The amplifier drops the log feed when it changes state: set the bits again.
    tvox::read_control(mixer, control(channel, CTL_AMP_ACTIVE_STATUS), &r.active, sizeof r.active);
    if (r.active != r.active_prev) {
        r.active_prev = r.active;
        assert_bit(mixer, regs, kFeedRegister, kFeedBit);
        assert_bit(mixer, regs, kLogRegister, kLogBit);
    }

    for (int32_t retry = kRetries;; --retry) {
        const int32_t ret = tvox::read_control(mixer, control(channel, CTL_RTLOG_STATE), r.data,
                                               static_cast<std::size_t>(kDataSize));
        if (ret >= 0) {
            tvox::read_control(mixer, control(channel, CTL_RTLOG_DATA), r.data,
                               static_cast<std::size_t>(kDataSize));
            decode(r);
            format_line(r);
            return;
        }
        std::printf("ret = %d, retry: %d\n", static_cast<int>(ret), static_cast<int>(retry));
        // A busy log reads as a zero state word; anything else will not get better.
        if (data_word(r, 0) != 0 || retry == 0)
            return;
    }
}

// The same text in the log file and on standard output.
__attribute__((format(printf, 2, 3))) void print_both(std::FILE *file, const char *fmt, ...)
{
    va_list args;
    va_start(args, fmt);
    va_list copy;
    va_copy(copy, args);
    std::vfprintf(file, fmt, args);
    std::vprintf(fmt, copy);
    va_end(copy);
    va_end(args);
}

void print_sample(std::FILE *file)
{
    timeval now{};
    gettimeofday(&now, nullptr);
    tm local{};
    localtime_r(&now.tv_sec, &local);
    char stamp[40];
    std::strftime(stamp, sizeof stamp, "%Y-%m-%d %H:%M:%S", &local);
    print_both(file, "%s.%03ld  ", stamp, static_cast<long>(now.tv_usec / 1000));
}

// Samples until SIGINT; the exit word of the run.
const char *run(const tvox::regs::SamplingLoop &loop, struct mixer *mixer, std::FILE *file,
                const timespec &period)
{
    if (tvox::apply_path(tvox::rtlog_setup_path) != 0)
        return "Failed";
    tervox_log_reg_update_bits(kFeedRegister, kFeedBit, kFeedBit);
    tervox_log_reg_update_bits(kLogRegister, kLogBit, kLogBit);

    while (!tvox::regs::stop_requested()) {
        if (tvox::apply_path(tvox::rtlog_state_clear_path) != 0)
            return "Failed";
        print_sample(file);
        for (int32_t i = 0; i < self->num_channels; ++i)
            sample_channel(mixer, i);
        for (int32_t i = 0; i < self->num_channels; ++i) {
            const char *name = tvox::checked_at(self->channel_name, static_cast<std::size_t>(i));
            print_both(file, " %s: %s  ", tvox::printable(name), tvox::printable(record(i).line));
        }
        print_both(file, "\n");
        // Each sample is visible at once, to a pipe or a tail of the file as well.
        std::fflush(stdout);
        std::fflush(file);
        loop.sleep(period);
    }
    if (tvox::apply_path(tvox::rtlog_stop_path) != 0)
        return "Failed";
    for (int32_t i = 0; i < self->num_channels; ++i)
        free_buffers(record(i));
    return "OK";
}

} // namespace

extern "C" int32_t tervox_prot_rtlog(int32_t interval_ms)
{
    const tvox::MixerHandle mixer = tvox::open_mixer();
    std::printf("rtlog enter\n");
    if (!mixer) {
        std::fprintf(stderr, "%s: can't open mixer\n", __func__);
        return 1;
    }
    const tvox::regs::SamplingLoop loop;
    if (!tvox::regs::catch_sigint())
        return 1;
    const tvox::FileHandle file(std::fopen(kLogPath, "we"));
    if (!file) {
        std::fprintf(stderr, "can't open %s \n", kLogPath);
        return -1;
    }
    const timespec period = tvox::regs::sampling_period(interval_ms);
    // Without its buffers the log cannot run: refused like a file that does not open.
    if (!reset_records())
        return -1;
    std::printf("rtlog exit - %s\n", run(loop, mixer.get(), file.get(), period));
    return 0;
}
