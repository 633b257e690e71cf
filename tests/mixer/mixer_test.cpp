// The control setter and readers, mixer paths and the self-test against the virtual amplifier card.
#include "mixer/paths.h"
#include "support/capture.h"
#include "support/mixer.h"
#include "tvoxsp/mixer.h"

#include <array>
#include <atomic>
#include <cstdlib>
#include <cstring>
#include <dlfcn.h>
#include <filesystem>
#include <fstream>
#include <gtest/gtest.h>
#include <iterator>
#include <map>
#include <span>
#include <string>
#include <tuple>
#include <unistd.h>
#include <vector>

namespace
{

using Bytes = std::vector<uint8_t>;
using Ints = std::vector<long>;
using Names = std::vector<std::string>;
using tvox::PathEntry;
using tvox::test::LogCapture;
using tvox::test::StreamCapture;

constexpr const char *kSwitch = "SPK AMP Enable Switch";
constexpr const char *kVolume = "SPK Digital PCM Volume";
constexpr const char *kPlainBytes = "T DSP1 Protection 5f210 CH_BAL";
constexpr const char *kTlvBytes = "RCV DSP1 Protection cd CAL_R";

// How often the process opened and closed a tinyalsa mixer: this executable defines mixer_open
// and mixer_close ahead of tinyalsa, counts every call and passes it on.
std::atomic<int> g_opens{0};
std::atomic<int> g_closes{0};

// Every pause asked of the C library, in microseconds: this executable defines usleep ahead of
// it and returns at once, so a path's pause is checked as a number and no test waits for it.
std::vector<useconds_t> g_pauses;

} // namespace

extern "C" int usleep(useconds_t microseconds)
{
    g_pauses.push_back(microseconds);
    return 0;
}

extern "C" struct mixer *mixer_open(unsigned int card)
{
    static const auto real =
        reinterpret_cast<struct mixer *(*)(unsigned int)>(dlsym(RTLD_NEXT, "mixer_open"));
    ++g_opens;
    return real(card);
}

extern "C" void mixer_close(struct mixer *mixer)
{
    static const auto real =
        reinterpret_cast<void (*)(struct mixer *)>(dlsym(RTLD_NEXT, "mixer_close"));
    ++g_closes;
    real(mixer);
}

namespace
{

void reset_mixer_calls()
{
    g_opens = 0;
    g_closes = 0;
}

// The virtual amplifier card with an open mixer of card 0.

class MixerTest : public tvox::test::MixerSimTest<0>
{
  protected:
    void SetUp() override
    {
        MixerSimTest<0>::SetUp();
        reset_mixer_calls();
    }

    struct mixer *mixer() { return mixer_.get(); }

    // The setter on the test's mixer; what it prints lands in out_ and err_.
    int32_t set(const char *control, const char *value)
    {
        return captured([&] { return tervox_tmixer_set(mixer(), control, value); });
    }
    template <typename Call> int32_t captured(Call call)
    {
        StreamCapture err(2);
        StreamCapture out(1);
        const int32_t result = call();
        err_ = err.text();
        out_ = out.text();
        return result;
    }

    // The control's number on card 0 as text, for lookups by number.
    std::string number_of(const std::string &name)
    {
        for (unsigned int i = 0; i < mixer_get_num_ctls(mixer()); ++i)
            if (name == mixer_ctl_get_name(mixer_get_ctl(mixer(), i)))
                return std::to_string(i);
        ADD_FAILURE() << "no control " << name;
        return "";
    }

    // The controls written, in order; the per-value writes of one multi-value control count once.
    std::vector<std::string> written_controls()
    {
        std::vector<std::string> names;
        for (const auto &line : journal_lines()) {
            const auto open = line.find('"');
            std::string name = line.substr(open + 1, line.find('"', open + 1) - open - 1);
            if (names.empty() || names.back() != name)
                names.push_back(std::move(name));
        }
        return names;
    }

    std::string err_;
    std::string out_;
};

using Setter = MixerTest;
using SetterDeathTest = MixerTest;
using Reader = MixerTest;
using Path = MixerTest;

TEST_F(Setter, NumbersItemsBytesAndControlNumbers)
{
    EXPECT_EQ(set(kSwitch, "1"), 0); // one number goes to every value
    EXPECT_EQ(err_, "");
    EXPECT_EQ(int_values(0, kSwitch), (Ints{1, 1}));
    // Hex and octal forms count as numbers, but the values are read the decimal way (atoi):
    // "0x1F" is 0 and "037" is 37. Runs of delimiters make no empty tokens.
    EXPECT_EQ(set(kVolume, "0x1F"), 0);
    EXPECT_EQ(int_values(0, kVolume), (Ints{0, 0}));
    EXPECT_EQ(set(kVolume, " 037 , ,, 31 "), 0);
    EXPECT_EQ(int_values(0, kVolume), (Ints{37, 31}));

    EXPECT_EQ(set("T PCM Source", "DSP"), 0);
    EXPECT_EQ(enum_item(0, "T PCM Source"), "DSP");
    EXPECT_EQ(set("T PCM Source", "3"), 0); // by item number
    EXPECT_EQ(enum_item(0, "T PCM Source"), "Zero");

    // A control number in any form that atoi reads the same names that control.
    const std::string mode = number_of("T DSP Mode");
    EXPECT_EQ(set(("+" + mode).c_str(), "3"), 0);
    EXPECT_EQ(int_values(0, "T DSP Mode"), (Ints{3}));

    // Through TLV access the bytes travel behind a {tag 0, length n} header.
    EXPECT_EQ(set(kTlvBytes, "00 00 15 14"), 0);
    EXPECT_EQ(bytes(0, kTlvBytes), (Bytes{0x00, 0x00, 0x0F, 0x0E}));
    EXPECT_EQ(journal_lines().back(),
              "tlv 0 \"RCV DSP1 Protection cd CAL_R\" tag 0 len 4 = 00 00 0f 0e");
    // A plain byte control gets exactly the bytes, whatever notation and delimiters.
    EXPECT_EQ(set(kPlainBytes, "0x12,0x34 0253 255"), 0);
    EXPECT_EQ(journal_lines().back(), "ctl 0 \"T DSP1 Protection 5f210 CH_BAL\" = 12 34 ab ff");
}

TEST_F(Setter, EveryRefusalPrintsItsErrorAndWritesNothing)
{
    preset_bytes(0, kPlainBytes, {1, 2, 3, 4});
    clear_journal();
    const struct {
        const char *control;
        const char *value;
        int32_t status;
        const char *message;
    } cases[] = {
        {"T DSP Mode", "", -1, ""}, // no token: refused before the lookup
        {"No Such Control", " , ,,", -1, ""},
        {"T DSP Mode", nullptr, -1, ""},
        {"No Such Control", "1", 2, "Invalid mixer control: No Such Control\n"},
        {"99999", "1", 2, "Invalid mixer control: 99999\n"},
        {"", "1", 2, "Invalid mixer control: \n"},
        {nullptr, "1", 2, "Invalid mixer control: (null)\n"},
        {kSwitch, "1 1 1", 22, "Error: 3 values given, but control only takes 2\n"},
        {"T DSP Mode", "7", 22, "Error: invalid value\n"},
        {"T DSP Mode", "08", 22, "Error: only enum types can be set with strings\n"},
        {kSwitch, "on", 22, "Error: only enum types can be set with strings\n"},
        {"T PCM Source", "Bogus", 22, "Error: invalid enum value\n"},
        {"T PCM Source", "DSP Zero", 22, "Enclose strings in quotes and try again\n"},
        {"T PCM Source", "DSP,Zero", 22, "Enclose strings in quotes and try again\n"},
        {kPlainBytes, "256", -1, "256 should be between [0, 0xff]\n"},
        {kTlvBytes, "1 -1", -1, "-1 should be between [0, 0xff]\n"},
        {kPlainBytes, "08", -1, "08 not an integer\n"},
        {kPlainBytes, "1 2 0x", -1, "0x not an integer\n"},
        {kPlainBytes, "99999999999999999999", -1,
         "strtol: 99999999999999999999: Numerical result out of range\n"},
        {kPlainBytes, "1 2 3 4 5", -1, "Failed to set binary control\n"},
        {kTlvBytes, "1 2 3 4 5", -1, "Failed to set binary control\n"},
    };
    for (const auto &c : cases) {
        EXPECT_EQ(set(c.control, c.value), c.status) << c.control << " <== " << c.value;
        EXPECT_EQ(err_, c.message) << c.control << " <== " << c.value;
    }
    EXPECT_TRUE(journal_lines().empty());
    EXPECT_EQ(bytes(0, kPlainBytes), (Bytes{1, 2, 3, 4}));

    // A refusal inside a list leaves the indices before it written.
    EXPECT_EQ(set(kVolume, "5 9999"), 22);
    EXPECT_EQ(err_, "Error: invalid value for index 1\n");
    EXPECT_EQ(int_values(0, kVolume), (Ints{5, 817}));
}

TEST_F(SetterDeathTest, AtMost1024Tokens)
{
    const auto ones = [](int count) {
        std::string text;
        while (count-- > 0)
            text += "1 ";
        return text;
    };
    // 1024 tokens are taken (the 64-byte control then refuses them); one more ends the process.
    EXPECT_EQ(set("Tervox SP Delta", ones(1024).c_str()), -1);
    EXPECT_EQ(err_, "Failed to set binary control\n");
    EXPECT_DEATH(tervox_tmixer_set(mixer(), "Tervox SP Delta", ones(1025).c_str()), "");
    EXPECT_DEATH(tervox_tmixer_set(mixer(), "No Such Control", ones(2000).c_str()), "");
}

TEST_F(Reader, DspWordsReadAsSigned25BitNumbers)
{
    const struct {
        std::vector<uint8_t> bytes;
        int32_t value;
        const char *logged;
    } cases[] = {
        {{0x01, 0xFF, 0xFF, 0xFF}, -1, "ffffffff"},
        {{0x00, 0xFF, 0xFF, 0xFF}, 16777215, "ffffff"},
        {{0xFE, 0x00, 0x00, 0x01}, 1, "     1"}, // bits above the sign are ignored
    };
    LogCapture log;
    for (const auto &c : cases) {
        preset_bytes(0, kPlainBytes, c.bytes);
        EXPECT_EQ(tervox_dsp_tmixer_get(mixer(), kPlainBytes), c.value) << c.logged;
        ASSERT_FALSE(log.lines().empty());
        const auto line = log.lines().back();
        EXPECT_EQ(std::tuple(line.text, line.priority, line.tag),
                  std::tuple(std::string("tervox_dsp_tmixer_get: ctl(") + kPlainBytes +
                                 ") = " + c.logged + "\n",
                             3, "AHAL:TERVOX"));
    }
    // A missing control leaves the preset, which reads as a recognisable number.
    EXPECT_EQ(captured([&] { return tervox_dsp_tmixer_get(mixer(), "No Such Control"); }),
              -5636096);
}

TEST_F(Reader, SelfTestPrintsWhatReadsBack)
{
    EXPECT_EQ(captured(tervox_tmixer_test), 0);
    EXPECT_EQ(out_, "Default: 00 00 15 14, num=4\n"
                    "RCV DSP1 Protection cd CAL_R: e0f0000 0 0 0 \n");
    EXPECT_EQ(bytes(0, kTlvBytes), (std::vector<uint8_t>{0x00, 0x00, 0x0F, 0x0E}));
}

// Each application opens and closes the mixer exactly once.
void expect_one_mixer(const std::string &what)
{
    EXPECT_EQ(g_opens, 1) << what;
    EXPECT_EQ(g_closes, 1) << what;
    reset_mixer_calls();
}

TEST_F(Path, EveryTableAppliesWholeAndInOrder)
{
    const std::span<const PathEntry> tables[] = {
        tvox::spk_playback_path, tvox::rcv_playback_path, tvox::amp_off_path,
        tvox::amp_on_dsp_path,   tvox::cal_mode_path,     tvox::run_mode_path,
        tvox::dsp_source_path,   tvox::dsp_bypass_path,   tvox::reload_off_path,
        tvox::reload_load_path,  tvox::rtlog_setup_path,  tvox::rtlog_state_clear_path,
        tvox::rtlog_stop_path,   tvox::boot_firmware_path};
    for (const auto &path : tables) {
        const std::string name = "table " + std::to_string(&path - tables);
        clear_journal();
        EXPECT_EQ(captured([&] { return tvox::apply_path(path); }), 0) << name << ": " << err_;
        Names expected;
        for (const auto &entry : path)
            expected.push_back(entry.control);
        EXPECT_EQ(written_controls(), expected) << name;
        expect_one_mixer(name);
    }
}

TEST_F(Path, StepsRunInOrderAndUdelayOnlyWaits)
{
    LogCapture log;
    const PathEntry steps[] = {
        {"T DSP Mode", "2"}, {"udelay", "50000"}, {"T DSP Mode", "3"}, {"udelay", "0x10"}};
    g_pauses.clear();
    EXPECT_EQ(tvox::apply_path(steps), 0);
    EXPECT_EQ(g_pauses, (std::vector<useconds_t>{50000, 0})); // base 10 only: "0x10" is 0
    EXPECT_EQ(journal_lines(), (Names{"ctl 0 \"T DSP Mode\" = 2", "ctl 0 \"T DSP Mode\" = 3"}));
    expect_one_mixer("steps");
    ASSERT_EQ(log.lines().size(), 2u);
    EXPECT_EQ(log.lines()[1].text, "tervox_apply_mixer_path: T DSP Mode = 3\n");
    EXPECT_EQ(log.lines()[1].priority, 3);

    // An empty path still opens and closes the mixer.
    clear_journal();
    EXPECT_EQ(tervox_apply_mixer_path(nullptr, 0), 0);
    EXPECT_TRUE(journal_lines().empty());
    expect_one_mixer("empty path");
}

// A pause is the same on every ABI: below 0 is none, and the value is held whole up to the
// largest the C library takes (a 32-bit long cannot hold 3000000000).
TEST_F(Path, UdelayPausesAreClampedToWhatUsleepTakes)
{
    const std::pair<const char *, useconds_t> cases[] = {
        {"0", 0},
        {"-5", 0},
        {"", 0},
        {nullptr, 0},
        {"1", 1},
        {"2147483648", 2147483648u},
        {"3000000000", 3000000000u},
        {"4294967295", UINT32_MAX},
        {"4294967296", UINT32_MAX},
        {"-4294967296", 0},
        {"99999999999999999999999", UINT32_MAX},
    };
    for (const auto &[value, microseconds] : cases) {
        const PathEntry steps[] = {{"udelay", value}};
        g_pauses.clear();
        EXPECT_EQ(tvox::apply_path(steps), 0);
        EXPECT_EQ(g_pauses, std::vector<useconds_t>{microseconds}) << (value ? value : "null");
    }
    EXPECT_TRUE(journal_lines().empty());
}

TEST_F(Path, FirstFailureStopsThePath)
{
    const std::pair<PathEntry, int32_t> cases[] = {
        {{"No Such Control", "1"}, 2},
        {{"T DSP Mode", "9"}, 22},
        {{"T DSP1 Protection 5f210 CH_BAL", "256"}, -1},
    };
    for (const auto &[failing, status] : cases) {
        preset_ints(0, "B DSP Mode", {1});
        clear_journal();
        LogCapture log;
        const PathEntry steps[] = {
            {"T DSP Mode", "2"}, {"T PCM Source", "DSP"}, failing, {"B DSP Mode", "3"}};
        EXPECT_EQ(captured([&] { return tvox::apply_path(steps); }), status) << failing.control;
        EXPECT_EQ(written_controls(), (Names{"T DSP Mode", "T PCM Source"}));
        EXPECT_EQ(int_values(0, "B DSP Mode"), (std::vector<long>{1}));
        expect_one_mixer(failing.control);
        ASSERT_FALSE(log.lines().empty());
        const auto line = log.lines().back();
        EXPECT_EQ(std::tuple(line.text, line.priority, line.tag),
                  std::tuple(std::string("tervox_apply_mixer_path: '") + failing.control +
                                 "' <== '" + failing.value + "' failed\n",
                             6, "AHAL:TERVOX"));
    }
}

// A card not registered yet must not end the audio server: the self-test reports it, a path
// is refused with -22.
TEST_F(Path, MixerThatDoesNotOpenRefusesThePath)
{
    setenv("TINYALSA_CARD_0", "tvoxsim:42", 1); // no such card: mixer_open fails
    EXPECT_EQ(captured(tervox_tmixer_test), 19);
    EXPECT_EQ(err_, "Failed to open mixer\n");
    EXPECT_EQ(out_, "");
    LogCapture log;
    EXPECT_EQ(tvox::apply_path(tvox::amp_off_path), -22);
    EXPECT_EQ(tervox_apply_mixer_path(nullptr, 0), -22);
    ASSERT_EQ(log.lines().size(), 2u);
    for (const auto &line : log.lines())
        EXPECT_EQ(std::tuple(line.text, line.priority, line.tag),
                  std::tuple("Failed to open mixer\n", 6, "AHAL:TERVOX"));
    EXPECT_TRUE(journal_lines().empty());
}

// The setter fuzz corpus, replayed: the first byte of a file picks the kind of control (bool,
// int, enum, plain bytes, TLV bytes, as in the fuzz target), the rest is the value text. Every
// input is taken or refused with a message, a refused enum or byte write leaves the stored value
// as it was, and seeds get their verdicts.
enum Kind : size_t { kBool, kInt, kEnum, kPlainBytesKind, kTlvBytesKind };
constexpr std::array<const char *, 5> kControls{kSwitch, kVolume, "T PCM Source", kPlainBytes,
                                                kTlvBytes};
// Longer texts can hold more than 1024 tokens, which ends the process on purpose.
constexpr size_t kMaxText = 2047;

// Ints, bytes, item text: the stored value of each kind.
using Stored = std::tuple<Ints, Bytes, std::string>;

class MixerValueCorpus : public MixerTest
{
  protected:
    Stored stored(Kind kind)
    {
        const char *name = kControls[kind];
        if (kind == kEnum)
            return {{}, {}, enum_item(0, name)};
        if (kind == kPlainBytesKind || kind == kTlvBytesKind)
            return {{}, bytes(0, name), ""};
        return {int_values(0, name), {}, ""};
    }
};

TEST_F(MixerValueCorpus, EveryInputIsTakenOrRefusedWithAMessage)
{
    struct Seed {
        int32_t status;
        Stored after;
    };
    const std::map<std::string, Seed> seeds = {
        {"bool_one", {0, {{1, 1}, {}, ""}}},
        {"bool_list", {0, {{0, 1}, {}, ""}}},
        {"bool_two", {0, {{1, 1}, {}, ""}}}, // any non-zero switches on
        {"int_too_many", {22, {}}},
        {"int_word", {22, {}}},
        {"enum_unknown", {22, {}}},
        {"enum_spaced", {22, {}}},
        {"bytes_bases", {0, {{}, {0x01, 0x02, 0xFF, 0xFF}, ""}}},
        {"bytes_range", {-1, {}}},
        {"bytes_negative", {-1, {}}},
        {"bytes_word", {-1, {}}},
        {"tlv_overflow", {-1, {}}},
    };
    size_t files = 0, seeds_seen = 0;
    for (const auto &entry : std::filesystem::directory_iterator(TVOXSP_MIXER_VALUE_CORPUS)) {
        std::ifstream in(entry.path(), std::ios::binary);
        const std::string input{std::istreambuf_iterator<char>(in), {}};
        if (input.empty() || input.size() - 1 > kMaxText)
            continue;
        ++files;
        const std::string name = entry.path().filename();
        const auto kind = static_cast<Kind>(static_cast<uint8_t>(input[0]) % kControls.size());
        const std::string text = input.substr(1);
        const Stored before = stored(kind);

        const int32_t status = set(kControls[kind], text.c_str());
        const std::string &message = err_;
        EXPECT_TRUE(status == 0 || status == -1 || status == 22) << name << ": " << status;
        const bool no_tokens = text.c_str()[strspn(text.c_str(), " ,")] == '\0';
        EXPECT_EQ(message.empty(), status == 0 || no_tokens) << name << ": " << message;
        if (status != 0 && kind != kBool && kind != kInt) {
            EXPECT_EQ(stored(kind), before) << name;
        }

        const auto seed = seeds.find(name);
        if (seed == seeds.end())
            continue;
        ++seeds_seen;
        EXPECT_EQ(status, seed->second.status) << name;
        if (status == 0) {
            EXPECT_EQ(stored(kind), seed->second.after) << name;
        }
    }
    EXPECT_EQ(seeds_seen, seeds.size());
    EXPECT_GE(files, seeds.size());
}

} // namespace
