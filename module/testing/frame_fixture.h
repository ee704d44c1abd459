// A fixture for tests of the frame: a private ini file and debug file in a
// fresh directory, the module's globals back at their load-time values, and
// the dispatch called as a host calls it.
#ifndef KELP_MODULE_TESTING_FRAME_FIXTURE_H
#define KELP_MODULE_TESTING_FRAME_FIXTURE_H

#include <filesystem>
#include <fstream>
#include <sstream>
#include <string>

#include <gtest/gtest.h>

#include "frame/frame.h"
#include "kelp/runtime.h"
#include "platform/queue.h"
#include "platform/smsnmp.h"
#include "platform/vscil.h"
#include "testing/fake_platform.h"

extern "C" uint32_t KELPIMP64_SMMIBImplementerDispatch(uint32_t command, void *inBuf,
                                                       uint32_t inSize, void *outBuf,
                                                       uint32_t outSize, uint32_t *outUsed);

class FrameTest : public ::testing::Test {
  protected:
    void SetUp() override
    {
        char pattern[] = "/tmp/kelp-frame-XXXXXX";
        dir_ = mkdtemp(pattern);
        kelpRuntimeSetIniPath(iniPath().c_str());
        kelpRuntimeSetDebugFile(debugPath().c_str());
        kelpRuntimeSetTimeScale(100);
        fake::reset();
        resetGlobals();
    }

    void TearDown() override
    {
        if (dataMutex != nullptr) {
            dispatch(SM_CMD_UNLOAD);
        }
        kelpRuntimeSetIniPath(nullptr);
        kelpRuntimeSetDebugFile(nullptr);
        kelpRuntimeSetTimeScale(0);
        std::filesystem::remove_all(dir_);
        resetGlobals();
    }

    static void resetGlobals()
    {
        g_bAggregateEvents = 0;
        g_SNMPRefreshMinutes = 0;
        g_bSNMPTableInitialised = 0;
        stopRequested = 0;
    }

    std::string iniPath() const { return dir_ + "/kelp.ini"; }
    std::string debugPath() const { return dir_ + "/debug.log"; }
    const std::string &dir() const { return dir_; }

    void writeIni(const std::string &text) const
    {
        std::ofstream(iniPath(), std::ios::binary) << text;
    }

    static std::string readFile(const std::string &path)
    {
        std::ifstream in(path, std::ios::binary);
        std::ostringstream out;
        out << in.rdbuf();
        return out.str();
    }

    std::string debugText() const { return readFile(debugPath()); }

    // Command 4 with a service table and handle (debug printing on unless the
    // ini file was written before).
    uint32_t load(void *const *services = nullptr, uint64_t handle = 0)
    {
        if (!std::filesystem::exists(iniPath())) {
            writeIni("[general]\nDebugSNMP=On\n");
        }
        SMLoadArgs args{services, handle};
        uint32_t used = 99;
        const uint32_t status =
            KELPIMP64_SMMIBImplementerDispatch(SM_CMD_LOAD, &args, sizeof args, nullptr, 0, &used);
        EXPECT_EQ(used, 0u);
        return status;
    }

    static uint32_t dispatch(uint32_t command, void *in = nullptr, uint32_t inSize = 0,
                             void *out = nullptr, uint32_t outSize = 0, uint32_t *used = nullptr)
    {
        uint32_t scratch = 0;
        return KELPIMP64_SMMIBImplementerDispatch(command, in, inSize, out, outSize,
                                                  used != nullptr ? used : &scratch);
    }

  private:
    std::string dir_;
};

#endif // KELP_MODULE_TESTING_FRAME_FIXTURE_H
