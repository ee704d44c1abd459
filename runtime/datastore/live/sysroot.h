// The files of a machine the live source reads (sysfs, /dev, /run/udev), all
// relative to one root directory: "/" on the machine itself, a captured tree
// in tests and bug reports. Paths never leave the root, symbolic links
// included, and nothing read is trusted to be short, well-formed or still
// there.
#ifndef KELP_RUNTIME_DATASTORE_LIVE_SYSROOT_H
#define KELP_RUNTIME_DATASTORE_LIVE_SYSROOT_H

#include <cstddef>
#include <memory>
#include <optional>
#include <string>
#include <string_view>
#include <vector>

#include "support/unique_fd.h"

namespace kelp::live {

// Most bytes of one attribute file that are read; sysfs attributes are one
// page at most.
inline constexpr size_t kMaxAttributeFileBytes = 4096;

// "dir/name" without a doubled slash.
std::string joinPath(std::string_view dir, std::string_view name);
// The last component of a path.
std::string_view baseName(std::string_view path);
// The directory part of a path ("/" for "/x").
std::string_view dirName(std::string_view path);

class SysRoot {
  public:
    // A root directory. False with *error when `root` does not exist or is not
    // a directory; the object is then unusable.
    bool open(const std::string &root, std::string *error);

    // The canonical root ("/" or an absolute path without a trailing slash).
    const std::string &root() const { return root_; }
    bool isSystemRoot() const { return root_ == "/"; }

    // The canonical path of `path` (absolute under the root, e.g.
    // "/sys/class/nvme/nvme0"), every symbolic link resolved as the kernel
    // would resolve it with the root as "/". nullopt when it does not exist,
    // a link loops or leaves the root, or a component is not a directory.
    std::optional<std::string> resolve(std::string_view path) const;

    // Text of a file: at most kMaxAttributeFileBytes, trailing newlines,
    // blanks and NULs removed. nullopt when the file is missing, unreadable or
    // not a regular file (sysfs attributes are regular files).
    std::optional<std::string> readText(std::string_view path) const;
    // The same, raw (binary attributes such as vpd_pg80).
    std::optional<std::string> readBytes(std::string_view path) const;
    // readText of "dir/name" for a canonical dir (as resolve answers it): a
    // name without '/' is opened straight, without resolving the directory
    // again, and never through a link; a name with '/' is resolved.
    std::optional<std::string> attr(std::string_view dir, std::string_view name) const;
    // readBytes the same way.
    std::optional<std::string> attrBytes(std::string_view dir, std::string_view name) const;
    // The canonical target of the link or directory "dir/name" for a
    // canonical dir; nullopt as resolve.
    std::optional<std::string> follow(std::string_view dir, std::string_view name) const
    {
        return resolve(joinPath(dir, name));
    }

    // The names in a directory, sorted, without "." and ".."; empty when it is
    // missing or unreadable. Links in it are not followed.
    std::vector<std::string> list(std::string_view dir) const;
    // list of a canonical dir, without resolving it again.
    std::vector<std::string> listIn(std::string_view dir) const;
    // Whether path exists (links followed within the root).
    bool exists(std::string_view path) const { return resolve(path).has_value(); }

    // Tests: resolve by walking the components even where the kernel could
    // do it, so that both ways are checked.
    void resolveByWalkingForTesting() { kernelResolves_ = false; }

    // The host path of a path under the root (for opening device nodes).
    std::string hostPath(std::string_view path) const;

  private:
    // resolve() by the kernel (openat2 with RESOLVE_IN_ROOT): one call in
    // place of a look at every component. nullopt with *unsupported set when
    // the kernel or /proc cannot do it, for the walk below to do it instead.
    std::optional<std::string> resolveInKernel(std::string_view path, bool *unsupported) const;
    std::optional<std::string> resolveByWalking(std::string_view path) const;

    std::string root_;                     // canonical host path of the root
    std::shared_ptr<rt::UniqueFd> rootFd_; // O_PATH descriptor of the root
    // Cleared the first time openat2 cannot; one SysRoot is used by one thread.
    mutable bool kernelResolves_ = true;
};

} // namespace kelp::live

#endif // KELP_RUNTIME_DATASTORE_LIVE_SYSROOT_H
