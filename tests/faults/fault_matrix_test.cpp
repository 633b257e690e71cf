// The fault matrix: each row puts one fault in the way of one exported entry point on the virtual
// pair and states the whole outcome: the result, what reaches standard output, standard error and
// the Android log, and what the persist folder holds afterwards. Every row also shows that the
// call leaves no descriptor and no thread behind (LeakSanitizer covers memory in the sanitized
// suite) and, where nothing is to be written, that the persist folder is exactly as it was.
#include "calibration/context_fixture.h"
#include "support/mixer.h"
#include "support/permission_bits.h"
#include "support/process.h"

#include <fcntl.h>
#include <signal.h>
#include <sys/stat.h>
#include <sys/wait.h>

#include <algorithm>
#include <array>
#include <functional>
#include <map>
#include <optional>

namespace
{

using tvox::test::LogCapture;
using tvox::test::open_descriptors;
using tvox::test::PermissionBits;
using tvox::test::read_file;
using tvox::test::running_threads;
using tvox::test::StreamCapture;
using tvox::test::words_bytes;
using tvox::test::write_file;

// Expected text of a stream: exactly this, containing it (for runs whose length varies), or
// ending with "shutdown" and this exit line, a sample taken when the signal landed between them.
struct Text {
    enum class Match { whole, part, stop } match;
    std::string text;
};
Text exactly(std::string text)
{
    return {Text::Match::whole, std::move(text)};
}
Text containing(std::string text)
{
    return {Text::Match::part, std::move(text)};
}
Text stopping_with(std::string exit_line)
{
    return {Text::Match::stop, std::move(exit_line)};
}

bool stopped_with(const std::string &got, const std::string &exit_line)
{
    const size_t at = got.rfind("shutdown\n");
    if (at == std::string::npos || !got.ends_with(exit_line))
        return false;
    const auto between = std::string_view(got).substr(at, got.size() - at - exit_line.size());
    return std::count(between.begin(), between.end(), '\n') <= 2;
}

constexpr char kPersist[] = "/mnt/vendor/persist/audio/";
constexpr char kDevice[] = "/dev/msm_tervox_playback";
constexpr char kBackend[] = "TDM-LPAIF-RX-SECONDARY";

std::string persist(const std::string &name)
{
    return kPersist + name;
}

using Files = std::map<std::string, std::string>;

class FaultMatrixTest;

struct Row {
    std::string name;
    std::function<void(FaultMatrixTest &)> arrange;
    std::function<int32_t(FaultMatrixTest &)> act;
    int32_t result;
    Text out;
    Text err;
    std::string log; // an Android log line the fault gives; empty: not checked
    // What the persist folder holds afterwards; none: exactly what it held before.
    std::optional<Files> persist = std::nullopt;
    std::function<void(FaultMatrixTest &)> verify = {};
};

void PrintTo(const Row &row, std::ostream *os)
{
    *os << row.name;
}

class FaultMatrixTest : public tvox::test::SimContextTest, public ::testing::WithParamInterface<Row>
{
  public:
    FaultMatrixTest() { temp_files_ = false; }

    void SetUp() override
    {
        SimContextTest::SetUp();
        install_phone();
        // The virtual driver keeps the simulator's state open for the rest of the process once
        // the device is first opened, as a kernel keeps its driver loaded: open it once here so
        // that the rows count only what the library leaves behind.
        close(open(kDevice, O_RDWR));
        write_file(phone(persist("tvox_calr.bin")), words_bytes({8391, 8392}));
        write_file(phone(persist("tvox_calr.txt")),
                   "CH[0] T : 8391 (6.00)\nCH[1] B : 8392 (6.00)\n");
    }

    Files persist_files() const
    {
        Files files;
        std::error_code ec;
        for (const auto &entry : std::filesystem::directory_iterator(phone(kPersist), ec))
            files[entry.path().filename().string()] = read_file(entry.path());
        return files;
    }

    void simulator(const std::string &arguments)
    {
        const tvox::test::CommandResult result = tool(arguments);
        ASSERT_EQ(result.status, 0) << arguments << ": " << result.output;
    }

    std::optional<tvox::sim::PcmRecord> stream(int card, int device)
    {
        tvox::sim::Session session = state().lock();
        const tvox::sim::PcmRecord *record = session.stream(card, device, false);
        return record ? std::optional(*record) : std::nullopt;
    }
    bool running(int card, int device)
    {
        const auto record = stream(card, device);
        return record && record->running;
    }
    // Waits (at most 5 s) until the sink plays on card, device.
    bool wait_running(int card, int device)
    {
        for (int i = 0; i < 500 && !running(card, device); ++i)
            std::this_thread::sleep_for(std::chrono::milliseconds(10));
        return running(card, device);
    }

    // Lines of the simulator's journal that start with prefix.
    std::vector<std::string> journal(const std::string &prefix)
    {
        std::vector<std::string> lines;
        for (auto &line : journal_lines())
            if (line.starts_with(prefix))
                lines.push_back(line);
        return lines;
    }

    struct tervox &context() { return ctx_; }
    // Gives channel `channel` a table of written controls in which control `id` does not exist.
    void rename_set_control(unsigned channel, tervox_ctl_id id, const char *missing)
    {
        std::copy_n(ctx_.set_ctls[channel], TERVOX_NUM_CTLS, renamed_.begin());
        renamed_[id] = missing;
        ctx_.set_ctls[channel] = renamed_.data();
    }
    // The file the context's players play from now on.
    void play_file(std::string path)
    {
        wav_path_ = std::move(path);
        ctx_.silent_wav_path = wav_path_.c_str();
    }

    // A WAV header of 48 kHz stereo 16-bit samples claiming `claimed` data bytes, followed by
    // `present` bytes of silence.
    std::string wav(const std::string &name, uint32_t claimed, uint32_t present) const
    {
        const auto u32 = [](uint32_t v) { return std::string(reinterpret_cast<char *>(&v), 4); };
        const auto u16 = [](uint16_t v) { return std::string(reinterpret_cast<char *>(&v), 2); };
        const std::string text = "RIFF" + u32(36 + claimed) + "WAVEfmt " + u32(16) + u16(1) +
                                 u16(2) + u32(48000) + u32(48000 * 4) + u16(4) + u16(16) + "data" +
                                 u32(claimed) + std::string(present, '\0');
        return folder_file(name, text);
    }

    // The row's card is gone: tinyalsa maps it onto an ALSA device that does not exist.
    static void remove_card(int card)
    {
        setenv(("TINYALSA_CARD_" + std::to_string(card)).c_str(), "tvoxsp_faults_no_card", 1);
    }

    // Sends SIGINT to this process once the sink plays on card, device (or after delay).
    void interrupt_when_playing(int card, int device)
    {
        interrupter_ = std::thread([this, card, device] {
            if (card >= 0)
                wait_running(card, device);
            std::this_thread::sleep_for(std::chrono::milliseconds(300));
            kill(getpid(), SIGINT);
        });
    }
    void join_interrupter()
    {
        if (interrupter_.joinable())
            interrupter_.join();
    }

    // A calibration or diagnostic run as the HAL starts it; waits for the playback thread it
    // leaves behind (which ends when the silent file has played) so that it is not counted.
    int32_t calibration_run(bool diagnostic)
    {
        const size_t threads = running_threads();
        ctx_.diag_mode = diagnostic ? 1 : 0;
        const int32_t result = tervox_cal_run_calibration();
        for (int i = 0; i < 500 && running_threads() > threads; ++i)
            std::this_thread::sleep_for(std::chrono::milliseconds(10));
        return result;
    }

    using SimContextTest::set_speaker_raw;
    using SimTest::bytes;
    using SimTest::enum_item;
    using SimTest::folder_file;
    using SimTest::install_phone;
    using SimTest::int_values;
    using SimTest::phone;
    using SimTest::preset_enum;
    using SimTest::sim_dir;
    using SimTest::tool;

  private:
    std::thread interrupter_;
    std::string wav_path_;
    std::array<const char *, TERVOX_NUM_CTLS> renamed_{};
};

TEST_P(FaultMatrixTest, OutcomeAndNothingLeftBehind)
{
    const Row &row = GetParam();
    if (row.arrange)
        row.arrange(*this);
    if (HasFatalFailure())
        return;
    const Files before = persist_files();
    const size_t descriptors = open_descriptors();
    const size_t threads = running_threads();

    int32_t result = 0;
    std::string out, err;
    LogCapture log;
    {
        StreamCapture out_capture(1), err_capture(2);
        result = row.act(*this);
        join_interrupter();
        out = out_capture.text();
        err = err_capture.text();
    }

    EXPECT_EQ(result, row.result);
    for (const auto &[expected, got, stream] : {std::tuple(row.out, out, "standard output"),
                                                std::tuple(row.err, err, "standard error")}) {
        switch (expected.match) {
        case Text::Match::whole:
            EXPECT_EQ(got, expected.text) << stream;
            break;
        case Text::Match::part:
            EXPECT_NE(got.find(expected.text), std::string::npos) << stream << ": " << got;
            break;
        case Text::Match::stop:
            EXPECT_TRUE(stopped_with(got, expected.text)) << stream << ": " << got;
            break;
        }
    }
    if (!row.log.empty()) {
        EXPECT_TRUE(log.contains(row.log)) << row.log;
    }
    EXPECT_EQ(persist_files(), row.persist.value_or(before));
    EXPECT_EQ(open_descriptors(), descriptors) << "descriptors left open";
    EXPECT_EQ(running_threads(), threads) << "threads left running";
    if (row.verify)
        row.verify(*this);
}

// Rows that need a mixer of card 0 open around the call.
int32_t with_mixer(const std::function<int32_t(mixer *)> &body)
{
    tvox::test::Mixer mixer(mixer_open(0));
    return mixer ? body(mixer.get()) : -1000;
}

int32_t cal_values_write(uint32_t first, uint32_t second)
{
    uint32_t values[2] = {first, second};
    return tervox_cal_fwrite(values, 2);
}

constexpr char kGoodBlock[] = "5,100,200,300,4292077319\n";

const std::string kBackendLine = "Backend TDM-LPAIF-RX-SECONDARY rate ch bit : 48000, 2, 32\n";

void nothing_played(FaultMatrixTest &t)
{
    EXPECT_FALSE(t.stream(0, 0));
    EXPECT_FALSE(t.stream(100, 100));
    EXPECT_EQ(t.journal("ctl 100"), std::vector<std::string>{});
}

// A live log that ends "Failed" leaves its sample buffers in the context record: the next run
// releases them, tervox_cal_deinit does not. The row hands them back itself.
void released_log_buffers(FaultMatrixTest &t)
{
    for (tervox_rtlog_channel &r : std::span(t.context().rtlog, 2)) {
        EXPECT_NE(r.data, nullptr);
        EXPECT_NE(r.line, nullptr);
        std::free(r.data);
        std::free(r.line);
        r.data = nullptr;
        r.line = nullptr;
    }
}

const Files kCalibrated = {{"tvox_calr.bin", words_bytes({8391, 8392})},
                           {"tvox_calr.txt", "CH[0] T : 8391 (6.00)\nCH[1] B : 8392 (6.00)\n"}};

std::vector<Row> card_rows()
{
    const auto no_card0 = [](FaultMatrixTest &) { FaultMatrixTest::remove_card(0); };
    const auto no_card100 = [](FaultMatrixTest &) { FaultMatrixTest::remove_card(100); };
    return {
        {"Card0MissingApplyPath", no_card0,
         [](FaultMatrixTest &) {
             const tervox_mixer_path_entry path[] = {{"T AMP Enable Switch", "1"}};
             return tervox_apply_mixer_path(path, 1);
         },
         -22, exactly(""), exactly(""), "Failed to open mixer\n"},
        {"Card0MissingMixerTest", no_card0, [](FaultMatrixTest &) { return tervox_tmixer_test(); },
         19, exactly(""), exactly("Failed to open mixer\n"), ""},
        {"Card0MissingCalApply", no_card0,
         [](FaultMatrixTest &) {
             uint32_t values[2] = {8000, 8000};
             return tervox_cal_apply(values, 2);
         },
         -22, exactly(""), exactly(""), "tervox_cal_apply: Failed to open mixer\n"},
        {"Card0MissingQdspChannelSwap", no_card0,
         [](FaultMatrixTest &) { return tervox_qdsp_channel_swap(1); }, -22, exactly(""),
         exactly(""), "tervox_qdsp_channel_swap: Failed to open mixer\n"},
        {"Card0MissingDspChannelSwap", no_card0,
         [](FaultMatrixTest &) { return tervox_vesk_channel_swap(1); }, -22, exactly(""),
         exactly(""), "tervox_vesk_channel_swap: Failed to open mixer\n"},
        {"Card0MissingRegisterRead", no_card0,
         [](FaultMatrixTest &) { return tervox_log_reg_read(0x2020); }, 1, exactly(""),
         exactly("tervox_log_reg_read: can't open mixer\n"), ""},
        {"Card0MissingLiveLog", no_card0, [](FaultMatrixTest &) { return tervox_prot_rtlog(50); },
         1, exactly("rtlog enter\n"), exactly("tervox_prot_rtlog: can't open mixer\n"), ""},
        {"Card0MissingRegisterUpdate", no_card0,
         [](FaultMatrixTest &) { return tervox_log_reg_update_bits(0x2020, 8, 8); }, 1, exactly(""),
         exactly("tervox_log_reg_update_bits: can't open mixer\n"), ""},
        // A failing read does not stop the monitor: it reads on until SIGINT, then says so.
        {"Card0MissingMonitor", no_card0,
         [](FaultMatrixTest &t) {
             t.interrupt_when_playing(-1, -1);
             const uint32_t regs[] = {0x2020};
             return tervox_regs_monitor(regs, 1, 50);
         },
         0, stopping_with("monitor registers exit - Failed\n"),
         containing("tervox_log_reg_read: can't open mixer\n"), ""},
        // Switching one amplifier uses the mixer handle untested: no card, no control.
        {"Card0MissingDspBypassChannel", no_card0,
         [](FaultMatrixTest &) { return tervox_dsp_bypass("T", 1); }, 2, containing(" =? "),
         exactly("Invalid mixer control: T PCM Source\n"), ""},
        {"Card0MissingBootLoader", no_card0, [](FaultMatrixTest &) { return tervox_boot_loader(); },
         -22, exactly(""), exactly(""), "Failed to open mixer\n"},
        {"Card0MissingReload", no_card0, [](FaultMatrixTest &) { return tervox_reload_firmware(); },
         -22, exactly(""), exactly(""), "Failed to open mixer\n"},
        {"Card0MissingWavPlayback", no_card0,
         [](FaultMatrixTest &t) { return tervox_tplay(&t.context()); }, 0, exactly(""),
         exactly("Unable to open PCM device 0.\n"), "", std::nullopt,
         [](FaultMatrixTest &t) { EXPECT_FALSE(t.stream(0, 0)); }},
        {"Card0MissingConfigSelect", no_card0,
         [](FaultMatrixTest &) { return tervox_qdsp_config_select(nullptr, 0); }, -22, exactly(""),
         exactly(""), "tervox_qdsp_config_select: Failed to open mixer\n"},
        {"Card0MissingTestPlayback", no_card0,
         [](FaultMatrixTest &) { return tervox_tplay_test(); }, -22,
         exactly("tervox_tplay_test: Failed to open mixer\n"), exactly(""), ""},
        // The playback thread plays on card 100 all the same; the readout finds no card 0.
        {"Card0MissingCalibration", no_card0,
         [](FaultMatrixTest &t) { return t.calibration_run(false); }, -22, exactly(kBackendLine),
         exactly(""), "mixer_read_cal_values: Failed to open mixer\n"},
        {"Card0MissingDiagnostic", no_card0,
         [](FaultMatrixTest &t) { return t.calibration_run(true); }, -22, exactly(""), exactly(""),
         "tervox_cal_run_calibration: Tried -1 times, ret = -22, state = 0\n", std::nullopt,
         nothing_played},
        // Without the silent playback the firmware measures nothing: both channels fail.
        {"Card100MissingCalibration", no_card100,
         [](FaultMatrixTest &t) { return t.calibration_run(false); }, 8,
         exactly("Failed to open mixer\n"), exactly(""),
         "tervox_cal_check: Channel[1] CAL_R = 8391, STATUS = 0, Failed!\n", std::nullopt,
         [](FaultMatrixTest &t) {
             EXPECT_EQ(t.int_values(0, "T DSP Mode"), std::vector<long>{1});
             EXPECT_EQ(t.int_values(0, "B AMP Enable Switch"), std::vector<long>{0});
         }},
        {"Card100MissingDiagnostic", no_card100,
         [](FaultMatrixTest &t) { return t.calibration_run(true); }, 8,
         exactly("Failed to open mixer\n"), exactly(""),
         "tervox_cal_diag_check:channel[1] f0 = 0, Failed!\n"},
        {"Card100MissingGraphPlayback", no_card100,
         [](FaultMatrixTest &t) { return tervox_agmplay(&t.context()); }, 0,
         exactly("Failed to open mixer\n"), exactly(""), "", std::nullopt,
         [](FaultMatrixTest &t) { EXPECT_FALSE(t.stream(100, 100)); }},
    };
}

std::vector<Row> control_rows()
{
    // A control fault of the virtual card, on speakers whose CAL_R reads 8500 and 8600.
    const auto control = [](std::string fault) {
        return [fault](FaultMatrixTest &t) {
            t.simulator("control " + fault);
            t.set_speaker_raw(0, 8500);
            t.set_speaker_raw(1, 8600);
        };
    };
    // Register 0x2020 holds 5 on both amplifiers, then a control fault.
    const auto register_then = [control](std::string fault) {
        return [control, fault](FaultMatrixTest &t) {
            tervox_log_reg_write(0x2020, 5);
            control(fault)(t);
        };
    };
    const auto cal_r_kept = [](FaultMatrixTest &t) {
        EXPECT_EQ(t.int_values(0, "T DSP Set CAL_R"), std::vector<long>{8391});
        EXPECT_EQ(t.int_values(0, "B DSP Set CAL_R"), std::vector<long>{8391});
    };
    const auto ambient_kept = [](FaultMatrixTest &t) {
        EXPECT_EQ(t.int_values(0, "T DSP Set CAL_AMBIENT"), std::vector<long>{25});
    };
    // The setter on card 0 with this control and value text.
    const auto setting = [](const char *control, const char *text) {
        return [control, text](FaultMatrixTest &) {
            return with_mixer([&](mixer *m) { return tervox_tmixer_set(m, control, text); });
        };
    };
    return {
        {"ControlMissingSet",
         {},
         setting("T No Such Control", "1"),
         2,
         exactly(""),
         exactly("Invalid mixer control: T No Such Control\n"),
         ""},
        {"ControlMissingGet",
         {},
         [](FaultMatrixTest &) {
             return with_mixer([](mixer *m) {
                 int32_t value = 7;
                 return tervox_tmixer_get(m, "T No Such Control", &value) + (value == 7 ? 0 : 100);
             });
         },
         0,
         exactly("Get 'T No Such Control' Failed\n"),
         exactly("Invalid mixer control: T No Such Control\n"),
         ""},
        {"ValueRefusedOutOfRange",
         {},
         setting("T DSP Set CAL_AMBIENT", "200"),
         22,
         exactly(""),
         exactly("Error: invalid value\n"),
         "",
         std::nullopt,
         ambient_kept},
        {"ValueRefusedEnumItem",
         {},
         setting("Tervox SP Channel Swap", "XY"),
         22,
         exactly(""),
         exactly("Error: invalid enum value\n"),
         ""},
        {"ValueRefusedByte",
         {},
         setting("T AMP WR Registers", "1 256"),
         -1,
         exactly(""),
         exactly("256 should be between [0, 0xff]\n"),
         ""},
        {"ValueRefusedByteCount",
         {},
         setting("T AMP WR Registers", "0 1 2 3 4 5 6 7 8 9 10 11 12"),
         -1,
         exactly(""),
         exactly("Failed to set binary control\n"),
         ""},
        // Only the last channel's result reaches the caller; channel 0 is applied all the same.
        {"ControlMissingCalApply",
         [](FaultMatrixTest &t) { t.rename_set_control(1, CTL_SET_CAL_R, "B No Such CAL_R"); },
         [](FaultMatrixTest &) {
             uint32_t values[2] = {8000, 8100};
             return tervox_cal_apply(values, 2);
         },
         2, exactly(""), exactly("Invalid mixer control: B No Such CAL_R\n"),
         "Channel[1] CAL_R = 8100, Applying failed!\n", std::nullopt,
         [](FaultMatrixTest &t) {
             EXPECT_EQ(t.int_values(0, "T DSP Set CAL_R"), std::vector<long>{8000});
             EXPECT_EQ(t.int_values(0, "B DSP Set CAL_R"), std::vector<long>{8391});
         }},
        // A control the readout needs is missing: the reader's stand-in value is out of range.
        {"ControlMissingCalibration", control("remove \"T DSP Get CAL_R\""),
         [](FaultMatrixTest &t) { return t.calibration_run(false); }, 16,
         exactly(kBackendLine + "Get 'T DSP Get CAL_R' Failed\n"),
         exactly("Invalid mixer control: T DSP Get CAL_R\n"),
         "tervox_cal_check: Channel[0] CAL_R = -5636096, out of range[8000 - 12000]!\n",
         std::nullopt, cal_r_kept},
        // Storing does not depend on applying: the files take the measured values even though
        // the top DSP refuses its CAL_R.
        {"ValueRefusedCalibration", control("refuse \"T DSP Set CAL_R\""),
         [](FaultMatrixTest &t) { return t.calibration_run(false); }, 0, exactly(kBackendLine),
         exactly("Error: invalid value\n"), "Channel[0] CAL_R = 8500, Applying failed!\n",
         Files{{"tvox_calr.bin", words_bytes({8500, 8600})},
               {"tvox_calr.txt", "CH[0] T : 8500 (6.08)\nCH[1] B : 8600 (6.15)\n"}},
         [](FaultMatrixTest &t) {
             EXPECT_EQ(t.int_values(0, "T DSP Set CAL_R"), std::vector<long>{8391});
             EXPECT_EQ(t.int_values(0, "B DSP Set CAL_R"), std::vector<long>{8600});
         }},
        {"ControlMissingDiagnostic", control("remove \"B Protection 5f210 DIAG_F0_STATUS\""),
         [](FaultMatrixTest &t) { return t.calibration_run(true); }, 4,
         exactly(kBackendLine + "Get 'B Protection 5f210 DIAG_F0_STATUS' Failed\n"),
         exactly("Invalid mixer control: B Protection 5f210 DIAG_F0_STATUS\n"),
         "tervox_cal_diag_check:channel[1] f0 = 800, Failed!\n", std::nullopt, cal_r_kept},
        // The first step of the diagnostic fails, and so does switching the amplifiers off.
        {"ValueRefusedDiagnostic", control("refuse \"T PCM Source\""),
         [](FaultMatrixTest &t) { return t.calibration_run(true); }, 22, exactly(""),
         exactly("Error: invalid enum value\nError: invalid enum value\n"),
         "tervox_apply_mixer_path: 'T PCM Source' <== 'Zero' failed\n", std::nullopt,
         nothing_played},
        // The register tools go on without the bottom mailbox and print 0 for it.
        {"ControlMissingRegisterRead", register_then("remove \"B AMP WR Registers\""),
         [](FaultMatrixTest &) { return tervox_log_reg_read(0x2020); }, 0,
         exactly("Get 'B AMP WR Registers' Failed\n"),
         exactly("Invalid mixer control: B AMP WR Registers\n"
                 "Invalid mixer control: B AMP WR Registers\n"
                 "read : 0x2020 -- T: 0x00000005, B: 0x00000000,  \n"),
         ""},
        {"ValueRefusedRegisterWrite", register_then("refuse \"T AMP WR Registers\""),
         [](FaultMatrixTest &) { return tervox_log_reg_write(0x2020, 0x10); }, 0, exactly(""),
         exactly("Failed to set binary control\nFailed to set binary control\n"
                 "write : 0x2020 -- T: 0x00000005, B: 0x00000010,  \n"),
         ""},
        // The sampling loop stops at its first step, logging left enabled.
        {"ControlMissingLiveLog", control("remove \"B DSP1 Protection cd RTLOG_STATE\""),
         [](FaultMatrixTest &) { return tervox_prot_rtlog(50); }, 0,
         exactly("rtlog enter\nrtlog exit - Failed\n"),
         exactly("update bits : 0x2020 -- T: 0x00000008, B: 0x00000008,  \n"
                 "update bits : 0x2018 -- T: 0x00000400, B: 0x00000400,  \n"
                 "Invalid mixer control: B DSP1 Protection cd RTLOG_STATE\n"),
         "", std::nullopt, released_log_buffers},
        // The pairs before the refused one stay applied.
        {"ValueRefusedBootLoader", control("refuse \"B DSP1 Boot Switch\""),
         [](FaultMatrixTest &) { return tervox_boot_loader(); }, 22, exactly(""),
         exactly("Error: invalid value\n"),
         "tervox_apply_mixer_path: 'B DSP1 Boot Switch' <== '1' failed\n", std::nullopt,
         [](FaultMatrixTest &t) {
             EXPECT_EQ(t.int_values(0, "T DSP1 Boot Switch"), std::vector<long>{1});
             EXPECT_EQ(t.int_values(0, "B DSP1 Preload Switch"), std::vector<long>{1});
             EXPECT_EQ(t.int_values(0, "B DSP1 Boot Switch"), std::vector<long>{0});
         }},
        {"ControlMissingDspBypass", control("remove \"B PCM Source\""),
         [](FaultMatrixTest &) { return tervox_dsp_bypass("", 1); }, 2, containing(" =? "),
         exactly("Invalid mixer control: B PCM Source\n"), "", std::nullopt,
         [](FaultMatrixTest &t) { EXPECT_EQ(t.enum_item(0, "T PCM Source"), "ASPRX1"); }},
        {"ValueRefusedChannelSwap", control("refuse \"T DSP1 Protection 5f210 CH_BAL\""),
         [](FaultMatrixTest &) { return tervox_vesk_channel_swap(1); }, 0, exactly(""),
         exactly("Failed to set binary control\n"), "", std::nullopt,
         [](FaultMatrixTest &t) {
             EXPECT_EQ(t.bytes(0, "T DSP1 Protection 5f210 CH_BAL"), std::vector<uint8_t>(4, 0));
             EXPECT_EQ(t.bytes(0, "B DSP1 Protection 5f210 CH_BAL"), std::vector<uint8_t>(4, 0));
         }},
        {"ValueRefusedGraphPlayback", control("refuse \"PCM100 connect\""),
         [](FaultMatrixTest &t) { return tervox_agmplay(&t.context()); }, 0,
         exactly(kBackendLine + "Failed to connect pcm to audio interface\n"), exactly(""), "",
         std::nullopt, [](FaultMatrixTest &t) { EXPECT_FALSE(t.stream(100, 100)); }},
        // The live log's controls refuse writes while another firmware runs on the top DSP.
        {"ValueRefusedLiveLog",
         [](FaultMatrixTest &t) { t.preset_enum(0, "T DSP1 Firmware", "Calibration"); },
         [](FaultMatrixTest &) { return tervox_prot_rtlog(50); }, 0,
         exactly("rtlog enter\nrtlog exit - Failed\n"), exactly("Failed to set binary control\n"),
         "", std::nullopt, released_log_buffers},
    };
}

std::vector<Row> driver_rows()
{
    const auto fault = [](std::string arguments) {
        return [arguments](FaultMatrixTest &t) { t.simulator("driver fault " + arguments); };
    };
    const auto slot_read = [](FaultMatrixTest &) {
        uint32_t values[2] = {5, 6};
        const int32_t result = tervox_cal_slot_read(values, 2);
        return values[0] == 5 && values[1] == 6 ? result : 100;
    };
    const auto slot_write = [](FaultMatrixTest &) {
        uint32_t values[2] = {8391, 8392};
        return tervox_cal_slot_write(values, 2);
    };
    const auto delta = [](FaultMatrixTest &t) {
        return tervox_qdsp_delta_tuning(t.folder_file("delta.txt", kGoodBlock).c_str());
    };
    const auto nothing_sent = [](FaultMatrixTest &t) {
        EXPECT_EQ(t.journal("driver set"), std::vector<std::string>{});
    };
    const std::string cant_open = std::string("Can't open '") + kDevice + "' \n";
    return {
        {"DriverMissingSlotRead", fault("absent"), slot_read, -1, exactly(""), exactly(""),
         "Failed to open cal ioctl\n"},
        {"DriverMissingSlotWrite", fault("absent"), slot_write, -1, exactly(""), exactly(""),
         "Failed to open cal ioctl\n"},
        {"DriverMissingModuleSwitch", fault("absent"),
         [](FaultMatrixTest &) { return tervox_qdsp_enable(1); }, 0, exactly(""), exactly(""),
         "tervox_qdsp_single_transfer: " + cant_open, std::nullopt, nothing_sent},
        {"DriverMissingDelta", fault("absent"), delta, 0, exactly(""), exactly(""),
         "tervox_qdsp_transfer_delta_config: " + cant_open, std::nullopt, nothing_sent},
        {"DriverMissingReceiveConfig", fault("absent"),
         [](FaultMatrixTest &t) {
             return tervox_qdsp_load_tuning(
                 t.folder_file("rx.txt", std::string("QORA_CONFIG_RX_LEFT ") + kGoodBlock).c_str());
         },
         0, exactly(""), exactly(""), "tervox_qdsp_transfer_ext_config: " + cant_open, std::nullopt,
         nothing_sent},
        {"DriverMissingModuleParameters", fault("absent"),
         [](FaultMatrixTest &t) {
             return tervox_qdsp_set_params(t.folder_file("params.txt", kGoodBlock).c_str());
         },
         0, exactly(""), exactly(""), "tervox_qdsp_transfer_ext_config: " + cant_open, std::nullopt,
         nothing_sent},
        {"IoctlSetFails", fault("ioctl set --errno 5"), delta, 0, exactly(""), exactly(""),
         "ioctl_set: IOCTL Set Failed! -1\n"},
        {"IoctlStoreFails", fault("ioctl store"), slot_write, -1, exactly(""), exactly(""),
         "Failed to open ioctl\n"},
        {"IoctlFetchFails", fault("ioctl fetch --errno 22"), slot_read, -1, exactly(""),
         exactly(""), "tervox_cal_slot_read: Ioctl Failed\n"},
        {"ChunkFails", fault("chunk 1 --errno 16"), delta, 0, exactly(""), exactly(""),
         "ioctl_set: IOCTL Set Failed! -1\n"},
    };
}

std::vector<Row> persist_rows()
{
    const auto remove_folder = [](FaultMatrixTest &t) {
        std::filesystem::remove_all(t.phone(kPersist));
    };
    const auto read_only = [](FaultMatrixTest &t) {
        for (const auto &entry : std::filesystem::directory_iterator(t.phone(kPersist)))
            chmod(entry.path().c_str(), 0444);
        chmod(t.phone(kPersist).c_str(), 0555);
    };
    const auto calibration_file = [](std::string bytes) {
        return
            [bytes](FaultMatrixTest &t) { write_file(t.phone(persist("tvox_calr.bin")), bytes); };
    };
    const auto cal_read = [](FaultMatrixTest &) {
        uint32_t values[2] = {7, 7};
        return tervox_cal_fread(values, 2);
    };
    const std::string bin = persist("tvox_calr.bin");
    const std::string txt = persist("tvox_calr.txt");
    return {
        {"PersistMissingWrite", remove_folder,
         [](FaultMatrixTest &) { return cal_values_write(8000, 8100); }, -1, exactly(""),
         exactly(""), "can't open " + txt + " \n", Files{}},
        {"PersistMissingRead", remove_folder, cal_read, -1, exactly(""), exactly(""),
         "tervox_default_fread: can't open " + bin + ", errno=2 \n", Files{}},
        {"PersistMissingF0Write", remove_folder,
         [](FaultMatrixTest &) {
             uint32_t values[2] = {8000, 8100};
             return tervox_f0_fwrite(values, 2);
         },
         -1, exactly(""), exactly(""), "can't open " + persist("tvox_f0.bin") + " \n", Files{}},
        {"PersistReadOnly", read_only,
         [](FaultMatrixTest &) {
             PermissionBits bits;
             return cal_values_write(8000, 8100);
         },
         -1, exactly(""), exactly(""), "can't open " + txt + " \n", kCalibrated},
        {"PersistFull", [](FaultMatrixTest &t) { t.simulator("persist full"); },
         [](FaultMatrixTest &) { return cal_values_write(8000, 8100); }, -1, exactly(""),
         exactly(""), "can't write CAL_R to persist slot!\n", kCalibrated},
        {"PersistFullF0", [](FaultMatrixTest &t) { t.simulator("persist full"); },
         [](FaultMatrixTest &) {
             uint32_t values[2] = {8000, 8100};
             return tervox_f0_fwrite(values, 2);
         },
         -1, exactly(""), exactly(""), "can't write CAL_R to persist slot!\n", kCalibrated},
        // A run stores nothing on a full partition and still applies what it measured.
        {"PersistFullCalibration",
         [](FaultMatrixTest &t) {
             t.simulator("persist full");
             t.set_speaker_raw(0, 8500);
             t.set_speaker_raw(1, 8600);
         },
         [](FaultMatrixTest &t) { return t.calibration_run(false); }, 0, exactly(kBackendLine),
         exactly(""), "can't write CAL_R to persist slot!\n", kCalibrated,
         [](FaultMatrixTest &t) {
             EXPECT_EQ(t.int_values(0, "T DSP Set CAL_R"), std::vector<long>{8500});
             EXPECT_EQ(t.int_values(0, "B DSP Set CAL_R"), std::vector<long>{8600});
         }},
        {"CalibrationFileEmpty", calibration_file(""), cal_read, -1, exactly(""), exactly(""),
         "CH[1] = 7, file: " + bin + " \n"},
        {"CalibrationFileShort", calibration_file("\x47\x20"), cal_read, -1, exactly(""),
         exactly(""), "CH[1] = 7, file: " + bin + " \n"},
        {"CalibrationFileOneWord", calibration_file(words_bytes({8391})), cal_read, 0, exactly(""),
         exactly(""), "CH[1] = 7, file: " + bin + " \n"},
        {"CalibrationFileCorrupt", calibration_file(words_bytes({0, 8391})), cal_read, 2,
         exactly(""), exactly(""), "CH[0] = 0, file: " + bin + " \n"},
    };
}

std::vector<Row> playback_rows()
{
    const auto playing = [](std::function<std::string(FaultMatrixTest &)> file) {
        return [file](FaultMatrixTest &t) { t.play_file(file(t)); };
    };
    const auto tplay = [](FaultMatrixTest &t) { return tervox_tplay(&t.context()); };
    const auto agmplay = [](FaultMatrixTest &t) { return tervox_agmplay(&t.context()); };
    const auto truncated = [](FaultMatrixTest &t) { return t.wav("truncated.wav", 48000, 4800); };
    const auto header_cut = [](FaultMatrixTest &t) {
        return t.folder_file("cut.wav", read_file(t.wav("whole.wav", 4800, 4800)).substr(0, 30));
    };
    const auto riff_bad = [](FaultMatrixTest &t) {
        std::string text = read_file(t.wav("whole.wav", 4800, 4800));
        text.replace(8, 4, "AVI ");
        return t.folder_file("avi.wav", text);
    };
    const auto frames_played = [](int card, int device, uint64_t frames) {
        return [card, device, frames](FaultMatrixTest &t) {
            const auto record = t.stream(card, device);
            ASSERT_TRUE(record);
            EXPECT_EQ(record->frames_written, frames);
            EXPECT_FALSE(record->running);
        };
    };
    const std::string playing_line = "Playing sample: 2 ch, 48000 hz, 16 bit 48000 bytes\n";
    return {
        {"WavTruncatedPlaysWhatIsThere", playing(truncated), tplay, 0, exactly(playing_line),
         exactly(""), "", std::nullopt, frames_played(0, 0, 1200)},
        {"WavTruncatedGraphPlaysWhatIsThere", playing(truncated), agmplay, 0, exactly(kBackendLine),
         exactly(""), "", std::nullopt, frames_played(100, 100, 1200)},
        {"WavHeaderCut", playing(header_cut), tplay, 1, exactly(""),
         containing("/cut.wav' is not a riff/wave file\n"), "", std::nullopt, nothing_played},
        {"WavNotWave", playing(riff_bad), tplay, 1, exactly(""),
         containing("' is not a riff/wave file\n"), "", std::nullopt, nothing_played},
        {"WavNotWaveGraph", playing(riff_bad), agmplay, 1,
         containing("' is not a riff/wave file\n"), exactly(""), "", std::nullopt, nothing_played},
        {"BackendConfBroken",
         [](FaultMatrixTest &t) {
             write_file(t.phone("/odm/etc/backend_conf.xml"),
                        "<config><device name=\"TDM-LPAIF-RX-SECONDARY\" rate=\"48000\"");
         },
         agmplay, 0,
         exactly(std::string("Invalid input, entry not found for : ") + kBackend + "\n"),
         exactly(""), "", std::nullopt, nothing_played},
    };
}

std::vector<Row> interrupt_rows()
{
    const auto long_silence = [](FaultMatrixTest &t) {
        t.play_file("/odm/etc/audio/silent-3sec.wav");
    };
    return {
        // The WAV player has no SIGINT handler of its own: the signal ends the process, and the
        // sink holds nothing for a player that died: the next player opens the device at once.
        // What the player had printed into a full stdio buffer dies with it.
        {"SigintDuringWavPlayback", long_silence,
         [](FaultMatrixTest &t) {
             const pid_t child = fork();
             if (child == 0) {
                 tervox_tplay(&t.context());
                 _exit(0);
             }
             const bool played = t.wait_running(0, 0);
             kill(child, SIGINT);
             int status = 0;
             waitpid(child, &status, 0);
             return played && WIFSIGNALED(status) ? WTERMSIG(status) : -1;
         },
         SIGINT, exactly(""), exactly(""), "", std::nullopt,
         [](FaultMatrixTest &t) {
             t.play_file(t.wav("short.wav", 4800, 4800));
             EXPECT_EQ(tervox_tplay(&t.context()), 0);
             const auto record = t.stream(0, 0);
             ASSERT_TRUE(record);
             EXPECT_EQ(record->frames_written, 1200u);
             EXPECT_EQ(record->pid, static_cast<uint32_t>(getpid()));
         }},
        {"SigintDuringGraphPlayback", long_silence,
         [](FaultMatrixTest &t) {
             t.interrupt_when_playing(100, 100);
             return tervox_agmplay(&t.context());
         },
         0, exactly(kBackendLine), exactly(""), "", std::nullopt,
         [](FaultMatrixTest &t) {
             const auto record = t.stream(100, 100);
             ASSERT_TRUE(record);
             EXPECT_FALSE(record->running);
             EXPECT_LT(record->frames_written, 48000u * 3) << "played to the end";
             EXPECT_EQ(t.journal("ctl 100 \"PCM100 disconnect\"").size(), 1u);
         }},
        {"SigintDuringLiveLog",
         {},
         [](FaultMatrixTest &t) {
             t.interrupt_when_playing(-1, -1);
             return tervox_prot_rtlog(50);
         },
         0,
         stopping_with("rtlog exit - OK\n"),
         containing("update bits : 0x2020 -- T: 0x00000008, B: 0x00000008,  \n"),
         ""},
        {"SigintDuringMonitor",
         {},
         [](FaultMatrixTest &t) {
             t.interrupt_when_playing(-1, -1);
             const uint32_t regs[] = {0x2020};
             return tervox_regs_monitor(regs, 1, 50);
         },
         0,
         stopping_with("monitor registers exit - OK\n"),
         containing("read : 0x2020 -- T: 0x00000000, B: 0x00000000,  \n"),
         ""},
    };
}

std::vector<Row> all_rows()
{
    std::vector<Row> rows;
    for (auto part : {card_rows(), control_rows(), driver_rows(), persist_rows(), playback_rows(),
                      interrupt_rows()})
        rows.insert(rows.end(), part.begin(), part.end());
    return rows;
}

INSTANTIATE_TEST_SUITE_P(Faults, FaultMatrixTest, ::testing::ValuesIn(all_rows()),
                         [](const ::testing::TestParamInfo<Row> &info) { return info.param.name; });

} // namespace
