// A file descriptor with one owner, closed when the owner goes.
#ifndef KELP_RUNTIME_SUPPORT_UNIQUE_FD_H
#define KELP_RUNTIME_SUPPORT_UNIQUE_FD_H

#include <unistd.h>

#include <utility>

namespace kelp::rt {

// Owns fd; -1 means none. Moving hands the descriptor over.
class UniqueFd {
  public:
    explicit UniqueFd(int fd = -1) : fd_(fd) {}
    ~UniqueFd() { reset(); }
    UniqueFd(UniqueFd &&other) noexcept : fd_(other.release()) {}
    UniqueFd &operator=(UniqueFd &&other) noexcept
    {
        if (this != &other) {
            reset();
            fd_ = other.release();
        }
        return *this;
    }
    UniqueFd(const UniqueFd &) = delete;
    UniqueFd &operator=(const UniqueFd &) = delete;

    int get() const { return fd_; }
    int release() { return std::exchange(fd_, -1); }
    void reset()
    {
        if (fd_ >= 0)
            close(std::exchange(fd_, -1));
    }
    explicit operator bool() const { return fd_ >= 0; }

  private:
    int fd_;
};

} // namespace kelp::rt

#endif // KELP_RUNTIME_SUPPORT_UNIQUE_FD_H
