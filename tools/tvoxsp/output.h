// What a command reports besides its own lines: the exit status of its failure class, the message
// that names the cause, and with --json the one JSON document on standard output (or, for a live
// command, a JSON object per line ending with an "end" object). In JSON mode everything the tool
// and the library print goes to standard error, so standard output holds JSON alone.
#pragma once

#include <json/json.h>

#include <string>
#include <string_view>

namespace tvoxsp
{

// Called once before any command runs: `json` points standard output at standard error and keeps
// the real one for the JSON.
void start_output(bool json);
bool json_output();

// The command's own fields of the document ("channels", "register", ...).
Json::Value &result();

// Names the cause of a failure (the first one named is the one reported) and prints it as
// "tvoxsp: MESSAGE" on standard error.
void tell(const std::string &message);
// The same, giving `status` back.
int fail(int status, const std::string &message);
// The same for a cause the command's own lines have told already: nothing more is printed.
int noted(int status, const std::string &message);

// A live command: its lines are objects of their own and its end object replaces the envelope.
// False when standard output was closed (the reader went away).
bool json_line(const Json::Value &line);
void set_live_end(const Json::Value &end);

// Writes the document (envelope and fields) of `command` with `status`; nothing in text mode.
void finish_output(std::string_view command, int status);

// Writes all of `text` to `fd` (a write cut short by a signal goes on); false when it fails
// (EPIPE: the reader went away).
bool write_all(int fd, std::string_view text);
// A JSON value on one line, newline included.
std::string json_text(const Json::Value &line);

// printf into a string.
std::string text_of(const char *format, ...) __attribute__((format(printf, 1, 2)));

} // namespace tvoxsp
