// `tvoxsp serve`: the dashboard's command line. The host build only: a phone runs the commands,
// the engineer's machine serves the page.
#include "../arguments.h"
#include "../command.h"
#include "server.h"

#include <unistd.h>

#include <array>
#include <cstdio>
#include <cstdlib>
#include <filesystem>
#include <string>

namespace tvoxsp
{
namespace
{

namespace fs = std::filesystem;

// The page and uPlot as installed beside this program (PREFIX/share/tvoxsp/web), else as the
// source tree it was built from holds them.
void find_page(const fs::path &exe_dir, serve::Options &options)
{
    const fs::path installed = exe_dir / ".." / "share" / "tvoxsp" / "web";
    if (fs::exists(installed / "index.html")) {
        options.web_dir = installed.string();
        options.uplot_dir = (installed / "uplot").string();
        return;
    }
    options.web_dir = TVOXSP_WEB_DIR;
    options.uplot_dir = TVOXSP_UPLOT_DIR;
}

// The simulator's tool beside this one when installed, or in the build tree, or on PATH.
std::string find_tvoxsim(const fs::path &exe_dir)
{
    for (const fs::path &candidate :
         {exe_dir / "tvoxsim", exe_dir / ".." / ".." / "sim" / "tvoxsim"})
        if (access(candidate.c_str(), X_OK) == 0)
            return candidate.lexically_normal().string();
    return "tvoxsim";
}

int serve_main(Args args)
{
    std::error_code ec;
    const fs::path exe = fs::read_symlink("/proc/self/exe", ec);
    serve::Options options;
    for (size_t i = 0; i < args.size(); ++i) {
        const std::string_view option = args[i];
        if (i + 1 == args.size()) {
            std::fprintf(stderr, "tvoxsp serve: %s needs a value\n", args[i]);
            return kUsage;
        }
        const std::string value = args[++i];
        if (option == "--target") {
            const auto target = serve::parse_target(value);
            if (!target) {
                std::fprintf(stderr, "tvoxsp serve: --target is local, adb or adb:SERIAL\n");
                return kUsage;
            }
            options.target = *target;
        } else if (option == "--bind") {
            // The Host check needs the one address the browser uses.
            if (value == "0.0.0.0" || value == "::" || value.empty()) {
                std::fprintf(stderr, "tvoxsp serve: --bind takes the address the browser uses, "
                                     "not a wildcard\n");
                return kUsage;
            }
            options.bind = value;
        } else if (option == "--port") {
            const auto port = unsigned_number(value.c_str());
            if (!port || *port > 65535) {
                std::fprintf(stderr, "tvoxsp serve: --port is 0 to 65535\n");
                return kUsage;
            }
            options.port = static_cast<int>(*port);
        } else {
            std::fprintf(stderr, "tvoxsp serve: unknown option '%s'\n", args[i - 1]);
            return kUsage;
        }
    }
    find_page(exe.parent_path(), options);
    serve::Target &target = options.target;
    // Over adb the phone runs the tool it has; here, this very program.
    target.tvoxsp = target.adb ? "tvoxsp" : exe.string();
    target.tvoxsim = find_tvoxsim(exe.parent_path());
    target.adb_program = "adb";
    target.remote_dir = "/data/local/tmp";
    // Over adb: a stand-in adb for tests, the tool and a folder of an unusual phone.
    for (const auto &[variable, into] :
         std::array{std::pair{"TVOXSP_SERVE_ADB", &target.adb_program},
                    std::pair{"TVOXSP_SERVE_REMOTE_TVOXSP", &target.tvoxsp},
                    std::pair{"TVOXSP_SERVE_REMOTE_DIR", &target.remote_dir}})
        if (const char *value = std::getenv(variable); value != nullptr && target.adb)
            *into = value;
    return serve::run_server(options);
}

constexpr std::array kServe = {
    Command{"serve", "[--target local|adb[:SERIAL]] [--bind ADDR] [--port N]",
            "serve the dashboard: a web page that runs these commands here (inside tvoxsim run "
            "for the virtual pair) or on a phone over adb; prints the URL with its access token "
            "(default 127.0.0.1 port 8470; port 0 takes a free one)",
            serve_main,
            "--target local|adb[:SERIAL]  run the commands here (default) or on a phone over adb\n"
            "--bind ADDR  listen on ADDR, the address the browser uses (default 127.0.0.1)\n"
            "--port N  listen on port N (default 8470; 0: a free port)",
            "tvoxsp serve --target adb:emulator-5554 --port 8471"},
};

} // namespace

std::span<const Command> serve_commands()
{
    return kServe;
}

} // namespace tvoxsp
