// Runs alsa-utils' amixer on a virtual card in a process of its own (it inherits the
// simulator's environment) and picks out what it says.
#pragma once

#include <array>
#include <cstdio>
#include <string>

namespace tvox::test
{

struct AmixerResult {
    int status = -1;
    std::string output;
};

inline AmixerResult amixer(const std::string &arguments)
{
    AmixerResult result;
    FILE *pipe = popen(("amixer -D tvoxsim:0 " + arguments + " 2>&1").c_str(), "r");
    if (pipe == nullptr)
        return result;
    std::array<char, 512> chunk{};
    while (fgets(chunk.data(), chunk.size(), pipe) != nullptr)
        result.output += chunk.data();
    result.status = pclose(pipe);
    return result;
}

// The values amixer's cget shows ("on,off", "817,3", "0x01,0x02"), empty when it shows none.
inline std::string amixer_values(const std::string &control)
{
    const std::string output = amixer("cget name='" + control + "'").output;
    const std::string marker = "  : values=";
    const size_t at = output.find(marker);
    if (at == std::string::npos)
        return {};
    const size_t start = at + marker.size();
    return output.substr(start, output.find('\n', start) - start);
}

} // namespace tvox::test
