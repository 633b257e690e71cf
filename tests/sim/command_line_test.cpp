// What tvoxsim and the simulator's plugins and preload do with help, unknown options, folders that
// are not simulators, damaged state files and the simulator's log: the exit status, the text that
// names the cause, and what changed in the simulator folder.
#include "layout.h"
#include "support/sim_fixture.h"

#include <gtest/gtest.h>

#include <cctype>
#include <cstddef>
#include <filesystem>
#include <fstream>
#include <functional>
#include <map>
#include <set>
#include <sstream>
#include <string>

namespace
{

namespace fs = std::filesystem;
using tvox::test::CommandResult;

// Every file and folder under `root`, with a digest of what a file holds. The state file's lock
// is left out: taking and releasing a robust mutex leaves traces in it on some ABIs (32-bit
// ARM's glibc keeps its robust-list link there), which are no change of the simulator.
std::map<std::string, size_t> snapshot(const std::string &root)
{
    std::map<std::string, size_t> entries;
    for (const fs::directory_entry &entry : fs::recursive_directory_iterator(root)) {
        std::ostringstream text;
        if (entry.is_regular_file())
            text << std::ifstream(entry.path(), std::ios::binary).rdbuf();
        std::string contents = text.str();
        const std::string name = fs::relative(entry.path(), root).string();
        constexpr size_t lock = offsetof(tvox::sim::Header, mutex);
        if (name == "state" && contents.size() >= lock + sizeof(pthread_mutex_t))
            contents.replace(lock, sizeof(pthread_mutex_t), sizeof(pthread_mutex_t), '\0');
        entries[name] = std::hash<std::string>{}(contents);
    }
    return entries;
}

// The top-level names of `root` under which something appeared, vanished or changed.
std::string changes(const std::map<std::string, size_t> &before,
                    const std::map<std::string, size_t> &after)
{
    std::set<std::string> names;
    const auto compare = [&names](const auto &one, const auto &other) {
        for (const auto &[path, digest] : one) {
            const auto found = other.find(path);
            if (found == other.end() || found->second != digest)
                names.insert(path.substr(0, path.find('/')));
        }
    };
    compare(before, after);
    compare(after, before);
    std::string list;
    for (const std::string &name : names)
        list += (list.empty() ? "" : ",") + name;
    return list;
}

std::string replace_all(std::string text, std::string_view from, const std::string &to)
{
    for (size_t at = text.find(from); at != std::string::npos; at = text.find(from, at + to.size()))
        text.replace(at, from.size(), to);
    return text;
}

size_t occurrences(const std::string &text, const std::string &part)
{
    size_t count = 0;
    for (size_t at = text.find(part); at != std::string::npos; at = text.find(part, at + 1))
        ++count;
    return count;
}

struct Row {
    const char *setup;   // shell commands run in the simulator folder first
    const char *command; // "@" is the simulator folder, $PRELOAD the preload library
    int status;
    const char *says;    // appears exactly once in standard output and error
    const char *changed; // top-level names of the folder that change, or "" for none
};

constexpr const char kNotSimulator[] =
    "tvoxsim: @/empty is not a simulator folder (tvoxsim init @/empty makes one)\n";
constexpr const char kTruncated[] = "tvoxsim: the state file in @ is damaged or truncated (tvoxsim "
                                    "init --force @ makes a fresh one)\n";

const Row kRows[] = {
    // Help answers every command and sub-command, before anything else, and changes nothing.
    {"", "tvoxsim --help", 0, "usage: tvoxsim COMMAND [ARGS...]\n", ""},
    {"", "tvoxsim init --help", 0, "usage: tvoxsim init [--force] [DIR]\n", ""},
    {"", "tvoxsim init -h new", 0, "usage: tvoxsim init", ""},
    {"", "tvoxsim driver fault --help", 0, "usage: tvoxsim driver [module", ""},
    {"", "tvoxsim control refuse -h", 0, "usage: tvoxsim control [remove", ""},
    {"", "tvoxsim run --dir @ -h", 0, "usage: tvoxsim run", ""},
    {"", "tvoxsim speaker T --ohms 7 --help", 0, "usage: tvoxsim speaker", ""},
    {"", "tvoxsim log --help", 0, "usage: tvoxsim log [--clear]\n", ""},
    // A word starting with '-' is an option or a usage error naming it, never a folder.
    {"", "tvoxsim -x", 2, "tvoxsim: unknown option -x (see tvoxsim --help)\n", ""},
    {"", "tvoxsim init --bogus", 2, "tvoxsim: unknown option: --bogus\nusage: tvoxsim init", ""},
    {"", "tvoxsim init -- x", 2, "tvoxsim: unknown option: --\n", ""},
    {"", "tvoxsim env -x", 2, "tvoxsim: unknown option: -x\n", ""},
    {"", "tvoxsim show -1", 2, "tvoxsim: unknown option: -1\n", ""},
    {"", "tvoxsim run --dir", 2, "tvoxsim: --dir needs a value\n", ""},
    {"", "tvoxsim run --verbose true", 2, "tvoxsim: unknown option: --verbose\n", ""},
    {"", "tvoxsim run --", 2, "tvoxsim: no command given\n", ""},
    {"", "tvoxsim journal --clear now", 2, "tvoxsim: unknown argument: now\n", ""},
    {"", "tvoxsim driver module x", 2, "tvoxsim: module takes no arguments\n", ""},
    {"", "tvoxsim driver fault chunk 0", 2, "tvoxsim: chunk takes a chunk number above 0\n", ""},
    {"", "tvoxsim driver fault ioctl open", 2, "tvoxsim: ioctl takes set, store or fetch\n", ""},
    {"", "tvoxsim driver fault chunk 1 --errno 0", 2, "tvoxsim: bad value of --errno\n", ""},
    {"", "tvoxsim driver fault absent --verbose", 2, "tvoxsim: unknown option: --verbose\n", ""},
    {"", "tvoxsim speaker T --ohms 1000.5", 2, "--ohms takes a number above 0 and at most 1000\n",
     ""},
    {"", "tvoxsim speaker B --f0 -3", 2, "--f0 takes a number above 0 and at most 24000\n", ""},
    {"", "tvoxsim speaker T --fault melted", 2, "tvoxsim: unknown fault: melted\n", ""},
    {"", "tvoxsim persist half", 2, "tvoxsim: expected: full or normal\n", ""},
    {"", "tvoxsim frobnicate", 2, "tvoxsim: unknown command \"frobnicate\"", ""},
    // Options after the program's name are the program's.
    {"", "tvoxsim run sh -c 'echo ran $1' x --help", 0, "ran --help\n", ""},
    {"", "tvoxsim speaker T --ohms 7.5", 0, "T: speaker 7.50 ohm", "journal,state"},
    // init makes a new folder or an empty one a simulator; an existing one only with --force,
    // and then nothing of its past stays (a calibration file, a full persist partition, the log).
    {"", "tvoxsim init", 1,
     "tvoxsim: @ is a simulator folder already (tvoxsim init --force @ starts it afresh)\n", ""},
    {"", "tvoxsim init new", 0, "simulator ready in @/new\n", "new"},
    {"mkdir empty", "tvoxsim init empty", 0, "simulator ready in @/empty\n", "empty"},
    {"mkdir other && touch other/notes", "tvoxsim init --force other", 1,
     "tvoxsim: @/other holds other files and is not a simulator folder", ""},
    {"tvoxsim persist full && mkdir -p phone/mnt/vendor/persist/audio && "
     "echo 1 > phone/mnt/vendor/persist/audio/tvox_calr.bin && echo old > tvoxsp.log",
     "tvoxsim init --force && test -f phone/odm/etc/audio/silent-3sec.wav && "
     "! test -e phone/mnt/vendor/persist/audio/tvox_calr.bin",
     0, "simulator ready in @\n", "persist-full,phone,state,tvoxsp.log"},
    // A folder that is not a simulator is refused by the tool and the plugins, and left alone.
    {"mkdir empty", "TVOXSIM_DIR=@/empty tvoxsim speakers", 1, kNotSimulator, ""},
    {"mkdir empty", "TVOXSIM_DIR=@/empty tvoxsim persist full", 1, kNotSimulator, ""},
    {"mkdir empty", "TVOXSIM_DIR=@/empty tvoxsim log", 1, kNotSimulator, ""},
    {"mkdir empty", "tvoxsim env empty", 1, kNotSimulator, ""},
    {"mkdir empty", "tvoxsim run --dir empty true", 1, kNotSimulator, ""},
    {"mkdir empty", "TVOXSIM_DIR=@/empty amixer -D tvoxsim:0 contents", 1, kNotSimulator, ""},
    {"mkdir empty",
     "TVOXSIM_DIR=@/empty aplay -q -D tvoxsim:0,0 -t raw -f S16_LE -c 2 -r 48000 /dev/zero", 1,
     kNotSimulator, ""},
    // The preload says it once and leaves the phone paths unmapped: the program goes on.
    {"mkdir empty",
     "TVOXSIM_DIR=@/empty LD_PRELOAD=$PRELOAD sh -c 'test -e /odm/etc; test -e /sdcard; echo on'",
     0,
     "tvoxsim: TVOXSIM_DIR=@/empty is not a simulator folder (tvoxsim init @/empty makes one): "
     "phone paths are not mapped\non\n",
     ""},
    // A truncated state file is refused by everyone and kept as it is until init --force.
    {"truncate -s 4096 state", "tvoxsim show 0", 1, kTruncated, ""},
    {"truncate -s 0 state", "tvoxsim speaker T --ohms 5", 1, kTruncated, ""},
    {"truncate -s 4096 state", "amixer -D tvoxsim:0 contents", 1, kTruncated, ""},
    {"truncate -s 4096 state", "tvoxsim init", 1, "is a simulator folder already", ""},
    {"truncate -s 4096 state", "tvoxsim init --force && tvoxsim show 0 >/dev/null", 0,
     "simulator ready in @\n", "phone,state"},
    // The simulator's log: run points the tvoxsp tool at it unless the user chose another one.
    {"", "tvoxsim run sh -c 'echo \"$TVOXSP_LOG_FILE\"'", 0, "@/tvoxsp.log\n", ""},
    {"", "TVOXSP_LOG_FILE=/dev/null tvoxsim run sh -c 'echo \"log $TVOXSP_LOG_FILE\"'", 0,
     "log /dev/null\n", ""},
    {"tvoxsim init new",
     "TVOXSP_LOG_FILE=@/tvoxsp.log tvoxsim run --dir new sh -c "
     "'echo \"$TVOXSP_LOG_FILE\"'",
     0, "@/new/tvoxsp.log\n", ""},
    {"", "tvoxsim run sh -c 'echo calibrated >> \"$TVOXSP_LOG_FILE\"' && tvoxsim log", 0,
     "calibrated\n", "tvoxsp.log"},
    {"echo old > tvoxsp.log", "tvoxsim log --clear && tvoxsim log | wc -c", 0, "0\n", "tvoxsp.log"},
};

void PrintTo(const Row &row, std::ostream *out)
{
    *out << row.command;
}

class CommandLineTest : public tvox::test::SimTest, public ::testing::WithParamInterface<Row>
{
};

TEST_P(CommandLineTest, ExitStatusCauseAndChanges)
{
    const Row &row = GetParam();
    const std::string shell = "cd '" + sim_dir() + "' && PATH='" +
                              fs::path(tool_path()).parent_path().string() +
                              "':$PATH PRELOAD='" TVOXSIM_PRELOAD "' && ";
    const auto expand = [&](const char *text) { return replace_all(text, "@", sim_dir()); };
    if (*row.setup != '\0') {
        const CommandResult setup =
            run_command(shell + "{ " + expand(row.setup) + "; } >/dev/null");
        ASSERT_EQ(setup.status, 0) << setup.output;
    }
    const auto before = snapshot(sim_dir());
    const CommandResult result = run_command(shell + expand(row.command));
    EXPECT_EQ(result.status, row.status) << result.output;
    EXPECT_EQ(occurrences(result.output, expand(row.says)), 1u) << result.output;
    EXPECT_EQ(changes(before, snapshot(sim_dir())), row.changed);
}

INSTANTIATE_TEST_SUITE_P(Tvoxsim, CommandLineTest, ::testing::ValuesIn(kRows),
                         [](const ::testing::TestParamInfo<Row> &info) {
                             std::string name = std::to_string(info.index) + "_";
                             for (const char c : std::string_view(info.param.command).substr(0, 40))
                                 name += std::isalnum(static_cast<unsigned char>(c)) ? c : '_';
                             return name;
                         });

} // namespace
