// The shared state file: stale files, processes sharing it, the fixed-size record tables.
#include "card.h"
#include "state.h"
#include "support/sim_fixture.h"

#include <fcntl.h>
#include <sys/wait.h>
#include <unistd.h>

#include <gtest/gtest.h>

#include <cerrno>
#include <cstddef>

namespace
{

using tvox::sim::Card;
using tvox::sim::Session;
using tvox::sim::State;
using tvox::sim::Value;

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

TEST_F(StateTest, StaleOrForeignFilesAreReplacedNotMisread)
{
    const std::string path = sim_dir() + "/state";
    const auto overwrite = [&](int flags, off_t offset, const void *data, size_t size) {
        const int fd = open(path.c_str(), O_WRONLY | flags);
        ASSERT_GE(fd, 0);
        EXPECT_EQ(pwrite(fd, data, size, offset), static_cast<ssize_t>(size));
        close(fd);
    };
    ASSERT_EQ(write_mode(3), 1);
    ASSERT_EQ(fresh_mode(), (std::vector<long>{3}));
    // Another layout version in the header: the values go back to their defaults.
    const uint32_t other_version = tvox::sim::kLayoutVersion + 1;
    overwrite(0, offsetof(tvox::sim::Header, version), &other_version, sizeof other_version);
    EXPECT_TRUE(fresh_mode().empty());
    ASSERT_EQ(write_mode(3), 1);
    EXPECT_EQ(fresh_mode(), (std::vector<long>{3}));
    // A file of another size, and one that is not a state file at all.
    ASSERT_EQ(truncate(path.c_str(), 4096), 0);
    EXPECT_TRUE(fresh_mode().empty());
    overwrite(O_TRUNC, 0, "hello", 5);
    EXPECT_EQ(write_mode(2), 1);
    EXPECT_EQ(fresh_mode(), (std::vector<long>{2}));
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
    const std::vector<std::string> lines = journal_lines();
    EXPECT_EQ(lines.size(), 2u * kWrites);
    // Whole lines only: "ctl 0 "<T or B> DSP Set CAL_AMBIENT" = <one or two digits>". (No
    // std::regex: GCC's optimised sanitizer build warns inside it.)
    for (const std::string &text : lines) {
        constexpr size_t kHead = sizeof "ctl 0 \"T DSP Set CAL_AMBIENT\" = " - 1;
        const std::string head = text.substr(0, kHead);
        const std::string digits = text.size() > kHead ? text.substr(kHead) : "";
        EXPECT_TRUE((head == "ctl 0 \"T DSP Set CAL_AMBIENT\" = " ||
                     head == "ctl 0 \"B DSP Set CAL_AMBIENT\" = ") &&
                    !digits.empty() && digits.size() <= 2 &&
                    digits.find_first_not_of("0123456789") == std::string::npos)
            << text;
    }
    EXPECT_EQ(int_values(0, "T DSP Set CAL_AMBIENT"), (std::vector<long>{(kWrites - 1) % 100}));
}

TEST_F(StateTest, ControlOfAnotherShapeStartsOverFromItsDefaults)
{
    tvox::sim::Control control;
    control.card = 5;
    control.name = "Resized";
    control.count = 2;
    control.max = 100;
    control.default_numbers = {7};
    Session session = state().lock();
    session.numbers(*session.bind(control))[0] = 50;
    EXPECT_EQ(session.numbers(*session.bind(control))[0], 50) << "same shape keeps its value";
    control.count = 3;
    std::span<int64_t> resized = session.numbers(*session.bind(control));
    EXPECT_EQ(std::vector<int64_t>(resized.begin(), resized.end()),
              (std::vector<int64_t>{7, 7, 7}));
    control.type = tvox::sim::Type::bytes;
    control.default_bytes = {1};
    std::span<uint8_t> as_bytes = session.bytes(*session.bind(control));
    EXPECT_EQ(std::vector<uint8_t>(as_bytes.begin(), as_bytes.end()),
              (std::vector<uint8_t>{1, 0, 0}));
    EXPECT_EQ(session.find(5, "Resized"), session.bind(control));
}

TEST_F(StateTest, FullTablesRefuseNewEntriesAndKeepTheirOwn)
{
    Session session = state().lock();
    EXPECT_EQ(session.stream(100, 100, false), nullptr);
    tvox::sim::PcmRecord *record = session.stream(100, 100, true);
    ASSERT_NE(record, nullptr);
    EXPECT_EQ(session.stream(100, 100, false), record);
    EXPECT_NE(session.stream(0, 100, true), record);
    size_t used = 2;
    while (session.stream(1, static_cast<int>(used), true) != nullptr)
        ++used;
    EXPECT_EQ(used, tvox::sim::kMaxStreams) << "every record is taken, none is reused";

    for (uint32_t reg = 0; reg < tvox::sim::kMaxRegisters; ++reg)
        ASSERT_TRUE(session.set_reg(0, reg * 4, reg));
    EXPECT_FALSE(session.set_reg(0, 0xffff0, 1)) << "a full register file refuses new registers";
    EXPECT_TRUE(session.set_reg(0, 4, 77)) << "but still updates known ones";
    EXPECT_EQ(session.reg(0, 4), 77u);
    EXPECT_EQ(session.reg(0, 0xffff0), 0u);
    EXPECT_DEATH(session.speaker(tvox::sim::kMaxChannels), "");

    session.connect(100, "TDM-LPAIF-RX-SECONDARY", true);
    session.connect(100, "VIRT-SPK-GROUP", true);
    session.connect(101, "VIRT-SPK-GROUP", true);
    session.connect(100, "TDM-LPAIF-RX-SECONDARY", false);
    EXPECT_EQ(session.connected(100), (std::vector<std::string>{"VIRT-SPK-GROUP"}));
    EXPECT_EQ(session.connected(101), (std::vector<std::string>{"VIRT-SPK-GROUP"}));
    EXPECT_TRUE(session.connected(102).empty());
}

TEST_F(StateTest, OpenFailsCleanlyWhereNoFolderCanBe)
{
    int err = 0;
    EXPECT_EQ(State::open(sim_dir() + "/state/below", err), nullptr);
    EXPECT_EQ(err, -ENOTDIR);
    EXPECT_EQ(State::make_dir(""), -EINVAL);
    EXPECT_EQ(State::make_dir(sim_dir() + "/a/b/c"), 0);
    setenv("TVOXSIM_DIR", "", 1);
    EXPECT_EQ(State::dir_from_env(), "/tmp/tvoxsim-" + std::to_string(getuid()));
}

} // namespace
