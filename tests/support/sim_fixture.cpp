#include "support/sim_fixture.h"

#include "catalogue.h"
#include "environment.h"
#include "phone.h"
#include "state.h"

#include <sys/wait.h>
#include <unistd.h>

#include <algorithm>
#include <array>
#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <filesystem>
#include <fstream>

namespace tvox::test
{

namespace
{

using tvox::sim::Catalogue;
using tvox::sim::Control;
using tvox::sim::Session;

// The named control of the catalogue when it is of the kind asked for; a test failure otherwise.
const Control *lookup(int card, std::string_view name, bool of_bytes)
{
    const Control *control = Catalogue::from_env().find(card, name);
    if (control == nullptr || control->is_bytes() != of_bytes) {
        ADD_FAILURE() << "no " << (of_bytes ? "byte" : "number") << " control " << name
                      << " on card " << card;
        return nullptr;
    }
    return control;
}

} // namespace

SimTest::SimTest() = default;
SimTest::~SimTest() = default;

void SimTest::SetUp()
{
    char pattern[] = "/tmp/tvoxsim-test-XXXXXX";
    ASSERT_NE(mkdtemp(pattern), nullptr);
    dir_ = pattern;
    unsetenv("TVOXSIM_FILLER");
    // A log file chosen in the developer's shell would be kept by tvoxsim run and env.
    unsetenv("TVOXSP_LOG_FILE");
    ASSERT_EQ(tvox::sim::apply_environment(dir_, conf_path()), 0);
    int err = 0;
    state_ = tvox::sim::State::create(dir_, err);
    ASSERT_TRUE(state_) << "cannot open the simulator state in " << dir_ << ": " << err;
}

void SimTest::TearDown()
{
    state_.reset();
    if (!dir_.empty() && std::getenv("TVOXSIM_KEEP") == nullptr) {
        std::error_code ec;
        std::filesystem::remove_all(dir_, ec);
    }
}

std::vector<long> SimTest::int_values(int card, std::string_view name)
{
    const Control *control = lookup(card, name, false);
    if (control == nullptr)
        return {};
    Session session = state_->lock();
    std::span<const int64_t> values = session.numbers(*session.bind(*control));
    return {values.begin(), values.end()};
}

std::vector<uint8_t> SimTest::bytes(int card, std::string_view name)
{
    const Control *control = lookup(card, name, true);
    if (control == nullptr)
        return {};
    Session session = state_->lock();
    std::span<const uint8_t> values = session.bytes(*session.bind(*control));
    return {values.begin(), values.end()};
}

std::vector<uint32_t> SimTest::words(int card, std::string_view name, size_t count)
{
    const std::vector<uint8_t> data = bytes(card, name);
    std::vector<uint32_t> result(std::min(count, data.size() / sizeof(uint32_t)));
    std::memcpy(result.data(), data.data(), result.size() * sizeof(uint32_t));
    return result;
}

std::string SimTest::enum_item(int card, std::string_view name, unsigned index)
{
    const std::vector<long> values = int_values(card, name);
    const Control *control = Catalogue::from_env().find(card, name);
    if (control == nullptr || control->type != tvox::sim::Type::enumerated ||
        index >= values.size()) {
        ADD_FAILURE() << "\"" << name << "\" has no enumerated value " << index;
        return {};
    }
    return control->items.at(static_cast<size_t>(values[index]));
}

void SimTest::preset_ints(int card, std::string_view name, const std::vector<long> &values)
{
    const Control *control = lookup(card, name, false);
    if (control == nullptr || values.size() != control->count) {
        ADD_FAILURE() << "\"" << name << "\" does not take " << values.size() << " numbers";
        return;
    }
    Session session = state_->lock();
    std::ranges::copy(values, session.numbers(*session.bind(*control)).begin());
}

void SimTest::preset_bytes(int card, std::string_view name, const std::vector<uint8_t> &values)
{
    const Control *control = lookup(card, name, true);
    if (control == nullptr || values.size() > control->count) {
        ADD_FAILURE() << "\"" << name << "\" does not take " << values.size() << " bytes";
        return;
    }
    Session session = state_->lock();
    std::span<uint8_t> stored = session.bytes(*session.bind(*control));
    std::ranges::fill(stored, 0);
    std::ranges::copy(values, stored.begin());
}

void SimTest::preset_enum(int card, std::string_view name, std::string_view item)
{
    const Control *control = lookup(card, name, false);
    const int index = control ? control->item_index(item) : -1;
    if (index < 0)
        ADD_FAILURE() << "\"" << name << "\" has no item \"" << item << "\"";
    else
        preset_ints(card, name, std::vector<long>(control->count, index));
}

std::vector<std::string> SimTest::journal_lines()
{
    return state_->journal_lines();
}

void SimTest::clear_journal()
{
    EXPECT_EQ(state_->clear_journal(), 0);
}

CommandResult SimTest::run_command(const std::string &command)
{
    CommandResult result{-1, {}};
    FILE *pipe = popen((command + " 2>&1").c_str(), "r");
    if (pipe == nullptr)
        return result;
    std::array<char, 512> buffer{};
    while (fgets(buffer.data(), buffer.size(), pipe) != nullptr)
        result.output += buffer.data();
    int status = pclose(pipe);
    result.status = WIFEXITED(status) ? WEXITSTATUS(status) : -1;
    return result;
}

CommandResult SimTest::tool(const std::string &arguments)
{
    return run_command(tool_path() + " " + arguments);
}

CommandResult SimTest::amixer(int card, const std::string &arguments)
{
    return run_command("amixer -D tvoxsim:" + std::to_string(card) + " " + arguments);
}

std::string SimTest::amixer_values(int card, std::string_view name)
{
    const std::string output = amixer(card, "cget name='" + std::string(name) + "'").output;
    const std::string marker = "  : values=";
    const size_t at = output.find(marker);
    if (at == std::string::npos)
        return {};
    const size_t start = at + marker.size();
    return output.substr(start, output.find('\n', start) - start);
}

std::string SimTest::folder_file(std::string_view name, std::string_view text) const
{
    const std::string path = dir_ + "/" + std::string(name);
    std::ofstream(path, std::ios::binary) << text;
    return path;
}

void SimTest::install_phone()
{
    ASSERT_EQ(tvox::sim::install_phone(dir_), 0);
}

void SimTest::set_speaker(unsigned channel, double ohms, tvox::sim::SpeakerFault fault,
                          double f0_hz)
{
    Session session = state_->lock();
    session.speaker(channel) = tvox::sim::SpeakerConfig{ohms, f0_hz, fault, 0};
}

void SimTest::record_stream(int64_t start_ns, int64_t stop_ns, double peak, int card, int device)
{
    Session session = state_->lock();
    tvox::sim::PcmRecord *record = session.stream(card, device, true);
    ASSERT_NE(record, nullptr);
    record->running = stop_ns == 0;
    record->start_time_ns = start_ns;
    record->stop_time_ns = stop_ns;
    record->peak = peak;
    record->pid = static_cast<uint32_t>(getpid());
    record->starts++;
}

} // namespace tvox::test
