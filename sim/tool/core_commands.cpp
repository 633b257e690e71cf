// The basic commands: init, env, run, show, journal.
#include "card.h"
#include "command.h"
#include "environment.h"
#include "phone.h"
#include "state.h"

#include <unistd.h>

#include <cerrno>
#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <filesystem>
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

// Opens every card of the catalogue once, so the state file holds all controls.
int prepare(const std::string &dir)
{
    const Catalogue &catalogue = Catalogue::from_env();
    for (int number : catalogue.cards()) {
        int err = 0;
        if (!Card::open(number, dir, catalogue, err)) {
            std::fprintf(stderr, "tvoxsim: cannot open the simulator in %s: %s\n", dir.c_str(),
                         state_error(err).c_str());
            return exit_failure;
        }
    }
    return 0;
}

int phone_folder(const std::string &dir)
{
    if (int err = install_phone(dir); err < 0) {
        std::fprintf(stderr, "tvoxsim: cannot create the phone folder in %s: %s\n", dir.c_str(),
                     std::strerror(-err));
        return exit_failure;
    }
    return 0;
}

int init(std::span<char *const> args)
{
    if (args.size() > 1)
        return usage_error("init", "too many arguments");
    std::string dir = simulator_dir(args.empty() ? "" : args[0]);
    if (int err = State::make_dir(dir); err < 0) {
        std::fprintf(stderr, "tvoxsim: cannot create %s: %s\n", dir.c_str(), std::strerror(-err));
        return exit_failure;
    }
    // A fresh start: default values and an empty journal.
    for (const char *file : {"/state", "/journal"}) {
        std::string path = dir + file;
        if (unlink(path.c_str()) != 0 && errno != ENOENT) {
            std::fprintf(stderr, "tvoxsim: cannot remove %s: %s\n", path.c_str(),
                         std::strerror(errno));
            return exit_failure;
        }
    }
    if (int status = prepare(dir); status != 0)
        return status;
    if (int status = phone_folder(dir); status != 0)
        return status;
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

int env(std::span<char *const> args)
{
    if (args.size() > 1)
        return usage_error("env", "too many arguments");
    std::string dir = simulator_dir(args.empty() ? "" : args[0]);
    for (const auto &[name, value] : environment(dir, TVOXSIM_CONF_PATH))
        std::printf("export %s=%s\n", name.c_str(), shell_quote(value).c_str());
    std::printf("export LD_PRELOAD=%s\n", shell_quote(preload_list()).c_str());
    return 0;
}

int run(std::span<char *const> args)
{
    std::string dir_arg;
    size_t i = 0;
    if (i < args.size() && std::strcmp(args[i], "--dir") == 0) {
        if (i + 1 >= args.size())
            return usage_error("run", "--dir needs a folder");
        dir_arg = args[i + 1];
        i += 2;
    }
    if (i < args.size() && std::strcmp(args[i], "--") == 0)
        ++i;
    if (i >= args.size())
        return usage_error("run", "no command given");
    std::string dir = simulator_dir(dir_arg);
    // A folder named on the command line is used only when it is a simulator already: a typo
    // must not leave a new simulator behind.
    if (std::error_code ec; !dir_arg.empty() && !std::filesystem::exists(dir + "/state", ec)) {
        std::fprintf(stderr, "tvoxsim: %s is not a simulator folder (tvoxsim init %s makes one)\n",
                     dir.c_str(), dir.c_str());
        return exit_failure;
    }
    if (int status = prepare(dir); status != 0)
        return status;
    // A folder that was never initialised gets its phone folder too; an existing one is kept.
    if (std::error_code ec; !std::filesystem::exists(dir + "/phone", ec)) {
        if (int status = phone_folder(dir); status != 0)
            return status;
    }
    if (int err = apply_environment(dir, TVOXSIM_CONF_PATH);
        err < 0 || setenv("LD_PRELOAD", preload_list().c_str(), 1) != 0) {
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
            std::fprintf(stderr, "tvoxsim: cannot open card %d in %s: %s\n", number, dir.c_str(),
                         state_error(err).c_str());
            return exit_failure;
        }
        std::printf("card %d\n", number);
        // Listed by element number as clients see them; missing controls follow, marked.
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
            std::string element = std::to_string(position + 1);
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

int journal(std::span<char *const> args)
{
    bool clear = args.size() == 1 && std::strcmp(args[0], "--clear") == 0;
    if (args.size() > 1 || (args.size() == 1 && !clear))
        return usage_error("journal", "unknown argument");
    std::unique_ptr<State> state = open_state();
    if (!state)
        return exit_failure;
    if (clear)
        return state->clear_journal() == 0 ? 0 : exit_failure;
    for (const std::string &line : state->journal_lines())
        std::printf("%s\n", line.c_str());
    return 0;
}

const Registration registrations[] = {
    Registration{
        {"init", "[DIR]", "create the simulator folder, all controls at their defaults", init}},
    Registration{{"env", "[DIR]", "print the shell exports that select the simulator", env}},
    Registration{
        {"run", "[--dir DIR] -- CMD [ARGS...]", "run a command inside the simulator", run}},
    Registration{
        {"show", "[CARD]", "list the controls of a card (default all) and their values", show}},
    Registration{
        {"journal", "[--clear]", "print (or empty) the journal of control writes", journal}},
};

} // namespace

} // namespace tvox::sim::tool
