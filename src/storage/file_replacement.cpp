#include "storage/file_replacement.h"

#include <fcntl.h>
#include <sys/stat.h>
#include <unistd.h>

#include <cerrno>
#include <cstdio>
#include <cstring>

namespace tvox
{

namespace
{

constexpr mode_t kNewFileMode = 0666; // as fopen creates files, before the umask

// O_ flags of an fopen mode that creates or truncates ("w", "wb+").
int open_flags(const char *mode)
{
    bool update = false;
    for (const char *c = mode; *c != '\0'; ++c)
        update = update || *c == '+';
    return (update ? O_RDWR : O_WRONLY) | O_CREAT | O_TRUNC | O_CLOEXEC;
}

// Makes the rename itself durable; a folder that cannot be synced keeps the file all the same.
void sync_folder(const char *path)
{
    std::array<char, PATH_MAX> folder = {'.'};
    if (const char *slash = std::strrchr(path, '/'))
        std::memcpy(folder.data(), path, static_cast<size_t>(slash - path) + 1);
    const int fd = ::open(folder.data(), O_RDONLY | O_DIRECTORY | O_CLOEXEC);
    if (fd >= 0) {
        ::fsync(fd);
        ::close(fd);
    }
}

} // namespace

FileReplacement::FileReplacement(const char *path, const char *mode) : path_(path)
{
    // Opening the existing file without truncating it tells whether fopen would be refused,
    // and gives the replacement the same permissions.
    mode_t permissions = kNewFileMode;
    const int existing = ::open(path, O_WRONLY | O_CLOEXEC);
    if (existing < 0 && errno != ENOENT)
        return;
    if (existing >= 0) {
        struct stat info = {};
        if (::fstat(existing, &info) == 0 && S_ISREG(info.st_mode))
            permissions = info.st_mode & 07777;
        ::close(existing);
    }

    const int length = std::snprintf(temp_.data(), temp_.size(), "%s.new", path);
    if (length > 0 && static_cast<size_t>(length) < temp_.size()) {
        ::unlink(temp_.data()); // a leftover of an interrupted write
        const int fd = ::open(temp_.data(), open_flags(mode), permissions);
        if (fd >= 0) {
            file_.reset(::fdopen(fd, mode));
            if (file_)
                return;
            ::close(fd);
            ::unlink(temp_.data());
        }
    }
    // The folder takes no new file: rewrite the file itself.
    temp_[0] = '\0';
    file_.reset(std::fopen(path, mode));
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
    if (temp_[0] == '\0')
        return ok;
    if (ok && std::rename(temp_.data(), path_) == 0) {
        sync_folder(path_);
        return true;
    }
    ::unlink(temp_.data());
    return false;
}

} // namespace tvox
