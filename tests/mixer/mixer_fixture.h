// The virtual amplifier card with an open mixer of card 0, and helpers shared by the mixer tests.
#pragma once

#include "support/capture.h"
#include "support/mixer.h"
#include "tvoxsp/mixer.h"

#include <cstdlib>
#include <string>
#include <vector>

namespace tvox::test
{

// How often the process opened and closed a tinyalsa mixer (open_counter.cpp defines mixer_open
// and mixer_close ahead of tinyalsa and passes every call on).
struct MixerCalls {
    int opens;
    int closes;
};
MixerCalls mixer_calls();
void reset_mixer_calls();

// Card 0 now names a card that does not exist: every later mixer_open fails.
inline void break_card()
{
    setenv("TINYALSA_CARD_0", "tvoxsim:42", 1);
}

class MixerTest : public MixerSimTest<0>
{
  protected:
    void SetUp() override
    {
        MixerSimTest<0>::SetUp();
        reset_mixer_calls();
    }

    struct mixer *mixer() { return mixer_.get(); }

    // The setter and the reader on the test's mixer; what they print lands in out_ and err_.
    int32_t set(const char *control, const char *value)
    {
        return captured([&] { return tervox_tmixer_set(mixer(), control, value); });
    }
    int32_t get(const char *control, void *out)
    {
        return captured([&] { return tervox_tmixer_get(mixer(), control, out); });
    }
    template <typename Call> int32_t captured(Call call)
    {
        StreamCapture err(2);
        StreamCapture out(1);
        const int32_t result = call();
        err_ = err.text();
        out_ = out.text();
        return result;
    }

    // The control's number on card 0 as text, for lookups by number.
    std::string number_of(const std::string &name)
    {
        for (unsigned int i = 0; i < mixer_get_num_ctls(mixer()); ++i)
            if (name == mixer_ctl_get_name(mixer_get_ctl(mixer(), i)))
                return std::to_string(i);
        ADD_FAILURE() << "no control " << name;
        return "";
    }

    // The controls written, in order; the per-value writes of one multi-value control count once.
    std::vector<std::string> written_controls()
    {
        std::vector<std::string> names;
        for (const auto &line : journal_lines()) {
            const auto open = line.find('"');
            std::string name = line.substr(open + 1, line.find('"', open + 1) - open - 1);
            if (names.empty() || names.back() != name)
                names.push_back(std::move(name));
        }
        return names;
    }

    std::string err_;
    std::string out_;
};

} // namespace tvox::test
