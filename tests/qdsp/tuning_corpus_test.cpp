// The fuzz corpus of the tuning file rules, replayed: every file walks and parses within its
// blocks, and each seed gets the verdict the loaders must reach for it.
#include "qdsp/tuning_block.h"
#include "util/file_handle.h"

#include <gtest/gtest.h>

#include <filesystem>
#include <map>
#include <string>

namespace
{

using tvox::tuning::BlockState;
using tvox::tuning::Layout;
using tvox::tuning::Walk;

enum class Verdict { accepted, rejected, fatal };

struct Judgement {
    size_t blocks = 0;
    Verdict verdict = Verdict::accepted;
};

// How the loaders of `layout` judge the file: fatal conditions first, then any failing block.
Judgement judge(const std::filesystem::path &path, Layout layout)
{
    Judgement judgement;
    const tvox::FileHandle file(std::fopen(path.c_str(), "r"));
    EXPECT_NE(file, nullptr) << path;
    if (!file)
        return judgement;
    bool fatal = false, failed = false;
    const Walk walk = tvox::tuning::walk_blocks(file.get(), layout, [&](const auto &text) {
        EXPECT_EQ(text.index, judgement.blocks++);
        const tvox::tuning::Block block = tvox::tuning::parse_block(text.text);
        fatal = fatal || block.state == BlockState::size_overflow;
        const auto crc = tvox::tuning::check_block(block);
        EXPECT_EQ(crc.has_value(), block.state == BlockState::ok) << path;
        EXPECT_EQ(block.words_in_block().size(),
                  block.state == BlockState::ok ? static_cast<size_t>(block.size) : 0u);
        failed = failed || !crc || !crc->matches();
    });
    judgement.verdict = fatal || walk != Walk::done ? Verdict::fatal
                        : failed                    ? Verdict::rejected
                                                    : Verdict::accepted;
    return judgement;
}

TEST(TuningCorpus, EveryFileStaysInsideItsBlocksAndSeedsGetTheirVerdicts)
{
    // {file, layout, blocks seen, verdict}
    struct Seed {
        Layout layout;
        size_t blocks;
        Verdict verdict;
    };
    const std::map<std::string, Seed> seeds = {
        {"rx_left.txt", {Layout::rx_config, 1, Verdict::accepted}},
        {"rx_both.txt", {Layout::rx_config, 2, Verdict::accepted}},
        {"rx_third_line.txt", {Layout::rx_config, 2, Verdict::fatal}},
        {"rx_marker_equals.txt", {Layout::rx_config, 1, Verdict::rejected}},
        {"delta_two.txt", {Layout::block_lines, 2, Verdict::accepted}},
        {"delta_bad_crc.txt", {Layout::block_lines, 1, Verdict::rejected}},
        {"size_past_line.txt", {Layout::block_lines, 1, Verdict::rejected}},
        {"size_below_one.txt", {Layout::block_lines, 3, Verdict::rejected}},
        {"size_overflow.txt", {Layout::block_lines, 1, Verdict::fatal}},
        {"tokens_past_block.txt", {Layout::block_lines, 1, Verdict::accepted}},
        {"odd_tokens.txt", {Layout::block_lines, 1, Verdict::rejected}},
        {"too_many_lines.txt", {Layout::block_lines, 100, Verdict::fatal}},
        {"no_newline.txt", {Layout::block_lines, 1, Verdict::accepted}},
    };
    size_t seeds_seen = 0;
    for (const auto &entry : std::filesystem::directory_iterator(TVOXSP_TUNING_CORPUS)) {
        const std::string name = entry.path().filename();
        for (Layout layout : {Layout::rx_config, Layout::block_lines}) {
            const Judgement judgement = judge(entry.path(), layout);
            const auto seed = seeds.find(name);
            if (seed == seeds.end() || seed->second.layout != layout)
                continue;
            ++seeds_seen;
            EXPECT_EQ(judgement.blocks, seed->second.blocks) << name;
            EXPECT_EQ(judgement.verdict, seed->second.verdict) << name;
        }
    }
    EXPECT_EQ(seeds_seen, seeds.size());
}

} // namespace
