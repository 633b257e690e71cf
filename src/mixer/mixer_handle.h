// Owning handle for a tinyalsa mixer: every path that opens a mixer closes it.
#pragma once

#include <memory>
#include <tinyalsa/asoundlib.h>

namespace tvox
{

struct MixerCloser {
    void operator()(struct mixer *m) const { mixer_close(m); }
};
using MixerHandle = std::unique_ptr<struct mixer, MixerCloser>;

// Card 0 holds the amplifiers' controls.
inline constexpr unsigned int kAmpCard = 0;

inline MixerHandle open_mixer(unsigned int card = kAmpCard)
{
    return MixerHandle(mixer_open(card));
}

} // namespace tvox
