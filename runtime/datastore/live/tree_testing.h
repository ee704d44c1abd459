// Tests only: small sysfs-like trees in a temporary directory, written file by
// file and link by link, for the cases no captured machine shows (missing,
// empty, garbage and unreadable files, loops, links out of the tree).
#ifndef KELP_RUNTIME_DATASTORE_LIVE_TREE_TESTING_H
#define KELP_RUNTIME_DATASTORE_LIVE_TREE_TESTING_H

#include <sys/stat.h>
#include <unistd.h>

#include <cstdlib>
#include <filesystem>
#include <fstream>
#include <string>
#include <utility>

namespace kelp::live::testing {

class TempTree {
  public:
    TempTree()
    {
        char pattern[] = "/tmp/kelp-live-XXXXXX";
        root_ = ::mkdtemp(pattern);
    }
    // A tree at `root` (made if missing) that stays when the object goes:
    // for tools that write a tree for later runs.
    TempTree(std::string root, bool keep) : root_(std::move(root)), keep_(keep)
    {
        std::filesystem::create_directories(root_);
    }
    ~TempTree()
    {
        if (keep_)
            return;
        std::error_code ignored;
        // Unreadable directories made by a test must be opened again to go.
        for (auto it = std::filesystem::recursive_directory_iterator(
                 root_, std::filesystem::directory_options::skip_permission_denied, ignored);
             it != std::filesystem::recursive_directory_iterator(); it.increment(ignored)) {
            if (!it->is_symlink(ignored))
                ::chmod(it->path().c_str(), 0700);
        }
        std::filesystem::remove_all(root_, ignored);
    }
    TempTree(const TempTree &) = delete;
    TempTree &operator=(const TempTree &) = delete;

    const std::string &root() const { return root_; }

    // Writes `text` to root/path, making its directories.
    void file(const std::string &path, const std::string &text) const
    {
        const std::filesystem::path p = root_ + "/" + path;
        std::filesystem::create_directories(p.parent_path());
        std::ofstream(p, std::ios::binary) << text;
    }
    void dir(const std::string &path) const
    {
        std::filesystem::create_directories(root_ + "/" + path);
    }
    // root/path becomes a symbolic link holding `target` as written.
    void link(const std::string &path, const std::string &target) const
    {
        const std::filesystem::path p = root_ + "/" + path;
        std::filesystem::create_directories(p.parent_path());
        std::error_code ignored;
        std::filesystem::remove(p, ignored);
        std::filesystem::create_symlink(target, p);
    }
    void remove(const std::string &path) const { std::filesystem::remove_all(root_ + "/" + path); }

  private:
    std::string root_;
    bool keep_ = false;
};

} // namespace kelp::live::testing

#endif // KELP_RUNTIME_DATASTORE_LIVE_TREE_TESTING_H
