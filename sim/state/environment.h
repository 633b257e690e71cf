// The process environment that points ALSA, the tinyalsa host library and the plugins at a
// simulator folder. Used by the tvoxsim tool and the test fixture alike.
#pragma once

#include <string>
#include <utility>
#include <vector>

namespace tvox::sim
{

// (name, value) pairs: TVOXSIM_DIR, ALSA_CONFIG_PATH (alsa.conf plus `conf`, the generated
// tvoxsim.conf), TINYALSA_CARD_0 and TINYALSA_CARD_100.
std::vector<std::pair<std::string, std::string>> environment(const std::string &dir,
                                                             const std::string &conf);

// Sets them in this process; 0 or -errno.
int apply_environment(const std::string &dir, const std::string &conf);

} // namespace tvox::sim
