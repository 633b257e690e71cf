#include "storage/file_replacement.h"

#include <dirent.h>
#include <fcntl.h>
#include <signal.h>
#include <sys/stat.h>
#include <sys/xattr.h>
#include <unistd.h>

#include <atomic>
#include <cerrno>
#include <charconv>
#include <climits>
#include <cstring>
#include <memory>
#include <string_view>
#include <utility>

namespace tvox
{

namespace
{

constexpr mode_t kNewFileMode = 0666; // as fopen creates files, before the umask
constexpr std::string_view kTempInfix = ".new.";
// A name is taken only by a leftover whose process id came back; a few more will do.
constexpr int kTempAttempts = 8;
// The HAL's readers may open the file only with the label it had.
constexpr const char kLabelAttribute[] = "security.selinux";

// An owned descriptor, closed on every path.
class Descriptor
{
  public:
    explicit Descriptor(int fd) : fd_(fd) {}
    ~Descriptor()
    {
        if (fd_ >= 0)
            ::close(fd_);
    }
    Descriptor(const Descriptor &) = delete;
    Descriptor &operator=(const Descriptor &) = delete;
    int get() const { return fd_; }
    int release() { return std::exchange(fd_, -1); }

  private:
    int fd_;
};

struct FolderCloser {
    void operator()(DIR *dir) const { ::closedir(dir); }
};

// The access an fopen mode that creates or truncates ("w", "wb+") asks for.
int access_flags(const char *mode)
{
    return std::strchr(mode, '+') != nullptr ? O_RDWR : O_WRONLY;
}

// The folder of `path` with its slash, and the name in it.
std::pair<std::string, std::string_view> split_path(const std::string &path)
{
    const std::string::size_type slash = path.rfind('/');
    if (slash == std::string::npos)
        return {"./", path};
    return {path.substr(0, slash + 1), std::string_view(path).substr(slash + 1)};
}

// Parses the whole of `text` as a decimal number.
template <typename T> bool parse_number(std::string_view text, T &value)
{
    const char *end = text.data() + text.size();
    const auto [at, error] = std::from_chars(text.data(), end, value);
    return error == std::errc() && at == end && !text.empty();
}

// The process that made a replacement of `name` called `entry` ("<name>.new.<pid>.<n>"), 0 for
// any other entry.
pid_t temp_owner(std::string_view entry, std::string_view name)
{
    if (!entry.starts_with(name) || !entry.substr(name.size()).starts_with(kTempInfix))
        return 0;
    entry.remove_prefix(name.size() + kTempInfix.size());
    const std::string_view::size_type dot = entry.find('.');
    pid_t pid = 0;
    unsigned serial = 0;
    if (dot == std::string_view::npos || !parse_number(entry.substr(0, dot), pid) ||
        !parse_number(entry.substr(dot + 1), serial))
        return 0;
    return pid;
}

// Removes the replacements that writers killed on the way left behind: those of processes
// that no longer exist. A live writer's file, ours included, is never touched.
void remove_leftovers(const std::string &path)
{
    const auto [folder, name] = split_path(path);
    const std::unique_ptr<DIR, FolderCloser> dir(::opendir(folder.c_str()));
    if (!dir)
        return;
    while (const dirent *entry = ::readdir(dir.get())) {
        const pid_t owner = temp_owner(entry->d_name, name);
        if (owner > 0 && owner != ::getpid() && ::kill(owner, 0) != 0 && errno == ESRCH)
            ::unlink((folder + entry->d_name).c_str());
    }
}

std::string temp_name(const std::string &path)
{
    static std::atomic<unsigned> serial{0};
    return path + std::string(kTempInfix) + std::to_string(::getpid()) + "." +
           std::to_string(serial.fetch_add(1));
}

// Gives the replacement the owner, permission bits and SELinux label of the file it replaces,
// as far as this process may: where the owner cannot be given, the group still is.
void copy_attributes(int from, const struct stat &info, int to)
{
    if (::fchown(to, info.st_uid, info.st_gid) != 0)
        ::fchown(to, static_cast<uid_t>(-1), info.st_gid);
    ::fchmod(to, info.st_mode & 07777);
    const ssize_t size = ::fgetxattr(from, kLabelAttribute, nullptr, 0);
    if (size <= 0)
        return;
    std::string label(static_cast<size_t>(size), '\0');
    const ssize_t read = ::fgetxattr(from, kLabelAttribute, label.data(), label.size());
    if (read > 0)
        ::fsetxattr(to, kLabelAttribute, label.data(), static_cast<size_t>(read), 0);
}

// Makes the rename itself durable; a folder that cannot be synced keeps the file all the same.
void sync_folder(const std::string &path)
{
    const Descriptor folder(
        ::open(split_path(path).first.c_str(), O_RDONLY | O_DIRECTORY | O_CLOEXEC));
    if (folder.get() >= 0)
        ::fsync(folder.get());
}

} // namespace

FileReplacement::FileReplacement(const char *path, const char *mode)
{
    // A path no system call takes fails as its open would, before it is copied: a huge one must
    // not end the process for want of memory.
    if (path == nullptr || ::strnlen(path, PATH_MAX) >= PATH_MAX)
        return;
    path_ = path;
    // Opening the file as it stands, never through a link nor waiting for a FIFO's reader,
    // tells whether fopen would be refused and what the replacement must keep. A link or a
    // FIFO without a reader is replaced like a missing file.
    const int access = access_flags(mode);
    Descriptor existing(::open(path, access | O_NOFOLLOW | O_NONBLOCK | O_CLOEXEC));
    if (existing.get() < 0 && errno != ENOENT && errno != ELOOP && errno != ENXIO)
        return;
    struct stat info = {};
    const bool regular =
        existing.get() >= 0 && ::fstat(existing.get(), &info) == 0 && S_ISREG(info.st_mode);

    remove_leftovers(path_);
    int fd = -1;
    for (int attempt = 0; fd < 0 && attempt < kTempAttempts; ++attempt) {
        temp_ = temp_name(path_);
        fd = ::open(temp_.c_str(), access | O_CREAT | O_EXCL | O_NOFOLLOW | O_CLOEXEC,
                    regular ? 0600 : kNewFileMode);
        if (fd < 0 && errno != EEXIST)
            break;
    }
    const int refusal = errno;
    if (fd >= 0) {
        if (regular)
            copy_attributes(existing.get(), info, fd);
        file_.reset(::fdopen(fd, mode));
        if (file_)
            return;
        ::close(fd);
        ::unlink(temp_.c_str());
    }
    temp_.clear();
    // Only a folder that refuses new files for permissions gets its writable files rewritten
    // in place; a full or failing partition keeps the previous file.
    if (fd >= 0 || !regular || (refusal != EACCES && refusal != EPERM) ||
        ::ftruncate(existing.get(), 0) != 0)
        return;
    file_.reset(::fdopen(existing.get(), mode));
    if (file_)
        existing.release();
}

bool FileReplacement::commit()
{
    if (!file_)
        return false;
    std::FILE *file = file_.release();
    // A stream on something that cannot be synced (EINVAL) has nothing more to make durable.
    bool ok = std::ferror(file) == 0 && std::fflush(file) == 0 &&
              (::fsync(fileno(file)) == 0 || errno == EINVAL);
    ok = std::fclose(file) == 0 && ok;
    if (temp_.empty())
        return ok;
    if (ok && std::rename(temp_.c_str(), path_.c_str()) == 0) {
        sync_folder(path_);
        return true;
    }
    ::unlink(temp_.c_str());
    return false;
}

} // namespace tvox
