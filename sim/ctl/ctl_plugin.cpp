// alsa-lib external control plugin "tvoxsim": serves one card of the catalogue (argument CARD)
// from the shared state, so amixer, tinyalsa and the library all see the same virtual amplifiers.
//
//   ctl_type.tvoxsim.lib "/abs/path/libasound_module_ctl_tvoxsim.so"
//   ctl.tvoxsim { @args [ CARD ] @args.CARD { type integer default 0 } type tvoxsim card $CARD }
//
// The simulator folder is read from $TVOXSIM_DIR at every open. A folder that is not a simulator
// (or a damaged state file) fails the open, with the reason on standard error once per process.
#include "card.h"

#include <alsa/asoundlib.h>
#include <alsa/control_external.h>

#include <algorithm>
#include <cerrno>
#include <cstdio>
#include <cstring>
#include <memory>
#include <string>
#include <vector>

namespace
{

using tvox::sim::Card;
using tvox::sim::Control;
using tvox::sim::Value;

struct Plugin {
    snd_ctl_ext_t ext{};
    std::unique_ptr<Card> card;
    // Scratch values between alsa-lib's element buffers and the card.
    std::vector<int64_t> numbers;
    std::vector<uint8_t> bytes;
};

Plugin &plugin_of(snd_ctl_ext_t *ext)
{
    return *static_cast<Plugin *>(ext->private_data);
}

const Control &control_of(snd_ctl_ext_t *ext, snd_ctl_ext_key_t key)
{
    return plugin_of(ext).card->controls()[key];
}

void close_plugin(snd_ctl_ext_t *ext)
{
    delete &plugin_of(ext);
}

int elem_count(snd_ctl_ext_t *ext)
{
    return static_cast<int>(plugin_of(ext).card->listed().size());
}

int elem_list(snd_ctl_ext_t *ext, unsigned int offset, snd_ctl_elem_id_t *id)
{
    const Card &card = *plugin_of(ext).card;
    if (offset >= card.listed().size())
        return -EINVAL;
    // Element numbers count the offered controls only (alsa-lib's external plugin layer numbers
    // listed elements by position).
    const uint32_t key = card.listed()[offset];
    // alsa-lib compares every field of listed ids, so none may be left to chance.
    snd_ctl_elem_id_clear(id);
    snd_ctl_elem_id_set_numid(id, offset + 1);
    snd_ctl_elem_id_set_interface(id, SND_CTL_ELEM_IFACE_MIXER);
    snd_ctl_elem_id_set_device(id, 0);
    snd_ctl_elem_id_set_subdevice(id, 0);
    snd_ctl_elem_id_set_name(id, card.controls()[key].name.c_str());
    snd_ctl_elem_id_set_index(id, 0);
    return 0;
}

snd_ctl_ext_key_t find_elem(snd_ctl_ext_t *ext, const snd_ctl_elem_id_t *id)
{
    const Card &card = *plugin_of(ext).card;
    unsigned int numid = snd_ctl_elem_id_get_numid(id);
    if (numid > 0)
        return numid <= card.listed().size() ? card.listed()[numid - 1] : SND_CTL_EXT_KEY_NOT_FOUND;
    if (snd_ctl_elem_id_get_index(id) != 0)
        return SND_CTL_EXT_KEY_NOT_FOUND;
    int index = card.find(snd_ctl_elem_id_get_name(id));
    if (index < 0)
        return SND_CTL_EXT_KEY_NOT_FOUND;
    // alsa-lib resolves a by-name TLV call through the element info's numid, which comes from
    // this id; without it every by-name TLV call fails with -ENOENT.
    snd_ctl_elem_id_set_numid(const_cast<snd_ctl_elem_id_t *>(id),
                              card.element_number(static_cast<size_t>(index)));
    return static_cast<snd_ctl_ext_key_t>(index);
}

int get_attribute(snd_ctl_ext_t *ext, snd_ctl_ext_key_t key, int *type, unsigned int *access,
                  unsigned int *count)
{
    const Control &control = control_of(ext, key);
    *type = static_cast<int>(control.type);
    *access = control.access;
    if (control.is_tlv())
        *access |= SND_CTL_EXT_ACCESS_TLV_CALLBACK;
    *count = control.count;
    return 0;
}

int get_integer_info(snd_ctl_ext_t *ext, snd_ctl_ext_key_t key, long *min, long *max, long *step)
{
    const Control &control = control_of(ext, key);
    *min = static_cast<long>(control.min);
    *max = static_cast<long>(control.max);
    *step = static_cast<long>(control.step);
    return 0;
}

int get_enumerated_info(snd_ctl_ext_t *ext, snd_ctl_ext_key_t key, unsigned int *items)
{
    *items = static_cast<unsigned int>(control_of(ext, key).items.size());
    return 0;
}

int get_enumerated_name(snd_ctl_ext_t *ext, snd_ctl_ext_key_t key, unsigned int item, char *name,
                        size_t name_max_len)
{
    // alsa-lib passes the caller's item number through unchecked and ignores an error here; a
    // kernel driver names the last item for a number past the list, and so does this card.
    const Control &control = control_of(ext, key);
    if (control.items.empty() || name_max_len == 0)
        return -EINVAL;
    item = std::min<unsigned int>(item, static_cast<unsigned int>(control.items.size() - 1));
    std::snprintf(name, name_max_len, "%s", control.items[item].c_str());
    return 0;
}

// Reads into the plugin's scratch values; 0 or -errno.
int read_values(snd_ctl_ext_t *ext, snd_ctl_ext_key_t key)
{
    Plugin &plugin = plugin_of(ext);
    const Control &control = control_of(ext, key);
    if ((control.access & tvox::sim::access_read) == 0)
        return -EPERM;
    plugin.numbers.assign(control.is_bytes() ? 0 : control.count, 0);
    plugin.bytes.assign(control.is_bytes() ? control.count : 0, 0);
    return plugin.card->read(key, Value{plugin.numbers, plugin.bytes});
}

int write_values(snd_ctl_ext_t *ext, snd_ctl_ext_key_t key)
{
    Plugin &plugin = plugin_of(ext);
    if ((control_of(ext, key).access & tvox::sim::access_write) == 0)
        return -EPERM;
    return plugin.card->write(key, Value{plugin.numbers, plugin.bytes});
}

template <typename T> int read_numbers(snd_ctl_ext_t *ext, snd_ctl_ext_key_t key, T *values)
{
    if (int err = read_values(ext, key); err < 0)
        return err;
    std::vector<int64_t> &numbers = plugin_of(ext).numbers;
    for (size_t i = 0; i < numbers.size(); ++i)
        values[i] = static_cast<T>(numbers[i]);
    return 0;
}

template <typename T> int write_numbers(snd_ctl_ext_t *ext, snd_ctl_ext_key_t key, const T *values)
{
    const Control &control = control_of(ext, key);
    if (control.is_bytes())
        return -EINVAL;
    plugin_of(ext).numbers.assign(values, values + control.count);
    plugin_of(ext).bytes.clear();
    return write_values(ext, key);
}

int read_integer(snd_ctl_ext_t *ext, snd_ctl_ext_key_t key, long *values)
{
    return read_numbers(ext, key, values);
}

int read_enumerated(snd_ctl_ext_t *ext, snd_ctl_ext_key_t key, unsigned int *items)
{
    return read_numbers(ext, key, items);
}

int write_integer(snd_ctl_ext_t *ext, snd_ctl_ext_key_t key, long *values)
{
    return write_numbers(ext, key, values);
}

int write_enumerated(snd_ctl_ext_t *ext, snd_ctl_ext_key_t key, unsigned int *items)
{
    return write_numbers(ext, key, items);
}

int read_bytes(snd_ctl_ext_t *ext, snd_ctl_ext_key_t key, unsigned char *data, size_t max_bytes)
{
    if (int err = read_values(ext, key); err < 0)
        return err;
    const std::vector<uint8_t> &bytes = plugin_of(ext).bytes;
    if (bytes.size() > max_bytes)
        return -EINVAL;
    std::memcpy(data, bytes.data(), bytes.size());
    return 0;
}

// alsa-lib always hands over its whole element buffer; the control's size is what counts.
int write_bytes(snd_ctl_ext_t *ext, snd_ctl_ext_key_t key, unsigned char *data, size_t max_bytes)
{
    const Control &control = control_of(ext, key);
    if (!control.is_bytes() || control.count > max_bytes)
        return -EINVAL;
    plugin_of(ext).numbers.clear();
    plugin_of(ext).bytes.assign(data, data + control.count);
    return write_values(ext, key);
}

int tlv_callback(snd_ctl_ext_t *ext, snd_ctl_ext_key_t key, int op_flag, unsigned int,
                 unsigned int *tlv, unsigned int tlv_size)
{
    const Control &control = control_of(ext, key);
    Card &card = *plugin_of(ext).card;
    if (op_flag == 0 && (control.access & tvox::sim::access_tlv_read) != 0)
        return card.tlv_read(key, tlv, tlv_size);
    if (op_flag > 0 && (control.access & tvox::sim::access_tlv_write) != 0)
        return card.tlv_write(key, tlv, tlv_size);
    return -ENXIO;
}

const snd_ctl_ext_callback_t callbacks = {
    .close = close_plugin,
    .elem_count = elem_count,
    .elem_list = elem_list,
    .find_elem = find_elem,
    .free_key = nullptr,
    .get_attribute = get_attribute,
    .get_integer_info = get_integer_info,
    .get_integer64_info = nullptr,
    .get_enumerated_info = get_enumerated_info,
    .get_enumerated_name = get_enumerated_name,
    .read_integer = read_integer,
    .read_integer64 = nullptr,
    .read_enumerated = read_enumerated,
    .read_bytes = read_bytes,
    .read_iec958 = nullptr,
    .write_integer = write_integer,
    .write_integer64 = nullptr,
    .write_enumerated = write_enumerated,
    .write_bytes = write_bytes,
    .write_iec958 = nullptr,
    .subscribe_events = nullptr,
    .read_event = nullptr,
    .poll_descriptors_count = nullptr,
    .poll_descriptors = nullptr,
    .poll_revents = nullptr,
};

void copy_text(char *to, size_t size, const std::string &text)
{
    std::snprintf(to, size, "%s", text.c_str());
}

// The card number from the plugin's configuration ("card N", an integer or a numeric string).
int card_argument(snd_config_t *conf, long &card)
{
    snd_config_iterator_t i;
    snd_config_iterator_t next;
    card = 0;
    snd_config_for_each(i, next, conf)
    {
        snd_config_t *node = snd_config_iterator_entry(i);
        const char *id = nullptr;
        if (snd_config_get_id(node, &id) < 0)
            continue;
        std::string key = id;
        if (key == "comment" || key == "type" || key == "hint")
            continue;
        if (key != "card") {
            SNDERR("tvoxsim: unknown field %s", id);
            return -EINVAL;
        }
        const char *text = nullptr;
        if (snd_config_get_integer(node, &card) >= 0)
            continue;
        char *end = nullptr;
        if (snd_config_get_string(node, &text) < 0 || (card = std::strtol(text, &end, 10), *end))
            return -EINVAL;
    }
    return 0;
}

} // namespace

extern "C" SND_CTL_PLUGIN_DEFINE_FUNC(tvoxsim)
{
    (void)root;
    long number = 0;
    if (int err = card_argument(conf, number); err < 0)
        return err;
    int err = 0;
    auto plugin = std::make_unique<Plugin>();
    plugin->card = Card::open(static_cast<int>(number), err);
    if (!plugin->card) {
        if (err == -ENODEV)
            SNDERR("tvoxsim: no card %ld", number);
        else
            tvox::sim::State::report_open_error(tvox::sim::State::dir_from_env(), err);
        return err;
    }
    snd_ctl_ext_t &ext = plugin->ext;
    ext.version = SND_CTL_EXT_VERSION;
    ext.card_idx = static_cast<int>(number);
    std::string id = "tvoxsim" + std::to_string(number);
    copy_text(ext.id, sizeof ext.id, id);
    copy_text(ext.driver, sizeof ext.driver, "tvoxsim");
    copy_text(ext.name, sizeof ext.name, number == 0 ? "Tervox amplifiers" : "Virtual AGM");
    copy_text(ext.longname, sizeof ext.longname,
              number == 0 ? "Tervox smart amplifier pair (simulated)" : "Virtual AGM card");
    copy_text(ext.mixername, sizeof ext.mixername, "tvoxsim");
    ext.poll_fd = -1;
    ext.callback = &callbacks;
    ext.private_data = plugin.get();
    ext.tlv.c = tlv_callback;
    err = snd_ctl_ext_create(&ext, name, mode);
    if (err < 0)
        return err;
    *handlep = ext.handle;
    plugin.release(); // owned by the handle now; freed in close_plugin
    return 0;
}

extern "C" {
SND_CTL_PLUGIN_SYMBOL(tvoxsim)
}
