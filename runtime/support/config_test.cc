// Configuration: host settings win over the environment; the environment is
// read while nothing is set; an unusable time scale is 1 with a warning.
#include "support/config.h"

#include <gtest/gtest.h>

#include <cstdlib>
#include <limits>
#include <optional>
#include <string>

#include "kelp/runtime.h"

namespace {

// Sets an environment variable for the scope of a test and restores it.
class ScopedEnv {
  public:
    ScopedEnv(const char *name, const char *value) : name_(name)
    {
        if (const char *old = std::getenv(name))
            old_ = old;
        if (value != nullptr) {
            setenv(name, value, 1);
        } else {
            unsetenv(name);
        }
    }
    ~ScopedEnv()
    {
        if (old_) {
            setenv(name_, old_->c_str(), 1);
        } else {
            unsetenv(name_);
        }
    }

  private:
    const char *name_;
    std::optional<std::string> old_;
};

TEST(ConfigTest, TimeScaleDefaultsTo1)
{
    ScopedEnv env("KELP_TIME_SCALE", nullptr);
    kelpRuntimeSetTimeScale(0);
    EXPECT_EQ(kelpRuntimeTimeScale(), 1.0);
}

TEST(ConfigTest, TimeScaleIsReadFromTheEnvironment)
{
    ScopedEnv env("KELP_TIME_SCALE", "12.5");
    kelpRuntimeSetTimeScale(0);
    EXPECT_EQ(kelpRuntimeTimeScale(), 12.5);
}

TEST(ConfigTest, ASetTimeScaleWinsOverTheEnvironment)
{
    ScopedEnv env("KELP_TIME_SCALE", "10");
    kelpRuntimeSetTimeScale(4);
    EXPECT_EQ(kelpRuntimeTimeScale(), 4.0);
    kelpRuntimeSetTimeScale(-1); // forgets the set value
    EXPECT_EQ(kelpRuntimeTimeScale(), 10.0);
}

TEST(ConfigTest, UnusableTimeScaleIs1WithAWarning)
{
    kelpRuntimeSetTimeScale(0);
    for (const char *bad : {"abc", "0", "-3", "5x", "nan", "inf"}) {
        ScopedEnv env("KELP_TIME_SCALE", bad);
        testing::internal::CaptureStderr();
        EXPECT_EQ(kelpRuntimeTimeScale(), 1.0) << bad;
        EXPECT_EQ(kelpRuntimeTimeScale(), 1.0) << bad;
        std::string err = testing::internal::GetCapturedStderr();
        EXPECT_NE(err.find("KELP_TIME_SCALE"), std::string::npos) << bad;
        // Reported once, not at every wait.
        EXPECT_EQ(err.find("KELP_TIME_SCALE"), err.rfind("KELP_TIME_SCALE")) << bad;
    }
}

TEST(ConfigTest, ScaledMsDividesByTheTimeScale)
{
    kelpRuntimeSetTimeScale(4);
    EXPECT_EQ(kelp::rt::scaledMs(1000), std::chrono::milliseconds(250));
    kelpRuntimeSetTimeScale(0.5);
    EXPECT_EQ(kelp::rt::scaledMs(1000), std::chrono::milliseconds(2000));
    kelpRuntimeSetTimeScale(0);
}

TEST(ConfigTest, RescanTimeOutDefaultsTo30Seconds)
{
    ScopedEnv env("KELP_RESCAN_TIMEOUT", nullptr);
    kelpRuntimeSetRescanTimeout(0);
    EXPECT_EQ(kelp::rt::rescanTimeoutSeconds(), 30.0);
}

TEST(ConfigTest, RescanTimeOutIsReadFromTheEnvironmentAndTheHostsWins)
{
    ScopedEnv env("KELP_RESCAN_TIMEOUT", "12.5");
    kelpRuntimeSetRescanTimeout(0);
    EXPECT_EQ(kelp::rt::rescanTimeoutSeconds(), 12.5);
    kelpRuntimeSetRescanTimeout(4);
    EXPECT_EQ(kelp::rt::rescanTimeoutSeconds(), 4.0);
    for (double forget : {0.0, -1.0, std::numeric_limits<double>::infinity(),
                          std::numeric_limits<double>::quiet_NaN()}) {
        kelpRuntimeSetRescanTimeout(4);
        kelpRuntimeSetRescanTimeout(forget);
        EXPECT_EQ(kelp::rt::rescanTimeoutSeconds(), 12.5) << forget;
    }
}

TEST(ConfigTest, UnusableRescanTimeOutIs30WithOneWarning)
{
    kelpRuntimeSetRescanTimeout(0);
    for (const char *bad : {"abc", "0", "-3", "5s", "nan", "inf"}) {
        ScopedEnv env("KELP_RESCAN_TIMEOUT", bad);
        testing::internal::CaptureStderr();
        EXPECT_EQ(kelp::rt::rescanTimeoutSeconds(), 30.0) << bad;
        EXPECT_EQ(kelp::rt::rescanTimeoutSeconds(), 30.0) << bad;
        std::string err = testing::internal::GetCapturedStderr();
        EXPECT_NE(err.find("KELP_RESCAN_TIMEOUT=\"" + std::string(bad) + "\""), std::string::npos)
            << bad << ": " << err;
        EXPECT_EQ(err.find("KELP_RESCAN_TIMEOUT"), err.rfind("KELP_RESCAN_TIMEOUT")) << bad;
    }
}

TEST(ConfigTest, TheRescanTimeOutIsDividedByTheTimeScale)
{
    ScopedEnv env("KELP_RESCAN_TIMEOUT", nullptr);
    kelpRuntimeSetRescanTimeout(0);
    kelpRuntimeSetTimeScale(4);
    EXPECT_EQ(kelp::rt::scaledRescanTimeout(), std::chrono::milliseconds(7500));
    kelpRuntimeSetRescanTimeout(2);
    kelpRuntimeSetTimeScale(1000);
    EXPECT_EQ(kelp::rt::scaledRescanTimeout(), std::chrono::milliseconds(2));
    kelpRuntimeSetRescanTimeout(1e300); // capped, not overflowed
    kelpRuntimeSetTimeScale(1);
    EXPECT_GT(kelp::rt::scaledRescanTimeout(), std::chrono::hours(24 * 365 * 50));
    kelpRuntimeSetRescanTimeout(0);
    kelpRuntimeSetTimeScale(0);
}

TEST(ConfigTest, IniPathComesFromTheSetterElseKELP_INI)
{
    ScopedEnv env("KELP_INI", "/env/kelp.ini");
    kelpRuntimeSetIniPath(nullptr);
    EXPECT_EQ(kelp::rt::iniPath(), "/env/kelp.ini");
    kelpRuntimeSetIniPath("/set/kelp.ini");
    EXPECT_EQ(kelp::rt::iniPath(), "/set/kelp.ini");
    kelpRuntimeSetIniPath(""); // the in-memory store, whatever KELP_INI says
    EXPECT_EQ(kelp::rt::iniPath(), "");
    kelpRuntimeSetIniPath(nullptr);
    EXPECT_EQ(kelp::rt::iniPath(), "/env/kelp.ini");
}

TEST(ConfigTest, DebugFileComesFromTheSetterElseKELP_DEBUG_FILE)
{
    ScopedEnv env("KELP_DEBUG_FILE", "/env/debug.log");
    kelpRuntimeSetDebugFile(nullptr);
    EXPECT_EQ(kelp::rt::debugFile(), "/env/debug.log");
    kelpRuntimeSetDebugFile("/set/debug.log");
    EXPECT_EQ(kelp::rt::debugFile(), "/set/debug.log");
    kelpRuntimeSetDebugFile(nullptr);
    ScopedEnv unset("KELP_DEBUG_FILE", nullptr);
    EXPECT_EQ(kelp::rt::debugFile(), "");
}

} // namespace
