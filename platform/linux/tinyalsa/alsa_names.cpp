#include "alsa_names.h"

#include <cstdlib>

namespace tinyalsa
{

std::string control_name(unsigned int card)
{
    const std::string variable = "TINYALSA_CARD_" + std::to_string(card);
    const char *mapped = std::getenv(variable.c_str());
    if (mapped != nullptr && *mapped != '\0')
        return mapped;
    return "hw:" + std::to_string(card);
}

std::string pcm_name(unsigned int card, unsigned int device)
{
    std::string name = control_name(card);
    name += name.find(':') == std::string::npos ? ':' : ',';
    name += std::to_string(device);
    return name;
}

} // namespace tinyalsa
