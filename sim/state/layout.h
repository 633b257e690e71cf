// The layout of the simulator's state file, mapped shared by every process.
//
// Everything here is plain data at fixed offsets; pointers never go into the file. Change any
// struct below and bump kLayoutVersion: a file with another version (or size) is replaced by a
// fresh one when it is next opened, never read with the wrong layout.
#pragma once

#include <pthread.h>

#include <cstddef>
#include <cstdint>

namespace tvox::sim
{

inline constexpr uint32_t kLayoutVersion = 3;

inline constexpr size_t kNameMax = 48;         // ALSA names are at most 43 characters
inline constexpr size_t kMaxControls = 16384;  // room for the cards plus many filler controls
inline constexpr size_t kBuckets = 32768;      // hash buckets of the control index
inline constexpr size_t kPoolBytes = 16 << 20; // control values (the file is sparse)
inline constexpr size_t kMaxStreams = 32;
inline constexpr size_t kMaxChannels = 8;
inline constexpr size_t kMaxRegisters = 1024; // registers remembered per amplifier channel
inline constexpr size_t kMaxInterfaces = 32;
inline constexpr size_t kMaxPcmDevices = 16;
inline constexpr size_t kModelAreaBytes = 64 << 10;
inline constexpr size_t kDriverParams = 8;          // parameter ids the virtual driver follows
inline constexpr size_t kDriverConfigWords = 32768; // words of one configuration (128 KiB)
inline constexpr size_t kSlotWords = 6;             // calibration slot: {valid, check, CAL_R} x 2
inline constexpr size_t kMaxControlFaults = 16;

// Element types, numbered as alsa-lib numbers them (snd_ctl_elem_type_t).
enum class Type : uint32_t { boolean = 1, integer = 2, enumerated = 3, bytes = 4 };

// One control's value storage. Boolean, integer and enumerated values are kept as one int64 per
// value (the item index for enumerated controls); byte controls keep their raw bytes.
struct ControlSlot {
    int32_t card;
    Type type;
    uint32_t count;
    uint32_t size; // bytes of value storage
    uint64_t offset;
    uint32_t next; // index + 1 of the next slot in the same hash bucket, 0 at the end
    char name[kNameMax];
};

// One PCM stream (card, device), written by the PCM plugin.
struct PcmRecord {
    int32_t card;
    int32_t device;
    uint8_t used;
    uint8_t running;
    uint8_t reserved[2];
    int32_t format; // alsa-lib's snd_pcm_format_t
    uint32_t rate;
    uint32_t channels;
    uint32_t pid; // process that opened the stream last
    uint64_t frames_written;
    double peak;           // largest absolute sample, as a fraction of full scale
    int64_t start_time_ns; // CLOCK_MONOTONIC when the stream last started running
    int64_t stop_time_ns;  // CLOCK_MONOTONIC when it last stopped, 0 while running
    uint64_t starts;       // how often it was started
};

enum class SpeakerFault : uint32_t { none, open, shorted, calibration_failure, f0_failure };

// The loudspeaker behind one amplifier channel, as the DSP would measure it.
struct SpeakerConfig {
    double resistance_ohm;
    double f0_hz;
    SpeakerFault fault;
    uint32_t reserved;
};

// A control the card is told to misbehave with, as a driver that lacks it or refuses its writes.
enum class ControlFaultKind : uint32_t { none, missing, refused };

struct ControlFault {
    int32_t card;
    ControlFaultKind kind;
    int32_t error; // errno a refused write fails with
    uint32_t reserved;
    char name[kNameMax];
};

struct Register {
    uint32_t address;
    uint32_t value;
    uint32_t used;
};

// An amplifier's registers behind its register mailbox control; unknown registers read 0.
struct RegisterFile {
    uint32_t count;
    uint32_t reserved;
    Register entries[kMaxRegisters];
};

// A back-end interface of the virtual AGM card.
struct AgmInterface {
    char name[kNameMax];
    uint8_t used;
    uint8_t no_mfc; // the graph of this back-end carries no MFC module
    uint8_t reserved[6];
};

// A front-end PCM device of the virtual AGM card and the interfaces it is connected to.
struct AgmStream {
    int32_t device;
    uint8_t used;
    uint8_t reserved[3];
    uint32_t connected; // bit i: connected to interfaces[i]
    uint32_t reserved2;
};

// A configuration under one parameter id of the protection module, as the virtual driver
// reassembles it from its chunks. A single value is a configuration of one word (no header).
struct DriverConfig {
    uint32_t param_id;
    uint8_t used;
    uint8_t reserved[3];
    uint32_t header_words;   // chunk header: 5 (extended), 6 (delta), 0 (single value)
    uint32_t total_bytes;    // as the chunk headers announce it
    uint32_t received_bytes; // data stored so far
    uint32_t chunks;         // chunks seen, failed ones included
    uint32_t words[kDriverConfigWords];
};

// Failures the virtual driver is told to show.
struct DriverFaults {
    uint8_t absent; // the device node is missing: open fails with ENOENT
    uint8_t reserved[3];
    uint32_t fail_request; // ioctl request number that fails, 0 for none
    uint32_t fail_param;   // ... only for this parameter id (0: every id)
    uint32_t fail_chunk;   // the Nth chunk (from 1) of every chunked transfer fails, 0 for none
    int32_t fail_errno;    // errno of a failing ioctl or chunk
    uint32_t reserved2;
};

// The speaker-protection driver of the virtual pair and the module state it keeps.
struct DriverState {
    uint64_t requests; // ioctls received
    uint32_t enabled;  // the module's enable switch (last value under 0x10002001)
    uint32_t enable_writes;
    uint32_t delta_done;       // closing values received after delta configurations
    uint32_t delta_done_value; // the last one
    uint32_t slot_stored;      // the calibration slot was written since the file was made
    uint32_t slot[kSlotWords];
    uint32_t reserved;
    uint32_t last_chunk[96]; // the last chunk received, as sent (header, data, what lies behind)
    DriverFaults faults;
    DriverConfig pending[kDriverParams];  // transfers still waiting for their final chunk
    DriverConfig complete[kDriverParams]; // the last complete configuration per parameter id
};

struct Header {
    char magic[8];
    uint32_t version;
    uint32_t reserved;
    uint64_t size;         // sizeof(Layout) of the build that made the file
    pthread_mutex_t mutex; // process-shared and robust
    uint32_t slot_count;
    uint32_t reserved2;
    uint64_t pool_used;
    uint64_t writes; // control writes stored since the file was made
};

struct Layout {
    Header header;
    uint32_t buckets[kBuckets]; // index + 1 of the bucket's first slot, 0 when empty
    ControlSlot slots[kMaxControls];
    PcmRecord streams[kMaxStreams];
    SpeakerConfig speakers[kMaxChannels];
    RegisterFile registers[kMaxChannels];
    AgmInterface interfaces[kMaxInterfaces];
    AgmStream agm_streams[kMaxPcmDevices];
    ControlFault control_faults[kMaxControlFaults];
    alignas(64) DriverState driver;
    alignas(64) std::byte model[kModelAreaBytes];
    alignas(64) std::byte pool[kPoolBytes];
};

} // namespace tvox::sim
