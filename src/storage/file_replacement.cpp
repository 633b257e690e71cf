#include "storage/file_replacement.h"

#include <fcntl.h>
#include <sys/stat.h>
#include <unistd.h>

#include <cerrno>

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
void sync_folder(const std::string &path)
{
    const std::string::size_type slash = path.rfind('/');
    const std::string folder = slash == std::string::npos ? "." : path.substr(0, slash + 1);
    const int fd = ::open(folder.c_str(), O_RDONLY | O_DIRECTORY | O_CLOEXEC);
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

    temp_ = path_ + ".new";
    ::unlink(temp_.c_str()); // a leftover of an interrupted write
    const int fd = ::open(temp_.c_str(), open_flags(mode), permissions);
    if (fd >= 0) {
        file_.reset(::fdopen(fd, mode));
        if (file_)
            return;
        ::close(fd);
        ::unlink(temp_.c_str());
    }
    // The folder takes no new file: rewrite the file itself.
    temp_.clear();
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
