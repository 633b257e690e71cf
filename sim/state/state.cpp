#include "state.h"

#include <fcntl.h>
#include <sys/file.h>
#include <sys/mman.h>
#include <sys/stat.h>
#include <unistd.h>

#include <algorithm>
#include <cerrno>
#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <ctime>
#include <fstream>
#include <mutex>

namespace tvox::sim
{

namespace
{

constexpr char kMagic[8] = "TVOXSIM";
constexpr uint64_t kPoolAlign = 8;
constexpr double kDefaultResistanceOhm = 6.0;
constexpr double kDefaultF0Hz = 800.0;

// A file descriptor closed on every path.
class Fd
{
  public:
    explicit Fd(int fd = -1) : fd_(fd) {}
    ~Fd()
    {
        if (fd_ >= 0)
            ::close(fd_);
    }
    Fd(const Fd &) = delete;
    Fd &operator=(const Fd &) = delete;
    int get() const { return fd_; }
    void reset(int fd)
    {
        if (fd_ >= 0)
            ::close(fd_);
        fd_ = fd;
    }

  private:
    int fd_;
};

// 0 for a state file of this build; -EPROTO for one of another layout version, -EUCLEAN for
// anything else (cut short, grown, not a state file at all).
int check_header(int fd)
{
    struct stat st {
    };
    if (fstat(fd, &st) != 0)
        return -errno;
    Header header{};
    if (pread(fd, &header, sizeof header, 0) != static_cast<ssize_t>(sizeof header) ||
        std::memcmp(header.magic, kMagic, sizeof kMagic) != 0)
        return -EUCLEAN;
    if (header.version != kLayoutVersion)
        return -EPROTO;
    return static_cast<uint64_t>(st.st_size) == sizeof(Layout) && header.size == sizeof(Layout)
               ? 0
               : -EUCLEAN;
}

// Bytes of value storage a control of this type and count takes (as Control::storage_size).
uint64_t storage_bytes(Type type, uint32_t count)
{
    return type == Type::bytes ? count : uint64_t{count} * sizeof(int64_t);
}

bool terminated(const char (&name)[kNameMax])
{
    return std::memchr(name, '\0', kNameMax) != nullptr;
}

// The tables behind a valid header: every index, offset and name inside its table, and every
// hash chain leading to earlier slots only (so no walk can loop or leave the file).
bool tables_sound(const Layout &layout)
{
    const Header &header = layout.header;
    if (header.slot_count > kMaxControls || header.pool_used > kPoolBytes)
        return false;
    for (const uint32_t head : layout.buckets)
        if (head > header.slot_count)
            return false;
    for (uint32_t i = 0; i < header.slot_count; ++i) {
        const ControlSlot &slot = layout.slots[i];
        const bool known_type = slot.type >= Type::boolean && slot.type <= Type::bytes;
        if (!known_type || slot.next > i || !terminated(slot.name) ||
            slot.size != storage_bytes(slot.type, slot.count) || slot.offset > kPoolBytes ||
            slot.size > kPoolBytes - slot.offset)
            return false;
    }
    for (const SpeakerConfig &speaker : layout.speakers)
        if (speaker.fault > SpeakerFault::f0_failure)
            return false;
    for (const RegisterFile &file : layout.registers)
        if (file.count > kMaxRegisters)
            return false;
    for (const AgmInterface &intf : layout.interfaces)
        if (!terminated(intf.name))
            return false;
    for (const ControlFault &fault : layout.control_faults)
        if (fault.kind > ControlFaultKind::refused || !terminated(fault.name))
            return false;
    return true;
}

int init_layout(Layout &layout)
{
    pthread_mutexattr_t attr;
    pthread_mutexattr_init(&attr);
    pthread_mutexattr_setpshared(&attr, PTHREAD_PROCESS_SHARED);
    pthread_mutexattr_setrobust(&attr, PTHREAD_MUTEX_ROBUST);
    int rc = pthread_mutex_init(&layout.header.mutex, &attr);
    pthread_mutexattr_destroy(&attr);
    if (rc != 0)
        return -rc;
    for (SpeakerConfig &speaker : layout.speakers)
        speaker = SpeakerConfig{kDefaultResistanceOhm, kDefaultF0Hz, SpeakerFault::none, 0};
    std::memcpy(layout.header.magic, kMagic, sizeof kMagic);
    layout.header.version = kLayoutVersion;
    layout.header.size = sizeof(Layout);
    return 0;
}

// Builds a fresh state file beside the old one and renames it into place, so that a process
// still mapping a stale file keeps its own copy instead of seeing it change under it.
int create_state_file(const std::string &path)
{
    std::string temp = path + ".new." + std::to_string(getpid());
    Fd fd(::open(temp.c_str(), O_RDWR | O_CREAT | O_TRUNC | O_CLOEXEC, 0644));
    if (fd.get() < 0)
        return -errno;
    if (ftruncate(fd.get(), sizeof(Layout)) != 0) {
        int err = -errno;
        unlink(temp.c_str());
        return err;
    }
    void *map = mmap(nullptr, sizeof(Layout), PROT_READ | PROT_WRITE, MAP_SHARED, fd.get(), 0);
    if (map == MAP_FAILED) {
        int err = -errno;
        unlink(temp.c_str());
        return err;
    }
    int err = init_layout(*static_cast<Layout *>(map));
    munmap(map, sizeof(Layout));
    if (err == 0 && rename(temp.c_str(), path.c_str()) != 0)
        err = -errno;
    if (err != 0)
        unlink(temp.c_str());
    return err;
}

// The used record of `records` that `matches`, else (when `create`) a free one, cleared and
// given its identity by `claim`; null when there is none.
template <typename Record, size_t N, typename Match, typename Claim>
Record *find_or_claim(Record (&records)[N], bool create, Match matches, Claim claim)
{
    Record *free = nullptr;
    for (Record &record : records) {
        if (record.used && matches(record))
            return &record;
        if (!record.used && free == nullptr)
            free = &record;
    }
    if (!create || free == nullptr)
        return nullptr;
    *free = Record{};
    claim(*free);
    free->used = 1;
    return free;
}

uint32_t hash_name(int card, std::string_view name)
{
    uint32_t h = 2166136261u ^ static_cast<uint32_t>(card);
    for (char c : name) {
        h ^= static_cast<unsigned char>(c);
        h *= 16777619u;
    }
    return h;
}

} // namespace

int64_t now_ns()
{
    timespec ts{};
    clock_gettime(CLOCK_MONOTONIC, &ts);
    return static_cast<int64_t>(ts.tv_sec) * 1000000000 + ts.tv_nsec;
}

// ---- State ----

State::State(std::string dir, Layout *layout, int journal_fd)
    : dir_(std::move(dir)), layout_(layout), journal_fd_(journal_fd)
{
}

State::~State()
{
    munmap(layout_, sizeof(Layout));
    ::close(journal_fd_);
}

std::string State::dir_from_env()
{
    const char *dir = getenv("TVOXSIM_DIR");
    if (dir != nullptr && *dir != '\0')
        return dir;
    return "/tmp/tvoxsim-" + std::to_string(getuid());
}

int State::make_dir(const std::string &dir)
{
    if (dir.empty())
        return -EINVAL;
    for (size_t pos = 1;; ++pos) {
        pos = dir.find('/', pos);
        std::string part = dir.substr(0, pos);
        if (mkdir(part.c_str(), 0755) != 0 && errno != EEXIST)
            return -errno;
        if (pos == std::string::npos)
            break;
    }
    struct stat st {
    };
    if (stat(dir.c_str(), &st) != 0)
        return -errno;
    return S_ISDIR(st.st_mode) ? 0 : -ENOTDIR;
}

std::unique_ptr<State> State::open(const std::string &dir, int &err)
{
    return map(dir, false, err);
}

std::unique_ptr<State> State::create(const std::string &dir, int &err)
{
    return map(dir, true, err);
}

std::unique_ptr<State> State::map(const std::string &dir, bool fresh, int &err)
{
    const std::string path = dir + "/state";
    // A folder that is not a simulator is left exactly as it is.
    err = fresh ? make_dir(dir) : access(path.c_str(), F_OK) == 0 ? 0 : -errno;
    if (err != 0)
        return nullptr;
    // The lock file serialises creating and checking the state file between processes.
    Fd lock(::open((dir + "/state.lock").c_str(), O_RDWR | O_CREAT | O_CLOEXEC, 0644));
    if (lock.get() < 0 || flock(lock.get(), LOCK_EX) != 0) {
        err = -errno;
        return nullptr;
    }
    if (fresh && (err = create_state_file(path)) != 0)
        return nullptr;
    Fd fd(::open(path.c_str(), O_RDWR | O_CLOEXEC));
    if (fd.get() < 0) {
        err = -errno;
        return nullptr;
    }
    if ((err = check_header(fd.get())) != 0)
        return nullptr;
    void *mapped = mmap(nullptr, sizeof(Layout), PROT_READ | PROT_WRITE, MAP_SHARED, fd.get(), 0);
    if (mapped == MAP_FAILED) {
        err = -errno;
        return nullptr;
    }
    int journal =
        ::open((dir + "/journal").c_str(), O_WRONLY | O_APPEND | O_CREAT | O_CLOEXEC, 0644);
    if (journal < 0) {
        err = -errno;
        munmap(mapped, sizeof(Layout));
        return nullptr;
    }
    std::unique_ptr<State> state(new State(dir, static_cast<Layout *>(mapped), journal));
    // A damaged file is refused, not repaired: its values may still matter to whoever looks.
    // Checked under the lock, as other processes change the tables.
    if (!tables_sound(state->lock().layout())) {
        err = -EUCLEAN;
        return nullptr;
    }
    return state;
}

std::string State::open_error(const std::string &dir, int err)
{
    const std::string afresh = " (tvoxsim init --force " + dir + " makes a fresh one)";
    switch (-err) {
    case ENOENT:
    case ENOTDIR:
        return dir + " is not a simulator folder (tvoxsim init " + dir + " makes one)";
    case EUCLEAN:
        return "the state file in " + dir + " is damaged or truncated" + afresh;
    case EPROTO:
        return "the state file in " + dir + " was made by another build of tvoxsim" + afresh;
    default:
        return "cannot open the simulator in " + dir + ": " + std::strerror(-err);
    }
}

void State::report_open_error(const std::string &dir, int err)
{
    static std::mutex mutex;
    static std::string last;
    const std::string message = "tvoxsim: " + open_error(dir, err) + "\n";
    const std::lock_guard guard(mutex);
    if (message == last)
        return;
    last = message;
    std::fputs(message.c_str(), stderr);
}

std::vector<std::string> State::journal_lines() const
{
    std::vector<std::string> lines;
    std::ifstream in(journal_path());
    for (std::string line; std::getline(in, line);)
        lines.push_back(line);
    return lines;
}

int State::clear_journal()
{
    return ftruncate(journal_fd_, 0) == 0 ? 0 : -errno;
}

// ---- Session ----

Session::Session(State &state) : state_(&state), layout_(state.layout_)
{
    // A process that died holding the lock leaves it "owner dead"; the state it was changing is
    // plain values, so carry on with them.
    if (pthread_mutex_lock(&layout_->header.mutex) == EOWNERDEAD)
        pthread_mutex_consistent(&layout_->header.mutex);
}

Session::~Session()
{
    if (layout_ != nullptr)
        pthread_mutex_unlock(&layout_->header.mutex);
}

Session::Session(Session &&other) noexcept : state_(other.state_), layout_(other.layout_)
{
    other.layout_ = nullptr;
}

ControlSlot *Session::find(int card, std::string_view name)
{
    if (name.size() >= kNameMax)
        return nullptr;
    uint32_t index = layout_->buckets[hash_name(card, name) % kBuckets];
    while (index != 0) {
        ControlSlot &slot = layout_->slots[index - 1];
        if (slot.card == card && name == slot.name)
            return &slot;
        index = slot.next;
    }
    return nullptr;
}

void Session::reset(ControlSlot &slot, const Control &control)
{
    if (control.is_bytes()) {
        std::span<uint8_t> values = bytes(slot);
        for (size_t i = 0; i < values.size(); ++i)
            values[i] = i < control.default_bytes.size() ? control.default_bytes[i] : 0;
        return;
    }
    std::span<int64_t> values = numbers(slot);
    const std::vector<int64_t> &defaults = control.default_numbers;
    for (size_t i = 0; i < values.size(); ++i)
        values[i] = defaults.empty() ? 0 : defaults[std::min(i, defaults.size() - 1)];
}

ControlSlot *Session::bind(const Control &control)
{
    ControlSlot *slot = find(control.card, control.name);
    uint32_t size = control.storage_size();
    if (slot != nullptr && slot->type == control.type && slot->count == control.count &&
        slot->size == size)
        return slot;
    Header &header = layout_->header;
    uint64_t offset = (header.pool_used + kPoolAlign - 1) / kPoolAlign * kPoolAlign;
    if (offset + size > kPoolBytes || control.name.size() >= kNameMax)
        return nullptr;
    if (slot == nullptr) {
        if (header.slot_count >= kMaxControls)
            return nullptr;
        slot = &layout_->slots[header.slot_count++];
        slot->card = control.card;
        std::memset(slot->name, 0, sizeof slot->name);
        control.name.copy(slot->name, kNameMax - 1);
        uint32_t &bucket = layout_->buckets[hash_name(control.card, control.name) % kBuckets];
        slot->next = bucket;
        bucket = header.slot_count;
    }
    // A catalogue change of type or size gets fresh storage; the old bytes stay unused.
    slot->type = control.type;
    slot->count = control.count;
    slot->size = size;
    slot->offset = offset;
    header.pool_used = offset + size;
    reset(*slot, control);
    return slot;
}

std::span<int64_t> Session::numbers(ControlSlot &slot)
{
    if (slot.type == Type::bytes)
        return {};
    return {reinterpret_cast<int64_t *>(layout_->pool + slot.offset), slot.count};
}

std::span<uint8_t> Session::bytes(ControlSlot &slot)
{
    if (slot.type != Type::bytes)
        return {};
    return {reinterpret_cast<uint8_t *>(layout_->pool + slot.offset), slot.count};
}

PcmRecord *Session::stream(int card, int device, bool create)
{
    return find_or_claim(
        layout_->streams, create,
        [&](const PcmRecord &r) { return r.card == card && r.device == device; },
        [&](PcmRecord &r) {
            r.card = card;
            r.device = device;
        });
}

ControlFault *Session::control_fault(int card, std::string_view name)
{
    for (ControlFault &fault : layout_->control_faults)
        if (fault.kind != ControlFaultKind::none && fault.card == card && fault.name == name)
            return &fault;
    return nullptr;
}

bool Session::set_control_fault(int card, std::string_view name, ControlFaultKind kind, int error)
{
    if (name.size() >= kNameMax)
        return false;
    ControlFault *entry = control_fault(card, name);
    if (entry == nullptr && kind == ControlFaultKind::none)
        return true;
    for (ControlFault &fault : layout_->control_faults)
        if (entry == nullptr && fault.kind == ControlFaultKind::none)
            entry = &fault;
    if (entry == nullptr)
        return false;
    *entry = ControlFault{card, kind, error, 0, {}};
    name.copy(entry->name, name.size());
    return true;
}

SpeakerConfig &Session::speaker(unsigned channel)
{
    if (channel >= kMaxChannels)
        abort();
    return layout_->speakers[channel];
}

namespace
{

Register *find_register(RegisterFile &file, uint32_t address, bool create)
{
    size_t index = (address * 2654435761u) % kMaxRegisters;
    for (size_t probe = 0; probe < kMaxRegisters; ++probe) {
        Register &entry = file.entries[(index + probe) % kMaxRegisters];
        if (entry.used && entry.address == address)
            return &entry;
        if (!entry.used) {
            if (!create)
                return nullptr;
            entry = Register{address, 0, 1};
            ++file.count;
            return &entry;
        }
    }
    return nullptr;
}

} // namespace

uint32_t Session::reg(unsigned channel, uint32_t address)
{
    if (channel >= kMaxChannels)
        abort();
    Register *entry = find_register(layout_->registers[channel], address, false);
    return entry != nullptr ? entry->value : 0;
}

bool Session::set_reg(unsigned channel, uint32_t address, uint32_t value)
{
    if (channel >= kMaxChannels)
        abort();
    Register *entry = find_register(layout_->registers[channel], address, true);
    if (entry == nullptr)
        return false;
    entry->value = value;
    return true;
}

int Session::interface(std::string_view name, bool create)
{
    if (name.empty() || name.size() >= kNameMax)
        return -1;
    int free = -1;
    for (size_t i = 0; i < kMaxInterfaces; ++i) {
        AgmInterface &entry = layout_->interfaces[i];
        if (entry.used && name == entry.name)
            return static_cast<int>(i);
        if (!entry.used && free < 0)
            free = static_cast<int>(i);
    }
    if (!create || free < 0)
        return -1;
    AgmInterface &entry = layout_->interfaces[free];
    entry = AgmInterface{};
    name.copy(entry.name, kNameMax - 1);
    entry.used = 1;
    return free;
}

AgmInterface &Session::interface_at(int index)
{
    if (index < 0 || static_cast<size_t>(index) >= kMaxInterfaces)
        abort();
    return layout_->interfaces[index];
}

AgmStream *Session::agm_stream(int device, bool create)
{
    return find_or_claim(
        layout_->agm_streams, create, [&](const AgmStream &e) { return e.device == device; },
        [&](AgmStream &e) { e.device = device; });
}

std::vector<std::string> Session::connected(int device)
{
    std::vector<std::string> names;
    AgmStream *entry = agm_stream(device, false);
    for (size_t i = 0; entry != nullptr && i < kMaxInterfaces; ++i) {
        if ((entry->connected >> i) & 1u)
            names.emplace_back(layout_->interfaces[i].name);
    }
    return names;
}

void Session::connect(int device, std::string_view interface_name, bool on)
{
    AgmStream *entry = agm_stream(device, true);
    int index = interface(interface_name, true);
    if (entry == nullptr || index < 0)
        return;
    uint32_t bit = 1u << index;
    entry->connected = on ? (entry->connected | bit) : (entry->connected & ~bit);
}

void Session::journal(std::string_view line)
{
    std::string text(line);
    text += '\n';
    // One write per line: O_APPEND keeps lines of concurrent writers whole.
    ssize_t written = ::write(state_->journal_fd_, text.data(), text.size());
    (void)written;
}

} // namespace tvox::sim
