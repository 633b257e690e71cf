// Where the dashboard's commands run: here, or on a phone through `adb shell`.
#pragma once

#include <optional>
#include <string>
#include <string_view>
#include <vector>

namespace tvoxsp::serve
{

struct Target {
    bool adb = false;
    std::string serial;      // adb -s SERIAL, when given
    std::string adb_program; // "adb", found on PATH
    std::string tvoxsp;      // the tool: this program here, "tvoxsp" on the phone's PATH
    std::string tvoxsim;     // the simulator's tool (local target only)
    std::string remote_dir;  // where uploaded tuning files go on the phone

    // `tvoxsp --json ARGS...` as an argument vector for exec: never a shell line here; over adb
    // a line for the phone's shell in which every argument is a quoted word.
    std::vector<std::string> tool_argv(const std::vector<std::string> &args) const;
    // A live command: as tool_argv, but over adb the phone's shell first prints its process id,
    // then becomes the tool, so that a stop can signal the tool there (kill_argv).
    std::vector<std::string> live_argv(const std::vector<std::string> &args) const;
    std::vector<std::string> kill_argv(const std::string &remote_pid) const;
    // A command on the phone, quoted as tool_argv quotes it.
    std::vector<std::string> shell_argv(const std::vector<std::string> &words) const;
    // `adb push LOCAL REMOTE`.
    std::vector<std::string> push_argv(const std::string &local, const std::string &remote) const;
    // Where a file named `name` (already reduced to a safe name) is put for the tool to read.
    std::string remote_path(std::string_view name) const;

  private:
    std::vector<std::string> adb_prefix() const;
};

// "local", "adb" or "adb:SERIAL".
std::optional<Target> parse_target(std::string_view text);

// One word for a POSIX shell, whatever it holds: 'it'\''s'.
std::string shell_quote(std::string_view word);

} // namespace tvoxsp::serve
