// The debug printer: where lines go, exact bytes, on/off, exit and re-init,
// whole lines from several threads, and one warning for a file that cannot
// be written.
#include <gtest/gtest.h>
#include <sys/resource.h>

#include <csignal>
#include <cstdlib>
#include <cstring>
#include <filesystem>
#include <fstream>
#include <sstream>
#include <string>
#include <thread>
#include <utility>
#include <vector>

#include "kelp/runtime.h"
#include "vcsupt.h"
#include "vscil.h"

namespace {

namespace fs = std::filesystem;

// The runtime's warnings while a test has its log set.
std::vector<std::string> g_warnings;

void collectWarning(int /*level*/, const char *line)
{
    g_warnings.emplace_back(line);
}

class DebugPrinterTest : public ::testing::Test {
  protected:
    void SetUp() override
    {
        std::string pattern = ::testing::TempDir() + "kelp_dbg_XXXXXX";
        ASSERT_NE(mkdtemp(pattern.data()), nullptr);
        dir_ = pattern;
        file_ = dir_ + "/debug.log";
        kelpRuntimeSetDebugFile(file_.c_str());
    }
    void TearDown() override
    {
        VscilDebugExit();
        kelpRuntimeSetDebugFile(nullptr);
        fs::remove_all(dir_);
    }
    static std::string read(const std::string &path)
    {
        std::ifstream in(path, std::ios::binary);
        std::stringstream ss;
        ss << in.rdbuf();
        return ss.str();
    }
    std::string dir_, file_;
};

TEST_F(DebugPrinterTest, PrintingOnWritesTheExactBytesToTheDebugFile)
{
    VscilDebugInit("/ignored/because/the/debug/file/wins");
    VscilDebugToggle();
    VscilDebugPrint("KelpmibAttach: entry\n");
    VscilDebugPrint("%s: %d %u %s", "getValue", -3, 7u, "no newline");
    std::string longText(5000, 'L');
    VscilDebugPrint("[%s]\n", longText.c_str());
    EXPECT_EQ(read(file_), "KelpmibAttach: entry\ngetValue: -3 7 no newline[" + longText + "]\n");
}

// Arguments in every place a call passes them: the integer registers, the
// vector registers (doubles) and, past six and eight of them, the stack.
TEST_F(DebugPrinterTest, EveryArgumentOfALongCallIsPrinted)
{
    VscilDebugInit(nullptr);
    VscilDebugToggle();
    VscilDebugPrint("%d %ld %u %s %c %d %lld %s|%.2f %.1f %g %.3f %.1f %.1f %.1f %.1f %.2f %d\n", 1,
                    -2L, 3u, "four", '5', 6, 7LL, "eight", 9.25, -10.5, 11.0, 12.125, 13.5, 14.5,
                    15.5, 16.5, 17.75, 18);
    EXPECT_EQ(read(file_), "1 -2 3 four 5 6 7 eight|9.25 -10.5 11 12.125 13.5 14.5 15.5 16.5 "
                           "17.75 18\n");
}

TEST_F(DebugPrinterTest, PrintingOffWritesNothing)
{
    VscilDebugInit(nullptr);
    VscilDebugPrint("not printed\n");
    VscilDebugExit();
    EXPECT_FALSE(fs::exists(file_));
}

TEST_F(DebugPrinterTest, ToggleTwiceIsOff)
{
    VscilDebugInit(nullptr);
    VscilDebugToggle();
    VscilDebugPrint("one\n");
    VscilDebugToggle();
    VscilDebugPrint("two\n");
    EXPECT_EQ(read(file_), "one\n");
}

TEST_F(DebugPrinterTest, TheFileIsAppendedTo)
{
    std::ofstream(file_) << "earlier\n";
    VscilDebugInit(nullptr);
    VscilDebugToggle();
    VscilDebugPrint("later\n");
    EXPECT_EQ(read(file_), "earlier\nlater\n");
}

TEST_F(DebugPrinterTest, ExitSwitchesOffAndInitAgainWorks)
{
    VscilDebugInit(nullptr);
    VscilDebugToggle();
    VscilDebugPrint("first\n");
    VscilDebugExit();
    VscilDebugPrint("after exit\n");
    VscilDebugInit(nullptr);
    VscilDebugPrint("off after init\n");
    VscilDebugToggle();
    VscilDebugPrint("second\n");
    EXPECT_EQ(read(file_), "first\nsecond\n");
}

TEST_F(DebugPrinterTest, FileIsNamedAfterTheExportContextsModuleUnderThePath)
{
    kelpRuntimeSetDebugFile(""); // no debug file, whatever KELP_DEBUG_FILE says
    SMExportContext ctx{}, saved;
    ctx.size = sizeof ctx;
    std::strcpy(ctx.moduleName, "kelpimp64");
    SMSetExportContext(&saved, &ctx);
    VscilDebugInit((dir_ + "/").c_str());
    SMResetExportContext(&saved);
    VscilDebugToggle();
    VscilDebugPrint("MIBImplementerLoad: entry\n");
    EXPECT_EQ(read(dir_ + "/kelpimp64.log"), "MIBImplementerLoad: entry\n");
}

TEST_F(DebugPrinterTest, WithoutAContextTheFileIsKelpLog)
{
    kelpRuntimeSetDebugFile("");
    VscilDebugInit(dir_.c_str());
    VscilDebugToggle();
    VscilDebugPrint("line\n");
    EXPECT_EQ(read(dir_ + "/kelp.log"), "line\n");
}

TEST_F(DebugPrinterTest, WithoutFileOrPathLinesGoToStderr)
{
    kelpRuntimeSetDebugFile("");
    VscilDebugInit("");
    VscilDebugToggle();
    testing::internal::CaptureStderr();
    VscilDebugPrint("to stderr %d\n", 1);
    EXPECT_EQ(testing::internal::GetCapturedStderr(), "to stderr 1\n");
}

TEST_F(DebugPrinterTest, LinesFromManyThreadsStayWhole)
{
    VscilDebugInit(nullptr);
    VscilDebugToggle();
    constexpr int kThreads = 4, kLines = 500;
    std::vector<std::thread> threads;
    for (int t = 0; t < kThreads; ++t) {
        threads.emplace_back([t] {
            std::string body(200, static_cast<char>('a' + t));
            for (int i = 0; i < kLines; ++i)
                VscilDebugPrint("%d:%s\n", t, body.c_str());
        });
    }
    for (auto &th : threads)
        th.join();
    std::istringstream in(read(file_));
    std::string line;
    int count = 0;
    while (std::getline(in, line)) {
        ++count;
        ASSERT_EQ(line.size(), 202u);
        char c = static_cast<char>('a' + (line[0] - '0'));
        EXPECT_EQ(line.substr(2), std::string(200, c));
    }
    EXPECT_EQ(count, kThreads * kLines);
}

TEST_F(DebugPrinterTest, TheHostSwitchesPrintingToAStateNotByToggling)
{
    VscilDebugInit(nullptr);
    EXPECT_EQ(kelpRuntimeDebugPrinting(), 0);
    kelpRuntimeSetDebugPrinting(1);
    kelpRuntimeSetDebugPrinting(1);
    EXPECT_EQ(kelpRuntimeDebugPrinting(), 1);
    VscilDebugPrint("on\n");
    kelpRuntimeSetDebugPrinting(0);
    kelpRuntimeSetDebugPrinting(0);
    EXPECT_EQ(kelpRuntimeDebugPrinting(), 0);
    VscilDebugPrint("off\n");
    EXPECT_EQ(read(file_), "on\n");
}

TEST_F(DebugPrinterTest, AReopenAfterARenameWritesANewFileAtTheOldPath)
{
    VscilDebugInit(nullptr);
    VscilDebugToggle();
    VscilDebugPrint("before\n");
    const std::string rotated = file_ + ".1";
    fs::rename(file_, rotated);
    VscilDebugPrint("still into the renamed file\n");
    char error[256] = "untouched";
    EXPECT_EQ(kelpRuntimeReopenDebugFile(error, sizeof error), 0);
    EXPECT_STREQ(error, "");
    VscilDebugPrint("after\n");
    EXPECT_EQ(read(rotated), "before\nstill into the renamed file\n");
    EXPECT_EQ(read(file_), "after\n");
}

TEST_F(DebugPrinterTest, AReopenThatCannotOpenKeepsTheOldFile)
{
    const std::string sub = dir_ + "/sub";
    fs::create_directory(sub);
    kelpRuntimeSetDebugFile((sub + "/debug.log").c_str());
    VscilDebugInit(nullptr);
    VscilDebugToggle();
    VscilDebugPrint("one\n");
    fs::rename(sub, dir_ + "/moved");
    char error[256] = "";
    EXPECT_NE(kelpRuntimeReopenDebugFile(error, sizeof error), 0);
    EXPECT_NE(std::string(error).find(sub + "/debug.log"), std::string::npos) << error;
    VscilDebugPrint("two\n");
    EXPECT_EQ(read(dir_ + "/moved/debug.log"), "one\ntwo\n");
    // Nothing to reopen while printing is off.
    VscilDebugToggle();
    EXPECT_EQ(kelpRuntimeReopenDebugFile(nullptr, 0), 0);
}

class DebugFileFailureTest : public DebugPrinterTest {
  protected:
    void SetUp() override
    {
        DebugPrinterTest::SetUp();
        g_warnings.clear();
        kelpRuntimeSetLog(collectWarning);
    }
    void TearDown() override
    {
        kelpRuntimeSetLog(nullptr);
        DebugPrinterTest::TearDown();
    }
};

TEST_F(DebugFileFailureTest, AFullDiskIsOneWarningNamingTheFileAndTheReason)
{
    kelpRuntimeSetDebugFile("/dev/full");
    VscilDebugInit(nullptr);
    VscilDebugToggle();
    for (int i = 0; i < 100; ++i)
        VscilDebugPrint("line %d\n", i);
    VscilDebugPrint("%s\n", std::string(5000, 'x').c_str());
    ASSERT_EQ(g_warnings.size(), 1u);
    EXPECT_NE(g_warnings[0].find("/dev/full"), std::string::npos) << g_warnings[0];
    EXPECT_NE(g_warnings[0].find("No space left on device"), std::string::npos) << g_warnings[0];

    // A file opened again is reported again, once.
    VscilDebugInit(nullptr);
    for (int i = 0; i < 10; ++i)
        VscilDebugPrint("line %d\n", i);
    EXPECT_EQ(g_warnings.size(), 2u);
}

// The file size limit stands in for a disk that fills up and is then freed:
// writes fail past it and succeed again once it is lifted.
TEST_F(DebugFileFailureTest, WritingGoesOnBeingTriedQuietlyAndResumes)
{
    VscilDebugInit(nullptr);
    VscilDebugToggle();
    VscilDebugPrint("before\n");
    rlimit saved{};
    ASSERT_EQ(getrlimit(RLIMIT_FSIZE, &saved), 0);
    auto oldHandler = std::signal(SIGXFSZ, SIG_IGN);
    rlimit small = saved;
    small.rlim_cur = 7; // "before\n" fits, nothing more
    ASSERT_EQ(setrlimit(RLIMIT_FSIZE, &small), 0);
    for (int i = 0; i < 50; ++i)
        VscilDebugPrint("lost %d\n", i);
    ASSERT_EQ(setrlimit(RLIMIT_FSIZE, &saved), 0);
    std::signal(SIGXFSZ, oldHandler);
    VscilDebugPrint("after\n");
    EXPECT_EQ(read(file_), "before\nafter\n");
    ASSERT_EQ(g_warnings.size(), 1u);
    EXPECT_NE(g_warnings[0].find(file_), std::string::npos) << g_warnings[0];
    EXPECT_NE(g_warnings[0].find("File too large"), std::string::npos) << g_warnings[0];
}

TEST_F(DebugFileFailureTest, LinesToAWritableFileWarnNothing)
{
    VscilDebugInit(nullptr);
    VscilDebugToggle();
    for (int i = 0; i < 10; ++i)
        VscilDebugPrint("line %d\n", i);
    EXPECT_TRUE(g_warnings.empty());
}

} // namespace
