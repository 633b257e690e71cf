// Test fixture for everything that runs against the virtual amplifier pair. SetUp() gives each
// test a fresh simulator folder and points TVOXSIM_DIR, ALSA_CONFIG_PATH and TINYALSA_CARD_0/100
// at it before any ALSA call (alsa-lib reads its configuration once per process); TearDown()
// removes it unless TVOXSIM_KEEP is set. Subclasses that override them call SimTest's.
// The helpers read and preset stored values directly, without the plugin: no DSP model, no
// journal. An unknown control or a value of the wrong kind is a test failure.
#pragma once

#include "layout.h"

#include <gtest/gtest.h>

#include <cstdint>
#include <memory>
#include <string>
#include <string_view>
#include <vector>

namespace tvox::sim
{
class State;
}

namespace tvox::test
{

// What a shell command printed (standard output and error together) and its exit status.
struct CommandResult {
    int status;
    std::string output;
};

class SimTest : public ::testing::Test
{
  public:
    // A shell command inside this test's simulator; status -1 when it did not exit normally.
    static CommandResult run_command(const std::string &command);
    // The tvoxsim tool, and amixer on virtual card `card`, each in a process of its own.
    static CommandResult tool(const std::string &arguments);
    static CommandResult amixer(int card, const std::string &arguments);
    // The values `amixer cget` shows ("on,off", "817,3", "0x01,0x02"), empty when none.
    static std::string amixer_values(int card, std::string_view name);

  protected:
    SimTest();
    ~SimTest() override;
    void SetUp() override;
    void TearDown() override;

    const std::string &sim_dir() const { return dir_; }
    // The shared state of this test's folder, and the build's ALSA configuration and tool.
    tvox::sim::State &state() { return *state_; }
    static std::string conf_path() { return TVOXSIM_CONF_PATH; }
    static std::string tool_path() { return TVOXSIM_TOOL_PATH; }

    // Stored values (item indexes of an enumerated control), and the item text of one.
    std::vector<long> int_values(int card, std::string_view name);
    std::vector<uint8_t> bytes(int card, std::string_view name);
    // The first `count` little-endian words of a byte control (fewer when it is shorter).
    std::vector<uint32_t> words(int card, std::string_view name, size_t count);
    std::string enum_item(int card, std::string_view name, unsigned index = 0);

    void preset_ints(int card, std::string_view name, const std::vector<long> &values);
    void preset_bytes(int card, std::string_view name, const std::vector<uint8_t> &values);
    void preset_enum(int card, std::string_view name, std::string_view item);

    std::vector<std::string> journal_lines();
    void clear_journal();

    // Writes `text` to the file `name` in the simulator folder and returns its path.
    std::string folder_file(std::string_view name, std::string_view text) const;
    // Gives the folder its phone folder, as `tvoxsim init` does.
    void install_phone();
    // Where a path of the phone ("/mnt/vendor/persist/...") lies in the simulator folder.
    std::string phone(std::string_view path) const { return dir_ + "/phone" + std::string(path); }
    // The loudspeaker behind amplifier channel `channel` (0 is T, 1 is B).
    void set_speaker(unsigned channel, double ohms,
                     tvox::sim::SpeakerFault fault = tvox::sim::SpeakerFault::none,
                     double f0_hz = 800);
    // A stream record as the sink leaves it; running while `stop_ns` is 0.
    void record_stream(int64_t start_ns, int64_t stop_ns, double peak, int card = 0,
                       int device = 0);

  private:
    std::string dir_;
    std::unique_ptr<tvox::sim::State> state_;
};

} // namespace tvox::test
