// The mixer half of tinyalsa over alsa-lib's control interface.
//
// Real cards carry thousands of controls, so opening only lists their ids; a control's details
// (info, enum item names) are fetched the first time they are needed, and lookups by name compare
// the names of that list without asking the device anything.
//
// tinyalsa hands a TLV container to the kernel as it is, all `count` bytes; alsa-lib sends as many
// bytes as the container's length word announces. A kernel card gets the container through the
// control device itself; a plugin card, which only alsa-lib reaches, gets a copy whose length
// word announces every byte.
#include <tinyalsa/asoundlib.h>

#include <alsa/asoundlib.h>

#include <poll.h>

#include <algorithm>
#include <cerrno>
#include <climits>
#include <cstdint>
#include <cstring>
#include <string>
#include <string_view>
#include <vector>

#include "alsa_names.h"
#include "kernel.h"

using tinyalsa::AlsaPtr;

namespace
{

void free_list(snd_ctl_elem_list_t *list)
{
    snd_ctl_elem_list_free_space(list);
    snd_ctl_elem_list_free(list);
}

using CtlPtr = AlsaPtr<snd_ctl_t, snd_ctl_close>;
using ListPtr = AlsaPtr<snd_ctl_elem_list_t, free_list>;
using InfoPtr = AlsaPtr<snd_ctl_elem_info_t, snd_ctl_elem_info_free>;
using IdPtr = AlsaPtr<snd_ctl_elem_id_t, snd_ctl_elem_id_free>;
using ValuePtr = AlsaPtr<snd_ctl_elem_value_t, snd_ctl_elem_value_free>;
using CardInfoPtr = AlsaPtr<snd_ctl_card_info_t, snd_ctl_card_info_free>;

} // namespace

struct mixer_ctl {
    struct mixer *owner = nullptr;
    unsigned int index = 0;
    InfoPtr info;                        // fetched on first use
    std::vector<std::string> enum_names; // fetched on first use, ENUM controls only
    bool enum_names_loaded = false;
};

struct mixer {
    CtlPtr handle;
    ListPtr list;
    std::string name;   // the card's short name
    int kernel_fd = -1; // the control device of a kernel card, -1 for a plugin card
    std::vector<mixer_ctl> ctls;
};

namespace
{

IdPtr list_id(const mixer_ctl &ctl)
{
    snd_ctl_elem_id_t *raw = nullptr;
    if (snd_ctl_elem_id_malloc(&raw) < 0)
        return nullptr;
    IdPtr id(raw);
    snd_ctl_elem_list_get_id(ctl.owner->list.get(), ctl.index, id.get());
    return id;
}

// The control's info, fetched from the device on first use; null when the device refuses.
snd_ctl_elem_info_t *info_of(mixer_ctl *ctl)
{
    if (ctl == nullptr)
        return nullptr;
    if (ctl->info)
        return ctl->info.get();
    IdPtr id = list_id(*ctl);
    snd_ctl_elem_info_t *raw = nullptr;
    if (!id || snd_ctl_elem_info_malloc(&raw) < 0)
        return nullptr;
    InfoPtr info(raw);
    snd_ctl_elem_info_set_id(info.get(), id.get());
    if (snd_ctl_elem_info(ctl->owner->handle.get(), info.get()) < 0)
        return nullptr;
    ctl->info = std::move(info);
    return ctl->info.get();
}

IdPtr info_id(const snd_ctl_elem_info_t *info)
{
    snd_ctl_elem_id_t *raw = nullptr;
    if (snd_ctl_elem_id_malloc(&raw) < 0)
        return nullptr;
    IdPtr id(raw);
    snd_ctl_elem_info_get_id(info, id.get());
    return id;
}

// An empty value record addressed to the control.
ValuePtr new_value(const snd_ctl_elem_info_t *info)
{
    IdPtr id = info_id(info);
    snd_ctl_elem_value_t *raw = nullptr;
    if (!id || snd_ctl_elem_value_malloc(&raw) < 0)
        return nullptr;
    ValuePtr value(raw);
    snd_ctl_elem_value_set_id(value.get(), id.get());
    return value;
}

// Reads the control's current values into `value`; 0 or a negative errno.
int read_value(mixer_ctl *ctl, const snd_ctl_elem_info_t *info, ValuePtr &value)
{
    value = new_value(info);
    if (!value)
        return -ENOMEM;
    int err = snd_ctl_elem_read(ctl->owner->handle.get(), value.get());
    return err < 0 ? err : 0;
}

// Reads the control for element `id`: 0, -EINVAL past its count, or the device's negative errno.
int read_element(mixer_ctl *ctl, const snd_ctl_elem_info_t *info, unsigned int id, ValuePtr &value)
{
    if (info == nullptr || id >= snd_ctl_elem_info_get_count(info))
        return -EINVAL;
    return read_value(ctl, info, value);
}

int write_value(mixer_ctl *ctl, snd_ctl_elem_value_t *value)
{
    int err = snd_ctl_elem_write(ctl->owner->handle.get(), value);
    return err < 0 ? err : 0;
}

bool is_tlv_rw(const snd_ctl_elem_info_t *info)
{
    return snd_ctl_elem_info_is_tlv_readable(info) || snd_ctl_elem_info_is_tlv_writable(info);
}

enum class ArrayPath { refused, tlv, values };

// How an array call moves `count` units: a TLV container of at most the control's size plus its
// header, or plain values (longs of a BOOL or INT control, bytes of a BYTE one) of at most the
// control's count.
ArrayPath array_path(const snd_ctl_elem_info_t *info, const void *array, size_t count)
{
    if (info == nullptr || array == nullptr || count == 0)
        return ArrayPath::refused;
    const size_t size = snd_ctl_elem_info_get_count(info);
    const snd_ctl_elem_type_t type = snd_ctl_elem_info_get_type(info);
    if (type == SND_CTL_ELEM_TYPE_BYTES && is_tlv_rw(info))
        return count > size + TLV_HEADER_SIZE ? ArrayPath::refused : ArrayPath::tlv;
    const bool plain = type == SND_CTL_ELEM_TYPE_BOOLEAN || type == SND_CTL_ELEM_TYPE_INTEGER ||
                       type == SND_CTL_ELEM_TYPE_BYTES;
    return plain && count <= size ? ArrayPath::values : ArrayPath::refused;
}

// A TLV container as alsa-lib wants it: whole 32-bit words. Rounded up without adding to the
// byte count, which must not wrap for any size_t (callers refuse a count below the header).
std::vector<unsigned int> tlv_words(size_t bytes)
{
    return std::vector<unsigned int>(bytes / sizeof(unsigned int) +
                                     (bytes % sizeof(unsigned int) != 0 ? 1 : 0));
}

int tlv_read(mixer_ctl *ctl, const snd_ctl_elem_info_t *info, void *array, size_t count)
{
    // The kernel's answer for a container without room for its header.
    if (count < TLV_HEADER_SIZE)
        return -EINVAL;
    const mixer &owner = *ctl->owner;
    if (owner.kernel_fd >= 0)
        return tinyalsa::kernel::tlv_read(owner.kernel_fd, snd_ctl_elem_info_get_numid(info), array,
                                          count);
    IdPtr id = info_id(info);
    if (!id)
        return -ENOMEM;
    std::vector<unsigned int> tlv = tlv_words(count);
    int err = snd_ctl_elem_tlv_read(owner.handle.get(), id.get(), tlv.data(),
                                    static_cast<unsigned int>(count));
    if (err < 0)
        return err;
    std::memcpy(array, tlv.data(), count);
    return 0;
}

int tlv_write(mixer_ctl *ctl, const snd_ctl_elem_info_t *info, const void *array, size_t count)
{
    if (count < TLV_HEADER_SIZE)
        return -EINVAL;
    const mixer &owner = *ctl->owner;
    if (owner.kernel_fd >= 0)
        return tinyalsa::kernel::tlv_write(owner.kernel_fd, snd_ctl_elem_info_get_numid(info),
                                           array, count);
    std::vector<unsigned int> tlv = tlv_words(count);
    std::memcpy(tlv.data(), array, count);
    tlv[1] = static_cast<unsigned int>(count - TLV_HEADER_SIZE);
    IdPtr id = info_id(info);
    if (!id)
        return -ENOMEM;
    int err = snd_ctl_elem_tlv_write(owner.handle.get(), id.get(), tlv.data());
    return err < 0 ? err : 0;
}

// The info of an INTEGER control, else null.
const snd_ctl_elem_info_t *integer_info(mixer_ctl *ctl)
{
    const snd_ctl_elem_info_t *info = info_of(ctl);
    return info != nullptr && snd_ctl_elem_info_get_type(info) == SND_CTL_ELEM_TYPE_INTEGER
               ? info
               : nullptr;
}

// An INTEGER control's range, for percents.
struct Span {
    long long min;
    long long range;
};

Span span_of(const snd_ctl_elem_info_t *info)
{
    const long long min = snd_ctl_elem_info_get_min(info);
    return {min, snd_ctl_elem_info_get_max(info) - min};
}

// The descriptor a kernel card's control device is open on, or -1.
int kernel_fd(snd_ctl_t *handle)
{
    pollfd descriptor{};
    if (snd_ctl_type(handle) != SND_CTL_TYPE_HW ||
        snd_ctl_poll_descriptors(handle, &descriptor, 1) != 1)
        return -1;
    return descriptor.fd;
}

// The card's short name, as tinyalsa reads it at open; false when the card does not tell.
bool card_name(snd_ctl_t *handle, std::string &name)
{
    snd_ctl_card_info_t *raw = nullptr;
    if (snd_ctl_card_info_malloc(&raw) < 0)
        return false;
    CardInfoPtr info(raw);
    if (snd_ctl_card_info(handle, info.get()) < 0)
        return false;
    name = snd_ctl_card_info_get_name(info.get());
    return true;
}

const std::vector<std::string> *enum_names_of(mixer_ctl *ctl)
{
    snd_ctl_elem_info_t *info = info_of(ctl);
    if (info == nullptr || snd_ctl_elem_info_get_type(info) != SND_CTL_ELEM_TYPE_ENUMERATED)
        return nullptr;
    if (!ctl->enum_names_loaded) {
        const unsigned int items = snd_ctl_elem_info_get_items(info);
        std::vector<std::string> names;
        names.reserve(items);
        for (unsigned int item = 0; item < items; ++item) {
            snd_ctl_elem_info_set_item(info, item);
            if (snd_ctl_elem_info(ctl->owner->handle.get(), info) < 0)
                return nullptr;
            names.emplace_back(snd_ctl_elem_info_get_item_name(info));
        }
        ctl->enum_names = std::move(names);
        ctl->enum_names_loaded = true;
    }
    return &ctl->enum_names;
}

} // namespace

extern "C" {

struct mixer *mixer_open(unsigned int card)
{
    const std::string name = tinyalsa::control_name(card);
    const tinyalsa::QuietAlsa quiet;
    snd_ctl_t *raw_handle = nullptr;
    if (snd_ctl_open(&raw_handle, name.c_str(), 0) < 0)
        return nullptr;
    CtlPtr handle(raw_handle);
    std::string card_short_name;
    if (!card_name(handle.get(), card_short_name))
        return nullptr;

    snd_ctl_elem_list_t *raw_list = nullptr;
    if (snd_ctl_elem_list_malloc(&raw_list) < 0)
        return nullptr;
    ListPtr list(raw_list);
    // The first call learns the count, the second fills the ids.
    if (snd_ctl_elem_list(handle.get(), list.get()) < 0)
        return nullptr;
    const unsigned int count = snd_ctl_elem_list_get_count(list.get());
    if (snd_ctl_elem_list_alloc_space(list.get(), count) < 0 ||
        snd_ctl_elem_list(handle.get(), list.get()) < 0)
        return nullptr;

    const int fd = kernel_fd(handle.get());
    auto *result =
        new mixer{std::move(handle), std::move(list), std::move(card_short_name), fd, {}};
    const unsigned int used = snd_ctl_elem_list_get_used(result->list.get());
    result->ctls.resize(used);
    for (unsigned int i = 0; i < used; ++i) {
        result->ctls[i].owner = result;
        result->ctls[i].index = i;
    }
    return result;
}

void mixer_close(struct mixer *mixer)
{
    delete mixer;
}

const char *mixer_get_name(struct mixer *mixer)
{
    return mixer == nullptr ? nullptr : mixer->name.c_str();
}

unsigned int mixer_get_num_ctls(struct mixer *mixer)
{
    return mixer == nullptr ? 0 : static_cast<unsigned int>(mixer->ctls.size());
}

struct mixer_ctl *mixer_get_ctl(struct mixer *mixer, unsigned int id)
{
    if (mixer == nullptr || id >= mixer->ctls.size())
        return nullptr;
    return &mixer->ctls[id];
}

struct mixer_ctl *mixer_get_ctl_by_name(struct mixer *mixer, const char *name)
{
    if (mixer == nullptr || name == nullptr)
        return nullptr;
    for (mixer_ctl &ctl : mixer->ctls) {
        if (std::strcmp(snd_ctl_elem_list_get_name(mixer->list.get(), ctl.index), name) == 0)
            return &ctl;
    }
    return nullptr;
}

unsigned int mixer_ctl_get_id(struct mixer_ctl *ctl)
{
    // The number mixer_get_ctl() takes.
    return ctl == nullptr ? UINT_MAX : ctl->index;
}

const char *mixer_ctl_get_name(struct mixer_ctl *ctl)
{
    if (ctl == nullptr)
        return nullptr;
    return snd_ctl_elem_list_get_name(ctl->owner->list.get(), ctl->index);
}

enum mixer_ctl_type mixer_ctl_get_type(struct mixer_ctl *ctl)
{
    const snd_ctl_elem_info_t *info = info_of(ctl);
    if (info == nullptr)
        return MIXER_CTL_TYPE_UNKNOWN;
    switch (snd_ctl_elem_info_get_type(info)) {
    case SND_CTL_ELEM_TYPE_BOOLEAN:
        return MIXER_CTL_TYPE_BOOL;
    case SND_CTL_ELEM_TYPE_INTEGER:
        return MIXER_CTL_TYPE_INT;
    case SND_CTL_ELEM_TYPE_ENUMERATED:
        return MIXER_CTL_TYPE_ENUM;
    case SND_CTL_ELEM_TYPE_BYTES:
        return MIXER_CTL_TYPE_BYTE;
    case SND_CTL_ELEM_TYPE_IEC958:
        return MIXER_CTL_TYPE_IEC958;
    case SND_CTL_ELEM_TYPE_INTEGER64:
        return MIXER_CTL_TYPE_INT64;
    default:
        return MIXER_CTL_TYPE_UNKNOWN;
    }
}

const char *mixer_ctl_get_type_string(struct mixer_ctl *ctl)
{
    if (ctl == nullptr)
        return "";
    switch (mixer_ctl_get_type(ctl)) {
    case MIXER_CTL_TYPE_BOOL:
        return "BOOL";
    case MIXER_CTL_TYPE_INT:
        return "INT";
    case MIXER_CTL_TYPE_ENUM:
        return "ENUM";
    case MIXER_CTL_TYPE_BYTE:
        return "BYTE";
    case MIXER_CTL_TYPE_IEC958:
        return "IEC958";
    case MIXER_CTL_TYPE_INT64:
        return "INT64";
    default:
        return "Unknown";
    }
}

unsigned int mixer_ctl_get_num_values(struct mixer_ctl *ctl)
{
    const snd_ctl_elem_info_t *info = info_of(ctl);
    return info == nullptr ? 0 : snd_ctl_elem_info_get_count(info);
}

unsigned int mixer_ctl_get_num_enums(struct mixer_ctl *ctl)
{
    const snd_ctl_elem_info_t *info = info_of(ctl);
    if (info == nullptr || snd_ctl_elem_info_get_type(info) != SND_CTL_ELEM_TYPE_ENUMERATED)
        return 0;
    return snd_ctl_elem_info_get_items(info);
}

const char *mixer_ctl_get_enum_string(struct mixer_ctl *ctl, unsigned int enum_id)
{
    const std::vector<std::string> *names = enum_names_of(ctl);
    if (names == nullptr || enum_id >= names->size())
        return nullptr;
    return (*names)[enum_id].c_str();
}

int mixer_ctl_get_range_min(struct mixer_ctl *ctl)
{
    const snd_ctl_elem_info_t *info = integer_info(ctl);
    return info == nullptr ? -EINVAL : static_cast<int>(snd_ctl_elem_info_get_min(info));
}

int mixer_ctl_get_range_max(struct mixer_ctl *ctl)
{
    const snd_ctl_elem_info_t *info = integer_info(ctl);
    return info == nullptr ? -EINVAL : static_cast<int>(snd_ctl_elem_info_get_max(info));
}

int mixer_ctl_get_percent(struct mixer_ctl *ctl, unsigned int id)
{
    const snd_ctl_elem_info_t *info = integer_info(ctl);
    ValuePtr value;
    if (int err = read_element(ctl, info, id, value); err < 0)
        return err;
    const Span span = span_of(info);
    if (span.range <= 0)
        return 0;
    return static_cast<int>((snd_ctl_elem_value_get_integer(value.get(), id) - span.min) * 100 /
                            span.range);
}

int mixer_ctl_set_percent(struct mixer_ctl *ctl, unsigned int id, int percent)
{
    const snd_ctl_elem_info_t *info = integer_info(ctl);
    if (info == nullptr)
        return -EINVAL;
    const Span span = span_of(info);
    return mixer_ctl_set_value(
        ctl, id, static_cast<int>(span.min + span.range * std::clamp(percent, 0, 100) / 100));
}

int mixer_ctl_is_access_tlv_rw(struct mixer_ctl *ctl)
{
    const snd_ctl_elem_info_t *info = info_of(ctl);
    return info != nullptr && is_tlv_rw(info) ? 1 : 0;
}

int mixer_ctl_get_value(struct mixer_ctl *ctl, unsigned int id)
{
    const snd_ctl_elem_info_t *info = info_of(ctl);
    ValuePtr value;
    if (int err = read_element(ctl, info, id, value); err < 0)
        return err;
    switch (snd_ctl_elem_info_get_type(info)) {
    case SND_CTL_ELEM_TYPE_BOOLEAN:
        return snd_ctl_elem_value_get_boolean(value.get(), id) != 0 ? 1 : 0;
    case SND_CTL_ELEM_TYPE_INTEGER:
        return static_cast<int>(snd_ctl_elem_value_get_integer(value.get(), id));
    case SND_CTL_ELEM_TYPE_ENUMERATED:
        return static_cast<int>(snd_ctl_elem_value_get_enumerated(value.get(), id));
    case SND_CTL_ELEM_TYPE_BYTES:
        return snd_ctl_elem_value_get_byte(value.get(), id);
    default:
        return -EINVAL;
    }
}

int mixer_ctl_set_value(struct mixer_ctl *ctl, unsigned int id, int value)
{
    const snd_ctl_elem_info_t *info = info_of(ctl);
    // Read, change one element, write back: the other elements keep their values.
    ValuePtr current;
    if (int err = read_element(ctl, info, id, current); err < 0)
        return err;
    switch (snd_ctl_elem_info_get_type(info)) {
    case SND_CTL_ELEM_TYPE_BOOLEAN:
        snd_ctl_elem_value_set_boolean(current.get(), id, value != 0 ? 1 : 0);
        break;
    case SND_CTL_ELEM_TYPE_INTEGER:
        snd_ctl_elem_value_set_integer(current.get(), id, value);
        break;
    case SND_CTL_ELEM_TYPE_ENUMERATED:
        snd_ctl_elem_value_set_enumerated(current.get(), id, static_cast<unsigned int>(value));
        break;
    case SND_CTL_ELEM_TYPE_BYTES:
        snd_ctl_elem_value_set_byte(current.get(), id, static_cast<unsigned char>(value));
        break;
    default:
        return -EINVAL;
    }
    return write_value(ctl, current.get());
}

int mixer_ctl_get_array(struct mixer_ctl *ctl, void *array, size_t count)
{
    const snd_ctl_elem_info_t *info = info_of(ctl);
    const ArrayPath path = array_path(info, array, count);
    if (path == ArrayPath::refused)
        return -EINVAL;
    if (path == ArrayPath::tlv)
        return tlv_read(ctl, info, array, count);
    const snd_ctl_elem_type_t type = snd_ctl_elem_info_get_type(info);
    ValuePtr value;
    if (int err = read_value(ctl, info, value); err < 0)
        return err;
    if (type == SND_CTL_ELEM_TYPE_BYTES) {
        std::memcpy(array, snd_ctl_elem_value_get_bytes(value.get()), count);
        return 0;
    }
    // BOOL and INT elements are the kernel's `long` values, as tinyalsa hands them over.
    auto *longs = static_cast<long *>(array);
    for (size_t i = 0; i < count; ++i)
        longs[i] = snd_ctl_elem_value_get_integer(value.get(), i);
    return 0;
}

int mixer_ctl_set_array(struct mixer_ctl *ctl, const void *array, size_t count)
{
    const snd_ctl_elem_info_t *info = info_of(ctl);
    const ArrayPath path = array_path(info, array, count);
    if (path == ArrayPath::refused)
        return -EINVAL;
    if (path == ArrayPath::tlv)
        return tlv_write(ctl, info, array, count);
    const snd_ctl_elem_type_t type = snd_ctl_elem_info_get_type(info);
    // As in tinyalsa, the array replaces the whole value: elements past `count` are written as 0.
    ValuePtr value = new_value(info);
    if (!value)
        return -ENOMEM;
    if (type == SND_CTL_ELEM_TYPE_BYTES) {
        snd_ctl_elem_set_bytes(value.get(), const_cast<void *>(array), count);
    } else {
        const auto *longs = static_cast<const long *>(array);
        for (size_t i = 0; i < count; ++i) {
            if (type == SND_CTL_ELEM_TYPE_BOOLEAN)
                snd_ctl_elem_value_set_boolean(value.get(), i, longs[i] != 0 ? 1 : 0);
            else
                snd_ctl_elem_value_set_integer(value.get(), i, longs[i]);
        }
    }
    return write_value(ctl, value.get());
}

int mixer_ctl_set_enum_by_string(struct mixer_ctl *ctl, const char *string)
{
    const std::vector<std::string> *names = enum_names_of(ctl);
    if (names == nullptr || string == nullptr)
        return -EINVAL;
    for (size_t item = 0; item < names->size(); ++item) {
        if ((*names)[item] != std::string_view(string))
            continue;
        // tinyalsa writes the item to value 0 and 0 to every other value.
        ValuePtr value = new_value(ctl->info.get());
        if (!value)
            return -ENOMEM;
        snd_ctl_elem_value_set_enumerated(value.get(), 0, static_cast<unsigned int>(item));
        return write_value(ctl, value.get());
    }
    return -EINVAL;
}

} // extern "C"
