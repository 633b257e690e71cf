// The virtual amplifier card with an open mixer of card 0, and helpers shared by the mixer tests.
#pragma once

#include "mixer/mixer_handle.h"
#include "support/sim_fixture.h"

#include <cstdlib>
#include <string>

namespace tvox::test
{

// Card 0 now names a card that does not exist: every later mixer_open fails.
inline void break_card()
{
    setenv("TINYALSA_CARD_0", "tvoxsim:42", 1);
}

class MixerTest : public SimTest
{
  protected:
    void SetUp() override
    {
        SimTest::SetUp();
        mixer_ = tvox::open_mixer();
        ASSERT_TRUE(mixer_) << "card 0 of the simulator does not open";
    }
    void TearDown() override
    {
        mixer_.reset();
        SimTest::TearDown();
    }

    struct mixer *mixer() { return mixer_.get(); }

    // The control's number on card 0 as text, for lookups by number.
    std::string number_of(const std::string &name)
    {
        for (unsigned int i = 0; i < mixer_get_num_ctls(mixer()); ++i)
            if (name == mixer_ctl_get_name(mixer_get_ctl(mixer(), i)))
                return std::to_string(i);
        ADD_FAILURE() << "no control " << name;
        return "";
    }

  private:
    tvox::MixerHandle mixer_;
};

} // namespace tvox::test
