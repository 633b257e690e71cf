// Drives the virtual amplifiers' DSP model the way the library does: control writes and reads
// through tinyalsa on card 0 (so through the ALSA control plugin and its copy of the model), and
// streams set up in the shared state as the sink records them.
#pragma once

#include "dsp_model.h"
#include "state.h"
#include "support/mixer.h"

#include <gtest/gtest.h>

#include <array>
#include <chrono>
#include <string>
#include <thread>

namespace tvox::test
{

// Helpers are public: free functions of the tests read whole groups of controls through them.
class ModelTest : public MixerSimTest<0>
{
  public:
    static constexpr int64_t kSecond = 1'000'000'000;

    void set(const std::string &name, int value)
    {
        EXPECT_EQ(mixer_ctl_set_value(ctl(name), 0, value), 0) << name;
    }
    int get(const std::string &name) { return mixer_ctl_get_value(ctl(name), 0); }

    // The first N big-endian words of a control, each sign-extended from bit `sign_bit`.
    template <size_t N> std::array<int32_t, N> words(const std::string &name, int sign_bit)
    {
        std::array<uint8_t, 4 * N> bytes;
        bytes.fill(0xAA);
        EXPECT_EQ(mixer_ctl_get_array(ctl(name), bytes.data(), bytes.size()), 0) << name;
        std::array<int32_t, N> words{};
        for (size_t w = 0; w < N; ++w) {
            const uint32_t raw = static_cast<uint32_t>(bytes[4 * w]) << 24 |
                                 bytes[4 * w + 1] << 16 | bytes[4 * w + 2] << 8 | bytes[4 * w + 3];
            words[w] = static_cast<int32_t>(raw << (31 - sign_bit)) >> (31 - sign_bit);
        }
        return words;
    }
    // A DSP word of a control, as the signed 25-bit number it holds.
    int32_t word(const std::string &name) { return words<1>(name, 24)[0]; }

    // Amplifiers on and fed by the DSP, as the calibration path sets them, then calibration mode.
    void calibrate_both()
    {
        for (const std::string channel : {"T", "B"}) {
            EXPECT_EQ(mixer_ctl_set_enum_by_string(ctl(channel + " PCM Source"), "DSP"), 0);
            set(channel + " AMP Enable Switch", 1);
            set(channel + " DSP Mode", 2);
        }
    }
    static void wait_settled()
    {
        std::this_thread::sleep_for(std::chrono::nanoseconds(tvox::sim::dsp::kSettleNs) +
                                    std::chrono::milliseconds(150));
    }
};

} // namespace tvox::test
