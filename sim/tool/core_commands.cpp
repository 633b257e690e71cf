// The basic commands: init, env, run, show, journal, log.
#include "card.h"
#include "command.h"
#include "environment.h"
#include "phone.h"
#include "phone_paths.h"
#include "state.h"

#include <unistd.h>

#include <cerrno>
#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <filesystem>
#include <fstream>
#include <optional>
#include <sstream>
#include <string>
#include <vector>

namespace tvox::sim::tool
{

namespace
{

constexpr size_t kShortBytes = 32;

// Single-quoted for a POSIX shell.
std::string shell_quote(const std::string &text)
{
    std::string quoted = "'";
    for (char c : text) {
        if (c == '\'')
            quoted += "'\\''";
        else
            quoted += c;
    }
    return quoted + "'";
}

namespace fs = std::filesystem;

// Opens every card of the catalogue once, so the state file holds all controls.
int prepare(const std::string &dir)
{
    const Catalogue &catalogue = Catalogue::from_env();
    for (int number : catalogue.cards()) {
        int err = 0;
        if (!Card::open(number, dir, catalogue, err)) {
            std::fprintf(stderr, "tvoxsim: %s\n", State::open_error(dir, err).c_str());
            return exit_failure;
        }
    }
    return 0;
}

// The words of a command that are not options (the options were checked by main()).
std::vector<std::string_view> operands(std::span<char *const> args, std::string_view flag,
                                       bool &flag_given)
{
    std::vector<std::string_view> words;
    flag_given = false;
    for (const char *arg : args) {
        if (arg == flag)
            flag_given = true;
        else
            words.emplace_back(arg);
    }
    return words;
}

// Removes what a simulator folder holds, so that nothing of its past (values, journal, log,
// phone files, a full persist partition) survives a fresh start.
int remove_simulator_files(const std::string &dir)
{
    for (const std::string &path :
         {dir + "/journal", dir + "/phone", log_path(dir), dir + "/" + kPersistFullMarker}) {
        std::error_code ec;
        fs::remove_all(path, ec);
        if (ec) {
            std::fprintf(stderr, "tvoxsim: cannot remove %s: %s\n", path.c_str(),
                         ec.message().c_str());
            return exit_failure;
        }
    }
    return 0;
}

int init(std::span<char *const> args)
{
    bool force = false;
    const std::vector<std::string_view> words = operands(args, "--force", force);
    if (words.size() > 1)
        return usage_error("init", "too many arguments");
    const std::string dir = simulator_dir(words.empty() ? "" : words[0]);
    std::error_code ec;
    const bool simulator = fs::exists(dir + "/state", ec);
    if (simulator && !force) {
        std::fprintf(stderr,
                     "tvoxsim: %s is a simulator folder already (tvoxsim init --force %s starts "
                     "it afresh)\n",
                     dir.c_str(), dir.c_str());
        return exit_failure;
    }
    if (!simulator && fs::is_directory(dir, ec) && !fs::is_empty(dir, ec)) {
        std::fprintf(stderr,
                     "tvoxsim: %s holds other files and is not a simulator folder (name a new "
                     "or empty folder)\n",
                     dir.c_str());
        return exit_failure;
    }
    if (simulator) {
        if (int status = remove_simulator_files(dir); status != 0)
            return status;
    }
    int err = 0;
    if (!State::create(dir, err)) {
        std::fprintf(stderr, "tvoxsim: cannot create the simulator in %s: %s\n", dir.c_str(),
                     std::strerror(-err));
        return exit_failure;
    }
    if (int status = prepare(dir); status != 0)
        return status;
    if (err = install_phone(dir); err < 0) {
        std::fprintf(stderr, "tvoxsim: cannot create the phone folder in %s: %s\n", dir.c_str(),
                     std::strerror(-err));
        return exit_failure;
    }
    std::printf("simulator ready in %s\n", dir.c_str());
    return 0;
}

// The phone paths ("/odm", "/sdcard", "/mnt/vendor/persist") of a program run inside the
// simulator lead into the simulator folder through the preload library.
std::string preload_list()
{
    const char *current = std::getenv("LD_PRELOAD");
    std::string list = TVOXSIM_PRELOAD_PATH;
    if (current != nullptr && *current != '\0' &&
        std::strstr(current, TVOXSIM_PRELOAD_PATH) == nullptr)
        list += std::string(":") + current;
    return list;
}

// The simulator's log for the tvoxsp tool, unless the user chose a log file of their own (one
// that is not the log of the simulator this process is in).
std::optional<std::string> log_variable(const std::string &dir)
{
    const char *current = std::getenv("TVOXSP_LOG_FILE");
    if (current != nullptr && *current != '\0' && current != log_path(simulator_dir("")))
        return std::nullopt;
    return log_path(dir);
}

// The simulator folder named by `dir_arg` (or the environment) when it opens; empty after
// saying why not.
std::string existing_simulator(std::string_view dir_arg)
{
    const std::string dir = simulator_dir(dir_arg);
    int err = 0;
    if (State::open(dir, err))
        return dir;
    std::fprintf(stderr, "tvoxsim: %s\n", State::open_error(dir, err).c_str());
    return {};
}

int env(std::span<char *const> args)
{
    if (args.size() > 1)
        return usage_error("env", "too many arguments");
    const std::string dir = existing_simulator(args.empty() ? "" : args[0]);
    if (dir.empty())
        return exit_failure;
    for (const auto &[name, value] : environment(dir, TVOXSIM_CONF_PATH))
        std::printf("export %s=%s\n", name.c_str(), shell_quote(value).c_str());
    if (const std::optional<std::string> log = log_variable(dir))
        std::printf("export TVOXSP_LOG_FILE=%s\n", shell_quote(*log).c_str());
    std::printf("export LD_PRELOAD=%s\n", shell_quote(preload_list()).c_str());
    return 0;
}

int run(std::span<char *const> args)
{
    std::string_view dir_arg;
    size_t i = 0;
    for (; i + 1 < args.size() && std::strcmp(args[i], "--dir") == 0; i += 2)
        dir_arg = args[i + 1];
    if (i < args.size() && std::strcmp(args[i], "--") == 0)
        ++i;
    if (i >= args.size())
        return usage_error("run", "no command given");
    const std::string dir = existing_simulator(dir_arg);
    if (dir.empty())
        return exit_failure;
    const std::optional<std::string> log = log_variable(dir);
    if (int err = apply_environment(dir, TVOXSIM_CONF_PATH);
        err < 0 || setenv("LD_PRELOAD", preload_list().c_str(), 1) != 0 ||
        (log && setenv("TVOXSP_LOG_FILE", log->c_str(), 1) != 0)) {
        std::fprintf(stderr, "tvoxsim: cannot set the environment: %s\n",
                     std::strerror(err < 0 ? -err : errno));
        return exit_failure;
    }
    std::vector<char *> argv(args.begin() + static_cast<std::ptrdiff_t>(i), args.end());
    argv.push_back(nullptr);
    execvp(argv[0], argv.data());
    std::fprintf(stderr, "tvoxsim: cannot run %s: %s\n", argv[0], std::strerror(errno));
    return 127; // as a shell reports a command it cannot run
}

std::string type_text(const Control &control)
{
    static constexpr const char *names[] = {"", "bool", "int", "enum", "bytes"};
    std::string text = names[static_cast<unsigned>(control.type)];
    if (control.count > 1)
        text += "[" + std::to_string(control.count) + "]";
    if ((control.access & (access_write | access_tlv_write)) == 0)
        text += " ro";
    if (control.is_tlv())
        text += " tlv";
    return text;
}

// Long byte controls show up to their last nonzero byte.
std::string show_values(const Control &control, std::span<const int64_t> numbers,
                        std::span<const uint8_t> bytes)
{
    if (bytes.size() <= kShortBytes)
        return format_values(control, numbers, bytes);
    size_t used = bytes.size();
    while (used > 4 && bytes[used - 1] == 0)
        --used;
    std::string text = format_values(control, {}, bytes.first(used));
    if (used < bytes.size())
        text += " (+" + std::to_string(bytes.size() - used) + " zero bytes)";
    return text;
}

int show(std::span<char *const> args)
{
    if (args.size() > 1)
        return usage_error("show", "too many arguments");
    const Catalogue &catalogue = Catalogue::from_env();
    std::vector<int> cards = catalogue.cards();
    if (!args.empty()) {
        char *end = nullptr;
        long number = std::strtol(args[0], &end, 10);
        if (*args[0] == '\0' || *end != '\0' || catalogue.card(static_cast<int>(number)).empty())
            return usage_error("show", std::string("no such card: ") + args[0]);
        cards = {static_cast<int>(number)};
    }
    std::string dir = simulator_dir("");
    for (int number : cards) {
        int err = 0;
        std::unique_ptr<Card> card = Card::open(number, dir, catalogue, err);
        if (!card) {
            std::fprintf(stderr, "tvoxsim: %s\n", State::open_error(dir, err).c_str());
            return exit_failure;
        }
        std::printf("card %d\n", number);
        // Listed by id as tinymix and tvoxsp count them (from 0, in the order clients see them);
        // missing controls follow, marked.
        std::vector<ControlFault> faults;
        for (const ControlFault &fault : card->state().lock().control_faults())
            if (fault.kind != ControlFaultKind::none && fault.card == number)
                faults.push_back(fault);
        std::vector<uint32_t> order(card->listed().begin(), card->listed().end());
        for (uint32_t i = 0; i < card->controls().size(); ++i)
            if (card->find(card->controls()[i].name) < 0)
                order.push_back(i);
        for (size_t position = 0; position < order.size(); ++position) {
            const Control &control = card->controls()[order[position]];
            std::vector<int64_t> numbers(control.is_bytes() ? 0 : control.count);
            std::vector<uint8_t> bytes(control.is_bytes() ? control.count : 0);
            if (card->read(order[position], Value{numbers, bytes}) < 0)
                continue;
            std::string element = std::to_string(position);
            std::string values = show_values(control, numbers, bytes);
            for (const ControlFault &fault : faults) {
                if (control.name != fault.name)
                    continue;
                if (fault.kind == ControlFaultKind::missing)
                    element = "-";
                else
                    values += "  [refuses writes]";
            }
            std::printf("%5s  %-44s %-16s %s\n", element.c_str(), control.name.c_str(),
                        type_text(control).c_str(), values.c_str());
        }
    }
    return 0;
}

// "COMMAND [--clear]": prints a text file of the simulator folder, or empties it.
template <typename PathOf>
int print_or_clear(std::string_view command, std::span<char *const> args, PathOf path_of)
{
    bool clear = false;
    const std::vector<std::string_view> words = operands(args, "--clear", clear);
    if (!words.empty())
        return usage_error(command, "unknown argument: " + std::string(words[0]));
    const std::unique_ptr<State> state = open_state();
    if (!state)
        return exit_failure;
    const std::string path = path_of(*state);
    if (clear) {
        if (truncate(path.c_str(), 0) != 0 && errno != ENOENT) {
            std::fprintf(stderr, "tvoxsim: cannot empty %s: %s\n", path.c_str(),
                         std::strerror(errno));
            return exit_failure;
        }
        return 0;
    }
    // No file yet: nothing was written to it.
    std::ostringstream text;
    text << std::ifstream(path, std::ios::binary).rdbuf();
    std::fputs(text.str().c_str(), stdout);
    return 0;
}

int journal(std::span<char *const> args)
{
    return print_or_clear("journal", args, [](const State &state) { return state.journal_path(); });
}

int log_command(std::span<char *const> args)
{
    return print_or_clear("log", args, [](const State &state) { return log_path(state.dir()); });
}

const Registration registrations[] = {
    Registration{{"init", "[--force] [DIR]",
                  "make a new simulator folder: controls at their defaults, a fresh phone folder; "
                  "--force starts an existing one afresh (values, journal, log, phone files)",
                  init, "--force"}},
    Registration{
        {"env", "[DIR]", "print the shell exports that put a shell inside the simulator", env}},
    Registration{{"run", "[--dir DIR] [--] CMD [ARGS...]", "run a command inside the simulator",
                  run, "--dir=", true}},
    Registration{
        {"show", "[CARD]",
         "list the controls of a card (default all) and their values, by id as tinymix counts them "
         "(from 0)",
         show}},
    Registration{{"journal", "[--clear]", "print (or empty) the journal of control writes", journal,
                  "--clear"}},
    Registration{{"log", "[--clear]",
                  "print (or empty) the simulator's log: what the tvoxsp tool logged inside it",
                  log_command, "--clear"}},
};

} // namespace

} // namespace tvox::sim::tool
