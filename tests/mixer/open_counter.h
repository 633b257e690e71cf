// How often the process opened and closed a tinyalsa mixer: the test executable defines
// mixer_open and mixer_close ahead of tinyalsa and passes every call on.
#pragma once

namespace tvox::test
{

struct MixerCalls {
    int opens;
    int closes;
};

MixerCalls mixer_calls();
void reset_mixer_calls();

} // namespace tvox::test
