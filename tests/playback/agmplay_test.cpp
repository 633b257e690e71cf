// Graph playback on the virtual AGM card: the call sequence as the card's journal shows it, the
// stream the sink received, what is printed, the result, and SIGINT.
#include "playback_fixture.h"

#include "tvoxsp/playback.h"

#include <alsa/asoundlib.h>
#include <tinyalsa/asoundlib.h>

#include <sys/wait.h>
#include <unistd.h>

#include <algorithm>
#include <chrono>
#include <csignal>
#include <cstring>
#include <thread>

namespace
{

using tvox::test::kBackend;
using tvox::test::open_descriptors;
using tvox::test::Played;
using Names = std::vector<std::string>;

class AgmplayTest : public tvox::test::PlaybackTest
{
  protected:
    // The controls written, in order, without the "PCM100 control" selections that only say
    // which interface the next call is about.
    Names written_controls()
    {
        Names names;
        for (const std::string &line : journal_lines()) {
            const size_t open = line.find('"');
            std::string name = line.substr(open + 1, line.find('"', open + 1) - open - 1);
            if (name != "PCM100 control")
                names.push_back(std::move(name));
        }
        return names;
    }

    // The first `count` little-endian words of a byte control of the AGM card.
    std::vector<uint32_t> words(std::string_view control, size_t count)
    {
        const std::vector<uint8_t> raw = bytes(100, control);
        std::vector<uint32_t> out(count);
        std::memcpy(out.data(), raw.data(), std::min(raw.size(), count * sizeof(uint32_t)));
        return out;
    }

    bool connected()
    {
        tvox::sim::Session session = state().lock();
        return !session.connected(100).empty();
    }
};

// The graph of one back end, as the card records it.
Names graph(const std::string &intf, bool mfc, bool group)
{
    Names names = {intf + " rate ch fmt", intf + " metadata", "PCM100 metadata", "PCM100 metadata",
                   "PCM100 connect"};
    if (mfc)
        names.push_back("PCM100 setParam");
    if (group)
        names.push_back(intf + " group config");
    names.insert(names.end(), {"PCM100 group mux config", "PCM100 disconnect"});
    return names;
}

// A back end without MFC still plays; only a "VIRT-" back end gets the group device config,
// every back end the group mux.
TEST_F(AgmplayTest, BuildsEachBackendsGraphPlaysAndDisconnects)
{
    const struct {
        const char *backend;
        const char *printed;
        Names controls;
    } cases[] = {
        {kBackend, "Backend TDM-LPAIF-RX-SECONDARY rate ch bit : 48000, 2, 32\n",
         graph(kBackend, true, false)},
        {tvox::sim::kNoMfcBackend,
         "Backend TDM-LPAIF-RX-PRIMARY rate ch bit : 48000, 2, 16\n"
         "MFC not present for this graph\n",
         graph(tvox::sim::kNoMfcBackend, false, false)},
        {"VIRT-SPK-GROUP", "Backend VIRT-SPK-GROUP rate ch bit : 48000, 2, 32\n",
         graph("VIRT-SPK-GROUP", true, true)},
    };
    for (const auto &c : cases) {
        SCOPED_TRACE(c.backend);
        clear_journal();
        const Played played = agmplay(wav("tone.wav", {}), c.backend);
        EXPECT_EQ(played.result, 0);
        EXPECT_EQ(played.out, c.printed);
        EXPECT_EQ(written_controls(), c.controls);
        EXPECT_FALSE(connected());
        EXPECT_EQ(stream(100, 100).value().frames_written, 480u);
    }
    // The last graph's MFC (the group back end's) got the back end's media config.
    EXPECT_EQ(words("PCM100 setParam", 4)[1], 48000u);
    EXPECT_EQ(words("VIRT-SPK-GROUP group config", 4), (std::vector<uint32_t>{48000, 2, 32, 3}));
    EXPECT_EQ(words("PCM100 group mux config", 2), (std::vector<uint32_t>{2, 3}));
}

// A failed graph step is printed and ends the sequence with 0; nothing stays open and the
// stream is not left connected.
TEST_F(AgmplayTest, FailedStepsEndTheSequenceWithResultZero)
{
    const int descriptors = open_descriptors();
    const std::string tone = wav("tone.wav", {});
    Played played = agmplay(tone, "TDM-LPAIF-RX-QUATERNARY");
    EXPECT_EQ(played.result, 0);
    EXPECT_EQ(played.out, "Invalid input, entry not found for : TDM-LPAIF-RX-QUATERNARY\n");
    EXPECT_TRUE(journal_lines().empty());
    // The sink refuses 4000 Hz: the graph was connected, the PCM does not open.
    played = agmplay(wav("slow.wav", {.rate = 4000}));
    EXPECT_EQ(played.result, 0);
    EXPECT_NE(played.out.find("Unable to open PCM device 100 ("), std::string::npos) << played.out;
    EXPECT_EQ(written_controls().back(), "PCM100 disconnect");
    EXPECT_FALSE(connected());
    EXPECT_FALSE(stream(100, 100) && stream(100, 100)->frames_written > 0);
    EXPECT_EQ(open_descriptors(), descriptors);
}

// SIGINT ends the playback after the buffer being written; the handler ignores later signals
// and the stop stays set, so the next playback of the process stops after its first buffer.
TEST_F(AgmplayTest, SigintStopsPlaybackForGood)
{
    int results[2];
    ASSERT_EQ(pipe(results), 0);
    const pid_t child = fork();
    ASSERT_GE(child, 0);
    if (child == 0) {
        struct tervox &ctx = context("/odm/etc/audio/silent-3sec.wav");
        uint64_t report[4] = {};
        report[0] = static_cast<uint64_t>(tervox_agmplay(&ctx));
        report[1] = stream(100, 100) ? stream(100, 100)->frames_written : 0;
        struct sigaction action {
        };
        sigaction(SIGINT, nullptr, &action);
        report[2] = action.sa_handler == SIG_IGN;
        report[3] = static_cast<uint64_t>(tervox_agmplay(&ctx));
        _exit(write(results[1], report, sizeof report) == sizeof report ? 0 : 1);
    }
    close(results[1]);
    ASSERT_TRUE(wait_until_running(100, 100, child));
    std::this_thread::sleep_for(std::chrono::milliseconds(200));
    ASSERT_EQ(kill(child, SIGINT), 0);

    uint64_t report[4] = {};
    EXPECT_EQ(read(results[0], report, sizeof report), static_cast<ssize_t>(sizeof report));
    close(results[0]);
    int status = 0;
    ASSERT_EQ(waitpid(child, &status, 0), child);
    EXPECT_TRUE(WIFEXITED(status) && WEXITSTATUS(status) == 0);
    EXPECT_EQ(report[0], 0u);
    EXPECT_GT(report[1], 0u);
    EXPECT_LT(report[1], 3u * 48000) << "the first playback stopped early";
    EXPECT_EQ(report[2], 1u) << "SIGINT is ignored after the first one";
    EXPECT_EQ(report[3], 0u);
    EXPECT_EQ(stream(100, 100).value().frames_written, 1024u * 4)
        << "the second playback wrote one buffer";
    const Names names = written_controls();
    EXPECT_EQ(std::count(names.begin(), names.end(), "PCM100 disconnect"), 2);
}

} // namespace
