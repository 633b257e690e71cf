// Both players against the virtual sink and the virtual AGM card.
#include "mixer/paths.h"
#include "phone.h"
#include "state.h"
#include "support/capture.h"
#include "support/process.h"
#include "support/sim_fixture.h"
#include "tvoxsp.h"

#include <algorithm>
#include <alsa/asoundlib.h>
#include <array>
#include <atomic>
#include <chrono>
#include <csignal>
#include <cstdlib>
#include <cstring>
#include <fcntl.h>
#include <filesystem>
#include <fstream>
#include <functional>
#include <iterator>
#include <optional>
#include <span>
#include <string>
#include <sys/prctl.h>
#include <sys/wait.h>
#include <thread>
#include <tinyalsa/asoundlib.h>
#include <unistd.h>

// A simulator folder with its phone folder, WAV files laid out chunk by chunk (so that malformed
// ones can be made), the players' printed output, and what the virtual sink recorded.
namespace
{

using tvox::test::SimTest;
using tvox::test::StreamCapture;
using Names = std::vector<std::string>;

struct WavLayout {
    uint16_t channels = 2;
    uint32_t rate = 48000;
    uint16_t bits = 16;
    uint32_t frames = 480;
    uint32_t fmt_size = 16;                 // bytes beyond 16 are zero padding
    bool list_chunk = false;                // a "LIST" chunk between "fmt " and "data"
    bool data_chunk = true;                 // false: no "data" chunk at all
    std::optional<uint32_t> data_size = {}; // what the "data" header claims (default: the samples)
    std::string riff = "RIFF";
    std::string wave = "WAVE";

    uint32_t sample_bytes() const { return frames * channels * (bits / 8); }
};

// What a player returned and printed.
struct Played {
    int32_t result;
    std::string out;
    std::string err;
};

constexpr const char *kBackend = "TDM-LPAIF-RX-SECONDARY";

class PlaybackTest : public SimTest
{
  protected:
    void SetUp() override
    {
        SimTest::SetUp();
        install_phone();
    }

    // Writes a WAV file into the simulator folder and returns its path. Every sample is half of
    // full scale, so the sink's peak is 0.5.
    std::string wav(const std::string &name, const WavLayout &layout)
    {
        const uint32_t width = layout.bits / 8;
        std::string body = layout.wave + "fmt " + le(layout.fmt_size, 4) + le(1, 2) +
                           le(layout.channels, 2) + le(layout.rate, 4) +
                           le(layout.rate * layout.channels * width, 4) +
                           le(layout.channels * width, 2) + le(layout.bits, 2);
        body.append(layout.fmt_size > 16 ? layout.fmt_size - 16 : 0, '\0');
        if (layout.list_chunk)
            body += "LIST" + le(10, 4) + "INFOISFTab";
        if (layout.data_chunk)
            body += "data" + le(layout.data_size.value_or(layout.sample_bytes()), 4);
        for (uint32_t i = 0; i < layout.frames * layout.channels; ++i)
            body += std::string(width - 1, '\0') + '\x40';

        const std::string path = sim_dir() + "/" + name;
        std::ofstream(path, std::ios::binary) << layout.riff << le(body.size(), 4) << body;
        return path;
    }

    // A context that plays `path` on the graph defaults (card 100, device 100) and `backend`.
    struct tervox &context(const std::string &path, const char *backend = kBackend)
    {
        path_ = path;
        ctx_ = {};
        ctx_.play_card = 100;
        ctx_.play_device = 100;
        ctx_.backend_name = backend;
        ctx_.silent_wav_path = path_.c_str();
        return ctx_;
    }

    template <typename Call> static Played play(Call call)
    {
        StreamCapture out(1);
        StreamCapture err(2);
        const int32_t result = call();
        return {result, out.text(), err.text()};
    }
    Played tplay(const std::string &path)
    {
        return play([&] { return tervox_tplay(&context(path)); });
    }
    Played agmplay(const std::string &path, const char *backend = kBackend)
    {
        return play([&] { return tervox_agmplay(&context(path, backend)); });
    }

    std::optional<tvox::sim::PcmRecord> stream(int card, int device)
    {
        tvox::sim::Session session = state().lock();
        const tvox::sim::PcmRecord *record = session.stream(card, device, false);
        return record ? std::optional(*record) : std::nullopt;
    }

    // Waits up to 3 s for process `pid` to run a stream on (card, device).
    bool wait_until_running(int card, int device, pid_t pid)
    {
        for (int i = 0; i < 300; ++i) {
            const auto record = stream(card, device);
            if (record && record->running && record->pid == static_cast<uint32_t>(pid))
                return true;
            std::this_thread::sleep_for(std::chrono::milliseconds(10));
        }
        return false;
    }

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

  private:
    static std::string le(uint64_t value, int bytes)
    {
        std::string out;
        for (int i = 0; i < bytes; ++i)
            out.push_back(static_cast<char>(value >> (8 * i)));
        return out;
    }

    std::string path_;
    struct tervox ctx_ {
    };
};

using PlayerTest = PlaybackTest;
using TplayTest = PlaybackTest;

// What both players make of the same files. The WAV player (card 0, device 0) plays the data
// chunk's bytes, 24-bit samples packed in three bytes; the graph player (card 100, device 100)
// plays the whole rest of the file, 24-bit samples in four bytes.
std::string playing_line(const WavLayout &layout)
{
    return "Playing sample: " + std::to_string(layout.channels) + " ch, " +
           std::to_string(layout.rate) + " hz, " + std::to_string(layout.bits) + " bit " +
           std::to_string(layout.data_size.value_or(layout.sample_bytes())) + " bytes\n";
}

TEST_F(PlayerTest, EachSampleFormatAndChunkLayout)
{
    constexpr auto S16 = SND_PCM_FORMAT_S16_LE, S24 = SND_PCM_FORMAT_S24_LE;
    constexpr auto S32 = SND_PCM_FORMAT_S32_LE, S24_3 = SND_PCM_FORMAT_S24_3LE;
    // Format and frames on the WAV player's device (card 0), then on the graph's (card 100).
    const struct {
        const char *name;
        WavLayout layout;
        std::array<snd_pcm_format_t, 2> formats;
        std::array<uint64_t, 2> frames;
    } cases[] = {
        {"16 bit mono", {.channels = 1, .rate = 8000, .frames = 800}, {S16, S16}, {800, 800}},
        {"24 bit", {.rate = 44100, .bits = 24}, {S24_3, S24}, {480, 360}},
        {"32 bit", {.channels = 1, .rate = 96000, .bits = 32}, {S32, S32}, {480, 480}},
        {"fmt of 18 bytes", {.fmt_size = 18}, {S16, S16}, {480, 480}},
        {"LIST before data", {.list_chunk = true}, {S16, S16}, {480, 480}},
        {"data chunk shorter than the file", {.data_size = 400}, {S16, S16}, {100, 480}},
        {"file shorter than its data chunk", {.data_size = 4000}, {S16, S16}, {480, 480}},
    };
    for (const auto &c : cases) {
        SCOPED_TRACE(c.name);
        const std::string path = wav("format.wav", c.layout);
        const Played tplayed = tplay(path);
        EXPECT_EQ(tplayed.result, 0);
        EXPECT_EQ(tplayed.out, playing_line(c.layout));
        EXPECT_EQ(tplayed.err, "");
        EXPECT_EQ(agmplay(path).result, 0);
        for (int i : {0, 1}) {
            const auto record = stream(100 * i, 100 * i);
            ASSERT_TRUE(record) << i;
            EXPECT_EQ(std::tuple(record->format, record->channels, record->rate,
                                 record->frames_written, record->running),
                      std::tuple(int32_t{c.formats[i]}, uint32_t{c.layout.channels}, c.layout.rate,
                                 c.frames[i], uint8_t{0}))
                << "format, channels, rate, frames, running on card " << 100 * i;
        }
        EXPECT_DOUBLE_EQ(stream(0, 0)->peak, 0.5);
    }
}

// Files that are no WAV files: the WAV player reports on standard error, the graph player on
// standard output, with result 1. A WAV file outside the device's limits is reported limit by
// limit (every check runs) with result 0. Nothing is played and nothing stays open.
TEST_F(PlayerTest, FilesThatAreNoWavFilesOrOutsideTheLimitsPlayNothing)
{
    const size_t descriptors = tvox::test::open_descriptors();
    const std::string missing = sim_dir() + "/missing.wav";
    std::vector<std::pair<std::string, std::string>> files = {
        {missing, "Unable to open file '" + missing + "'\n"}};
    for (const WavLayout &layout : {WavLayout{.riff = "RIFX"}, WavLayout{.wave = "AVI "},
                                    WavLayout{.frames = 0, .data_chunk = false}}) {
        const std::string path = wav(std::to_string(files.size()) + ".wav", layout);
        files.emplace_back(path, "Error: '" + path + "' is not a riff/wave file\n");
    }
    for (const auto &[path, message] : files) {
        SCOPED_TRACE(path);
        const Played tplayed = tplay(path);
        const Played agmplayed = agmplay(path);
        EXPECT_EQ(std::tuple(tplayed.result, tplayed.out, tplayed.err), std::tuple(1, "", message));
        EXPECT_EQ(std::tuple(agmplayed.result, agmplayed.out, agmplayed.err),
                  std::tuple(1, message, ""));
    }
    EXPECT_TRUE(journal_lines().empty());
    EXPECT_FALSE(stream(100, 100));

    const Played wide = tplay(wav("wide.wav", {.channels = 10, .rate = 384000, .bits = 8}));
    EXPECT_EQ(wide.result, 0);
    EXPECT_EQ(wide.err, "Sample rate is 384000Hz, device only supports <= 192000Hz\n"
                        "Sample is 10 channels, device only supports <= 8 channels\n"
                        "Bitrate is 8 bits, device only supports >= 16 bits\n");
    EXPECT_FALSE(stream(0, 0));
    EXPECT_EQ(tvox::test::open_descriptors(), descriptors);
}

// The paced sink plays a 3-second file in about 3 seconds, and another process sees the stream
// run meanwhile.
TEST_F(TplayTest, ThreeSecondFileTakesAboutThreeSecondsAndIsSeenRunning)
{
    const auto begin = std::chrono::steady_clock::now();
    const pid_t child = fork();
    ASSERT_GE(child, 0);
    if (child == 0)
        _exit(tervox_tplay(&context("/odm/etc/audio/silent-3sec.wav")));

    EXPECT_TRUE(wait_until_running(0, 0, child));
    const auto listing = run_command("env -u LD_PRELOAD " + tool_path() + " streams");
    EXPECT_NE(listing.output.find("card 0 device 0 running S16_LE 48000 Hz 2 ch"),
              std::string::npos)
        << listing.output;
    int status = 0;
    ASSERT_EQ(waitpid(child, &status, 0), child);
    const std::chrono::duration<double> took = std::chrono::steady_clock::now() - begin;
    EXPECT_TRUE(WIFEXITED(status) && WEXITSTATUS(status) == 0);
    EXPECT_GT(took.count(), 2.5);
    EXPECT_LT(took.count(), 5.0);
    EXPECT_EQ(stream(0, 0).value().frames_written, 3u * 48000);
}

// The bench test entry routes both amplifiers, then plays the test file through the active
// context, which keeps pointing at that file afterwards.
TEST_F(TplayTest, TestEntryRoutesTheAmplifiersAndPlaysTheLoop)
{
    struct tervox ctx {
    };
    ASSERT_EQ(tervox_cal_init(&ctx), 0);
    Played played = play([] { return tervox_tplay_test(); });
    EXPECT_EQ(played.result, 0) << played.err;
    EXPECT_STREQ(ctx.silent_wav_path, "/sdcard/Music/lrp_loop.wav");
    Names routed;
    for (const auto &path : {std::span<const tvox::PathEntry>(tvox::spk_playback_path),
                             std::span<const tvox::PathEntry>(tvox::rcv_playback_path)})
        for (const tvox::PathEntry &entry : path)
            routed.push_back(entry.control);
    // A stereo control takes its one value as one write per channel.
    Names written = written_controls();
    written.erase(std::unique(written.begin(), written.end()), written.end());
    EXPECT_EQ(written, routed);
    const auto record = stream(0, 0);
    ASSERT_TRUE(record);
    EXPECT_GT(record->frames_written, 0u);
    EXPECT_GT(record->peak, 0.0);
    EXPECT_EQ(tervox_cal_deinit(&ctx), 0);
}

using AgmplayTest = PlaybackTest;

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
        EXPECT_EQ(stream(100, 100).value().frames_written, 480u);
    }
    EXPECT_EQ(words(100, "VIRT-SPK-GROUP group config", 4),
              (std::vector<uint32_t>{48000, 2, 32, 3}));
    EXPECT_EQ(words(100, "PCM100 group mux config", 2), (std::vector<uint32_t>{2, 3}));
}

// A failed graph step is printed and ends the sequence with 0: the sink refuses 4000 Hz, so
// the graph was connected but the PCM does not open. Nothing stays open and the stream is not
// left connected. (A back end missing from backend_conf.xml: the fault matrix's BackendConfBroken.)
TEST_F(AgmplayTest, FailedStepsEndTheSequenceWithResultZero)
{
    const size_t descriptors = tvox::test::open_descriptors();
    const Played played = agmplay(wav("slow.wav", {.rate = 4000}));
    EXPECT_EQ(played.result, 0);
    EXPECT_NE(played.out.find("Unable to open PCM device 100 ("), std::string::npos) << played.out;
    EXPECT_EQ(written_controls().back(), "PCM100 disconnect");
    EXPECT_FALSE(stream(100, 100) && stream(100, 100)->frames_written > 0);
    EXPECT_EQ(tvox::test::open_descriptors(), descriptors);
}

// SIGINT ends the playback after the buffer being written; the handler ignores later signals
// and the stop stays set, so the next playback of the process stops after its first buffer.
TEST_F(AgmplayTest, SigintStopsPlaybackForGood)
{
    const pid_t child = fork();
    ASSERT_GE(child, 0);
    if (child == 0) {
        struct tervox &ctx = context("/odm/etc/audio/silent-3sec.wav");
        const bool first_failed = tervox_agmplay(&ctx) != 0;
        const uint64_t frames = stream(100, 100) ? stream(100, 100)->frames_written : 0;
        struct sigaction action {
        };
        sigaction(SIGINT, nullptr, &action);
        _exit(first_failed | (frames == 0 || frames >= 3u * 48000) << 1 |
              (action.sa_handler != SIG_IGN) << 2 | (tervox_agmplay(&ctx) != 0) << 3);
    }
    ASSERT_TRUE(wait_until_running(100, 100, child));
    std::this_thread::sleep_for(std::chrono::milliseconds(200));
    ASSERT_EQ(kill(child, SIGINT), 0);
    int status = 0;
    ASSERT_EQ(waitpid(child, &status, 0), child);
    ASSERT_TRUE(WIFEXITED(status));
    EXPECT_EQ(WEXITSTATUS(status), 0) << "1: first result, 2: first playback not cut short, "
                                         "4: later SIGINTs not ignored, 8: second result";
    EXPECT_EQ(stream(100, 100).value().frames_written, 1024u * 4)
        << "the second playback wrote one buffer";
    const Names names = written_controls();
    EXPECT_EQ(std::count(names.begin(), names.end(), "PCM100 disconnect"), 2);
}

// The thread `tid` of this process is asleep (or blocked).
bool sleeping(pid_t tid)
{
    std::ifstream stat("/proc/self/task/" + std::to_string(tid) + "/stat");
    const std::string line((std::istreambuf_iterator<char>(stat)), {});
    const size_t end = line.rfind(')');
    return end != std::string::npos && line.compare(end, 4, ") S ") == 0;
}

// Waits up to 10 s for `done`; a loop that never gets going must not hang the test.
template <typename Done> bool wait_for(Done done)
{
    for (int i = 0; i < 1000 && !done(); ++i)
        std::this_thread::sleep_for(std::chrono::milliseconds(10));
    return done();
}

using Handler = void (*)(int);

Handler sigint_handler()
{
    struct sigaction action {
    };
    sigaction(SIGINT, nullptr, &action);
    return action.sa_handler;
}

// Graph playback and the register monitor (a one-hour period) on two threads of a HAL that keep
// SIGINT blocked, one started after the other: its handler is the one installed. One SIGINT,
// landing on a third thread, ends both at once; the handler that caught it keeps its own effect
// (the playback's ignores later SIGINTs). Each order runs in a child: the stops are for good.
TEST_F(AgmplayTest, OneSigintOnAnotherThreadEndsPlaybackAndTheMonitorTogether)
{
    for (const bool playback_first : {true, false}) {
        const std::string out_path = sim_dir() + "/child.out";
        const pid_t child = fork();
        ASSERT_GE(child, 0);
        if (child == 0) {
            prctl(PR_SET_PDEATHSIG, SIGKILL); // a loop that never ends dies with the test
            const int out = open(out_path.c_str(), O_WRONLY | O_CREAT | O_TRUNC, 0600);
            dup2(out, 1);
            sigset_t sigint;
            sigemptyset(&sigint);
            sigaddset(&sigint, SIGINT);
            struct tervox &ctx = context("/odm/etc/audio/silent-3sec.wav");
            std::atomic<pid_t> monitor_tid{0};
            int32_t monitor_result = -1, play_result = -1;
            const auto monitor = [&] {
                pthread_sigmask(SIG_BLOCK, &sigint, nullptr);
                monitor_tid = gettid();
                monitor_result = tervox_regs_monitor(nullptr, 0, 3'600'000);
            };
            const auto play = [&] {
                pthread_sigmask(SIG_BLOCK, &sigint, nullptr);
                play_result = tervox_agmplay(&ctx);
            };
            const auto monitor_sleeps = [&] {
                return sigint_handler() == sig_handler && monitor_tid != 0 && sleeping(monitor_tid);
            };
            const auto playing = [] { return sigint_handler() == stream_close; };
            struct Loop {
                std::function<void()> run;
                std::function<bool()> started;
            };
            const Loop loops[] = {{play, playing}, {monitor, monitor_sleeps}};
            const Loop &first = loops[playback_first ? 0 : 1];
            const Loop &second = loops[playback_first ? 1 : 0];
            std::thread first_thread(first.run);
            bool started = wait_for(first.started);
            std::thread second_thread(second.run);
            started = wait_for(second.started) && started;
            kill(getpid(), SIGINT);
            first_thread.join();
            second_thread.join();
            const uint64_t frames = stream(100, 100) ? stream(100, 100)->frames_written : 0;
            const Handler last = playback_first ? sig_handler : SIG_IGN;
            std::fflush(stdout);
            _exit((started ? 0 : 1) | (monitor_result != 0) << 1 | (play_result != 0) << 2 |
                  (frames == 0 || frames >= 3u * 48000) << 3 | (sigint_handler() != last) << 4);
        }
        int status = 0;
        ASSERT_EQ(waitpid(child, &status, 0), child);
        ASSERT_TRUE(WIFEXITED(status));
        EXPECT_EQ(WEXITSTATUS(status), 0)
            << "playback first: " << playback_first
            << "; 1: loops not started, 2: monitor result, 4: playback result, 8: playback "
               "not cut short, 16: handler left installed";
        std::ifstream file(out_path);
        const std::string out((std::istreambuf_iterator<char>(file)), {});
        EXPECT_NE(out.find("shutdown\n"), std::string::npos) << out;
        EXPECT_EQ(out.find("shutdown\n"), out.rfind("shutdown\n")) << "one SIGINT, one message";
        EXPECT_NE(out.find("monitor registers exit - OK\n"), std::string::npos) << out;
    }
}

} // namespace
