// The private ini store: SSGetPrivateIniValue / SSSetPrivateIniValue over the
// configured file (or a per-process in-memory text when none is configured),
// with a host's overrides (ini_override.h) answered first. Reads parse the
// file at each call; writes are serialised across threads (g_writeMutex) and
// processes (flock on "<file>.lock"), re-read the file under both locks, and
// replace it atomically (temp file, fsync, rename). Only a regular file of at
// most kMaxIniFileBytes is read, and only such a file (or none) is replaced.
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

#include "kelp/runtime.h"
#include "queue.h"
#include "queue/ini_override.h"
#include "queue/ini_text.h"
#include "support/config.h"
#include "support/errno_text.h"
#include "support/file_read.h"
#include "support/log.h"
#include "support/text.h"

namespace {

// A few keys fit in far less; the limit keeps a wrong path (a log, an image)
// from being taken into memory at every read.
constexpr size_t kMaxIniFileBytes = 1 << 20;

std::mutex g_writeMutex;  // serialises this process's writers; guards g_memoryText
std::string g_memoryText; // the store when no file is configured

std::mutex g_reportMutex;
std::map<std::string, size_t> g_reported; // guarded by g_reportMutex: path -> content hash
// guarded by g_reportMutex: path -> the fault last reported, until it reads again
std::map<std::string, std::string> g_reportedFaults;

void reportErrno(const char *what, const std::string &path)
{
    kelp::rt::logWarning("%s", kelp::rt::errnoMessage(what, path).c_str());
}

// A file that cannot be read is asked for at every read of every key:
// its fault is reported once, and again only after it changed or the file
// was read in between.
void reportFault(const std::string &path, const std::string &message)
{
    std::lock_guard lock(g_reportMutex);
    auto [it, fresh] = g_reportedFaults.try_emplace(path, message);
    if (!fresh && it->second == message)
        return;
    it->second = message;
    kelp::rt::logWarning("%s", message.c_str());
}

void forgetFault(const std::string &path)
{
    std::lock_guard lock(g_reportMutex);
    g_reportedFaults.erase(path);
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
            kelp::rt::logWarning("%s:%zu: %s, line skipped", path.c_str(), i + 1,
                                 doc.lines[i].problem.c_str());
        }
    }
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
        reportErrno("cannot create a temporary file for", path);
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
        errno = err;
        reportErrno("cannot write", path);
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
            reportErrno("cannot open the lock file", lockPath);
            return;
        }
        while (flock(fd_, LOCK_EX) != 0) {
            if (errno != EINTR) {
                reportErrno("cannot lock", lockPath);
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

// The file's text; a missing file is an empty text. False (*error set) when
// the file cannot be read or is refused.
bool readIniFile(const std::string &path, std::string &text, std::string *error)
{
    return kelp::rt::readRegularFile(path, kMaxIniFileBytes, &text, error) !=
           kelp::rt::FileRead::kRefused;
}

// The store's current text; false (reported) when the file exists but cannot
// be read or is refused.
bool loadText(const std::string &path, std::string &text)
{
    if (path.empty()) {
        std::lock_guard lock(g_writeMutex);
        text = g_memoryText;
        return true;
    }
    std::string error;
    if (!readIniFile(path, text, &error)) {
        reportFault(path, error);
        return false;
    }
    forgetFault(path);
    return true;
}

// Copies value and its NUL to the caller's buffer of *size bytes: 0, or 16
// with the size needed when it does not fit.
uint32_t answerValue(const std::string &found, char *value, uint32_t *size)
{
    const size_t needed = found.size() + 1;
    if (needed > *size) {
        *size = static_cast<uint32_t>(needed);
        return 16;
    }
    std::memcpy(value, found.c_str(), needed);
    *size = static_cast<uint32_t>(needed);
    return 0;
}

} // namespace

extern "C" {

uint32_t SSGetPrivateIniValue(const char *section, const char *key, char *value, uint32_t *size)
{
    if (section == nullptr || key == nullptr || value == nullptr || size == nullptr) {
        return 5;
    }
    if (std::optional<std::string> set = kelp::rt::ini::overrideOf(section, key))
        return answerValue(*set, value, size);
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
    return answerValue(*found, value, size);
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
    // Refused before the lock file is made beside it: a device's directory
    // is no place for one. A refused file is never replaced, so nothing it
    // held is lost.
    std::string text;
    if (!loadText(path, text))
        return 5;
    FileLock fileLock(path);
    if (!fileLock.held())
        return 5;
    if (!loadText(path, text))
        return 5;
    kelp::rt::ini::Document doc = kelp::rt::ini::parse(text);
    reportProblems(path, text, doc);
    kelp::rt::ini::set(doc, section, key, value);
    return replaceFile(path, kelp::rt::ini::serialise(doc)) ? 0 : 5;
}

int kelpRuntimeCheckIni(char *error, unsigned errorSize)
{
    try {
        const std::string path = kelp::rt::iniPath();
        std::string text, message;
        if (!path.empty()) {
            if (!readIniFile(path, text, &message)) {
                // The caller reports it: the store's reads do not again.
                {
                    std::lock_guard lock(g_reportMutex);
                    g_reportedFaults[path] = message;
                }
                kelp::rt::copyToBuffer(message, error, errorSize);
                return 1;
            }
            reportProblems(path, text, kelp::rt::ini::parse(text));
        }
        kelp::rt::copyToBuffer("", error, errorSize);
        return 0;
    } catch (const std::bad_alloc &) {
        kelp::rt::copyToBuffer("out of memory", error, errorSize);
        return 1;
    }
}

} // extern "C"
