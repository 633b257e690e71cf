// Graph playback on the virtual AGM card: the call sequence as the card's journal shows it, the
// stream the sink received, what is printed, the result, and SIGINT.
#include "playback_fixture.h"
#include "support/capture.h"

#include "tvoxsp/playback.h"

#include "agm_graph.h"

#include <alsa/asoundlib.h>
#include <android/log.h>
#include <tinyalsa/asoundlib.h>

#include <sys/wait.h>
#include <unistd.h>

#include <chrono>
#include <csignal>
#include <thread>

namespace
{

using tvox::test::LogCapture;
using tvox::test::open_descriptors;
using tvox::test::PlaybackTest;
using tvox::test::StreamCapture;
using tvox::test::WavLayout;

constexpr const char *kSecondary = "TDM-LPAIF-RX-SECONDARY";

class AgmplayTest : public PlaybackTest
{
  protected:
    struct tervox context(const std::string &path, const char *backend = kSecondary)
    {
        struct tervox ctx {
        };
        ctx.play_card = 100;
        ctx.play_device = 100;
        ctx.backend_name = backend;
        path_ = path;
        ctx.silent_wav_path = path_.c_str();
        return ctx;
    }

    // The names of the controls written, in order, leaving out the "PCM100 control" selections
    // that only say which interface the next call is about.
    std::vector<std::string> written_controls()
    {
        std::vector<std::string> names;
        for (const std::string &line : journal_lines()) {
            const size_t open = line.find('"');
            const size_t close = line.find('"', open + 1);
            if (open == std::string::npos || close == std::string::npos)
                continue;
            std::string name = line.substr(open + 1, close - open - 1);
            if (name != "PCM100 control")
                names.push_back(std::move(name));
        }
        return names;
    }

    std::vector<uint32_t> words(std::string_view control, size_t count)
    {
        const std::vector<uint8_t> raw = bytes(100, control);
        std::vector<uint32_t> out;
        for (size_t i = 0; i < count && (i + 1) * 4 <= raw.size(); ++i)
            out.push_back(raw[i * 4] | raw[i * 4 + 1] << 8 | raw[i * 4 + 2] << 16 |
                          static_cast<uint32_t>(raw[i * 4 + 3]) << 24);
        return out;
    }

    int interface_index(const char *name)
    {
        tvox::sim::Session session = state().lock();
        return session.interface(name, false);
    }

    std::vector<std::string> connected()
    {
        tvox::sim::Session session = state().lock();
        return session.connected(100);
    }

  private:
    std::string path_;
};

TEST_F(AgmplayTest, BuildsTheGraphPlaysAndDisconnects)
{
    struct tervox ctx = context(wav("tone.wav", {}));
    LogCapture log;
    StreamCapture out(1);
    EXPECT_EQ(tervox_agmplay(&ctx), 0);
    EXPECT_EQ(out.text(), "Backend TDM-LPAIF-RX-SECONDARY rate ch bit : 48000, 2, 32\n");
    bool logged = false;
    for (const auto &line : log.lines())
        logged = logged || (line.priority == ANDROID_LOG_DEBUG &&
                            line.text == "Playing sample: 2 ch, 48000 hz, 16 bit\n");
    EXPECT_TRUE(logged);

    // A back end without "VIRT-" skips the group device config but still gets the group mux.
    const std::vector<std::string> expected = {
        "TDM-LPAIF-RX-SECONDARY rate ch fmt",
        "TDM-LPAIF-RX-SECONDARY metadata",
        "PCM100 metadata",
        "PCM100 metadata",
        "PCM100 connect",
        "PCM100 setParam",
        "PCM100 group mux config",
        "PCM100 disconnect",
    };
    EXPECT_EQ(written_controls(), expected);
    EXPECT_EQ(int_values(100, "TDM-LPAIF-RX-SECONDARY rate ch fmt"),
              (std::vector<long>{48000, 2, 32, PCM_FORMAT_S32_LE}));
    const uint32_t miid = tvox::sim::agm::mfc_miid(100, interface_index(kSecondary));
    EXPECT_EQ(words("PCM100 setParam", 4), (std::vector<uint32_t>{miid, 48000, 2, 32}));
    EXPECT_TRUE(connected().empty());

    const auto record = stream(100, 100);
    ASSERT_TRUE(record);
    EXPECT_EQ(record->format, SND_PCM_FORMAT_S16_LE);
    EXPECT_EQ(record->channels, 2u);
    EXPECT_EQ(record->rate, 48000u);
    EXPECT_EQ(record->frames_written, 480u);
    EXPECT_FALSE(record->running);
}

// 24-bit samples go out as S24_LE (four bytes each), so the same bytes make fewer frames than
// the file has; the data chunk's size is not used, the rest of the file plays.
TEST_F(AgmplayTest, PcmFormatFollowsTheFileAndTheWholeRestPlays)
{
    struct Case {
        WavLayout layout;
        snd_pcm_format_t format;
        uint64_t frames;
    };
    const Case cases[] = {
        {{.channels = 2, .bits = 24, .frames = 480}, SND_PCM_FORMAT_S24_LE, 360},
        {{.channels = 1, .rate = 96000, .bits = 32, .frames = 480}, SND_PCM_FORMAT_S32_LE, 480},
        {{.channels = 2, .bits = 16, .frames = 480, .data_size = 40}, SND_PCM_FORMAT_S16_LE, 480},
        {{.channels = 2, .bits = 16, .frames = 480, .trailing_bytes = 400},
         SND_PCM_FORMAT_S16_LE,
         580},
    };
    for (const Case &c : cases) {
        SCOPED_TRACE(std::to_string(c.layout.bits) + " bit");
        struct tervox ctx = context(wav("format.wav", c.layout));
        StreamCapture out(1);
        EXPECT_EQ(tervox_agmplay(&ctx), 0);
        const auto record = stream(100, 100);
        ASSERT_TRUE(record);
        EXPECT_EQ(record->format, c.format);
        EXPECT_EQ(record->channels, c.layout.channels);
        EXPECT_EQ(record->rate, c.layout.rate);
        EXPECT_EQ(record->frames_written, c.frames);
    }
}

TEST_F(AgmplayTest, BackendWithoutMfcStillPlays)
{
    struct tervox ctx = context(wav("tone.wav", {}), tvox::sim::kNoMfcBackend);
    StreamCapture out(1);
    EXPECT_EQ(tervox_agmplay(&ctx), 0);
    EXPECT_EQ(out.text(), "Backend TDM-LPAIF-RX-PRIMARY rate ch bit : 48000, 2, 16\n"
                          "MFC not present for this graph\n");
    const auto names = written_controls();
    EXPECT_EQ(std::count(names.begin(), names.end(), "PCM100 setParam"), 0);
    EXPECT_EQ(names.back(), "PCM100 disconnect");
    const auto record = stream(100, 100);
    ASSERT_TRUE(record);
    EXPECT_EQ(record->frames_written, 480u);
}

TEST_F(AgmplayTest, GroupBackendTakesTheGroupSteps)
{
    struct tervox ctx = context(wav("tone.wav", {}), "VIRT-SPK-GROUP");
    StreamCapture out(1);
    EXPECT_EQ(tervox_agmplay(&ctx), 0);
    EXPECT_EQ(out.text(), "Backend VIRT-SPK-GROUP rate ch bit : 48000, 2, 32\n");
    const std::vector<std::string> expected = {
        "VIRT-SPK-GROUP rate ch fmt",
        "VIRT-SPK-GROUP metadata",
        "PCM100 metadata",
        "PCM100 metadata",
        "PCM100 connect",
        "PCM100 setParam",
        "VIRT-SPK-GROUP group config",
        "PCM100 group mux config",
        "PCM100 disconnect",
    };
    EXPECT_EQ(written_controls(), expected);
    EXPECT_EQ(words("VIRT-SPK-GROUP group config", 4), (std::vector<uint32_t>{48000, 2, 32, 3}));
    EXPECT_EQ(words("PCM100 group mux config", 2), (std::vector<uint32_t>{2, 3}));
    const auto record = stream(100, 100);
    ASSERT_TRUE(record);
    EXPECT_EQ(record->frames_written, 480u);
}

TEST_F(AgmplayTest, RefusalsReportOne)
{
    const int descriptors = open_descriptors();
    const std::string missing = sim_dir() + "/missing.wav";
    struct tervox ctx = context(missing);
    {
        StreamCapture out(1);
        EXPECT_EQ(tervox_agmplay(&ctx), 1);
        EXPECT_EQ(out.text(), "Unable to open file '" + missing + "'\n");
    }
    for (const auto &[name, layout] :
         {std::pair{"rifx.wav", WavLayout{.riff = "RIFX"}},
          std::pair{"nodata.wav", WavLayout{.frames = 0, .data_chunk = false}}}) {
        const std::string path = wav(name, layout);
        ctx = context(path);
        StreamCapture out(1);
        EXPECT_EQ(tervox_agmplay(&ctx), 1);
        EXPECT_EQ(out.text(), "Error: '" + path + "' is not a riff/wave file\n");
    }
    ctx = context(wav("tone.wav", {}), nullptr);
    {
        StreamCapture out(1);
        EXPECT_EQ(tervox_agmplay(&ctx), 1);
        EXPECT_EQ(out.text(), "");
    }
    EXPECT_TRUE(journal_lines().empty());
    EXPECT_FALSE(stream(100, 100));
    EXPECT_EQ(open_descriptors(), descriptors);
}

// A failed step is printed and ends the sequence; the result stays 0, nothing stays open and
// the stream is not left connected.
TEST_F(AgmplayTest, FailedStepsEndTheSequenceWithResultZero)
{
    const int descriptors = open_descriptors();
    struct tervox ctx = context(wav("tone.wav", {}), "TDM-LPAIF-RX-QUATERNARY");
    {
        StreamCapture out(1);
        EXPECT_EQ(tervox_agmplay(&ctx), 0);
        EXPECT_EQ(out.text(), "Invalid input, entry not found for : TDM-LPAIF-RX-QUATERNARY\n");
        EXPECT_TRUE(journal_lines().empty());
    }
    ctx = context(wav("tone.wav", {}));
    ctx.play_card = 7;
    {
        StreamCapture out(1);
        EXPECT_EQ(tervox_agmplay(&ctx), 0);
        EXPECT_EQ(out.text(), "Failed to open mixer\n");
    }
    // The sink refuses 4000 Hz: the graph was connected, the PCM does not open.
    ctx = context(wav("slow.wav", {.rate = 4000}));
    {
        StreamCapture out(1);
        EXPECT_EQ(tervox_agmplay(&ctx), 0);
        EXPECT_NE(out.text().find("Unable to open PCM device 100 ("), std::string::npos)
            << out.text();
        const auto names = written_controls();
        ASSERT_FALSE(names.empty());
        EXPECT_EQ(names.back(), "PCM100 disconnect");
        EXPECT_TRUE(connected().empty());
    }
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
        struct tervox ctx = context("/odm/etc/audio/silent-3sec.wav");
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
    const auto record = stream(100, 100);
    ASSERT_TRUE(record);
    EXPECT_EQ(record->frames_written, 1024u * 4) << "the second playback wrote one buffer";
    const auto names = written_controls();
    EXPECT_EQ(std::count(names.begin(), names.end(), "PCM100 disconnect"), 2);
}

} // namespace
