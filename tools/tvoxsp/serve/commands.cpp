#include "commands.h"

#include <json/json.h>

#include <algorithm>
#include <span>
#include <string_view>

namespace tvoxsp::serve
{
namespace
{

struct Allowed {
    std::string_view name;
    std::vector<std::string_view> subcommands; // empty: any arguments follow the name
    Kind kind;
};

const std::vector<Allowed> &tool_list()
{
    static const std::vector<Allowed> list = {
        {"calibrate", {}, Kind::one_shot},
        {"diagnose", {}, Kind::one_shot},
        {"verify", {}, Kind::one_shot},
        {"report", {}, Kind::one_shot},
        {"info", {}, Kind::one_shot},
        {"controls", {}, Kind::one_shot},
        {"get", {}, Kind::one_shot},
        {"set", {}, Kind::one_shot},
        {"reg", {"read", "write", "update"}, Kind::one_shot},
        {"module", {"on", "off", "swap", "config"}, Kind::one_shot},
        {"swap", {}, Kind::one_shot},
        {"bypass", {}, Kind::one_shot},
        {"slot", {"read"}, Kind::one_shot},
        {"tuning", {"check", "load", "delta", "params"}, Kind::tuning},
        {"rtlog", {}, Kind::live},
        {"monitor", {}, Kind::live},
    };
    return list;
}

const std::vector<Allowed> &sim_list()
{
    static const std::vector<Allowed> list = {
        {"speaker", {}, Kind::one_shot},
        {"speakers", {}, Kind::one_shot},
        {"driver", {"config", "fault"}, Kind::one_shot},
    };
    return list;
}

// The request's "argv" as strings, or nothing.
std::optional<std::vector<std::string>> words_of(const Json::Value &request, std::string &error)
{
    const Json::Value &argv = request.isObject() ? request["argv"] : Json::Value();
    if (!argv.isArray() || argv.empty()) {
        error = "the request names no command (\"argv\": [\"COMMAND\", ...])";
        return std::nullopt;
    }
    std::vector<std::string> words;
    for (const Json::Value &word : argv) {
        if (!word.isString()) {
            error = "every word of \"argv\" is a string";
            return std::nullopt;
        }
        words.push_back(word.asString());
        // exec passes C strings: a NUL would cut the word short.
        if (words.back().find('\0') != std::string::npos) {
            error = "a word of \"argv\" holds a NUL character";
            return std::nullopt;
        }
    }
    return words;
}

std::optional<std::vector<std::string>> listed(const Json::Value &request,
                                               std::span<const Allowed> list,
                                               std::optional<Kind> kind, std::string &error)
{
    std::optional<std::vector<std::string>> words = words_of(request, error);
    if (!words)
        return std::nullopt;
    const auto row = std::find_if(list.begin(), list.end(),
                                  [&](const Allowed &a) { return a.name == words->front(); });
    if (row == list.end() || (kind && row->kind != *kind)) {
        error = "\"" + words->front() + "\" is not a command the dashboard runs here";
        return std::nullopt;
    }
    if (!row->subcommands.empty() &&
        (words->size() < 2 || std::find(row->subcommands.begin(), row->subcommands.end(),
                                        (*words)[1]) == row->subcommands.end())) {
        error = "\"" + words->front() + "\" takes one of:";
        for (std::string_view sub : row->subcommands)
            error += " " + std::string(sub);
        return std::nullopt;
    }
    return words;
}

} // namespace

std::optional<std::vector<std::string>> tool_command(const Json::Value &request, Kind kind,
                                                     std::string &error)
{
    return listed(request, tool_list(), kind, error);
}

std::optional<std::vector<std::string>> sim_command(const Json::Value &request, std::string &error)
{
    return listed(request, sim_list(), std::nullopt, error);
}

std::string safe_file_name(const std::string &name)
{
    std::string safe;
    for (char c : name.substr(name.find_last_of('/') + 1)) {
        const bool keep = (c >= 'a' && c <= 'z') || (c >= 'A' && c <= 'Z') ||
                          (c >= '0' && c <= '9') || c == '.' || c == '-' || c == '_';
        safe += keep ? c : '_';
    }
    if (safe.empty() || safe.front() == '.' || safe.front() == '-')
        safe.insert(0, "file");
    return safe;
}

} // namespace tvoxsp::serve
