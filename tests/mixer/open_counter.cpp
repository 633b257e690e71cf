#include "open_counter.h"

#include <atomic>
#include <dlfcn.h>
#include <tinyalsa/asoundlib.h>

namespace
{

std::atomic<int> g_opens{0};
std::atomic<int> g_closes{0};

template <typename Fn> Fn next_definition(const char *name)
{
    return reinterpret_cast<Fn>(dlsym(RTLD_NEXT, name));
}

} // namespace

extern "C" struct mixer *mixer_open(unsigned int card)
{
    static const auto real = next_definition<struct mixer *(*)(unsigned int)>("mixer_open");
    ++g_opens;
    return real(card);
}

extern "C" void mixer_close(struct mixer *mixer)
{
    static const auto real = next_definition<void (*)(struct mixer *)>("mixer_close");
    ++g_closes;
    real(mixer);
}

namespace tvox::test
{

MixerCalls mixer_calls()
{
    return {g_opens.load(), g_closes.load()};
}

void reset_mixer_calls()
{
    g_opens = 0;
    g_closes = 0;
}

} // namespace tvox::test
