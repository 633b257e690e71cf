// Graph set-up as writes to the AGM card's controls, through the caller's tinyalsa mixer.
//
// Back-end interfaces have "<intf> rate ch fmt", "<intf> metadata" and "<intf> group config";
// streams have "PCM<dev> ..." controls ("COMPRESS<dev> ..." for compressed streams). Per-interface
// calls of a stream first select the interface in "<stream> control". Metadata is a list of
// little-endian words: the pair count, then key/value pairs.
#include <agmmixer.h>

#include <algorithm>
#include <cerrno>
#include <cstdint>
#include <span>
#include <string>
#include <string_view>
#include <utility>
#include <vector>

namespace
{

// Metadata keys; each value is a key-value id of its key's family (device 0xA2000001 ...).
enum Key : uint32_t {
    stream_rx = 0xA1000000,
    stream_tx = 0xB1000000,
    device_rx = 0xA2000000,
    device_tx = 0xA3000000,
    instance = 0xAB000000,
    devicepp_rx = 0xAC000000,
    devicepp_tx = 0xAD000000,
    sampling_rate = 0xD2000000,
    bit_width = 0xD3000000,
};

constexpr size_t tlv_header_size = 8;

bool is_rx(usecase_type usecase)
{
    return usecase != CAPTURE;
}

std::string stream_control(int device, stream_type stype, std::string_view what)
{
    std::string name = stype == STREAM_COMPRESS ? "COMPRESS" : "PCM";
    name += std::to_string(device);
    name += ' ';
    name += what;
    return name;
}

std::string intf_control(const char *intf_name, std::string_view what)
{
    std::string name = intf_name;
    name += ' ';
    name += what;
    return name;
}

// The count word and the pairs; pairs whose value is 0 are left out.
std::vector<uint32_t> metadata(std::initializer_list<std::pair<Key, uint32_t>> pairs)
{
    std::vector<uint32_t> words{0};
    for (const auto &[key, value] : pairs) {
        if (value == 0)
            continue;
        words.push_back(key);
        words.push_back(value);
        ++words[0];
    }
    return words;
}

void put_le32(std::vector<uint8_t> &bytes, size_t at, uint32_t word)
{
    for (size_t i = 0; i < 4; ++i)
        bytes[at + i] = static_cast<uint8_t>(word >> (8 * i));
}

uint32_t get_le32(std::span<const uint8_t> bytes, size_t at)
{
    uint32_t word = 0;
    for (size_t i = 0; i < 4; ++i)
        word |= static_cast<uint32_t>(bytes[at + i]) << (8 * i);
    return word;
}

// Writes the words as little-endian bytes to a byte control (in a TLV container when the control
// is moved that way).
int write_words(struct mixer *mixer, const std::string &name, std::span<const uint32_t> words)
{
    mixer_ctl *ctl = mixer_get_ctl_by_name(mixer, name.c_str());
    if (ctl == nullptr)
        return -ENOENT;
    const size_t header = mixer_ctl_is_access_tlv_rw(ctl) != 0 ? tlv_header_size : 0;
    std::vector<uint8_t> bytes(header + words.size() * 4);
    if (header != 0)
        put_le32(bytes, 4, static_cast<uint32_t>(words.size() * 4));
    for (size_t i = 0; i < words.size(); ++i)
        put_le32(bytes, header + i * 4, words[i]);
    return mixer_ctl_set_array(ctl, bytes.data(), bytes.size());
}

// Reads a byte control whole; the bytes without any TLV header, or a negative errno.
int read_bytes(struct mixer *mixer, const std::string &name, std::vector<uint8_t> &data)
{
    mixer_ctl *ctl = mixer_get_ctl_by_name(mixer, name.c_str());
    if (ctl == nullptr)
        return -ENOENT;
    const size_t header = mixer_ctl_is_access_tlv_rw(ctl) != 0 ? tlv_header_size : 0;
    std::vector<uint8_t> bytes(header + mixer_ctl_get_num_values(ctl));
    if (int err = mixer_ctl_get_array(ctl, bytes.data(), bytes.size()); err < 0)
        return err;
    data.assign(bytes.begin() + static_cast<std::ptrdiff_t>(header), bytes.end());
    return 0;
}

int select_item(struct mixer *mixer, const std::string &name, const char *item)
{
    mixer_ctl *ctl = mixer_get_ctl_by_name(mixer, name.c_str());
    if (ctl == nullptr)
        return -ENOENT;
    return mixer_ctl_set_enum_by_string(ctl, item);
}

// Points the stream's next per-interface call at `intf_name`.
int select_interface(struct mixer *mixer, int device, stream_type stype, const char *intf_name)
{
    return select_item(mixer, stream_control(device, stype, "control"), intf_name);
}

} // namespace

extern "C" {

int set_agm_device_media_config(struct mixer *mixer, char *intf_name, struct device_config *config)
{
    if (mixer == nullptr || intf_name == nullptr || config == nullptr)
        return -EINVAL;
    mixer_ctl *ctl = mixer_get_ctl_by_name(mixer, intf_control(intf_name, "rate ch fmt").c_str());
    if (ctl == nullptr)
        return -ENOENT;
    // An INT control's array is of `long` elements.
    const long values[] = {static_cast<long>(config->rate), static_cast<long>(config->ch),
                           static_cast<long>(config->bits), static_cast<long>(config->format)};
    return mixer_ctl_set_array(ctl, values, std::size(values));
}

int set_agm_audio_intf_metadata(struct mixer *mixer, char *intf_name, unsigned int dkv,
                                enum usecase_type usecase, int rate, int bitwidth,
                                uint32_t stream_kv)
{
    if (mixer == nullptr || intf_name == nullptr)
        return -EINVAL;
    const bool rx = is_rx(usecase);
    const std::vector<uint32_t> words = metadata({
        {rx ? device_rx : device_tx, dkv},
        {rx ? stream_rx : stream_tx, stream_kv},
        {sampling_rate, static_cast<uint32_t>(rate)},
        {bit_width, static_cast<uint32_t>(bitwidth)},
    });
    return write_words(mixer, intf_control(intf_name, "metadata"), words);
}

int set_agm_stream_metadata(struct mixer *mixer, int device, uint32_t stream_kv,
                            enum usecase_type usecase, enum stream_type stype,
                            unsigned int instance_kv)
{
    if (mixer == nullptr)
        return -EINVAL;
    const std::vector<uint32_t> words = metadata({
        {is_rx(usecase) ? stream_rx : stream_tx, stream_kv},
        {instance, instance_kv},
    });
    return write_words(mixer, stream_control(device, stype, "metadata"), words);
}

int set_agm_streamdevice_metadata(struct mixer *mixer, int device, uint32_t stream_kv,
                                  enum usecase_type usecase, enum stream_type stype,
                                  char *intf_name, unsigned int devicepp_kv)
{
    if (mixer == nullptr || intf_name == nullptr)
        return -EINVAL;
    if (int err = select_interface(mixer, device, stype, intf_name); err < 0)
        return err;
    const bool rx = is_rx(usecase);
    const std::vector<uint32_t> words = metadata({
        {rx ? stream_rx : stream_tx, stream_kv},
        {rx ? devicepp_rx : devicepp_tx, devicepp_kv},
    });
    return write_words(mixer, stream_control(device, stype, "metadata"), words);
}

int connect_agm_audio_intf_to_stream(struct mixer *mixer, unsigned int device, char *intf_name,
                                     enum stream_type stype, bool connect)
{
    if (mixer == nullptr || intf_name == nullptr)
        return -EINVAL;
    return select_item(
        mixer, stream_control(static_cast<int>(device), stype, connect ? "connect" : "disconnect"),
        intf_name);
}

int agm_mixer_get_miid(struct mixer *mixer, int device, char *intf_name, enum stream_type stype,
                       int tag_id, uint32_t *miid)
{
    if (mixer == nullptr || intf_name == nullptr || miid == nullptr)
        return -EINVAL;
    if (int err = select_interface(mixer, device, stype, intf_name); err < 0)
        return err;
    std::vector<uint8_t> info;
    if (int err = read_bytes(mixer, stream_control(device, stype, "getTaggedInfo"), info); err < 0)
        return err;
    // {count, tag0, miid0, tag1, miid1, ...}, never read past what the control holds.
    if (info.size() < 4)
        return -EINVAL;
    const size_t stored = (info.size() - 4) / 8;
    const size_t count = std::min<size_t>(get_le32(info, 0), stored);
    for (size_t i = 0; i < count; ++i) {
        if (get_le32(info, 4 + 8 * i) == static_cast<uint32_t>(tag_id)) {
            *miid = get_le32(info, 8 + 8 * i);
            return 0;
        }
    }
    return -EINVAL;
}

int configure_mfc(struct mixer *mixer, int device, char *intf_name, int tag, enum stream_type stype,
                  unsigned int rate, unsigned int channels, unsigned int bits, uint32_t miid)
{
    // The module instance id names the MFC; interface and tag only led to it.
    (void)tag;
    if (mixer == nullptr || intf_name == nullptr)
        return -EINVAL;
    const uint32_t words[] = {miid, rate, channels, bits};
    return write_words(mixer, stream_control(device, stype, "setParam"), words);
}

int set_agm_group_device_config(struct mixer *mixer, char *intf_name, struct group_config *config)
{
    if (mixer == nullptr || intf_name == nullptr || config == nullptr)
        return -EINVAL;
    const uint32_t words[] = {config->rate, config->ch, config->bits, config->slot_mask};
    return write_words(mixer, intf_control(intf_name, "group config"), words);
}

int set_agm_group_mux_config(struct mixer *mixer, unsigned int device, struct group_config *config,
                             char *intf_name, unsigned int channels)
{
    if (mixer == nullptr || intf_name == nullptr || config == nullptr)
        return -EINVAL;
    const int stream = static_cast<int>(device);
    if (int err = select_interface(mixer, stream, STREAM_PCM, intf_name); err < 0)
        return err;
    const uint32_t words[] = {channels, config->slot_mask};
    return write_words(mixer, stream_control(stream, STREAM_PCM, "group mux config"), words);
}

} // extern "C"
