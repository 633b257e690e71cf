// Units of the calibration words and the channel-failure pattern that every check reports.
#pragma once

#include "util/fatal.h"

#include <cstddef>
#include <cstdint>
#include <limits>

namespace tvox
{

// Raw CAL_R code to ohms. The two products are taken in this order in double precision so that
// every report prints the same digits (5.85714 is the amplifier's scale, 1/8192 its code step).
constexpr double cal_r_ohms(double raw)
{
    return raw * 5.85714 * 0.0001220703125;
}

// A measured CAL_R as the HAL receives it: rounded to single precision.
constexpr float measured_ohms(int32_t raw)
{
    return static_cast<float>(cal_r_ohms(raw));
}

// Starts at 1; each failing channel ch shifts it left by ch + 1, so the shifts accumulate and
// a caller can tell channel 0 (2), channel 1 (4) and both (8) apart.
class FailurePattern
{
  public:
    void fail(std::size_t channel)
    {
        const std::size_t shift = channel + 1;
        // Bits shifted out would make a failure look like success: that must never wrap.
        if (shift >= 31 || bits_ > (kMax >> shift))
            fatal();
        bits_ <<= shift;
    }
    // Replaces the pattern (the range check reports 16 whatever failed before).
    void set(uint32_t bits) { bits_ = bits; }
    int32_t result() const { return bits_ == 1 ? 0 : static_cast<int32_t>(bits_); }

  private:
    static constexpr uint32_t kMax = std::numeric_limits<int32_t>::max();
    uint32_t bits_ = 1;
};

} // namespace tvox
