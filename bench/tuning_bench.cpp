// What a tuning load costs: a 100-line delta file of 90-word blocks read, parsed, CRC-checked and
// sent in 101 chunks plus the closing value, with the driver emulated in this process by the
// simulator's preload library (the process re-executes itself with it). And crc32's throughput
// beside zlib's on the same bytes, with their ratio printed after the run.
#include "tvoxsp/qdsp.h"

#include "run_benchmarks.h"
#include "state.h"

#include <benchmark/benchmark.h>
#include <dlfcn.h>
#include <unistd.h>

#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <fstream>
#include <map>
#include <random>
#include <string>
#include <vector>

namespace
{

constexpr size_t kLines = 100;
constexpr uint32_t kBlockWords = 90;
constexpr size_t kCrcWords[] = {90, 1024, 16384};

std::string g_delta_path;

// zlib.h cannot meet tvoxsp/qdsp.h (both declare crc32): zlib's comes through dlsym.
using ZlibCrc = unsigned long (*)(unsigned long, const unsigned char *, unsigned int);
ZlibCrc g_zlib_crc = nullptr;

void write_delta_file(const std::string &path)
{
    std::mt19937 random(7);
    std::ofstream out(path);
    std::vector<uint32_t> block(kBlockWords);
    for (size_t line = 0; line < kLines; ++line) {
        block[0] = kBlockWords;
        for (size_t i = 1; i + 1 < kBlockWords; ++i)
            block[i] = random() % 10000000;
        block.back() = crc32(block.data());
        for (size_t i = 0; i < block.size(); ++i)
            out << (i ? "," : "") << block[i];
        out << "\n";
    }
}

void delta_load(benchmark::State &state)
{
    for (auto _ : state) {
        if (tervox_qdsp_delta_tuning(g_delta_path.c_str()) != 0) {
            state.SkipWithError("the delta file was refused");
            break;
        }
    }
    state.counters["words"] = kLines * kBlockWords;
}

std::vector<uint32_t> random_block(size_t words)
{
    std::mt19937 random(11);
    std::vector<uint32_t> block(words + 1);
    for (uint32_t &word : block)
        word = random();
    block[0] = static_cast<uint32_t>(words + 1); // covers exactly `words` words
    return block;
}

void crc_library(benchmark::State &state)
{
    std::vector<uint32_t> block = random_block(static_cast<size_t>(state.range(0)));
    for (auto _ : state)
        benchmark::DoNotOptimize(crc32(block.data()));
    state.SetBytesProcessed(state.iterations() * state.range(0) * 4);
}

void crc_zlib(benchmark::State &state)
{
    const std::vector<uint32_t> block = random_block(static_cast<size_t>(state.range(0)));
    const auto *bytes = reinterpret_cast<const unsigned char *>(block.data());
    const auto length = static_cast<unsigned int>(state.range(0) * 4);
    for (auto _ : state)
        benchmark::DoNotOptimize(g_zlib_crc(g_zlib_crc(0, nullptr, 0), bytes, length));
    state.SetBytesProcessed(state.iterations() * state.range(0) * 4);
}

// The console report, then crc32's throughput over zlib's for every block size.
class RatioReporter : public benchmark::ConsoleReporter
{
  public:
    void ReportRuns(const std::vector<Run> &runs) override
    {
        ConsoleReporter::ReportRuns(runs);
        for (const auto &run : runs) {
            const auto rate = run.counters.find("bytes_per_second");
            if (run.error_occurred || run.run_type != Run::RT_Iteration ||
                rate == run.counters.end())
                continue;
            const std::string name = run.benchmark_name();
            const auto slash = name.find('/');
            rates_[std::atoi(name.c_str() + slash + 1)][name.substr(0, slash)] = rate->second.value;
        }
    }

    void summary() const
    {
        std::printf("\n%-8s %16s %16s %8s\n", "words", "crc32 (MB/s)", "zlib (MB/s)", "ratio");
        for (const auto &[words, rates] : rates_) {
            const auto own = rates.find("crc32_library");
            const auto zlib = rates.find("crc32_zlib");
            if (own == rates.end() || zlib == rates.end())
                continue;
            std::printf("%-8d %16.0f %16.0f %8.2f\n", words, own->second / 1e6, zlib->second / 1e6,
                        own->second / zlib->second);
        }
    }

  private:
    std::map<int, std::map<std::string, double>> rates_;
};

// The preload serves the driver device only to a process that starts with it.
void reexec_with_preload(char **argv)
{
    if (std::getenv("TVOXSP_BENCH_DIR"))
        return;
    char dir[] = "/tmp/tvoxsp-tuning-bench-XXXXXX";
    if (!mkdtemp(dir)) {
        std::perror("mkdtemp");
        std::exit(1);
    }
    // The driver's journal would grow by a hundred lines per load: it goes nowhere.
    if (symlink("/dev/null", (std::string(dir) + "/journal").c_str()) != 0)
        std::perror("symlink");
    if (int err = 0; !tvox::sim::State::create(dir, err)) {
        std::fprintf(stderr, "cannot make the simulator folder: %s\n", std::strerror(-err));
        std::exit(1);
    }
    setenv("TVOXSP_BENCH_DIR", dir, 1);
    setenv("TVOXSIM_DIR", dir, 1);
    setenv("LD_PRELOAD", TVOXSIM_PRELOAD, 1);
    execv("/proc/self/exe", argv);
    std::perror("execv");
    std::exit(1);
}

} // namespace

int main(int argc, char **argv)
{
    reexec_with_preload(argv);
    const std::string dir = std::getenv("TVOXSP_BENCH_DIR");
    void *zlib = dlopen("libz.so.1", RTLD_NOW);
    g_zlib_crc = zlib ? reinterpret_cast<ZlibCrc>(dlsym(zlib, "crc32")) : nullptr;
    if (!g_zlib_crc) {
        std::fprintf(stderr, "zlib is not loadable\n");
        return 1;
    }
    g_delta_path = dir + "/delta.txt";
    write_delta_file(g_delta_path);

    benchmark::RegisterBenchmark("delta_load_100x90", delta_load)->Unit(benchmark::kMicrosecond);
    for (size_t words : kCrcWords) {
        benchmark::RegisterBenchmark("crc32_library", crc_library)
            ->Arg(static_cast<int64_t>(words));
        benchmark::RegisterBenchmark("crc32_zlib", crc_zlib)->Arg(static_cast<int64_t>(words));
    }
    RatioReporter reporter;
    return tvox::bench::run_benchmarks(argc, argv, reporter, dir);
}
