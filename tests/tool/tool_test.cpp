// tvoxsp's command line: exit statuses and the message of every kind of mistake, the control,
// path and player commands against the virtual pair, the progress line on a terminal and the
// bash completion.
#include "support/sim_fixture.h"

#include <gtest/gtest.h>

#include <filesystem>
#include <fstream>
#include <functional>
#include <iterator>
#include <sstream>
#include <string>
#include <vector>

namespace
{

using tvox::test::CommandResult;

class TvoxspToolTest : public tvox::test::SimTest
{
  protected:
    void SetUp() override
    {
        SimTest::SetUp();
        install_phone();
    }

    static CommandResult tvoxsp(const std::string &arguments)
    {
        return run_command("{ " TVOXSP_TOOL_PATH " " + arguments + "; }");
    }

    // The command names `tvoxsp --help` lists.
    static std::vector<std::string> command_names()
    {
        std::istringstream help(tvoxsp("--help").output);
        std::vector<std::string> names;
        for (std::string line; std::getline(help, line);) {
            if (line.rfind("  tvoxsp ", 0) == 0)
                names.push_back(line.substr(9, line.find(' ', 9) - 9));
        }
        return names;
    }
};

bool contains(const std::string &text, const std::string &part)
{
    return text.find(part) != std::string::npos;
}

TEST_F(TvoxspToolTest, MistakesAreUsageErrorsThatNameWhatWasWrong)
{
    std::string tokens;
    for (int i = 0; i < 1025; ++i)
        tokens += " 1";
    const struct {
        std::string arguments;
        int status;
        std::string message;
    } cases[] = {
        {"", 2, "usage: tvoxsp [-v] [--json] <command>"},
        {"frobnicate", 2, "unknown command 'frobnicate'"},
        {"get", 2, "usage: tvoxsp get [-D CARD] [--dsp] CONTROL"},
        {"get -D x 'T DSP Mode'", 2, "not an unsigned 32-bit number: 'x'"},
        {"set 'T DSP Mode'", 2, "usage: tvoxsp set [-D CARD] CONTROL VALUE..."},
        {"set 'T DSP Mode' ' , '", 2, "no value for 'T DSP Mode'"},
        {"set 'T DSP Mode'" + tokens, 2, "1025 values for 'T DSP Mode': at most 1024"},
        {"slot write 0x10 -1", 2, "not an unsigned 32-bit number: '-1'"},
        {"slot write 0x10 0xFFFFFFFF", 2, "0xFFFFFFFF has no check word"},
        {"reg read 0x2020x", 2, "not an unsigned 32-bit number: '0x2020x'"},
        {"reg write 0x2020 0x100000000", 2, "'0x100000000'"},
        {"rtlog --interval -5", 2, "milliseconds above 0, not -5"},
        {"rtlog --interval 0", 2, "milliseconds above 0, not 0"},
        {"monitor 0x2020 --count 0", 2, "--count takes a number of samples above 0"},
        {"monitor 0x2020 --duration x", 2, "--duration takes seconds above 0, not 'x'"},
        {"rtlog --frobnicate", 2, "unknown option --frobnicate"},
        {"monitor --interval 100", 2, "usage: tvoxsp monitor"},
        {"module config 1x", 2, "not a 32-bit number: '1x'"},
        {"module swap maybe", 2, "expected on or off, not 'maybe'"},
        {"bypass T maybe", 2, "expected on or off, not 'maybe'"},
        {"path nowhere", 2, "unknown path 'nowhere' (see tvoxsp path --list)"},
        {"path", 2, "usage: tvoxsp path NAME | --show NAME | --list"},
        {"path --show nowhere", 2, "unknown path 'nowhere'"},
        {"play a.wav b.wav", 2, "usage: tvoxsp play [--graph] [FILE]"},
        {"mixer-test now", 2, "usage: tvoxsp mixer-test"},
        {"get 'No Such Control'", 1, "card 0 has no control 'No Such Control'"},
        {"get --dsp 'T DSP Mode'", 1, "'T DSP Mode' is not a 4-byte DSP parameter"},
        {"set 'No Such Control' 1", 1, "setting 'No Such Control' to '1' failed (code 2)"},
        {"set 'T PCM Source' Nowhere", 1, "Error: invalid enum value"},
        {"set 'T DSP Mode' 4", 1, "setting 'T DSP Mode' to '4' failed (code 22)"},
        {"set 'T DSP1 Protection cd RTLOG_COUNT' 0 0 0 0x100", 1,
         "0x100 should be between [0, 0xff]"},
    };
    for (const auto &c : cases) {
        const CommandResult result = tvoxsp(c.arguments);
        EXPECT_EQ(result.status, c.status) << c.arguments << "\n" << result.output;
        EXPECT_TRUE(contains(result.output, c.message)) << c.arguments << "\n" << result.output;
    }
    // The refused values changed nothing.
    EXPECT_EQ(int_values(0, "T DSP Mode"), std::vector<long>{1});
    EXPECT_EQ(enum_item(0, "T PCM Source"), "ASPRX1");
}

// What a row of the failure table leaves: the driver's view, the control journal and the
// persist folder, compared before and after wherever nothing may change.
struct Snapshot {
    std::string driver;
    std::vector<std::string> journal;
    std::string persist;
    bool operator==(const Snapshot &) const = default;
};

class TvoxspFailureTest : public TvoxspToolTest
{
  public:
    using SimTest::preset_ints;
    using SimTest::record_stream;
    using SimTest::set_speaker;

  protected:
    Snapshot snapshot()
    {
        // Failed requests leave their lines in the journal: only control writes count here.
        std::vector<std::string> writes;
        for (const std::string &line : journal_lines()) {
            if (line.starts_with("ctl "))
                writes.push_back(line);
        }
        return {tool("driver config").output, writes,
                run_command("cat " + phone("/mnt/vendor/persist/audio/") + "* 2>/dev/null").output};
    }
    static std::string wav(uint16_t bits)
    {
        const auto u32 = [](uint32_t v) { return std::string(reinterpret_cast<char *>(&v), 4); };
        const auto u16 = [](uint16_t v) { return std::string(reinterpret_cast<char *>(&v), 2); };
        const uint16_t frame = static_cast<uint16_t>(2 * bits / 8);
        return "RIFF" + u32(36 + 4800) + "WAVEfmt " + u32(16) + u16(1) + u16(2) + u32(48000) +
               u32(48000u * frame) + u16(frame) + u16(bits) + "data" + u32(4800) +
               std::string(4800, '\0');
    }
};

const std::string kBlock = "5,100,200,300,4292077319\n";
const std::string kRight = "QORA_CONFIG_RX_RIGHT 3,7,1987764275\n";

// Every failure exits non-zero and names its cause; a refused command changes nothing.
TEST_F(TvoxspFailureTest, FailuresExitNonZeroNamingTheCause)
{
    std::string hundred_and_one;
    for (int i = 0; i < 101; ++i)
        hundred_and_one += kBlock;
    const std::string rx = "QORA_CONFIG_RX_LEFT " + kBlock + kRight;
    const std::string file = folder_file("file", "");
    const std::string no_card0 = "TINYALSA_CARD_0=tvoxsp_test_no_card ";
    const struct {
        std::string fault;    // tvoxsim arguments, or empty
        std::string contents; // of `file`
        std::string command;  // tvoxsp arguments; FILE is `file`
        int status;
        std::string message;
        bool unchanged; // the driver, the controls and the persist folder stay as they were
    } cases[] = {
        {"driver fault absent", kBlock, "tuning delta FILE", 3,
         "cannot open /dev/msm_tervox_playback: No such file or directory", true},
        {"driver fault absent", "", "module on", 3, "cannot open /dev/msm_tervox_playback", true},
        {"driver fault ioctl set", "", "module off", 7,
         "1 of 1 requests to /dev/msm_tervox_playback failed: EIO", true},
        {"driver fault chunk 1 --errno 5", kBlock, "tuning params FILE", 7,
         "1 of 1 requests to /dev/msm_tervox_playback failed: EIO (Input/output error)", true},
        {"driver fault chunk 1 --errno 5", rx, "tuning load FILE", 7, "failed: EIO", true},
        {"", kBlock, "tuning load FILE", 1, "line 1: no QORA_CONFIG_RX_LEFT line", true},
        {"", kRight + "QORA_CONFIG_RX_LEFT " + kBlock, "tuning load FILE", 1,
         "no QORA_CONFIG_RX_LEFT line: the module would get an empty", true},
        {"", "QORA_CONFIG_RX_LEFT " + kBlock, "tuning load FILE", 1,
         "line 2: no QORA_CONFIG_RX_RIGHT line", true},
        {"", "", "tuning load FILE", 1, "empty receive configuration", true},
        {"", "", "tuning delta FILE", 1, "no block: the module would get an empty configuration",
         true},
        {"", "", "tuning load --force " + sim_dir(), 1, " is a directory, not a tuning file", true},
        {"", "", "tuning check " + sim_dir(), 1, " is a directory", true},
        {"", "", "tuning seal " + sim_dir(), 1, " is a directory", true},
        {"", hundred_and_one, "tuning delta --force FILE", 1,
         "line 101: more than 100 lines: the library would end the process", true},
        {"", rx + "\n", "tuning load --force FILE", 1,
         "line 3: a line after the two receive blocks", true},
        {"", "2147483647,1,2\n", "tuning params --force FILE", 1, "line 1: the size word overflows",
         true},
        {"", "5,100,200,300,1\n", "tuning delta --force FILE", 1,
         "line 1: CRC stored 0x00000001, computed 0xFFD3E707", true},
        {"", "5,100,200,300,4292077319,9\n", "tuning delta FILE", 1,
         "--force sends a file whose faults are cosmetic", true},
        {"", "", "tuning load /nonexistent", 1, "cannot open /nonexistent: No such file", true},
        {"", "0x64,1,2\n", "tuning seal FILE", 1, "line 1: '0x64' is not a decimal integer", true},
        {"", "3,abc,0\n", "tuning seal FILE", 1, "'abc' is not a decimal integer", true},
        {"", "3,1,0\n\n", "tuning seal FILE", 1, "line 2: '' is not a decimal integer", true},
        {"", "# notes\n", "tuning seal FILE", 1, "line 1: '# notes' is not a decimal", true},
        {"", "5 100,200,0\n", "tuning seal FILE", 1, "'5 100' is not a decimal integer", true},
        {"control refuse 'T PCM Source'", "", "bypass on", 7, "a control refused the write", false},
        {"control refuse 'T PCM Source'", "", "bypass T off", 7, "a control refused", false},
        {"control refuse 'Tervox SP Channel Swap'", "", "module swap on", 7,
         "the module's channel swap was not set: a control refused", true},
        {"control refuse 'Tervox SP Channel Swap'", "", "swap on", 7,
         "the channels were not swapped", true},
        {"control refuse 'Tervox SP Channel Swap'", "", "module config 1", 7,
         "the configuration type was not selected", true},
        {"control refuse 'B DSP1 Protection 5f210 CH_BAL'", "", "swap --dsp on", 7,
         "the DSPs' channel balance was not set", false},
        {"", "", "module config 2", 2, "configuration type 2: the types are 0 and 1", true},
        {"control remove 'T AMP WR Registers'", "", "reg read 0x2020", 3,
         "the register control refused the request: the values shown were not read", false},
        {"control remove 'B AMP WR Registers'", "", "reg write 0x2020 8", 3,
         "reg write: the register control refused", false},
        {"control remove 'T DSP1 Protection cd RTLOG_COUNT'", "", "rtlog --interval 10", 1,
         "the live log failed: a control of the live log refused", false},
        {"", wav(8), "play FILE", 1, "was not played: Bitrate is 8 bits", true},
        {"", wav(16), no_card0 + "play FILE", 1, "was not played: Unable to open PCM device", true},
        // Control 22, as the library reads the number: the value fits what is read.
        {"", "", "get 022", 0, "T DSP1 Protection 5f210 RTLOG_DATA = 0x00", true},
    };
    for (const auto &c : cases) {
        SCOPED_TRACE(c.fault + " / " + c.command);
        folder_file("file", c.contents);
        ASSERT_EQ(tool("control restore").status, 0);
        ASSERT_EQ(tool("driver fault none").status, 0);
        if (!c.fault.empty()) {
            ASSERT_EQ(tool(c.fault).status, 0);
        }
        std::string command = c.command;
        if (const size_t at = command.find("FILE"); at != std::string::npos)
            command.replace(at, 4, file);
        // A leading VARIABLE=VALUE is the environment of the tool's process.
        const size_t space = command.find(' ');
        if (command.find('=') < space)
            command.insert(space, " " TVOXSP_TOOL_PATH);
        const Snapshot before = snapshot();
        const CommandResult result =
            command.find('=') < space ? run_command(command) : tvoxsp(command);
        EXPECT_EQ(result.status, c.status) << result.output;
        EXPECT_TRUE(contains(result.output, c.message)) << result.output;
        EXPECT_FALSE(contains(result.output, "AddressSanitizer")) << result.output;
        if (c.unchanged) {
            EXPECT_EQ(snapshot(), before);
        }
    }
}

// "calibration success" only when the measurement passed, was stored and is what the DSPs use.
TEST_F(TvoxspFailureTest, ACalibrationIsWhatItSays)
{
    const std::string stored = phone("/mnt/vendor/persist/audio/tvox_calr.bin");
    const struct {
        std::string fault;
        std::function<void(TvoxspFailureTest &)> arrange;
        std::string command;
        int status; // the failure's class
        std::string message;
        bool stored; // tvox_calr.bin written
    } cases[] = {
        {"control refuse 'B DSP Set CAL_R'",
         {},
         "calibrate",
         7,
         "applying failed: CH[1] B measured CAL_R 8392 (6.00 ohm), the DSP uses 8391 (6.00 ohm)",
         true},
        {"", [](TvoxspFailureTest &t) { t.set_speaker(1, 6.0, tvox::sim::SpeakerFault::open); },
         "calibrate", 5, "CAL_R 16777215 (open circuit) out of range", false},
        {"",
         [](TvoxspFailureTest &t) { t.set_speaker(0, 6.0, tvox::sim::SpeakerFault::f0_failure); },
         "diagnose", 5, "diagnostic failed", false},
        {"", [](TvoxspFailureTest &t) { t.preset_ints(0, "B AMP Active Status", {1}); },
         "calibrate", 4, "an amplifier is active (AMP Active Status)", false},
        {"", [](TvoxspFailureTest &t) { t.record_stream(1, 0, 0.0, 100, 100); }, "calibrate", 4,
         "calibration failed: the silent playback failed: Unable to open PCM device 100", false},
        {"", [](TvoxspFailureTest &t) { t.record_stream(1, 0, 0.0, 100, 100); }, "play --graph", 4,
         "Device or resource busy", false},
        {"", [](TvoxspFailureTest &t) { t.record_stream(1, 0, 0.0, 0, 0); },
         "play " + phone("/sdcard/Music/lrp_loop.wav"), 4, "Device or resource busy", false},
    };
    for (const auto &c : cases) {
        SCOPED_TRACE(c.command + " " + c.fault);
        std::filesystem::remove(stored);
        set_speaker(0, 6.0);
        set_speaker(1, 6.0);
        preset_ints(0, "B AMP Active Status", {0});
        ASSERT_EQ(tool("control restore").status, 0);
        if (!c.fault.empty()) {
            ASSERT_EQ(tool(c.fault).status, 0);
        }
        if (c.arrange)
            c.arrange(*this);
        const CommandResult result = tvoxsp(c.command);
        EXPECT_EQ(result.status, c.status) << result.output;
        EXPECT_TRUE(contains(result.output, c.message)) << result.output;
        EXPECT_FALSE(contains(result.output, "success")) << result.output;
        EXPECT_EQ(std::filesystem::exists(stored), c.stored);
        for (const char *amp : {"T AMP Enable Switch", "B AMP Enable Switch"})
            EXPECT_EQ(int_values(0, amp), std::vector<long>{0}) << amp;
    }
}

// Ctrl-C ends a calibration at once, stores nothing and leaves both amplifiers off.
TEST_F(TvoxspFailureTest, CtrlCEndsACalibration)
{
    const CommandResult result =
        run_command(TVOXSP_TOOL_PATH " calibrate & sleep 1; kill -INT $!; wait $!");
    EXPECT_EQ(result.status, 130) << result.output;
    EXPECT_TRUE(contains(result.output, "calibration interrupted: nothing was stored; both "
                                        "amplifiers are off"))
        << result.output;
    EXPECT_FALSE(std::filesystem::exists(phone("/mnt/vendor/persist/audio/tvox_calr.bin")));
    for (const char *amp : {"T AMP Enable Switch", "B AMP Enable Switch"})
        EXPECT_EQ(int_values(0, amp), std::vector<long>{0}) << amp;
}

// The report marks what is stored but not in use, and stored files that hold no calibration.
TEST_F(TvoxspFailureTest, ReportMarksStoredValuesThatAreNotInUse)
{
    const auto words = [](std::vector<uint32_t> values) {
        return std::string(reinterpret_cast<const char *>(values.data()), values.size() * 4);
    };
    const struct {
        std::string file;
        int status;
        std::string message;
    } cases[] = {
        {words({8391, 8391}), 0, "CH[1]: 6.00( 8391) - "},
        {words({8391, 9000}), 8,
         "CH[1] B: stored CAL_R 9000 (6.43 ohm) differs from the one in use, 8391 (6.00 ohm)"},
        {words({0, 0}), 1, "holds zeros: no speaker was calibrated"},
        {"ab", 1, "holds 2 bytes, not 8: it is no calibration file"},
    };
    const std::string path = phone("/mnt/vendor/persist/audio/tvox_calr.bin");
    for (const auto &c : cases) {
        std::ofstream(path, std::ios::binary | std::ios::trunc) << c.file;
        const CommandResult result = tvoxsp("report");
        EXPECT_EQ(result.status, c.status) << result.output;
        EXPECT_TRUE(contains(result.output, c.message)) << result.output;
    }
    EXPECT_TRUE(contains(tvoxsp("report --f0").output, "CAL_R words the diagnostic measured"));
}

// The library's log reaches the terminal only with -v, and the simulator's log file always.
TEST_F(TvoxspFailureTest, TheLibraryLogGoesWhereItIsAsked)
{
    const std::string log = sim_dir() + "/tvoxsp.log";
    EXPECT_FALSE(contains(tvoxsp("report").output, "AHAL"));
    EXPECT_TRUE(contains(tvoxsp("-v report").output, "AHAL:TERVOX"));
    EXPECT_FALSE(contains(
        run_command("ANDROID_LOG_TAGS='*:s' " TVOXSP_TOOL_PATH " -v report").output, "AHAL"));
    ASSERT_EQ(run_command("TVOXSP_LOG_FILE=" + log + " " TVOXSP_TOOL_PATH " report").status, 1);
    std::ifstream in(log);
    std::string header;
    ASSERT_TRUE(std::getline(in, header));
    EXPECT_TRUE(header.starts_with("== tvoxsp report (pid ")) << header;
    std::string first;
    ASSERT_TRUE(std::getline(in, first));
    EXPECT_TRUE(first.starts_with("I AHAL:TERVOX: ") || first.starts_with("D AHAL:TERVOX: ") ||
                first.starts_with("E AHAL:TERVOX: "))
        << first;
}

// Labels of a live log file never reach gnuplot as code.
TEST_F(TvoxspToolTest, HostileLogLabelsStayText)
{
    const std::string pwned = sim_dir() + "/PWNED";
    const std::string columns = " 1.00, 1.00, 0.1000, 0.1000, 100, 100, Y ";
    // One word each, as the log writes a label; the shell runs what gnuplot's system() gets.
    const std::string labels[] = {
        "x';system(\"id>" + pwned + "\");#:", "`id>" + pwned + "`:",
        "x'.system('id>" + pwned + "').':",   "@x\\':",
        "x\\';system('id>" + pwned + "');':", "\"';print\\\"':",
    };
    for (const std::string &label : labels) {
        SCOPED_TRACE(label);
        std::string text;
        for (int i = 0; i < 3; ++i)
            text += "2024-01-01 10:00:0" + std::to_string(i) + ".000  " + label + columns + "\n";
        const std::string file = folder_file("rtlog.txt", text);
        const CommandResult plot =
            run_command("env -u LD_PRELOAD " TVOXSP_TOOL_PATH " rtlog-plot " + file + " -o " +
                        sim_dir() + "/chart.svg");
        EXPECT_EQ(plot.status, 0) << plot.output;
        EXPECT_FALSE(std::filesystem::exists(pwned));
    }
}

TEST_F(TvoxspToolTest, EveryCommandAnswersHelp)
{
    const std::vector<std::string> names = command_names();
    for (const char *name : {"calibrate", "report", "slot", "tuning", "reg", "get", "set",
                             "mixer-test", "path", "play", "rtlog", "monitor", "swap"})
        EXPECT_NE(std::find(names.begin(), names.end(), name), names.end()) << name;
    for (const std::string &name : names) {
        for (const char *flag : {"--help", "-h"}) {
            const CommandResult help = tvoxsp(name + " " + flag);
            EXPECT_EQ(help.status, 0) << name;
            EXPECT_EQ(help.output.rfind("usage: tvoxsp " + name, 0), 0u) << help.output;
            EXPECT_TRUE(contains(help.output, "\nexample:\n  tvoxsp ")) << help.output;
        }
    }
    EXPECT_EQ(tvoxsp("--help").status, 0);
    EXPECT_TRUE(contains(tvoxsp("rtlog --help").output, "\n  --count N  stop after N samples\n"));
    EXPECT_EQ(tvoxsp("--version").output, "tvoxsp " TVOXSP_VERSION "\n");
}

TEST_F(TvoxspToolTest, SetAndGetEveryKindOfControlInHexOrDecimal)
{
    const struct {
        std::string set;
        std::string get;
        std::string shown;
    } cases[] = {
        {"'T DSP Mode' 0x2", "'T DSP Mode'", "T DSP Mode = 2\n"},
        {"'SPK Digital PCM Volume' 0x64 200", "'SPK Digital PCM Volume'",
         "SPK Digital PCM Volume = 100 200\n"},
        {"'SPK PCM Source' ASPRX2", "-D 0 'SPK PCM Source'", "SPK PCM Source = ASPRX2 ASPRX1\n"},
        {"-D 0 6 010", "6", "T DSP Set CAL_AMBIENT = 10\n"}, // id 6, not octal
        {"'B PCM Source' DSP", "'B PCM Source'", "B PCM Source = DSP (item 2)\n"},
        {"'T DSP1 Protection cd RTLOG_COUNT' 0x00 0 0x1 255", "'T DSP1 Protection cd RTLOG_COUNT'",
         "T DSP1 Protection cd RTLOG_COUNT = 0x00 0x00 0x01 0xff\n"},
        {"'B DSP1 Protection cd RTLOG_COUNT' 1,0xff,0xff,0xff",
         "--dsp 'B DSP1 Protection cd RTLOG_COUNT'", "B DSP1 Protection cd RTLOG_COUNT = -1\n"},
    };
    for (const auto &c : cases) {
        ASSERT_EQ(tvoxsp("set " + c.set).status, 0) << c.set;
        const CommandResult got = tvoxsp("get " + c.get);
        EXPECT_EQ(got.status, 0) << c.get;
        EXPECT_TRUE(contains(got.output, c.shown)) << got.output;
    }
    EXPECT_EQ(int_values(0, "SPK Digital PCM Volume"), (std::vector<long>{100, 200}));
    EXPECT_EQ(bytes(0, "T DSP1 Protection cd RTLOG_COUNT"),
              (std::vector<uint8_t>{0x00, 0x00, 0x01, 0xff}));
    // The mixer self-test reads back the value it sets.
    const CommandResult test = tvoxsp("mixer-test");
    EXPECT_EQ(test.status, 0);
    EXPECT_TRUE(contains(test.output, "Default: 00 00 15 14, num=4\n")) << test.output;
}

TEST_F(TvoxspToolTest, NamedPathsAreListedAndApplied)
{
    const CommandResult list = tvoxsp("path --list");
    ASSERT_EQ(list.status, 0);
    const struct {
        std::string path;
        std::string pcm_source; // both amplifiers'
        long enabled;           // both amplifiers' AMP Enable Switch
    } cases[] = {
        {"dsp_source", "DSP", 1}, {"dsp_bypass", "ASPRX1", 1}, {"amp_off", "Zero", 0},
        {"dsp_source", "DSP", 0}, {"reload_off", "Zero", 0},
    };
    preset_ints(0, "T AMP Enable Switch", {1});
    preset_ints(0, "B AMP Enable Switch", {1});
    for (const auto &c : cases) {
        EXPECT_TRUE(contains(list.output, c.path + " ")) << list.output;
        ASSERT_EQ(tvoxsp("path " + c.path).status, 0) << c.path;
        for (const char *amp : {"T", "B"}) {
            EXPECT_EQ(enum_item(0, std::string(amp) + " PCM Source"), c.pcm_source) << c.path;
            EXPECT_EQ(int_values(0, std::string(amp) + " AMP Enable Switch"),
                      std::vector<long>{c.enabled})
                << c.path;
        }
    }
    preset_enum(0, "B DSP1 Firmware", "Calibration");
    ASSERT_EQ(tvoxsp("path boot_firmware").status, 0);
    EXPECT_EQ(enum_item(0, "B DSP1 Firmware"), "Protection");
    EXPECT_EQ(int_values(0, "B DSP1 Boot Switch"), std::vector<long>{1});
    // Paths that only run inside the library's operations, applied whole on their own.
    clear_journal();
    ASSERT_EQ(tvoxsp("path cal_mode").status, 0);
    EXPECT_EQ(journal_lines(), (std::vector<std::string>{
                                   "ctl 0 \"T DSP Set CAL_AMBIENT\" = 30",
                                   "ctl 0 \"T DSP Mode\" = 2",
                                   "ctl 0 \"B DSP Set CAL_AMBIENT\" = 30",
                                   "ctl 0 \"B DSP Mode\" = 2",
                               }));
    for (const char *name : {"spk_playback", "rcv_playback", "amp_on_dsp", "run_mode",
                             "rtlog_setup", "rtlog_state_clear", "rtlog_stop"})
        EXPECT_TRUE(contains(list.output, std::string(name) + " ")) << name;
}

// Without card 0 every card command fails with status 3 (no device) and says, on standard error,
// where to run it; only the bench playback has printed its own failure on standard output.
TEST_F(TvoxspToolTest, WithoutCardZeroEveryCardCommandFailsAndSaysSo)
{
    const std::string mixer = "tvoxsp: card 0's mixer does not open";
    const std::string where = ": run it on the device or inside tvoxsim\n";
    const std::string no_card = "tvoxsp: no card 0" + where;
    const struct {
        const char *command;
        std::string out;
        std::string message;
    } cases[] = {
        {"get 'T DSP Mode'", "", mixer + where},
        {"set 'T DSP Mode' 1", "", mixer + where},
        {"mixer-test", "", mixer + "\n"},
        {"path amp_off", "", no_card},
        {"reload", "", no_card},
        {"boot", "", no_card},
        {"bypass on", "", no_card},
        {"bypass T off", "", no_card},
        {"calibrate", "", no_card},
        {"play", "tervox_tplay_test: Failed to open mixer\n", mixer + "\n"},
    };
    setenv("TINYALSA_CARD_0", "tvoxsp_test_no_such_card", 1);
    const std::string errors = sim_dir() + "/errors";
    for (const auto &c : cases) {
        SCOPED_TRACE(c.command);
        const CommandResult result = tvoxsp(c.command + (" 2>" + errors));
        EXPECT_EQ(result.status, 3);
        EXPECT_EQ(result.output, c.out);
        std::ifstream in(errors);
        const std::string text{std::istreambuf_iterator<char>(in), {}};
        EXPECT_TRUE(text.ends_with(c.message)) << text;
    }
}

TEST_F(TvoxspToolTest, PlaysWavFilesDirectlyAndThroughTheGraph)
{
    const std::string loop = phone("/sdcard/Music/lrp_loop.wav");
    const CommandResult direct = tvoxsp("play " + loop);
    EXPECT_EQ(direct.status, 0) << direct.output;
    EXPECT_TRUE(contains(direct.output, "Playing sample: 2 ch, 48000 hz, 16 bit")) << direct.output;

    preset_enum(0, "RCV DSP1 Firmware", "Calibration");
    const CommandResult looped = tvoxsp("play");
    EXPECT_EQ(looped.status, 0) << looped.output;
    EXPECT_EQ(enum_item(0, "RCV DSP1 Firmware"), "Protection");
    EXPECT_EQ(int_values(0, "RCV AMP Enable Switch"), std::vector<long>{1});

    const CommandResult graph = tvoxsp("play --graph " + loop);
    EXPECT_EQ(graph.status, 0) << graph.output;
    EXPECT_TRUE(contains(graph.output, "Backend TDM-LPAIF-RX-SECONDARY")) << graph.output;

    const std::string text = folder_file("notes.wav", "not a wave at all");
    for (const std::string &play : {"play " + text, "play --graph " + text}) {
        const CommandResult refused = tvoxsp(play);
        EXPECT_EQ(refused.status, 1) << play;
        EXPECT_TRUE(contains(refused.output, "is not a riff/wave file")) << refused.output;
        EXPECT_TRUE(contains(refused.output, "was not played")) << refused.output;
    }
    const CommandResult missing = tvoxsp("play " + sim_dir() + "/none.wav");
    EXPECT_EQ(missing.status, 1);
    EXPECT_TRUE(contains(missing.output, "Unable to open file")) << missing.output;
}

TEST_F(TvoxspToolTest, CalibrationShowsItsProgressOnlyOnATerminal)
{
    set_speaker(0, 6.0);
    set_speaker(1, 6.0);
    const CommandResult piped = tvoxsp("calibrate");
    ASSERT_EQ(piped.status, 0) << piped.output;
    EXPECT_FALSE(contains(piped.output, "elapsed")) << piped.output;
    // script(1) gives the tool a terminal; the preload (and a sanitizer runtime) is the tool's.
    const CommandResult terminal = run_command(
        "TOOL_PRELOAD=\"$LD_PRELOAD\" LD_PRELOAD= script -qec 'LD_PRELOAD=$TOOL_PRELOAD " +
        std::string(TVOXSP_TOOL_PATH) + " calibrate' /dev/null");
    ASSERT_EQ(terminal.status, 0) << terminal.output;
    // Redrawn while the run measures, then erased.
    size_t redrawn = 0;
    for (size_t at = 0;
         (at = terminal.output.find("\rtvoxsp: calibrating, ", at)) != std::string::npos; ++at)
        ++redrawn;
    EXPECT_GE(redrawn, 2u) << terminal.output;
    EXPECT_TRUE(contains(terminal.output, " s elapsed")) << terminal.output;
    EXPECT_TRUE(contains(terminal.output, "\r\033[K")) << terminal.output;
}

TEST_F(TvoxspToolTest, BashCompletionOffersCommandsWordsAndPaths)
{
    const struct {
        std::string line; // the words typed so far, the last one being completed
        std::string offered;
    } cases[] = {
        {"pa", "path"},
        {"mi", "mixer-test"},
        {"path b", "boot_firmware"},
        {"path --l", "--list"},
        {"tuning s", "seal"},
        {"module swap o", "on off"},
        {"play --g", "--graph"},
        {"reg u", "update"},
        {"get --h", "--help"},
        {"--json ca", "calibrate"},
        {"-v --json rtlog --c", "--count --csv"},
        {"monitor 0x2020 --ch", "--changes"},
        {"controls --n", "--names"},
        {"path --show amp_of", "amp_off"},
        {"get T\\ DSP\\ Mo", "T\\ DSP\\ Mode"},
        {"set -D 0 B\\ PCM\\ S", "B\\ PCM\\ Source"},
        {"get -D 0 --dsp T\\ DSP\\ Mo", "T\\ DSP\\ Mode"},
        {"module config \"\"", "0 1 --help"},
    };
    // What the completion offers for `words` (the last one being completed), joined by spaces.
    const auto complete = [](const std::string &words) {
        return run_command("bash -c 'source " TVOXSP_COMPLETION_PATH
                           "; COMP_WORDS=(" TVOXSP_TOOL_PATH " " +
                           words +
                           "); COMP_CWORD=$((${#COMP_WORDS[@]} - 1)); _tvoxsp; "
                           "printf \"%s \" \"${COMPREPLY[@]}\"'");
    };
    for (const auto &c : cases) {
        const CommandResult completed = complete(c.line);
        EXPECT_EQ(completed.status, 0);
        EXPECT_EQ(completed.output, c.offered + " ") << c.line;
    }
    // Every command the tool lists completes from its first two letters.
    for (const std::string &name : command_names())
        EXPECT_TRUE(contains(" " + complete(name.substr(0, 2)).output, " " + name + " ")) << name;
}

TEST_F(TvoxspToolTest, TvoxsimBashCompletionOffersItsCommandsAndWords)
{
    const struct {
        std::string line;
        std::string offered;
    } cases[] = {
        {"sp", "speaker speakers"},
        {"speaker T --fault sh", "shorted"},
        {"driver fault io", "ioctl"},
        {"persist f", "full"},
        {"control re", "remove refuse restore"},
        {"journal --c", "--clear"},
    };
    for (const auto &c : cases) {
        const CommandResult completed =
            run_command("bash -c 'source " TVOXSIM_COMPLETION_PATH "; COMP_WORDS=(" + tool_path() +
                        " " + c.line +
                        "); COMP_CWORD=$((${#COMP_WORDS[@]} - 1)); _tvoxsim; "
                        "printf \"%s \" \"${COMPREPLY[@]}\"'");
        EXPECT_EQ(completed.output, c.offered + " ") << c.line;
    }
}

} // namespace
