// The library's Android log as the tool sees it. The library can only log many failures (a
// driver device that does not open, a request the driver refuses), so the tool watches its own
// process's log lines through liblog's logger hook and names the cause itself.
//
// Where the lines go: on a device to logd, as without the tool; on a host to standard error only
// with -v (filtered by ANDROID_LOG_TAGS), so that the terminal shows the tool's own lines. When
// TVOXSP_LOG_FILE names a file, every line is also appended to it after a header line naming the
// command and its process.
#pragma once

#include "command.h"

#include <cstddef>
#include <optional>
#include <string>
#include <string_view>
#include <vector>

namespace tvoxsp
{

struct LibraryLogLine {
    int priority;
    std::string tag;
    std::string text;
    int error; // errno when the line was logged: the failed call's, for a failure logged at once
};

// Installs the hook for the rest of the process. `verbose`: -v was given.
void watch_library_log(bool verbose, Args command_line);

// A position in the log: lines logged afterwards are those since the mark.
size_t library_log_mark();
std::vector<LibraryLogLine> library_log_since(size_t mark);

// The first line since `mark` whose text contains `part`.
std::optional<LibraryLogLine> library_logged(size_t mark, std::string_view part);

// "EIO (Input/output error)".
std::string error_name(int error);

} // namespace tvoxsp
