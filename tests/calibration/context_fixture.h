// A context as a HAL holds it: zero-filled and initialised, with the virtual amplifier pair
// behind it.
#pragma once

#include "calibration/results.h"
#include "dsp_model.h"
#include "mixer/paths.h"
#include "state.h" // SimTest holds the simulator state by unique_ptr
#include "support/capture.h"
#include "support/sim_fixture.h"
#include "tvoxsp.h"

#include <android/log.h>
#include <gtest/gtest.h>

#include <chrono>
#include <filesystem>
#include <fstream>
#include <initializer_list>
#include <iterator>
#include <span>
#include <string>
#include <thread>
#include <vector>

namespace tvox::test
{

inline std::string read_file(const std::filesystem::path &path)
{
    std::ifstream in(path, std::ios::binary);
    return {std::istreambuf_iterator<char>(in), std::istreambuf_iterator<char>()};
}

inline void write_file(const std::filesystem::path &path, const std::string &bytes)
{
    std::ofstream(path, std::ios::binary) << bytes;
}

// The bytes of words in host order, as the binary calibration files hold them.
inline std::string words_bytes(const std::vector<uint32_t> &words)
{
    return {reinterpret_cast<const char *>(words.data()), words.size() * sizeof(uint32_t)};
}

// Lines logged with this priority and tag "AHAL:TERVOX", in order.
inline std::vector<std::string> tervox_lines(const LogCapture &log, int priority)
{
    std::vector<std::string> texts;
    for (const auto &line : log.lines())
        if (line.priority == priority && line.tag == "AHAL:TERVOX")
            texts.push_back(line.text);
    return texts;
}

// A context on the virtual amplifier pair, its files in the test's simulator folder; with
// temp_files_ cleared before SetUp the context keeps its default paths.
class SimContextTest : public SimTest
{
  protected:
    void SetUp() override
    {
        SimTest::SetUp();
        ASSERT_EQ(tervox_cal_init(&ctx_), 0);
        active_ = this;
        if (!temp_files_)
            return;
        bin_ = sim_dir() + "/tvox_calr.bin";
        txt_ = sim_dir() + "/tvox_calr.txt";
        f0_ = sim_dir() + "/tvox_f0.bin";
        ctx_.cal_bin_path = bin_.c_str();
        ctx_.cal_txt_path = txt_.c_str();
        ctx_.f0_path = f0_.c_str();
    }
    void TearDown() override
    {
        active_ = nullptr;
        EXPECT_EQ(tervox_cal_deinit(&ctx_), 0);
        SimTest::TearDown();
    }

    // Makes card 0's mixer fail to open, for the paths that report a missing mixer.
    static void hide_mixer() { setenv("TINYALSA_CARD_0", "tvoxsp_test_no_such_card", 1); }

    long value(std::string_view name) { return int_values(0, name).at(0); }

    // Card 0's journal lines, and the ones that applying `paths` in this order would make.
    std::vector<std::string> card0_journal()
    {
        std::vector<std::string> lines;
        for (auto &line : journal_lines())
            if (line.starts_with("ctl 0 "))
                lines.push_back(line);
        return lines;
    }
    static std::vector<std::string>
    journal_of(std::initializer_list<std::span<const tvox::PathEntry>> paths)
    {
        std::vector<std::string> lines;
        for (const auto path : paths)
            for (const auto &[name, text] : path)
                lines.push_back("ctl 0 \"" + std::string(name) + "\" = " + text);
        return lines;
    }

    // The speaker behind a channel, by the raw CAL_R code the amplifier measures for it.
    void set_speaker_raw(unsigned channel, int32_t raw,
                         tvox::sim::SpeakerFault fault = tvox::sim::SpeakerFault::none,
                         double f0_hz = 800)
    {
        set_speaker(channel, tvox::cal_r_ohms(raw), fault, f0_hz);
    }

    // A silent stream on card 0 as the sink records it, running since `ago` before now.
    void record_silence(std::chrono::nanoseconds ago, bool running = true)
    {
        const int64_t now = tvox::sim::now_ns();
        record_stream(now - ago.count(), running ? 0 : now, 0.0);
    }

    // A calibration run by the firmware alone, so that tests of reading it back start from a
    // measured result: calibration mode while silence plays, then everything off again.
    void calibrate_amplifiers()
    {
        tvox::apply_path(tvox::amp_on_dsp_path);
        tvox::apply_path(tvox::cal_mode_path);
        record_silence(std::chrono::nanoseconds(0));
        std::this_thread::sleep_for(std::chrono::nanoseconds(tvox::sim::dsp::kSettleNs) +
                                    std::chrono::milliseconds(150));
        tvox::apply_path(tvox::run_mode_path);
        tvox::apply_path(tvox::amp_off_path);
        record_silence(std::chrono::nanoseconds(0), false);
        clear_journal();
    }

  public:
    // Playback slots that stand for the silent file, the stream left running. Settled: the
    // amplifiers have heard silence long enough for the firmware to settle. Starting: it starts
    // now.
    static int32_t settled_silence(struct tervox *)
    {
        active_->record_silence(std::chrono::seconds(2));
        return 0;
    }
    static int32_t starting_silence(struct tervox *)
    {
        active_->record_silence(std::chrono::seconds(0));
        return 0;
    }

  protected:
    struct tervox ctx_ = {};
    bool temp_files_ = true;
    std::string bin_, txt_, f0_;

  private:
    static inline SimContextTest *active_ = nullptr;
};

} // namespace tvox::test
