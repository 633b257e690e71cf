// The dashboard's HTTP server: the page, uPlot's files, and the fixed commands as JSON requests
// and server-sent event streams.
#pragma once

#include "target.h"

#include <string>

namespace tvoxsp::serve
{

struct Options {
    Target target;
    std::string bind = "127.0.0.1";
    int port = 8470;       // 0: any free port
    std::string web_dir;   // index.html and its modules
    std::string uplot_dir; // uPlot's dist folder
};

// Serves until SIGINT, SIGTERM or SIGHUP; prints the URL with the token on standard output.
// 0 after a stop signal, 1 when the server cannot start.
int run_server(const Options &options);

} // namespace tvoxsp::serve
