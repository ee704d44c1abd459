// The private ini store: SSGetPrivateIniValue / SSSetPrivateIniValue over the
// configured file (or a per-process in-memory text when none is configured).
// Reads parse the file at each call; writes are serialised across threads
// (g_writeMutex) and processes (flock on "<file>.lock"), re-read the file
// under both locks, and replace it atomically (temp file, fsync, rename).
#include <fcntl.h>
#include <sys/file.h>
#include <sys/stat.h>
#include <unistd.h>

#include <cerrno>
#include <cstdio>
#include <cstring>
#include <functional>
#include <map>
#include <mutex>
#include <optional>
#include <string>

#include "queue.h"
#include "queue/ini_text.h"
#include "support/config.h"

namespace {

std::mutex g_writeMutex;  // serialises this process's writers; guards g_memoryText
std::string g_memoryText; // the store when no file is configured

std::mutex g_reportMutex;
std::map<std::string, size_t> g_reported; // guarded by g_reportMutex: path -> content hash

// The one place where a failed system call becomes a message.
void reportErrno(const char *what, const std::string &path, int err)
{
    std::fprintf(stderr, "kelp: %s %s: %s\n", what, path.c_str(), std::strerror(err));
}

// Logs the malformed lines of `text` once per distinct content of `path`, so
// that a module reading several keys does not repeat the warnings.
void reportProblems(const std::string &path, const std::string &text,
                    const kelp::rt::ini::Document &doc)
{
    size_t hash = std::hash<std::string>{}(text);
    std::lock_guard lock(g_reportMutex);
    auto it = g_reported.find(path);
    if (it != g_reported.end() && it->second == hash)
        return;
    g_reported[path] = hash;
    for (size_t i = 0; i < doc.lines.size(); ++i) {
        if (doc.lines[i].kind == kelp::rt::ini::LineKind::Malformed) {
            std::fprintf(stderr, "kelp: %s:%zu: %s, line skipped\n", path.c_str(), i + 1,
                         doc.lines[i].problem.c_str());
        }
    }
}

// Reads the whole file; a missing file is an empty text. False (errno set) on
// any other failure.
bool readAll(const std::string &path, std::string &text)
{
    text.clear();
    int fd = open(path.c_str(), O_RDONLY | O_CLOEXEC);
    if (fd < 0)
        return errno == ENOENT;
    char buf[65536];
    for (;;) {
        ssize_t n = read(fd, buf, sizeof buf);
        if (n < 0 && errno == EINTR)
            continue;
        if (n < 0) {
            int err = errno;
            close(fd);
            errno = err;
            return false;
        }
        if (n == 0)
            break;
        text.append(buf, static_cast<size_t>(n));
    }
    close(fd);
    return true;
}

bool writeAll(int fd, const std::string &text)
{
    size_t done = 0;
    while (done < text.size()) {
        ssize_t n = write(fd, text.data() + done, text.size() - done);
        if (n < 0 && errno == EINTR)
            continue;
        if (n <= 0)
            return false;
        done += static_cast<size_t>(n);
    }
    return true;
}

std::string directoryOf(const std::string &path)
{
    size_t slash = path.rfind('/');
    if (slash == std::string::npos)
        return ".";
    return slash == 0 ? "/" : path.substr(0, slash);
}

// Replaces path with text: a temp file in the same directory, fsync, rename,
// then fsync of the directory so the rename itself survives a crash.
bool replaceFile(const std::string &path, const std::string &text)
{
    std::string temp = path + ".tmp.XXXXXX";
    int fd = mkostemp(temp.data(), O_CLOEXEC);
    if (fd < 0) {
        reportErrno("cannot create a temporary file for", path, errno);
        return false;
    }
    struct stat st {};
    mode_t mode = stat(path.c_str(), &st) == 0 ? (st.st_mode & 07777) : 0644;
    bool ok = fchmod(fd, mode) == 0 && writeAll(fd, text) && fsync(fd) == 0;
    int err = errno;
    ok = close(fd) == 0 && ok;
    if (ok && rename(temp.c_str(), path.c_str()) != 0) {
        ok = false;
        err = errno;
    }
    if (!ok) {
        reportErrno("cannot write", path, err);
        unlink(temp.c_str());
        return false;
    }
    int dir = open(directoryOf(path).c_str(), O_RDONLY | O_DIRECTORY | O_CLOEXEC);
    if (dir >= 0) {
        fsync(dir);
        close(dir);
    }
    return true;
}

// Holds flock on "<path>.lock" for its lifetime.
class FileLock {
  public:
    explicit FileLock(const std::string &path)
    {
        std::string lockPath = path + ".lock";
        fd_ = open(lockPath.c_str(), O_RDWR | O_CREAT | O_CLOEXEC, 0644);
        if (fd_ < 0) {
            reportErrno("cannot open the lock file", lockPath, errno);
            return;
        }
        while (flock(fd_, LOCK_EX) != 0) {
            if (errno != EINTR) {
                reportErrno("cannot lock", lockPath, errno);
                close(fd_);
                fd_ = -1;
                return;
            }
        }
    }
    ~FileLock()
    {
        if (fd_ >= 0)
            close(fd_); // releases the flock
    }
    FileLock(const FileLock &) = delete;
    FileLock &operator=(const FileLock &) = delete;
    bool held() const { return fd_ >= 0; }

  private:
    int fd_ = -1;
};

// The store's current text; false (reported) when the file exists but cannot
// be read.
bool loadText(const std::string &path, std::string &text)
{
    if (path.empty()) {
        std::lock_guard lock(g_writeMutex);
        text = g_memoryText;
        return true;
    }
    if (!readAll(path, text)) {
        reportErrno("cannot read", path, errno);
        return false;
    }
    return true;
}

} // namespace

extern "C" {

uint32_t SSGetPrivateIniValue(const char *section, const char *key, char *value, uint32_t *size)
{
    if (section == nullptr || key == nullptr || value == nullptr || size == nullptr) {
        return 5;
    }
    const std::string path = kelp::rt::iniPath();
    std::string text;
    if (!loadText(path, text))
        return 2; // an unreadable store holds nothing
    kelp::rt::ini::Document doc = kelp::rt::ini::parse(text);
    if (!path.empty())
        reportProblems(path, text, doc);
    std::optional<std::string> found = kelp::rt::ini::find(doc, section, key);
    if (!found)
        return 2;
    const size_t needed = found->size() + 1;
    if (needed > *size) {
        *size = static_cast<uint32_t>(needed);
        return 16;
    }
    std::memcpy(value, found->c_str(), needed);
    *size = static_cast<uint32_t>(needed);
    return 0;
}

uint32_t SSSetPrivateIniValue(const char *section, const char *key, const char *value)
{
    if (section == nullptr || key == nullptr || value == nullptr ||
        !kelp::rt::ini::writable(section, key, value)) {
        return 5;
    }
    const std::string path = kelp::rt::iniPath();
    std::lock_guard lock(g_writeMutex);
    if (path.empty()) {
        kelp::rt::ini::Document doc = kelp::rt::ini::parse(g_memoryText);
        kelp::rt::ini::set(doc, section, key, value);
        g_memoryText = kelp::rt::ini::serialise(doc);
        return 0;
    }
    FileLock fileLock(path);
    if (!fileLock.held())
        return 5;
    std::string text;
    if (!readAll(path, text)) {
        reportErrno("cannot read", path, errno);
        return 5;
    }
    kelp::rt::ini::Document doc = kelp::rt::ini::parse(text);
    reportProblems(path, text, doc);
    kelp::rt::ini::set(doc, section, key, value);
    return replaceFile(path, kelp::rt::ini::serialise(doc)) ? 0 : 5;
}

} // extern "C"
