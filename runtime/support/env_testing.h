// Test helper: keeps one environment variable as it was before a test and
// puts it back afterwards, set or unset.
#ifndef KELP_RUNTIME_SUPPORT_ENV_TESTING_H
#define KELP_RUNTIME_SUPPORT_ENV_TESTING_H

#include <cstdlib>
#include <optional>
#include <string>

class ScopedEnv {
  public:
    explicit ScopedEnv(const char *name) : name_(name)
    {
        if (const char *value = std::getenv(name))
            old_ = value;
    }
    ~ScopedEnv()
    {
        if (old_)
            setenv(name_.c_str(), old_->c_str(), 1);
        else
            unsetenv(name_.c_str());
    }
    ScopedEnv(const ScopedEnv &) = delete;
    ScopedEnv &operator=(const ScopedEnv &) = delete;

  private:
    std::string name_;
    std::optional<std::string> old_;
};

#endif // KELP_RUNTIME_SUPPORT_ENV_TESTING_H
