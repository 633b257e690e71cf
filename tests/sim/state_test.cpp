// The shared state file: layout checks, processes sharing it, the records others build on.
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
    int write_mode(int mode)
    {
        int err = 0;
        std::unique_ptr<Card> card = Card::open(0, err);
        if (!card)
            return err;
        std::vector<int64_t> value{mode};
        return card->write(static_cast<size_t>(card->find("T DSP Mode")), Value{value, {}});
    }

    std::vector<long> mode_in_fresh_state()
    {
        int err = 0;
        std::unique_ptr<State> fresh = State::open(sim_dir(), err);
        EXPECT_TRUE(fresh) << err;
        Session session = fresh->lock();
        tvox::sim::ControlSlot *slot = session.find(0, "T DSP Mode");
        if (slot == nullptr)
            return {};
        return {static_cast<long>(session.numbers(*slot)[0])};
    }

    // Runs `body` in `count` child processes at once; true when all exited with 0.
    template <typename F> bool in_processes(int count, F body)
    {
        std::vector<pid_t> children;
        for (int i = 0; i < count; ++i) {
            pid_t pid = fork();
            if (pid == 0)
                _exit(body(i));
            children.push_back(pid);
        }
        bool ok = true;
        for (pid_t pid : children) {
            int status = 0;
            ok = waitpid(pid, &status, 0) == pid && WIFEXITED(status) && WEXITSTATUS(status) == 0 &&
                 ok;
        }
        return ok;
    }
};

TEST_F(StateTest, FileFromAnotherLayoutIsReplacedNotMisread)
{
    ASSERT_EQ(write_mode(3), 1);
    ASSERT_EQ(mode_in_fresh_state(), (std::vector<long>{3}));
    std::string path = sim_dir() + "/state";

    // Another layout version in the header: the values go back to their defaults.
    uint32_t old_version = tvox::sim::kLayoutVersion + 1;
    int fd = open(path.c_str(), O_WRONLY);
    ASSERT_GE(fd, 0);
    ASSERT_EQ(pwrite(fd, &old_version, sizeof old_version, offsetof(tvox::sim::Header, version)),
              static_cast<ssize_t>(sizeof old_version));
    close(fd);
    EXPECT_TRUE(mode_in_fresh_state().empty());
    ASSERT_EQ(write_mode(3), 1);
    EXPECT_EQ(mode_in_fresh_state(), (std::vector<long>{3}));

    // A file of another size, and one that is not a state file at all.
    ASSERT_EQ(truncate(path.c_str(), 4096), 0);
    EXPECT_TRUE(mode_in_fresh_state().empty());
    fd = open(path.c_str(), O_WRONLY | O_TRUNC);
    ASSERT_EQ(write(fd, "hello", 5), 5);
    close(fd);
    EXPECT_EQ(write_mode(2), 1);
    EXPECT_EQ(mode_in_fresh_state(), (std::vector<long>{2}));
}

TEST_F(StateTest, ConcurrentProcessesNeitherLoseUpdatesNorTearJournalLines)
{
    constexpr int kRounds = 2000;
    constexpr int kWrites = 300;
    ASSERT_TRUE(in_processes(2, [this](int child) {
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
        size_t ambient = static_cast<size_t>(
            card->find(child == 0 ? "T DSP Set CAL_AMBIENT" : "B DSP Set CAL_AMBIENT"));
        for (int i = 0; i < kWrites; ++i) {
            std::vector<int64_t> value{i % 100};
            if (card->write(ambient, Value{value, {}}) < 0)
                return 1;
        }
        return 0;
    }));
    EXPECT_EQ(int_values(0, "SPK Digital PCM Volume"),
              (std::vector<long>{817 + 2 * kRounds, 817 + 2 * kRounds}));
    std::vector<std::string> lines = journal_lines();
    EXPECT_EQ(lines.size(), 2u * kWrites);
    // Whole lines only: "ctl 0 "<T or B> DSP Set CAL_AMBIENT" = <one or two digits>".
    const auto whole_line = [](const std::string &text) {
        const std::string_view tail = " DSP Set CAL_AMBIENT\" = ";
        if (text.rfind("ctl 0 \"", 0) != 0 || text.size() < 7 + 1 + tail.size() + 1 ||
            (text[7] != 'T' && text[7] != 'B') || text.compare(8, tail.size(), tail) != 0)
            return false;
        const std::string digits = text.substr(8 + tail.size());
        return digits.size() <= 2 && digits.find_first_not_of("0123456789") == std::string::npos;
    };
    for (const std::string &text : lines)
        ASSERT_TRUE(whole_line(text)) << text;
    EXPECT_EQ(int_values(0, "T DSP Set CAL_AMBIENT"), (std::vector<long>{(kWrites - 1) % 100}));
}

TEST_F(StateTest, CatalogueChangeOfSizeResetsTheControl)
{
    tvox::sim::Control control;
    control.card = 5;
    control.name = "Resized";
    control.count = 2;
    control.max = 100;
    control.default_numbers = {7};
    Session session = state().lock();
    std::span<int64_t> values = session.numbers(*session.bind(control));
    ASSERT_EQ(values.size(), 2u);
    EXPECT_EQ(values[1], 7);
    values[0] = 50;
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

TEST_F(StateTest, StreamSpeakerRegisterAndGraphRecords)
{
    Session session = state().lock();
    EXPECT_EQ(session.stream(100, 100, false), nullptr);
    tvox::sim::PcmRecord *record = session.stream(100, 100, true);
    ASSERT_NE(record, nullptr);
    record->running = 1;
    record->rate = 48000;
    EXPECT_EQ(session.stream(100, 100, false), record);
    EXPECT_NE(session.stream(0, 100, true), record);
    size_t used = 2;
    while (session.stream(1, static_cast<int>(used), true) != nullptr)
        ++used;
    EXPECT_EQ(used, tvox::sim::kMaxStreams) << "every record is taken, none is reused";

    EXPECT_DOUBLE_EQ(session.speaker(0).resistance_ohm, 6.0);
    EXPECT_EQ(session.speaker(1).fault, tvox::sim::SpeakerFault::none);
    session.speaker(1).fault = tvox::sim::SpeakerFault::shorted;
    EXPECT_DEATH(session.speaker(tvox::sim::kMaxChannels), "");

    for (uint32_t reg = 0; reg < tvox::sim::kMaxRegisters; ++reg)
        ASSERT_TRUE(session.set_reg(0, reg * 4, reg));
    EXPECT_FALSE(session.set_reg(0, 0xffff0, 1)) << "a full register file refuses new registers";
    EXPECT_TRUE(session.set_reg(0, 4, 77)) << "but still updates known ones";
    EXPECT_EQ(session.reg(0, 4), 77u);
    EXPECT_EQ(session.reg(0, 0xffff0), 0u);

    session.connect(100, "TDM-LPAIF-RX-SECONDARY", true);
    session.connect(100, "VIRT-SPK-GROUP", true);
    session.connect(101, "VIRT-SPK-GROUP", true);
    session.connect(100, "TDM-LPAIF-RX-SECONDARY", false);
    EXPECT_EQ(session.connected(100), (std::vector<std::string>{"VIRT-SPK-GROUP"}));
    EXPECT_EQ(session.connected(101), (std::vector<std::string>{"VIRT-SPK-GROUP"}));
    EXPECT_TRUE(session.connected(102).empty());
    int group = session.interface("VIRT-SPK-GROUP", false);
    ASSERT_GE(group, 0);
    session.interface_at(group).no_mfc = 1;
    EXPECT_EQ(session.interface("TDM-LPAIF-RX-TERTIARY", false), -1);
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
