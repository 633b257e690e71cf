// Arbitrary bytes as backend_conf.xml, looked up both ways the host AGM library reads it: the
// first line is the interface name asked for, the rest is the file. No input may read or write
// outside the caller's record, and an accepted record holds a terminated name and a known format.
#include <agmmixer.h>

#include <cstddef>
#include <cstdint>
#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <string>
#include <string_view>
#include <unistd.h>

namespace
{

// One file per fuzz process, rewritten for each input: the library reads the file by its path.
struct ConfFile {
    std::string path = "/tmp/backend_conf_fuzz.XXXXXX";
    int fd = mkstemp(path.data());
    ~ConfFile()
    {
        if (fd >= 0) {
            close(fd);
            unlink(path.c_str());
        }
    }
    bool write(std::string_view text) const
    {
        return fd >= 0 && ftruncate(fd, 0) == 0 &&
               pwrite(fd, text.data(), text.size(), 0) == static_cast<ssize_t>(text.size());
    }
};

template <typename Config> void verify(const Config &config, std::string_view name)
{
    const size_t length = strnlen(config.name, sizeof config.name);
    if (length == sizeof config.name ||
        std::string_view(config.name, length) != name.substr(0, length))
        std::abort();
    if (config.format < PCM_FORMAT_INVALID || config.format >= PCM_FORMAT_MAX)
        std::abort();
}

} // namespace

extern "C" int LLVMFuzzerTestOneInput(const uint8_t *data, std::size_t size)
{
    static const ConfFile file;
    const std::string_view input(reinterpret_cast<const char *>(data), size);
    const size_t newline = input.find('\n');
    if (newline == std::string_view::npos || !file.write(input.substr(newline + 1)))
        return 0;
    std::string name(input.substr(0, newline));
    std::string path = file.path;

    device_config device;
    std::memset(&device, 0xAA, sizeof device);
    if (get_device_media_config(path.data(), name.data(), &device) == 0)
        verify(device, name);
    group_config group;
    std::memset(&group, 0xAA, sizeof group);
    if (get_group_device_info(path.data(), name.data(), &group) == 0)
        verify(group, name);
    return 0;
}
