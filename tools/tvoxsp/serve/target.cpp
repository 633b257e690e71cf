#include "target.h"

namespace tvoxsp::serve
{

std::optional<Target> parse_target(std::string_view text)
{
    Target target;
    if (text == "local")
        return target;
    if (text != "adb" && !text.starts_with("adb:"))
        return std::nullopt;
    target.adb = true;
    if (text.starts_with("adb:")) {
        target.serial = text.substr(4);
        if (target.serial.empty())
            return std::nullopt;
    }
    return target;
}

std::string shell_quote(std::string_view word)
{
    std::string quoted = "'";
    for (char c : word) {
        if (c == '\'')
            quoted += "'\\''";
        else
            quoted += c;
    }
    return quoted + "'";
}

std::vector<std::string> Target::adb_prefix() const
{
    std::vector<std::string> argv = {adb_program};
    if (!serial.empty())
        argv.insert(argv.end(), {"-s", serial});
    return argv;
}

std::vector<std::string> Target::shell_argv(const std::vector<std::string> &words) const
{
    if (!adb)
        return words;
    // adb joins its arguments with spaces into one line for `sh -c` on the phone.
    std::string line;
    for (const std::string &word : words)
        line += (line.empty() ? "" : " ") + shell_quote(word);
    std::vector<std::string> argv = adb_prefix();
    argv.insert(argv.end(), {"shell", line});
    return argv;
}

std::vector<std::string> Target::tool_argv(const std::vector<std::string> &args) const
{
    std::vector<std::string> words = {tvoxsp, "--json"};
    words.insert(words.end(), args.begin(), args.end());
    return shell_argv(words);
}

std::vector<std::string> Target::live_argv(const std::vector<std::string> &args) const
{
    std::vector<std::string> argv = tool_argv(args);
    if (adb)
        argv.back() = "echo $$ && exec " + argv.back();
    return argv;
}

std::vector<std::string> Target::kill_argv(const std::string &remote_pid) const
{
    return shell_argv({"kill", "-INT", remote_pid});
}

std::vector<std::string> Target::push_argv(const std::string &local,
                                           const std::string &remote) const
{
    std::vector<std::string> argv = adb_prefix();
    argv.insert(argv.end(), {"push", local, remote});
    return argv;
}

std::string Target::remote_path(std::string_view name) const
{
    return remote_dir + "/" + std::string(name);
}

} // namespace tvoxsp::serve
