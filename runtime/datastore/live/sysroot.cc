// Path resolution under a root: each component is looked at with lstat and
// readlink relative to the root, so a link written for the real "/" (sysfs
// uses relative links, captured trees keep them) lands inside the tree, and
// one that climbs out of it or loops is refused rather than followed.
#include "datastore/live/sysroot.h"

#include <dirent.h>
#include <fcntl.h>
#include <linux/openat2.h>
#include <sys/stat.h>
#include <sys/syscall.h>
#include <unistd.h>

#include <algorithm>
#include <cerrno>
#include <climits>
#include <cstdio>
#include <cstdlib>

#include "support/unique_fd.h"

namespace kelp::live {
namespace {

// Links followed in one resolution at most, as the kernel's own limit.
constexpr int kMaxLinks = 40;

void splitInto(std::string_view path, std::vector<std::string> *parts)
{
    size_t i = 0;
    while (i < path.size()) {
        while (i < path.size() && path[i] == '/')
            ++i;
        size_t j = path.find('/', i);
        if (j == std::string_view::npos)
            j = path.size();
        if (j > i)
            parts->emplace_back(path.substr(i, j - i));
        i = j;
    }
}

// Reads a regular file opened as fd, up to limit bytes.
bool readOpen(int fd, size_t limit, std::string *out);

bool readWhole(const std::string &hostPath, size_t limit, std::string *out)
{
    rt::UniqueFd fd(::open(hostPath.c_str(), O_RDONLY | O_CLOEXEC | O_NONBLOCK | O_NOFOLLOW));
    return fd && readOpen(fd.get(), limit, out);
}

bool readOpen(int fd, size_t limit, std::string *out)
{
    struct stat st {};
    if (fstat(fd, &st) != 0 || !S_ISREG(st.st_mode))
        return false;
    out->assign(limit, '\0');
    size_t used = 0;
    while (used < limit) {
        ssize_t n = ::read(fd, out->data() + used, limit - used);
        if (n < 0 && errno == EINTR)
            continue;
        if (n < 0)
            return false;
        if (n == 0)
            break;
        used += static_cast<size_t>(n);
    }
    out->resize(used);
    return true;
}

void trimEnd(std::string *text)
{
    while (!text->empty() && (text->back() == '\n' || text->back() == ' ' || text->back() == '\0' ||
                              text->back() == '\t' || text->back() == '\r'))
        text->pop_back();
}

} // namespace

std::string joinPath(std::string_view dir, std::string_view name)
{
    std::string path(dir);
    if (path.empty() || path.back() != '/')
        path += '/';
    while (!name.empty() && name.front() == '/')
        name.remove_prefix(1);
    path += name;
    return path;
}

std::string_view baseName(std::string_view path)
{
    while (path.size() > 1 && path.back() == '/')
        path.remove_suffix(1);
    size_t slash = path.rfind('/');
    return slash == std::string_view::npos ? path : path.substr(slash + 1);
}

std::string_view dirName(std::string_view path)
{
    size_t slash = path.rfind('/');
    if (slash == std::string_view::npos || slash == 0)
        return "/";
    return path.substr(0, slash);
}

bool SysRoot::open(const std::string &root, std::string *error)
{
    char buffer[PATH_MAX];
    if (root.empty() || ::realpath(root.c_str(), buffer) == nullptr) {
        *error = root + ": " + (root.empty() ? "no directory named" : "does not exist");
        return false;
    }
    struct stat st {};
    if (stat(buffer, &st) != 0 || !S_ISDIR(st.st_mode)) {
        *error = root + ": not a directory";
        return false;
    }
    root_ = buffer;
    rootFd_ =
        std::make_shared<rt::UniqueFd>(::open(root_.c_str(), O_PATH | O_DIRECTORY | O_CLOEXEC));
    if (!*rootFd_)
        kernelResolves_ = false;
    return true;
}

namespace {

// openat2 below the root. The kernel answers EAGAIN to a lookup through ".."
// when a rename or mount happened anywhere on the system meanwhile, which on
// a busy machine is frequent: asked again it resolves. After kOpenAttempts
// the caller resolves that one path by walking it.
constexpr int kOpenAttempts = 64;

int openInRoot(int rootFd, const std::string &relative, open_how *how)
{
    for (int attempt = 0;; ++attempt) {
        const int fd =
            static_cast<int>(syscall(SYS_openat2, rootFd, relative.c_str(), how, sizeof *how));
        if (fd >= 0 || errno != EAGAIN || attempt + 1 == kOpenAttempts)
            return fd;
    }
}

} // namespace

std::optional<std::string> SysRoot::resolveInKernel(std::string_view path, bool *unsupported) const
{
    *unsupported = false;
    std::string relative(path);
    if (relative.empty() || relative == "/")
        return std::string("/");
    open_how how{};
    how.flags = O_PATH | O_CLOEXEC;
    how.resolve = RESOLVE_IN_ROOT | RESOLVE_NO_MAGICLINKS;
    rt::UniqueFd fd(openInRoot(rootFd_->get(), relative, &how));
    if (!fd) {
        // ENOSYS: an older kernel; EPERM, EACCES on the call itself: a seccomp filter.
        // EAGAIN: renames elsewhere outran every attempt; walking takes no such lock.
        *unsupported = errno == ENOSYS || errno == EPERM || errno == EAGAIN;
        return std::nullopt;
    }
    char proc[64], target[PATH_MAX];
    std::snprintf(proc, sizeof proc, "/proc/self/fd/%d", fd.get());
    ssize_t n = readlink(proc, target, sizeof target - 1);
    if (n <= 0) {
        *unsupported = true; // no /proc
        return std::nullopt;
    }
    std::string_view host(target, static_cast<size_t>(n));
    if (isSystemRoot())
        return std::string(host);
    if (host == root_)
        return std::string("/");
    if (host.size() <= root_.size() || !host.starts_with(root_) || host[root_.size()] != '/')
        return std::nullopt; // moved out of the tree meanwhile
    return std::string(host.substr(root_.size()));
}

std::optional<std::string> SysRoot::resolve(std::string_view path) const
{
    if (kernelResolves_) {
        bool unsupported = false;
        std::optional<std::string> real = resolveInKernel(path, &unsupported);
        if (!unsupported)
            return real;
        if (errno != EAGAIN)
            kernelResolves_ = false;
    }
    return resolveByWalking(path);
}

std::string SysRoot::hostPath(std::string_view path) const
{
    if (isSystemRoot())
        return path.empty() || path.front() != '/' ? "/" + std::string(path) : std::string(path);
    return joinPath(root_, path);
}

std::optional<std::string> SysRoot::resolveByWalking(std::string_view path) const
{
    std::vector<std::string> pending; // components still to walk, last first
    {
        std::vector<std::string> parts;
        splitInto(path, &parts);
        pending.assign(parts.rbegin(), parts.rend());
    }
    std::vector<std::string> done; // the canonical components so far
    int links = 0;
    while (!pending.empty()) {
        std::string part;
        part.swap(pending.back());
        pending.pop_back();
        if (part == ".")
            continue;
        if (part == "..") {
            if (!done.empty()) // ".." of the root is the root, as in a chroot
                done.pop_back();
            continue;
        }
        std::string canonical;
        for (const auto &d : done)
            canonical += "/" + d;
        canonical += "/" + part;
        const std::string host = hostPath(canonical);
        struct stat st {};
        if (lstat(host.c_str(), &st) != 0)
            return std::nullopt;
        if (S_ISLNK(st.st_mode)) {
            if (++links > kMaxLinks)
                return std::nullopt;
            char target[PATH_MAX];
            ssize_t n = readlink(host.c_str(), target, sizeof target - 1);
            if (n <= 0)
                return std::nullopt;
            std::string_view text(target, static_cast<size_t>(n));
            std::vector<std::string> parts;
            splitInto(text, &parts);
            if (text.front() == '/')
                done.clear();
            for (auto it = parts.rbegin(); it != parts.rend(); ++it)
                pending.push_back(std::move(*it));
            continue;
        }
        if (!pending.empty() && !S_ISDIR(st.st_mode))
            return std::nullopt;
        done.push_back(std::move(part));
    }
    std::string canonical;
    for (const auto &d : done)
        canonical += "/" + d;
    return canonical.empty() ? std::string("/") : canonical;
}

std::optional<std::string> SysRoot::readBytes(std::string_view path) const
{
    std::string text;
    if (kernelResolves_) {
        // Resolved and opened in one call, the root as "/".
        open_how how{};
        how.flags = O_RDONLY | O_CLOEXEC | O_NONBLOCK;
        how.resolve = RESOLVE_IN_ROOT | RESOLVE_NO_MAGICLINKS;
        const std::string relative(path);
        rt::UniqueFd fd(openInRoot(rootFd_->get(), relative, &how));
        if (fd) {
            if (!readOpen(fd.get(), kMaxAttributeFileBytes, &text))
                return std::nullopt;
            return text;
        }
        if (errno != ENOSYS && errno != EPERM && errno != EAGAIN)
            return std::nullopt;
        if (errno != EAGAIN)
            kernelResolves_ = false;
    }
    std::optional<std::string> real = resolveByWalking(path);
    if (!real || !readWhole(hostPath(*real), kMaxAttributeFileBytes, &text))
        return std::nullopt;
    return text;
}

std::optional<std::string> SysRoot::readText(std::string_view path) const
{
    std::optional<std::string> text = readBytes(path);
    if (text)
        trimEnd(&*text);
    return text;
}

std::optional<std::string> SysRoot::attrBytes(std::string_view dir, std::string_view name) const
{
    if (name.find('/') != std::string_view::npos || name == ".." || name == ".")
        return readBytes(joinPath(dir, name));
    std::string text;
    if (!readWhole(hostPath(joinPath(dir, name)), kMaxAttributeFileBytes, &text))
        return std::nullopt;
    return text;
}

std::optional<std::string> SysRoot::attr(std::string_view dir, std::string_view name) const
{
    std::optional<std::string> text = attrBytes(dir, name);
    if (text)
        trimEnd(&*text);
    return text;
}

std::vector<std::string> SysRoot::list(std::string_view dir) const
{
    std::optional<std::string> real = resolve(dir);
    return real ? listIn(*real) : std::vector<std::string>();
}

std::vector<std::string> SysRoot::listIn(std::string_view dir) const
{
    std::vector<std::string> names;
    DIR *d = opendir(hostPath(dir).c_str());
    if (d == nullptr)
        return names;
    while (const dirent *e = readdir(d)) {
        std::string_view name = e->d_name;
        if (name != "." && name != "..")
            names.emplace_back(name);
    }
    closedir(d);
    std::sort(names.begin(), names.end());
    return names;
}

} // namespace kelp::live
