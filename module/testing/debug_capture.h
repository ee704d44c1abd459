// Test helper: switches the debug printer on into a fresh file for the
// lifetime of the object, so tests can assert the exact lines printed.
#ifndef KELP_MODULE_TESTING_DEBUG_CAPTURE_H
#define KELP_MODULE_TESTING_DEBUG_CAPTURE_H

#include <cstdio>
#include <fstream>
#include <sstream>
#include <string>

#include <unistd.h>

#include "kelp/runtime.h"
#include "platform/vscil.h"

class DebugCapture {
  public:
    DebugCapture()
    {
        char pattern[] = "/tmp/kelp-debug-XXXXXX";
        int fd = mkstemp(pattern);
        if (fd >= 0) {
            close(fd);
        }
        path_ = pattern;
        kelpRuntimeSetDebugFile(path_.c_str());
        VscilDebugInit("");
        VscilDebugToggle();
    }
    ~DebugCapture()
    {
        VscilDebugExit();
        kelpRuntimeSetDebugFile(nullptr);
        std::remove(path_.c_str());
    }
    DebugCapture(const DebugCapture &) = delete;
    DebugCapture &operator=(const DebugCapture &) = delete;

    // Everything printed so far.
    std::string text() const
    {
        std::ifstream in(path_, std::ios::binary);
        std::ostringstream out;
        out << in.rdbuf();
        return out.str();
    }

  private:
    std::string path_;
};

#endif // KELP_MODULE_TESTING_DEBUG_CAPTURE_H
