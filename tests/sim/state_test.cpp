// The shared state file: damaged or foreign files and processes sharing it.
#include "card.h"
#include "state.h"
#include "support/sim_fixture.h"

#include <fcntl.h>
#include <sys/wait.h>
#include <unistd.h>

#include <gtest/gtest.h>

#include <cstddef>
#include <fstream>
#include <functional>
#include <set>
#include <sstream>

namespace
{

using tvox::sim::Card;
using tvox::sim::Session;
using tvox::sim::State;
using tvox::sim::Value;
using tvox::test::CommandResult;

class StateTest : public tvox::test::SimTest
{
  protected:
    int write_mode(int64_t mode)
    {
        int err = 0;
        std::unique_ptr<Card> card = Card::open(0, err);
        if (!card)
            return err;
        return card->write(static_cast<size_t>(card->find("T DSP Mode")), Value{{&mode, 1}, {}});
    }
    // "T DSP Mode" as a newly opened state finds it, empty when the control has no value yet.
    std::vector<long> fresh_mode()
    {
        int err = 0;
        std::unique_ptr<State> fresh = State::open(sim_dir(), err);
        EXPECT_TRUE(fresh) << err;
        Session session = fresh->lock();
        tvox::sim::ControlSlot *slot = session.find(0, "T DSP Mode");
        return slot ? std::vector<long>{static_cast<long>(session.numbers(*slot)[0])}
                    : std::vector<long>{};
    }
};

// A state file that is not whole, not a state file or from another build is refused by every
// process, left as it is (its values may matter), and replaced only by a fresh one.
TEST_F(StateTest, CutShortForeignOrOtherBuildFilesAreRefusedAndKept)
{
    const std::string path = sim_dir() + "/state";
    const auto contents = [&] {
        std::ostringstream text;
        text << std::ifstream(path, std::ios::binary).rdbuf();
        return text.str();
    };
    const uint32_t other_version = tvox::sim::kLayoutVersion + 1;
    const std::string damaged = "is damaged or truncated";
    const struct {
        const char *what;
        std::function<void()> damage;
        int err;
        std::string says;
    } cases[] = {
        {"another layout version",
         [&] {
             const int fd = open(path.c_str(), O_WRONLY);
             ASSERT_EQ(pwrite(fd, &other_version, sizeof other_version,
                              offsetof(tvox::sim::Header, version)),
                       static_cast<ssize_t>(sizeof other_version));
             close(fd);
         },
         -EPROTO, "was made by another build of tvoxsim"},
        {"cut short", [&] { ASSERT_EQ(truncate(path.c_str(), 4096), 0); }, -EUCLEAN, damaged},
        {"grown", [&] { ASSERT_EQ(truncate(path.c_str(), sizeof(tvox::sim::Layout) + 8), 0); },
         -EUCLEAN, damaged},
        {"empty", [&] { ASSERT_EQ(truncate(path.c_str(), 0), 0); }, -EUCLEAN, damaged},
        {"not a state file", [&] { std::ofstream(path, std::ios::binary) << "hello"; }, -EUCLEAN,
         damaged},
    };
    for (const auto &c : cases) {
        int err = 0;
        ASSERT_TRUE(State::create(sim_dir(), err)) << c.what;
        ASSERT_EQ(write_mode(3), 1) << c.what;
        c.damage();
        const std::string before = contents();
        EXPECT_FALSE(State::open(sim_dir(), err)) << c.what;
        EXPECT_EQ(err, c.err) << c.what;
        EXPECT_EQ(write_mode(2), c.err) << c.what;
        const CommandResult show = tool("show 0");
        EXPECT_EQ(show.status, 1) << c.what;
        EXPECT_EQ(show.output, "tvoxsim: the state file in " + sim_dir() + " " + c.says +
                                   " (tvoxsim init --force " + sim_dir() + " makes a fresh one)\n")
            << c.what;
        EXPECT_EQ(contents(), before) << c.what;
    }
    int err = 0;
    ASSERT_TRUE(State::create(sim_dir(), err));
    EXPECT_TRUE(fresh_mode().empty());
}

// A valid header over damaged tables: refused with a clear error by every process that opens
// it, never followed out of the file, and replaced by `tvoxsim init`.
TEST_F(StateTest, DamagedTablesAreRefusedUntilInitMakesAFreshFile)
{
    using tvox::sim::ControlSlot;
    using tvox::sim::Layout;
    const auto word = [](uint64_t value, size_t size) {
        return std::string(reinterpret_cast<const char *>(&value), size);
    };
    const size_t slot0 = offsetof(Layout, slots);
    const struct {
        const char *what;
        size_t offset;
        std::string bytes;
    } damages[] = {
        {"slot count", offsetof(Layout, header.slot_count), word(tvox::sim::kMaxControls + 1, 4)},
        {"pool used", offsetof(Layout, header.pool_used), word(tvox::sim::kPoolBytes + 1, 8)},
        {"buckets", offsetof(Layout, buckets), std::string(sizeof(Layout::buckets), '\xff')},
        {"chain loop", slot0 + offsetof(ControlSlot, next), word(1, 4)},
        {"value offset", slot0 + offsetof(ControlSlot, offset), word(tvox::sim::kPoolBytes, 8)},
        {"value size", slot0 + offsetof(ControlSlot, size), word(12, 4)},
        {"type", slot0 + offsetof(ControlSlot, type), word(9, 4)},
        {"name", slot0 + offsetof(ControlSlot, name), std::string(tvox::sim::kNameMax, 'x')},
        {"fault", offsetof(Layout, speakers) + offsetof(tvox::sim::SpeakerConfig, fault),
         word(99, 4)},
        {"control fault", offsetof(Layout, control_faults), word(0, 4) + word(3, 4)},
        {"control fault name", offsetof(Layout, control_faults[1].name),
         std::string(tvox::sim::kNameMax, 'x')},
    };
    const std::string path = sim_dir() + "/state";
    for (const auto &damage : damages) {
        ASSERT_EQ(tool("init --force").status, 0) << damage.what;
        ASSERT_EQ(amixer(0, "cget name='T DSP Mode'").status, 0) << damage.what;
        const int fd = open(path.c_str(), O_WRONLY);
        ASSERT_GE(fd, 0);
        ASSERT_EQ(
            pwrite(fd, damage.bytes.data(), damage.bytes.size(), static_cast<off_t>(damage.offset)),
            static_cast<ssize_t>(damage.bytes.size()));
        close(fd);

        int err = 0;
        EXPECT_FALSE(State::open(sim_dir(), err)) << damage.what;
        EXPECT_EQ(err, -EUCLEAN) << damage.what;
        const CommandResult show = tool("show 0");
        EXPECT_EQ(show.status, 1) << damage.what;
        const std::string message = "tvoxsim: the state file in " + sim_dir() +
                                    " is damaged or truncated (tvoxsim init --force " + sim_dir() +
                                    " makes a fresh one)\n";
        EXPECT_EQ(show.output, message) << damage.what;
        const CommandResult listing = amixer(0, "contents");
        EXPECT_EQ(listing.status, 1) << damage.what << listing.output;
        EXPECT_NE(listing.output.find(message), std::string::npos) << damage.what;
    }
    ASSERT_EQ(tool("init --force").status, 0);
    EXPECT_EQ(fresh_mode(), (std::vector<long>{1}));
}

TEST_F(StateTest, ConcurrentProcessesNeitherLoseUpdatesNorTearJournalLines)
{
    constexpr int kRounds = 2000;
    constexpr int kWrites = 300;
    const auto hammer = [this](int child) {
        int err = 0;
        std::unique_ptr<State> own = State::open(sim_dir(), err);
        std::unique_ptr<Card> card = Card::open(0, err);
        if (!own || !card)
            return 1;
        // Read-modify-write under the lock: any gap between processes loses increments.
        const tvox::sim::Control &counter =
            card->controls()[static_cast<size_t>(card->find("SPK Digital PCM Volume"))];
        for (int i = 0; i < kRounds; ++i) {
            Session session = own->lock();
            std::span<int64_t> values = session.numbers(*session.bind(counter));
            values[child] += 1;
            values[1 - child] += 1;
        }
        const size_t ambient = static_cast<size_t>(
            card->find(child == 0 ? "T DSP Set CAL_AMBIENT" : "B DSP Set CAL_AMBIENT"));
        for (int64_t i = 0; i < kWrites; ++i) {
            int64_t value = i % 100;
            if (card->write(ambient, Value{{&value, 1}, {}}) < 0)
                return 1;
        }
        return 0;
    };
    pid_t children[2];
    for (int child = 0; child < 2; ++child)
        if ((children[child] = fork()) == 0)
            _exit(hammer(child));
    for (pid_t pid : children) {
        int status = 0;
        ASSERT_EQ(waitpid(pid, &status, 0), pid);
        EXPECT_TRUE(WIFEXITED(status) && WEXITSTATUS(status) == 0);
    }
    EXPECT_EQ(int_values(0, "SPK Digital PCM Volume"),
              (std::vector<long>{817 + 2 * kRounds, 817 + 2 * kRounds}));
    // Whole lines only, each one a write of one of the two processes.
    std::set<std::string> whole;
    for (const std::string x : {"T", "B"})
        for (int i = 0; i < 100; ++i)
            whole.insert("ctl 0 \"" + x + " DSP Set CAL_AMBIENT\" = " + std::to_string(i));
    const std::vector<std::string> lines = journal_lines();
    EXPECT_EQ(lines.size(), 2u * kWrites);
    for (const std::string &text : lines)
        EXPECT_TRUE(whole.contains(text)) << text;
    EXPECT_EQ(int_values(0, "T DSP Set CAL_AMBIENT"), (std::vector<long>{(kWrites - 1) % 100}));
}

} // namespace
