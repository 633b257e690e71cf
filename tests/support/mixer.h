// A tinyalsa mixer that closes itself (tests that include this link tinyalsa).
#pragma once

#include <tinyalsa/asoundlib.h>

#include <memory>

namespace tvox::test
{

struct MixerCloser {
    void operator()(mixer *m) const { mixer_close(m); }
};
using Mixer = std::unique_ptr<mixer, MixerCloser>;

} // namespace tvox::test
