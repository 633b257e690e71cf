// What every mixer path application pays for one step (open card 0, set one control by name,
// close) through the library, beside the same work through alsa-lib's own control API (what
// amixer does), on the virtual amplifier card padded to 100, 1000 and 3000 controls.
#include "tvoxsp/mixer.h"

#include "run_benchmarks.h"
#include "state.h"
#include <alsa/asoundlib.h>

#include <benchmark/benchmark.h>
#include <tinyalsa/asoundlib.h>

#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <map>
#include <string>
#include <vector>

namespace
{

constexpr const char *kAlsaCtl = "tvoxsim:0";
constexpr const char *kControl = "T AMP Enable Switch";
constexpr tervox_mixer_path_entry kStep{kControl, "0"};
constexpr int kSizes[] = {100, 1000, 3000};

unsigned int g_base_controls = 0;

// Pads card 0 with filler controls so that it holds `total` controls (the virtual card reads
// the filler count whenever a process opens it).
unsigned int pad_card_to(int total)
{
    const int filler =
        total > static_cast<int>(g_base_controls) ? total - static_cast<int>(g_base_controls) : 0;
    setenv("TVOXSIM_FILLER", std::to_string(filler).c_str(), 1);
    return g_base_controls + static_cast<unsigned int>(filler);
}

void library_path(benchmark::State &state)
{
    state.counters["controls"] = pad_card_to(static_cast<int>(state.range(0)));
    for (auto _ : state) {
        if (tervox_apply_mixer_path(&kStep, 1) != 0) {
            state.SkipWithError("tervox_apply_mixer_path failed");
            break;
        }
    }
}

// One amixer-style write: open the control device, look the element up by name, write every
// value, close. A function of its own so that the alloca'd records go away each time.
int alsa_set_by_name()
{
    snd_ctl_t *ctl = nullptr;
    int err = snd_ctl_open(&ctl, kAlsaCtl, 0);
    if (err < 0)
        return err;
    snd_ctl_elem_id_t *id;
    snd_ctl_elem_info_t *info;
    snd_ctl_elem_value_t *value;
    snd_ctl_elem_id_alloca(&id);
    snd_ctl_elem_info_alloca(&info);
    snd_ctl_elem_value_alloca(&value);
    snd_ctl_elem_id_set_interface(id, SND_CTL_ELEM_IFACE_MIXER);
    snd_ctl_elem_id_set_name(id, kControl);
    snd_ctl_elem_info_set_id(info, id);
    err = snd_ctl_elem_info(ctl, info);
    if (err >= 0) {
        snd_ctl_elem_info_get_id(info, id);
        snd_ctl_elem_value_set_id(value, id);
        for (unsigned int i = 0; i < snd_ctl_elem_info_get_count(info); ++i)
            snd_ctl_elem_value_set_integer(value, i, 0);
        err = snd_ctl_elem_write(ctl, value);
    }
    snd_ctl_close(ctl);
    return err < 0 ? err : 0;
}

void alsa_lib(benchmark::State &state)
{
    state.counters["controls"] = pad_card_to(static_cast<int>(state.range(0)));
    for (auto _ : state) {
        if (alsa_set_by_name() != 0) {
            state.SkipWithError("alsa-lib write failed");
            break;
        }
    }
}

// The console report, then one line per card size: library time / alsa-lib time, wall clock
// and CPU (the CPU figures are steadier on a busy machine).
class RatioReporter : public benchmark::ConsoleReporter
{
  public:
    void ReportRuns(const std::vector<Run> &runs) override
    {
        ConsoleReporter::ReportRuns(runs);
        for (const auto &run : runs) {
            if (run.error_occurred || run.run_type != Run::RT_Iteration)
                continue;
            const std::string name = run.benchmark_name();
            const auto slash = name.find('/');
            const int size = std::atoi(name.c_str() + slash + 1);
            times_[size][name.substr(0, slash)] = {run.GetAdjustedRealTime(),
                                                   run.GetAdjustedCPUTime()};
        }
    }

    void summary() const
    {
        std::printf("\n%-9s %14s %14s %11s %14s %14s %10s\n", "controls", "library (us)",
                    "alsa-lib (us)", "real ratio", "library cpu", "alsa-lib cpu", "cpu ratio");
        for (const auto &[size, times] : times_) {
            const auto lib = times.find("library_path");
            const auto alsa = times.find("alsa_lib");
            if (lib == times.end() || alsa == times.end())
                continue;
            const Times &l = lib->second;
            const Times &a = alsa->second;
            std::printf("%-9d %14.1f %14.1f %11.2f %14.1f %14.1f %10.2f\n", size, l.real, a.real,
                        l.real / a.real, l.cpu, a.cpu, l.cpu / a.cpu);
        }
    }

  private:
    struct Times {
        double real;
        double cpu;
    };
    std::map<int, std::map<std::string, Times>> times_;
};

} // namespace

int main(int argc, char **argv)
{
    // A simulator folder of the run's own, removed at the end.
    char dir[] = "/tmp/tvoxsp-bench-XXXXXX";
    if (mkdtemp(dir) == nullptr) {
        std::perror("mkdtemp");
        return 1;
    }
    setenv("TVOXSIM_DIR", dir, 1);
    setenv("ALSA_CONFIG_PATH", "/usr/share/alsa/alsa.conf:" TVOXSIM_ALSA_CONF, 1);
    setenv("TINYALSA_CARD_0", kAlsaCtl, 1);
    setenv("TVOXSIM_FILLER", "0", 1);
    if (int err = 0; !tvox::sim::State::create(dir, err)) {
        std::fprintf(stderr, "cannot make the simulator folder: %s\n", std::strerror(-err));
        return 1;
    }

    struct mixer *mixer = mixer_open(0);
    if (mixer == nullptr) {
        std::fprintf(stderr, "the virtual card does not open (%s)\n", TVOXSIM_ALSA_CONF);
        return 1;
    }
    g_base_controls = mixer_get_num_ctls(mixer);
    mixer_close(mixer);

    for (const int size : kSizes) {
        benchmark::RegisterBenchmark("library_path", library_path)
            ->Arg(size)
            ->Unit(benchmark::kMicrosecond);
        benchmark::RegisterBenchmark("alsa_lib", alsa_lib)
            ->Arg(size)
            ->Unit(benchmark::kMicrosecond);
    }
    RatioReporter reporter;
    return tvox::bench::run_benchmarks(argc, argv, reporter, dir);
}
