// Drives the virtual amplifiers' DSP model the way the library does: control writes and reads
// through tinyalsa on card 0 (so through the ALSA control plugin and its copy of the model), and
// streams either played through the sink or set up in the shared state as the sink records them.
#pragma once

#include "dsp_model.h"
#include "state.h"
#include "support/sim_fixture.h"

#include <tinyalsa/asoundlib.h>

#include <gtest/gtest.h>

#include <sys/wait.h>
#include <unistd.h>

#include <array>
#include <chrono>
#include <cmath>
#include <cstdio>
#include <memory>
#include <string>
#include <thread>
#include <vector>

namespace tvox::test
{

struct MixerCloser {
    void operator()(mixer *m) const { mixer_close(m); }
};
using Mixer = std::unique_ptr<mixer, MixerCloser>;

struct ToolRun {
    int status;
    std::string output; // standard output and error together
};

// Raw resistance code of a speaker of `ohms`, as the amplifier scales it.
inline int32_t expected_raw(double ohms)
{
    return static_cast<int32_t>(std::lround(ohms * 8192 / 5.85714));
}

// Helpers are public: free functions of the tests read whole groups of controls through them.
class ModelTest : public SimTest
{
  public:
    static constexpr auto kSettle = std::chrono::nanoseconds(tvox::sim::dsp::kSettleNs);
    static constexpr auto kMargin = std::chrono::milliseconds(150);
    static constexpr int64_t kSecond = 1'000'000'000;

  protected:
    void SetUp() override
    {
        SimTest::SetUp();
        mixer_.reset(mixer_open(0));
        ASSERT_TRUE(mixer_) << "card 0 of the simulator does not open";
    }

    void TearDown() override
    {
        mixer_.reset();
        SimTest::TearDown();
    }

  public:
    mixer_ctl *ctl(const std::string &name)
    {
        mixer_ctl *control = mixer_get_ctl_by_name(mixer_.get(), name.c_str());
        EXPECT_NE(control, nullptr) << name;
        return control;
    }

    void set(const std::string &name, int value)
    {
        if (mixer_ctl *control = ctl(name)) {
            EXPECT_EQ(mixer_ctl_set_value(control, 0, value), 0) << name;
        }
    }

    void set_enum(const std::string &name, const char *item)
    {
        if (mixer_ctl *control = ctl(name)) {
            EXPECT_EQ(mixer_ctl_set_enum_by_string(control, item), 0) << name;
        }
    }

    int get(const std::string &name)
    {
        mixer_ctl *control = ctl(name);
        return control != nullptr ? mixer_ctl_get_value(control, 0) : -1;
    }

    // The 4-byte big-endian DSP word of a control, as the signed 25-bit number it holds.
    int32_t word(const std::string &name)
    {
        std::array<uint8_t, 4> bytes{0xAA, 0xAA, 0xAA, 0xAA};
        if (mixer_ctl *control = ctl(name)) {
            EXPECT_EQ(mixer_ctl_get_array(control, bytes.data(), bytes.size()), 0) << name;
        }
        const uint32_t value =
            static_cast<uint32_t>(bytes[0]) << 24 | bytes[1] << 16 | bytes[2] << 8 | bytes[3];
        return static_cast<int32_t>((value & 0x1FFFFFF) << 7) >> 7;
    }

    // Amplifier on and fed by the DSP, as the calibration path sets it.
    void path_to_dsp(const char *channel)
    {
        set_enum(std::string(channel) + " PCM Source", "DSP");
        set(std::string(channel) + " AMP Enable Switch", 1);
    }

    void calibration_mode(const char *channel) { set(std::string(channel) + " DSP Mode", 2); }

    // A stream record as the sink leaves it: started at `start_ns`, still running when
    // `stop_ns` is 0.
    void record_stream(int64_t start_ns, int64_t stop_ns, double peak, int card = 0, int device = 0,
                       uint32_t pid = static_cast<uint32_t>(getpid()))
    {
        tvox::sim::Session session = state().lock();
        tvox::sim::PcmRecord *record = session.stream(card, device, true);
        ASSERT_NE(record, nullptr);
        record->running = stop_ns == 0;
        record->start_time_ns = start_ns;
        record->stop_time_ns = stop_ns;
        record->peak = peak;
        record->pid = pid;
        record->starts++;
    }

    void set_speaker(unsigned channel, double ohms, tvox::sim::SpeakerFault fault,
                     double f0_hz = 800)
    {
        tvox::sim::Session session = state().lock();
        session.speaker(channel) = tvox::sim::SpeakerConfig{ohms, f0_hz, fault, 0};
    }

    static void wait_settled() { std::this_thread::sleep_for(kSettle + kMargin); }

    // Runs the built tvoxsim tool in this test's simulator folder.
    static ToolRun tool(const std::string &args)
    {
        ToolRun result{-1, {}};
        FILE *pipe = popen((tool_path() + " " + args + " 2>&1").c_str(), "r");
        if (pipe == nullptr)
            return result;
        std::array<char, 256> buffer{};
        while (fgets(buffer.data(), buffer.size(), pipe) != nullptr)
            result.output += buffer.data();
        const int status = pclose(pipe);
        result.status = WIFEXITED(status) ? WEXITSTATUS(status) : -1;
        return result;
    }

  private:
    Mixer mixer_;
};

} // namespace tvox::test
