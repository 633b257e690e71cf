// The setter fuzz corpus, replayed through tervox_tmixer_set on the virtual amplifier card: the
// first byte of a file picks the kind of control (bool, int, enum, plain bytes, TLV bytes, as in
// the fuzz target), the rest is the value text. Every input is taken or refused with a message,
// a refused enum or byte write leaves the stored value as it was, and seeds get their verdicts.
#include "support/capture.h"
#include "support/mixer.h"
#include "tvoxsp/mixer.h"

#include <gtest/gtest.h>

#include <array>
#include <cstring>
#include <filesystem>
#include <fstream>
#include <iterator>
#include <map>
#include <string>
#include <vector>

namespace
{

using Bytes = std::vector<uint8_t>;
using Ints = std::vector<long>;

enum Kind : size_t { kBool, kInt, kEnum, kPlainBytes, kTlvBytes };
constexpr std::array<const char *, 5> kControls{"SPK AMP Enable Switch", "SPK Digital PCM Volume",
                                                "T PCM Source", "T DSP1 Protection 5f210 CH_BAL",
                                                "RCV DSP1 Protection cd CAL_R"};
// Longer texts can hold more than 1024 tokens, which ends the process on purpose.
constexpr size_t kMaxText = 2047;

struct Stored {
    Ints ints;
    Bytes bytes;
    std::string item;
    bool operator==(const Stored &) const = default;
};

void PrintTo(const Stored &stored, std::ostream *out)
{
    *out << "ints " << ::testing::PrintToString(stored.ints) << " bytes "
         << ::testing::PrintToString(stored.bytes) << " item \"" << stored.item << '"';
}

class MixerValueCorpus : public tvox::test::MixerSimTest<0>
{
  protected:
    Stored stored(Kind kind)
    {
        const char *name = kControls[kind];
        if (kind == kEnum)
            return {{}, {}, enum_item(0, name)};
        if (kind == kPlainBytes || kind == kTlvBytes)
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

        tvox::test::StreamCapture err(2);
        const int32_t status = tervox_tmixer_set(mixer_.get(), kControls[kind], text.c_str());
        const std::string message = err.text();
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
