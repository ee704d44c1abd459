// What the fuzz targets share: a private temporary directory, removed at
// exit, and a check that aborts (libFuzzer then keeps the input as a crash).
#ifndef KELP_FUZZ_FUZZ_COMMON_H
#define KELP_FUZZ_FUZZ_COMMON_H

#include <unistd.h>

#include <cstdio>
#include <cstdlib>
#include <filesystem>
#include <string>

namespace fuzzcommon {

[[noreturn]] inline void fail(const std::string &message)
{
    std::fprintf(stderr, "fuzz check failed: %s\n", message.c_str());
    std::abort();
}

// A fresh directory under $TMPDIR (or /tmp), removed when the process exits
// normally.
inline std::string tempDir()
{
    static std::string dir;
    if (dir.empty()) {
        const char *base = std::getenv("TMPDIR");
        std::string pattern = std::string(base != nullptr ? base : "/tmp") + "/kelp-fuzz-XXXXXX";
        if (mkdtemp(pattern.data()) == nullptr) {
            fail("mkdtemp " + pattern);
        }
        dir = pattern;
        std::atexit([] {
            std::error_code ignored;
            std::filesystem::remove_all(dir, ignored);
        });
    }
    return dir;
}

} // namespace fuzzcommon

#define FUZZ_CHECK(condition)                                                                      \
    do {                                                                                           \
        if (!(condition)) {                                                                        \
            ::fuzzcommon::fail(std::string(__FILE__ ":") + std::to_string(__LINE__) +              \
                               ": " #condition);                                                   \
        }                                                                                          \
    } while (0)

#endif // KELP_FUZZ_FUZZ_COMMON_H
