// Arbitrary bytes as the value text of tervox_tmixer_set on each kind of control: bool, int,
// enum, plain bytes and TLV bytes. The first byte picks the control, the rest is the text.
//
// The setter runs here on an in-memory mixer (the tinyalsa calls it makes, defined below) rather
// than on the virtual card: the card is reached through alsa-lib plugins and the simulator's
// state folder, so every input would cost file I/O and leave state behind for the next one,
// while the parsing and bounds under test are all in the setter. The in-memory controls check
// what tinyalsa checks (value index, array size, enum names) and abort on any call the setter
// must never make.
#include <tinyalsa/asoundlib.h>
#include <tvoxsp/mixer.h>

#include <array>
#include <cstddef>
#include <cstdint>
#include <cstdlib>
#include <cstring>
#include <string>
#include <string_view>
#include <vector>

struct mixer {
};

struct mixer_ctl {
    std::string_view name;
    mixer_ctl_type type;
    bool tlv;
    unsigned int count; // values, or bytes for byte controls
    std::vector<int> values;
    std::vector<uint8_t> bytes;
};

namespace
{

constexpr std::array<std::string_view, 3> kEnumItems{"Off", "Left Only", "On"};
constexpr size_t kTlvHeader = 8;
// With at most this many bytes of text there are at most 1024 tokens: more is a caller fault
// that ends the process on purpose.
constexpr size_t kMaxText = 2047;

std::array<mixer_ctl, 5> make_controls()
{
    return {{
        {"Amp Switch", MIXER_CTL_TYPE_BOOL, false, 2, {}, {}},
        {"Amp Gain", MIXER_CTL_TYPE_INT, false, 4, {}, {}},
        {"Amp Mode", MIXER_CTL_TYPE_ENUM, false, 1, {}, {}},
        {"Amp Params", MIXER_CTL_TYPE_BYTE, false, 16, {}, {}},
        {"Amp Tuning", MIXER_CTL_TYPE_BYTE, true, 64 + kTlvHeader, {}, {}},
    }};
}

std::array<mixer_ctl, 5> controls = make_controls();
mixer card;

int range_max(const mixer_ctl &ctl)
{
    return ctl.type == MIXER_CTL_TYPE_BOOL ? 1 : ctl.type == MIXER_CTL_TYPE_ENUM ? 2 : 127;
}

} // namespace

extern "C" {

struct mixer_ctl *mixer_get_ctl(struct mixer *mixer, unsigned int id)
{
    if (mixer != &card)
        std::abort();
    return id < controls.size() ? &controls[id] : nullptr;
}

struct mixer_ctl *mixer_get_ctl_by_name(struct mixer *mixer, const char *name)
{
    if (mixer != &card || name == nullptr)
        std::abort();
    for (auto &ctl : controls) {
        if (ctl.name == name)
            return &ctl;
    }
    return nullptr;
}

enum mixer_ctl_type mixer_ctl_get_type(struct mixer_ctl *ctl)
{
    return ctl->type;
}

unsigned int mixer_ctl_get_num_values(struct mixer_ctl *ctl)
{
    return ctl->count;
}

int mixer_ctl_is_access_tlv_rw(struct mixer_ctl *ctl)
{
    return ctl->tlv;
}

int mixer_ctl_set_value(struct mixer_ctl *ctl, unsigned int id, int value)
{
    // The setter checks its token count against the value count before it writes.
    if (id >= ctl->count || ctl->type == MIXER_CTL_TYPE_BYTE)
        std::abort();
    if (value < 0 || value > range_max(*ctl))
        return -1;
    ctl->values.push_back(value);
    return 0;
}

int mixer_ctl_set_array(struct mixer_ctl *ctl, const void *array, size_t count)
{
    if (ctl->type != MIXER_CTL_TYPE_BYTE || array == nullptr)
        std::abort();
    if (count > ctl->count)
        return -1;
    const auto *bytes = static_cast<const uint8_t *>(array);
    ctl->bytes.assign(bytes, bytes + count); // ASan checks every byte lies in the buffer
    return 0;
}

int mixer_ctl_set_enum_by_string(struct mixer_ctl *ctl, const char *string)
{
    if (ctl->type != MIXER_CTL_TYPE_ENUM)
        std::abort();
    for (size_t i = 0; i < kEnumItems.size(); ++i) {
        if (kEnumItems[i] == string) {
            ctl->values.push_back(static_cast<int>(i));
            return 0;
        }
    }
    return -1;
}

} // extern "C"

extern "C" int LLVMFuzzerTestOneInput(const uint8_t *data, std::size_t size)
{
    if (size == 0 || size - 1 > kMaxText)
        return 0;
    mixer_ctl &ctl = controls[data[0] % controls.size()];
    ctl.values.clear();
    ctl.bytes.clear();
    const std::string text(reinterpret_cast<const char *>(data + 1), size - 1);
    const int32_t result = tervox_tmixer_set(&card, std::string(ctl.name).c_str(), text.c_str());
    if (result != 0)
        return 0;
    if (ctl.type != MIXER_CTL_TYPE_BYTE) {
        if (ctl.values.empty() || ctl.values.size() > ctl.count)
            std::abort();
        return 0;
    }
    // A TLV write is {tag 0, length n} followed by its n bytes.
    if (ctl.tlv) {
        uint32_t tag = 1, length = 0;
        if (ctl.bytes.size() < kTlvHeader)
            std::abort();
        std::memcpy(&tag, ctl.bytes.data(), sizeof tag);
        std::memcpy(&length, ctl.bytes.data() + sizeof tag, sizeof length);
        if (tag != 0 || length != ctl.bytes.size() - kTlvHeader)
            std::abort();
    }
    return 0;
}
