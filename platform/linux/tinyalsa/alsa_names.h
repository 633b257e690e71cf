// Card and device numbers to ALSA device names, owning handles for alsa-lib objects, and a guard
// that keeps alsa-lib from printing.
#ifndef TINYALSA_ALSA_NAMES_H
#define TINYALSA_ALSA_NAMES_H

#include <memory>
#include <string>

#include "alsa_quiet.h"

namespace tinyalsa
{

// Calls an alsa-lib release function; the result of a release cannot be acted upon.
template <auto Release> struct Releaser {
    template <typename T> void operator()(T *object) const { Release(object); }
};

template <typename T, auto Release> using AlsaPtr = std::unique_ptr<T, Releaser<Release>>;

// tinyalsa reports failures through results and pcm_get_error(), never on standard error: while
// one lives, alsa-lib's messages of this thread are dropped.
class QuietAlsa
{
  public:
    QuietAlsa() : previous_(tinyalsa_quiet_alsa()) {}
    ~QuietAlsa() { tinyalsa_restore_alsa(previous_); }
    QuietAlsa(const QuietAlsa &) = delete;
    QuietAlsa &operator=(const QuietAlsa &) = delete;

  private:
    snd_local_error_handler_t previous_;
};

// The ALSA control device of a card: $TINYALSA_CARD_<card> when set and non-empty, else hw:<card>.
std::string control_name(unsigned int card);

// The PCM of a card's device: the card's name with ",<device>" appended when the name already
// carries arguments (hw:0 -> hw:0,3), else ":<device>" (null -> null:3).
std::string pcm_name(unsigned int card, unsigned int device);

} // namespace tinyalsa

#endif
