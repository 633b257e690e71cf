// The fixed list of commands the page may run, and what a request must hold to run one.
#pragma once

#include <optional>
#include <string>
#include <vector>

namespace Json
{
class Value;
}

namespace tvoxsp::serve
{

enum class Kind {
    one_shot, // one JSON document
    live,     // JSON Lines until stopped
    tuning,   // a one-shot whose last argument is a file the page uploads
};

// The words of a tvoxsp command the page sent as {"argv": ["reg", "read", "0x2020"]}, when they
// are strings naming a command of the list with the kind asked for; else nothing, with `error`
// saying why.
std::optional<std::vector<std::string>> tool_command(const Json::Value &request, Kind kind,
                                                     std::string &error);

// The same for the simulator's tool (`tvoxsim speaker B --fault shorted`).
std::optional<std::vector<std::string>> sim_command(const Json::Value &request, std::string &error);

// A file name the page gave, reduced to letters, digits, '.', '-' and '_' (never empty, never
// starting with '.' or '-').
std::string safe_file_name(const std::string &name);

} // namespace tvoxsp::serve
