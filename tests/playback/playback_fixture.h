// A simulator folder with its phone folder, and what the virtual sink recorded.
#pragma once

#include "support/sim_fixture.h"
#include "wav_file.h"

#include "layout.h"
#include "phone.h"
#include "state.h"

#include <sys/types.h>

#include <chrono>
#include <optional>
#include <string>
#include <thread>

namespace tvox::test
{

class PlaybackTest : public SimTest
{
  protected:
    void SetUp() override
    {
        SimTest::SetUp();
        ASSERT_EQ(tvox::sim::install_phone(sim_dir()), 0);
    }

    // Writes a WAV file into the simulator folder and returns its path.
    std::string wav(const std::string &name, const WavLayout &layout)
    {
        const std::string path = sim_dir() + "/" + name;
        write_file(path, wav_bytes(layout));
        return path;
    }

    std::optional<tvox::sim::PcmRecord> stream(int card, int device)
    {
        tvox::sim::Session session = state().lock();
        const tvox::sim::PcmRecord *record = session.stream(card, device, false);
        return record ? std::optional(*record) : std::nullopt;
    }

    // Waits up to 3 s for process `pid` to run a stream on (card, device).
    bool wait_until_running(int card, int device, pid_t pid)
    {
        for (int i = 0; i < 300; ++i) {
            const auto record = stream(card, device);
            if (record && record->running && record->pid == static_cast<uint32_t>(pid))
                return true;
            std::this_thread::sleep_for(std::chrono::milliseconds(10));
        }
        return false;
    }
};

} // namespace tvox::test
