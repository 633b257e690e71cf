// A context as a HAL holds it: zero-filled, initialised, its files in a folder of the test's own.
#pragma once

#include "state.h" // SimTest holds the simulator state by unique_ptr
#include "support/capture.h"
#include "support/sim_fixture.h"
#include "tvoxsp.h"

#include <android/log.h>
#include <gtest/gtest.h>

#include <cstdlib>
#include <filesystem>
#include <fstream>
#include <iterator>
#include <string>
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

// Base is ::testing::Test, or SimTest for tests that reach the virtual amplifier pair.
template <typename Base> class ContextFixture : public Base
{
  protected:
    void SetUp() override
    {
        Base::SetUp();
        char pattern[] = "/tmp/tvoxsp-cal-XXXXXX";
        ASSERT_NE(mkdtemp(pattern), nullptr);
        folder_ = pattern;
        bin_ = (folder_ / "tvox_calr.bin").string();
        txt_ = (folder_ / "tvox_calr.txt").string();
        f0_ = (folder_ / "tvox_f0.bin").string();
        ASSERT_EQ(tervox_cal_init(&ctx_), 0);
        ctx_.cal_bin_path = bin_.c_str();
        ctx_.cal_txt_path = txt_.c_str();
        ctx_.f0_path = f0_.c_str();
    }

    void TearDown() override
    {
        EXPECT_EQ(tervox_cal_deinit(&ctx_), 0);
        std::filesystem::remove_all(folder_);
        Base::TearDown();
    }

    // Makes card 0's mixer fail to open, for the paths that report a missing mixer.
    static void hide_mixer() { setenv("TINYALSA_CARD_0", "tvoxsp_test_no_such_card", 1); }

    struct tervox ctx_ = {};
    std::filesystem::path folder_;
    std::string bin_, txt_, f0_;
};

using ContextTest = ContextFixture<::testing::Test>;

class SimContextTest : public ContextFixture<SimTest>
{
  protected:
    // A DSP parameter as the firmware holds it: four bytes, most significant first.
    void preset_word(std::string_view name, uint32_t value)
    {
        preset_bytes(0, name,
                     {static_cast<uint8_t>(value >> 24), static_cast<uint8_t>(value >> 16),
                      static_cast<uint8_t>(value >> 8), static_cast<uint8_t>(value)});
    }
};

} // namespace tvox::test
