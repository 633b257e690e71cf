// The persist partition of the simulated phone: persist.
#include "command.h"
#include "phone_paths.h"
#include "state.h"

#include <unistd.h>

#include <cerrno>
#include <cstdio>
#include <cstring>
#include <fstream>
#include <memory>
#include <string>

namespace tvox::sim::tool
{

namespace
{

int persist(std::span<char *const> args)
{
    const bool full = !args.empty() && std::strcmp(args[0], "full") == 0;
    if (args.size() > 1 || (!args.empty() && !full && std::strcmp(args[0], "normal") != 0))
        return usage_error("persist", "expected: full or normal");
    const std::unique_ptr<State> state = open_state();
    if (!state)
        return exit_failure;
    const std::string marker = state->dir() + "/" + kPersistFullMarker;
    if (args.empty()) {
        std::printf("persist %s\n", access(marker.c_str(), F_OK) == 0 ? "full" : "normal");
        return 0;
    }
    if (full ? !std::ofstream(marker) : unlink(marker.c_str()) != 0 && errno != ENOENT) {
        std::fprintf(stderr, "tvoxsim: cannot switch the persist partition in %s: %s\n",
                     marker.c_str(), std::strerror(errno));
        return exit_failure;
    }
    return 0;
}

const Registration registrations[] = {
    Registration{{"persist", "[full|normal]",
                  "show or switch the persist partition; when full, every write there fails "
                  "with ENOSPC",
                  persist}},
};

} // namespace

} // namespace tvox::sim::tool
