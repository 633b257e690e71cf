// tvoxsim: sets up and inspects the virtual amplifier pair.
#include "command.h"
#include "state.h"

#include <algorithm>
#include <cerrno>
#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <filesystem>
#include <optional>
#include <string>

namespace tvox::sim::tool
{

namespace
{

std::vector<Command> &registry()
{
    static std::vector<Command> all;
    return all;
}

int print_help(FILE *out)
{
    std::fprintf(out,
                 "usage: tvoxsim COMMAND [ARGS...]\n\n"
                 "The virtual amplifier pair: ALSA cards tvoxsim:0 (amplifiers) and "
                 "tvoxsim:100 (AGM).\nThe simulator folder is $TVOXSIM_DIR, by default "
                 "/tmp/tvoxsim-<uid> (now %s).\n\nCommands:\n",
                 simulator_dir("").c_str());
    for (const Command &command : commands()) {
        std::string head = std::string(command.name) + " " + std::string(command.usage);
        std::fprintf(out, "  %-34s %.*s\n", head.c_str(), static_cast<int>(command.summary.size()),
                     command.summary.data());
    }
    return 0;
}

} // namespace

Registration::Registration(Command command)
{
    registry().push_back(command);
}

std::vector<Command> commands()
{
    std::vector<Command> sorted = registry();
    std::sort(sorted.begin(), sorted.end(),
              [](const Command &a, const Command &b) { return a.name < b.name; });
    return sorted;
}

int usage_error(std::string_view command, std::string_view message)
{
    std::fprintf(stderr, "tvoxsim: %.*s\n", static_cast<int>(message.size()), message.data());
    for (const Command &c : commands()) {
        if (c.name == command)
            std::fprintf(stderr, "usage: tvoxsim %.*s %.*s\n", static_cast<int>(c.name.size()),
                         c.name.data(), static_cast<int>(c.usage.size()), c.usage.data());
    }
    return exit_usage;
}

std::optional<uint32_t> number(const char *text)
{
    errno = 0;
    char *end = nullptr;
    const unsigned long long value = std::strtoull(text, &end, 0);
    if (*text == '\0' || *end != '\0' || errno != 0 || value > UINT32_MAX || *text == '-')
        return std::nullopt;
    return static_cast<uint32_t>(value);
}

std::string simulator_dir(std::string_view dir)
{
    std::string chosen = dir.empty() ? State::dir_from_env() : std::string(dir);
    std::error_code ec;
    std::filesystem::path absolute = std::filesystem::absolute(chosen, ec);
    return ec ? chosen : absolute.lexically_normal().string();
}

std::unique_ptr<State> open_state()
{
    int err = 0;
    const std::string dir = simulator_dir("");
    std::unique_ptr<State> state = State::open(dir, err);
    if (!state)
        std::fprintf(stderr, "tvoxsim: %s\n", State::open_error(dir, err).c_str());
    return state;
}

std::string log_path(const std::string &dir)
{
    return dir + "/tvoxsp.log";
}

namespace
{

bool is_help(std::string_view arg)
{
    return arg == "--help" || arg == "-h";
}

int command_help(const Command &command)
{
    std::printf("usage: tvoxsim %.*s %.*s\n\n%.*s\n", static_cast<int>(command.name.size()),
                command.name.data(), static_cast<int>(command.usage.size()), command.usage.data(),
                static_cast<int>(command.summary.size()), command.summary.data());
    return 0;
}

// Whether `option` is one of the command's, and whether it takes a value.
std::optional<bool> option_takes_value(const Command &command, std::string_view option)
{
    for (std::string_view rest = command.options; !rest.empty();) {
        const size_t end = std::min(rest.find(' '), rest.size());
        std::string_view known = rest.substr(0, end);
        rest.remove_prefix(std::min(end + 1, rest.size()));
        const bool takes_value = known.ends_with('=');
        if (takes_value)
            known.remove_suffix(1);
        if (known == option)
            return takes_value;
    }
    return std::nullopt;
}

// Help, or the first word that is not an option of the command; -1 when the words are fine.
int check_options(const Command &command, std::span<char *const> args)
{
    for (size_t i = 0; i < args.size(); ++i) {
        const std::string_view arg = args[i];
        if (command.runs_a_program && arg == "--")
            break;
        if (is_help(arg))
            return command_help(command);
        if (!arg.starts_with('-')) {
            if (command.runs_a_program)
                break;
            continue;
        }
        const std::optional<bool> takes_value = option_takes_value(command, arg);
        if (!takes_value)
            return usage_error(command.name, "unknown option: " + std::string(arg));
        if (*takes_value && ++i == args.size())
            return usage_error(command.name, std::string(arg) + " needs a value");
    }
    return -1;
}

} // namespace

} // namespace tvox::sim::tool

int main(int argc, char **argv)
{
    using namespace tvox::sim::tool;
    if (argc < 2) {
        print_help(stderr);
        return exit_usage;
    }
    std::string_view name = argv[1];
    if (is_help(name) || name == "help")
        return print_help(stdout);
    if (name.starts_with('-')) {
        std::fprintf(stderr, "tvoxsim: unknown option %s (see tvoxsim --help)\n", argv[1]);
        return exit_usage;
    }
    for (const Command &command : commands()) {
        if (command.name != name)
            continue;
        const std::span<char *const> args(argv + 2, static_cast<size_t>(argc - 2));
        const int status = check_options(command, args);
        return status >= 0 ? status : command.run(args);
    }
    std::fprintf(stderr, "tvoxsim: unknown command \"%s\" (see tvoxsim --help)\n", argv[1]);
    return exit_usage;
}
