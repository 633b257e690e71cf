// The end of every benchmark program here: run what was registered with a reporter that prints a
// summary table after the console report, then remove the run's own simulator folder.
#pragma once

#include <benchmark/benchmark.h>

#include <filesystem>
#include <string>

namespace tvox::bench
{

template <typename Reporter>
int run_benchmarks(int &argc, char **argv, Reporter &reporter, const std::string &dir)
{
    benchmark::Initialize(&argc, argv);
    benchmark::RunSpecifiedBenchmarks(&reporter);
    reporter.summary();
    benchmark::Shutdown();
    std::error_code ignored;
    std::filesystem::remove_all(dir, ignored);
    return 0;
}

} // namespace tvox::bench
