#include "environment.h"

#include <cerrno>
#include <cstdlib>

namespace tvox::sim
{

std::vector<std::pair<std::string, std::string>> environment(const std::string &dir,
                                                             const std::string &conf)
{
    return {
        {"TVOXSIM_DIR", dir},
        {"ALSA_CONFIG_PATH", "/usr/share/alsa/alsa.conf:" + conf},
        {"TINYALSA_CARD_0", "tvoxsim:0"},
        {"TINYALSA_CARD_100", "tvoxsim:100"},
    };
}

int apply_environment(const std::string &dir, const std::string &conf)
{
    for (const auto &[name, value] : environment(dir, conf)) {
        if (setenv(name.c_str(), value.c_str(), 1) != 0)
            return -errno;
    }
    return 0;
}

} // namespace tvox::sim
