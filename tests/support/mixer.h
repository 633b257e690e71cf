// A tinyalsa mixer that closes itself, and a simulator test with one open (link tinyalsa).
#pragma once

#include "support/sim_fixture.h"

#include <tinyalsa/asoundlib.h>

#include <memory>
#include <string>

namespace tvox::test
{

struct MixerCloser {
    void operator()(mixer *m) const { mixer_close(m); }
};
using Mixer = std::unique_ptr<mixer, MixerCloser>;

// A SimTest with virtual card `Card` open through tinyalsa for the whole test.
template <unsigned int Card> class MixerSimTest : public SimTest
{
  public:
    void SetUp() override
    {
        SimTest::SetUp();
        mixer_.reset(mixer_open(Card));
        ASSERT_NE(mixer_, nullptr) << "card " << Card << " of the simulator does not open";
    }
    void TearDown() override
    {
        mixer_.reset();
        SimTest::TearDown();
    }
    // The named control of the card; a test failure when it has none.
    mixer_ctl *ctl(const std::string &name)
    {
        mixer_ctl *found = mixer_get_ctl_by_name(mixer_.get(), name.c_str());
        EXPECT_NE(found, nullptr) << name;
        return found;
    }

  protected:
    Mixer mixer_;
};

} // namespace tvox::test
