// Card and device numbers to ALSA device names, and owning handles for alsa-lib objects.
#ifndef TINYALSA_ALSA_NAMES_H
#define TINYALSA_ALSA_NAMES_H

#include <memory>
#include <string>

namespace tinyalsa
{

// Calls an alsa-lib release function; the result of a release cannot be acted upon.
template <auto Release> struct Releaser {
    template <typename T> void operator()(T *object) const { Release(object); }
};

template <typename T, auto Release> using AlsaPtr = std::unique_ptr<T, Releaser<Release>>;

// The ALSA control device of a card: $TINYALSA_CARD_<card> when set and non-empty, else hw:<card>.
std::string control_name(unsigned int card);

// The PCM of a card's device: the card's name with ",<device>" appended when the name already
// carries arguments (hw:0 -> hw:0,3), else ":<device>" (null -> null:3).
std::string pcm_name(unsigned int card, unsigned int device);

} // namespace tinyalsa

#endif
