// Replacing a file through a temporary file and a rename (see file_write.h).
#include "support/file_write.h"

#include <fcntl.h>
#include <sys/stat.h>
#include <unistd.h>

#include <cerrno>
#include <cstdlib>

#include "support/errno_text.h"
#include "support/unique_fd.h"

namespace kelp::rt {
namespace {

bool refuse(const std::string &path, const std::string &what, std::string *error)
{
    *error = path + ": " + what;
    return false;
}

bool writeAll(int fd, std::string_view text)
{
    while (!text.empty()) {
        const ssize_t n = write(fd, text.data(), text.size());
        if (n < 0 && errno == EINTR)
            continue;
        if (n <= 0)
            return false;
        text.remove_prefix(static_cast<size_t>(n));
    }
    return true;
}

// The temporary file's whole life: written, synced and closed, or removed.
bool writeTemporary(const std::string &path, const std::string &temporary, int fd,
                    std::string_view text, mode_t mode, std::string *error)
{
    UniqueFd owned(fd);
    bool written = fchmod(fd, mode) == 0 && writeAll(fd, text) && fsync(fd) == 0;
    // close reports a failed write-back on some file systems.
    written = close(owned.release()) == 0 && written;
    if (written)
        return true;
    const int err = errno;
    unlink(temporary.c_str());
    return refuse(path, "cannot write: " + errnoText(err), error);
}

} // namespace

bool replaceFile(const std::string &path, std::string_view text, mode_t mode, std::string *error)
{
    const size_t slash = path.rfind('/');
    const std::string name = slash == std::string::npos ? path : path.substr(slash + 1);
    const std::string dir = slash == std::string::npos ? "."
                            : slash == 0               ? "/"
                                                       : path.substr(0, slash);
    if (name.empty())
        return refuse(path, "names no file", error);
    struct stat st {};
    if (stat(path.c_str(), &st) == 0 && !S_ISREG(st.st_mode))
        return refuse(path, S_ISDIR(st.st_mode) ? "is a directory" : "not a regular file", error);

    std::string temporary = (dir == "/" ? "/." : dir + "/.") + name + ".XXXXXX";
    const int fd = mkostemp(temporary.data(), O_CLOEXEC);
    if (fd < 0)
        return refuse(path, "cannot create a file in " + dir + ": " + errnoText(errno), error);
    if (!writeTemporary(path, temporary, fd, text, mode, error))
        return false;
    if (rename(temporary.c_str(), path.c_str()) != 0) {
        const int err = errno;
        unlink(temporary.c_str());
        return refuse(path, "cannot rename the written file to it: " + errnoText(err), error);
    }
    // The rename is durable once the directory is on disk.
    if (UniqueFd dirFd(open(dir.c_str(), O_RDONLY | O_DIRECTORY | O_CLOEXEC)); dirFd)
        fsync(dirFd.get());
    return true;
}

} // namespace kelp::rt
