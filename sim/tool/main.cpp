// tvoxsim: sets up and inspects the virtual amplifier pair.
#include "command.h"
#include "state.h"

#include <algorithm>
#include <cerrno>
#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <filesystem>
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

std::string state_error(int err)
{
    if (err == -EUCLEAN)
        return "its state file is damaged (tvoxsim init makes a fresh one)";
    return std::strerror(-err);
}

std::unique_ptr<State> open_state()
{
    int err = 0;
    const std::string dir = simulator_dir("");
    std::unique_ptr<State> state = State::open(dir, err);
    if (!state)
        std::fprintf(stderr, "tvoxsim: cannot open the simulator in %s: %s\n", dir.c_str(),
                     state_error(err).c_str());
    return state;
}

} // namespace tvox::sim::tool

int main(int argc, char **argv)
{
    using namespace tvox::sim::tool;
    if (argc < 2) {
        print_help(stderr);
        return exit_usage;
    }
    std::string_view name = argv[1];
    if (name == "--help" || name == "-h" || name == "help")
        return print_help(stdout);
    for (const Command &command : commands()) {
        if (command.name == name)
            return command.run(std::span<char *const>(argv + 2, static_cast<size_t>(argc - 2)));
    }
    std::fprintf(stderr, "tvoxsim: unknown command \"%s\" (see tvoxsim --help)\n", argv[1]);
    return exit_usage;
}
