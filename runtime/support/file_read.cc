// Reading a regular file whole within a limit (see file_read.h).
#include "support/file_read.h"

#include <fcntl.h>
#include <sys/stat.h>
#include <unistd.h>

#include <cerrno>

#include "support/errno_text.h"
#include "support/unique_fd.h"

namespace kelp::rt {
namespace {

FileRead refuse(const std::string &path, const std::string &what, std::string *text,
                std::string *error)
{
    text->clear();
    *error = path + ": " + what;
    return FileRead::kRefused;
}

} // namespace

std::string byteCountText(size_t bytes)
{
    if (bytes != 0 && bytes % (size_t{1} << 20) == 0)
        return std::to_string(bytes >> 20) + " MiB";
    if (bytes != 0 && bytes % 1024 == 0)
        return std::to_string(bytes >> 10) + " KiB";
    return std::to_string(bytes) + (bytes == 1 ? " byte" : " bytes");
}

FileRead readRegularFile(const std::string &path, size_t maxBytes, std::string *text,
                         std::string *error)
{
    text->clear();
    const std::string tooLarge = "over the limit of " + byteCountText(maxBytes);
    // A device is refused before it is opened: opening some has effects of
    // its own (a tape rewinds, a terminal becomes the controlling one).
    struct stat st {};
    if (stat(path.c_str(), &st) == 0 && !S_ISREG(st.st_mode))
        return refuse(path, "not a regular file", text, error);
    // O_NONBLOCK: should the path be swapped for a FIFO after the check,
    // the open still returns at once; fstat below then refuses it.
    UniqueFd fd(open(path.c_str(), O_RDONLY | O_NONBLOCK | O_CLOEXEC | O_NOCTTY));
    if (!fd) {
        const int err = errno;
        refuse(path, "cannot open: " + errnoText(err), text, error);
        return err == ENOENT ? FileRead::kMissing : FileRead::kRefused;
    }
    if (fstat(fd.get(), &st) != 0)
        return refuse(path, "cannot read: " + errnoText(errno), text, error);
    if (!S_ISREG(st.st_mode))
        return refuse(path, "not a regular file", text, error);
    if (st.st_size < 0 || static_cast<unsigned long long>(st.st_size) > maxBytes)
        return refuse(path, tooLarge, text, error);
    text->reserve(static_cast<size_t>(st.st_size));
    // The file may grow while it is read, so the read is bounded as well.
    char buffer[65536];
    while (true) {
        const size_t room = maxBytes + 1 - text->size();
        ssize_t n = read(fd.get(), buffer, room < sizeof buffer ? room : sizeof buffer);
        if (n < 0 && errno == EINTR)
            continue;
        if (n < 0)
            return refuse(path, "cannot read: " + errnoText(errno), text, error);
        if (n == 0)
            return FileRead::kRead;
        text->append(buffer, static_cast<size_t>(n));
        if (text->size() > maxBytes)
            return refuse(path, tooLarge, text, error);
    }
}

} // namespace kelp::rt
