// This executable defines mixer_open and mixer_close ahead of tinyalsa: every call is counted and
// passed on.
#include "mixer_fixture.h"

#include <atomic>
#include <dlfcn.h>

namespace
{
std::atomic<int> g_opens{0};
std::atomic<int> g_closes{0};
} // namespace

extern "C" struct mixer *mixer_open(unsigned int card)
{
    static const auto real =
        reinterpret_cast<struct mixer *(*)(unsigned int)>(dlsym(RTLD_NEXT, "mixer_open"));
    ++g_opens;
    return real(card);
}

extern "C" void mixer_close(struct mixer *mixer)
{
    static const auto real =
        reinterpret_cast<void (*)(struct mixer *)>(dlsym(RTLD_NEXT, "mixer_close"));
    ++g_closes;
    real(mixer);
}

tvox::test::MixerCalls tvox::test::mixer_calls()
{
    return {g_opens.load(), g_closes.load()};
}

void tvox::test::reset_mixer_calls()
{
    g_opens = 0;
    g_closes = 0;
}
