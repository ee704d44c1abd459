// The private ini store over a real file: missing files, malformed and binary
// content, case, quoting, preserved comments, concurrent writers in threads
// and in processes, and paths that name no regular file or one too large.
#include <gtest/gtest.h>
#include <sys/stat.h>
#include <sys/wait.h>
#include <unistd.h>

#include <atomic>
#include <cstdlib>
#include <cstring>
#include <filesystem>
#include <fstream>
#include <random>
#include <sstream>
#include <string>
#include <thread>

#include "kelp/runtime.h"
#include "queue.h"
#include "support/fifo_testing.h"

namespace {

namespace fs = std::filesystem;

class IniStoreTest : public ::testing::Test {
  protected:
    void SetUp() override
    {
        std::string pattern = ::testing::TempDir() + "kelp_ini_XXXXXX";
        ASSERT_NE(mkdtemp(pattern.data()), nullptr);
        dir_ = pattern;
        path_ = dir_ + "/kelp.ini";
        kelpRuntimeSetIniPath(path_.c_str());
    }
    void TearDown() override
    {
        kelpRuntimeSetIniOverride("general", "DebugSNMP", nullptr);
        kelpRuntimeSetIniPath(nullptr);
        fs::remove_all(dir_);
    }

    void writeFile(const std::string &text) { std::ofstream(path_, std::ios::binary) << text; }
    std::string readFile() const
    {
        std::ifstream in(path_, std::ios::binary);
        std::stringstream ss;
        ss << in.rdbuf();
        return ss.str();
    }
    // The value of section/key, or "<status N>" when the read fails.
    static std::string get(const char *section, const char *key)
    {
        char buf[256];
        uint32_t size = sizeof buf;
        uint32_t status = SSGetPrivateIniValue(section, key, buf, &size);
        if (status != 0)
            return "<status " + std::to_string(status) + ">";
        EXPECT_EQ(size, std::string(buf).size() + 1);
        return buf;
    }

    // kelpRuntimeCheckIni's status and message, as "<status>: <message>".
    static std::string check(unsigned size = 512)
    {
        std::string error(size, '#');
        int status = kelpRuntimeCheckIni(error.data(), size);
        return std::to_string(status != 0) + ": " + error.c_str();
    }

    std::string dir_, path_;
};

TEST_F(IniStoreTest, MissingFileIsAnEmptyStoreAndASetCreatesIt)
{
    EXPECT_EQ(get("general", "DebugSNMP"), "<status 2>");
    EXPECT_FALSE(fs::exists(path_));
    EXPECT_EQ(SSSetPrivateIniValue("general", "DebugSNMP", "Off"), 0u);
    EXPECT_EQ(readFile(), "[general]\nDebugSNMP=Off\n");
    EXPECT_EQ(get("general", "DebugSNMP"), "Off");
}

// The event keys of section "vcsipe", read into buffers of the sizes the
// plug-in uses (80 bytes for AggregateEvents, 64 for the others).
TEST_F(IniStoreTest, TheEventKeysOfVcsipeAreReadFromTheFile)
{
    writeFile("[general]\nDebugSNMP=Off\n\n[vcsipe]\nAggregateEvents=On\n"
              "EventAggregateInteval=15\nBlockedAlerts=2048,2049,753\n"
              "ExtendedSNMPMessages=On\n");
    auto read = [](const char *key, uint32_t capacity) {
        std::string buf(capacity, '#');
        uint32_t size = capacity;
        uint32_t status = SSGetPrivateIniValue("vcsipe", key, buf.data(), &size);
        if (status != 0)
            return "<status " + std::to_string(status) + ">";
        EXPECT_EQ(size, std::strlen(buf.c_str()) + 1) << key;
        return std::string(buf.c_str());
    };
    EXPECT_EQ(read("AggregateEvents", 80), "On");
    EXPECT_EQ(read("EventAggregateInteval", 64), "15");
    EXPECT_EQ(read("BlockedAlerts", 64), "2048,2049,753");
    EXPECT_EQ(read("ExtendedSNMPMessages", 16), "On");
    EXPECT_EQ(get("general", "AggregateEvents"), "<status 2>") << "another section's key";

    // Written through the store, they read back from the file.
    EXPECT_EQ(SSSetPrivateIniValue("vcsipe", "EventAggregateInteval", "1"), 0u);
    EXPECT_EQ(SSSetPrivateIniValue("vcsipe", "ExtendedSNMPMessages", "Off"), 0u);
    EXPECT_EQ(read("EventAggregateInteval", 64), "1");
    EXPECT_EQ(read("ExtendedSNMPMessages", 16), "Off");
    EXPECT_NE(readFile().find("ExtendedSNMPMessages=Off\n"), std::string::npos) << readFile();

    // A list longer than the plug-in's buffer answers 16 with the size needed.
    std::string longList;
    for (int i = 0; i < 20; ++i)
        longList += std::to_string(2000 + i) + ",";
    EXPECT_EQ(SSSetPrivateIniValue("vcsipe", "BlockedAlerts", longList.c_str()), 0u);
    EXPECT_EQ(read("BlockedAlerts", 64), "<status 16>");
    char small[64];
    uint32_t size = sizeof small;
    EXPECT_EQ(SSGetPrivateIniValue("vcsipe", "BlockedAlerts", small, &size), 16u);
    EXPECT_EQ(size, longList.size() + 1);
}

TEST_F(IniStoreTest, MalformedLineIsSkippedWithAWarningAndTheOthersLoad)
{
    writeFile("[general]\nA=1\njunk line\n=x\nB=2\n");
    testing::internal::CaptureStderr();
    EXPECT_EQ(get("general", "A"), "1");
    EXPECT_EQ(get("general", "B"), "2"); // the same content again: no second warning
    std::string err = testing::internal::GetCapturedStderr();
    EXPECT_EQ(err, "kelp: " + path_ + ":3: no '=' in line, line skipped\n" + "kelp: " + path_ +
                       ":4: empty key, line skipped\n");
}

TEST_F(IniStoreTest, BinaryJunkNeverCrashesAndTheReadableLinesLoad)
{
    std::mt19937 rng(42);
    std::string junk;
    for (int i = 0; i < 100000; ++i)
        junk += static_cast<char>(rng() & 0xFF);
    writeFile(junk + "\n[vcsipe]\nAggregateEvents=On\n" + junk);
    testing::internal::CaptureStderr();
    EXPECT_EQ(get("vcsipe", "AggregateEvents"), "On");
    testing::internal::GetCapturedStderr();
}

TEST_F(IniStoreTest, LineOverTheLineLimitIsSkippedAndTheOthersLoad)
{
    writeFile("[general]\nhuge=" + std::string(512 << 10, 'x') + "\nDebugPath=/var/log\n");
    testing::internal::CaptureStderr();
    EXPECT_EQ(get("general", "huge"), "<status 2>");
    EXPECT_EQ(get("general", "DebugPath"), "/var/log");
    std::string err = testing::internal::GetCapturedStderr();
    EXPECT_NE(err.find(":2: line longer than 65536 bytes, line skipped"), std::string::npos) << err;
}

TEST_F(IniStoreTest, FileWithoutSectionsLoadsNothingAndTakesANewSection)
{
    writeFile("a=1\nb=2\n");
    testing::internal::CaptureStderr();
    EXPECT_EQ(get("general", "a"), "<status 2>");
    testing::internal::GetCapturedStderr();
    EXPECT_EQ(SSSetPrivateIniValue("general", "a", "3"), 0u);
    EXPECT_EQ(readFile(), "a=1\nb=2\n\n[general]\na=3\n");
    testing::internal::CaptureStderr(); // the new content warns again
    EXPECT_EQ(get("general", "a"), "3");
    testing::internal::GetCapturedStderr();
}

TEST_F(IniStoreTest, SectionAndKeyNamesIgnoreAsciiCase)
{
    writeFile("[General]\nDebugSnmp=On\n");
    EXPECT_EQ(get("general", "DEBUGSNMP"), "On");
    EXPECT_EQ(SSSetPrivateIniValue("GENERAL", "debugsnmp", "Off"), 0u);
    EXPECT_EQ(readFile(), "[General]\nDebugSnmp=Off\n");
}

TEST_F(IniStoreTest, QuotedValuesKeepTheirBlanks)
{
    writeFile("[vcsipe]\nAggregateEvents=\"On \"\nPlain =  On  \n");
    EXPECT_EQ(get("vcsipe", "AggregateEvents"), "On ");
    EXPECT_EQ(get("vcsipe", "Plain"), "On");
    EXPECT_EQ(SSSetPrivateIniValue("vcsipe", "Padded", "  two  "), 0u);
    EXPECT_EQ(get("vcsipe", "Padded"), "  two  ");
}

TEST_F(IniStoreTest, CommentsAndOrderSurviveAWrite)
{
    writeFile("; kelp settings\n\n[general]\n# where the log goes\nDebugPath=/tmp\n"
              "DebugSNMP=On\n\n[vcsipe]\n; aggregation\nAggregateEvents=Off\n");
    EXPECT_EQ(SSSetPrivateIniValue("general", "DebugSNMP", "Off"), 0u);
    EXPECT_EQ(SSSetPrivateIniValue("vcsipe", "EventAggregateInteval", "5"), 0u);
    EXPECT_EQ(SSSetPrivateIniValue("extra", "k", "v"), 0u);
    EXPECT_EQ(readFile(), "; kelp settings\n\n[general]\n# where the log goes\nDebugPath=/tmp\n"
                          "DebugSNMP=Off\n\n[vcsipe]\n; aggregation\nAggregateEvents=Off\n"
                          "EventAggregateInteval=5\n\n[extra]\nk=v\n");
}

TEST_F(IniStoreTest, WriteLeavesNoTemporaryFileBehind)
{
    ASSERT_EQ(SSSetPrivateIniValue("general", "k", "v"), 0u);
    ASSERT_EQ(SSSetPrivateIniValue("general", "k", "w"), 0u);
    for (const auto &entry : fs::directory_iterator(dir_)) {
        std::string name = entry.path().filename();
        EXPECT_TRUE(name == "kelp.ini" || name == "kelp.ini.lock") << name;
    }
}

TEST_F(IniStoreTest, WriteKeepsTheFileMode)
{
    writeFile("[general]\n");
    fs::permissions(path_, fs::perms::owner_read | fs::perms::owner_write);
    ASSERT_EQ(SSSetPrivateIniValue("general", "k", "v"), 0u);
    EXPECT_EQ(fs::status(path_).permissions() & fs::perms::all,
              fs::perms::owner_read | fs::perms::owner_write);
}

TEST_F(IniStoreTest, ShortBufferAnswers16WithTheSizeNeeded)
{
    writeFile("[general]\nDebugPath=/var/log/kelp\n");
    char buf[14];
    uint32_t size = 13;
    EXPECT_EQ(SSGetPrivateIniValue("general", "DebugPath", buf, &size), 16u);
    EXPECT_EQ(size, 14u);
    size = 14;
    EXPECT_EQ(SSGetPrivateIniValue("general", "DebugPath", buf, &size), 0u);
    EXPECT_STREQ(buf, "/var/log/kelp");
    EXPECT_EQ(size, 14u);
}

TEST_F(IniStoreTest, BadArgumentsAnswer5)
{
    char buf[8];
    uint32_t size = sizeof buf;
    EXPECT_EQ(SSGetPrivateIniValue(nullptr, "k", buf, &size), 5u);
    EXPECT_EQ(SSGetPrivateIniValue("s", nullptr, buf, &size), 5u);
    EXPECT_EQ(SSGetPrivateIniValue("s", "k", nullptr, &size), 5u);
    EXPECT_EQ(SSGetPrivateIniValue("s", "k", buf, nullptr), 5u);
    EXPECT_EQ(SSSetPrivateIniValue(nullptr, "k", "v"), 5u);
    EXPECT_EQ(SSSetPrivateIniValue("s", "k", nullptr), 5u);
    EXPECT_EQ(SSSetPrivateIniValue("s", "k", "two\nlines"), 5u);
    EXPECT_EQ(SSSetPrivateIniValue("s", "a=b", "v"), 5u);
    EXPECT_FALSE(fs::exists(path_));
}

TEST_F(IniStoreTest, UnsetPathIsAnInMemoryStoreForTheProcess)
{
    kelpRuntimeSetIniPath("");
    EXPECT_EQ(SSSetPrivateIniValue("memtest", "k", "v1"), 0u);
    EXPECT_EQ(get("memtest", "k"), "v1");
    EXPECT_EQ(SSSetPrivateIniValue("MemTest", "K", "v2"), 0u);
    EXPECT_EQ(get("memtest", "k"), "v2");
    EXPECT_FALSE(fs::exists(path_));
}

TEST_F(IniStoreTest, TwoWriterThreadsLoseNoKey)
{
    constexpr int kPerWriter = 100;
    auto writer = [](const char *prefix) {
        for (int i = 0; i < kPerWriter; ++i) {
            std::string key = prefix + std::to_string(i);
            EXPECT_EQ(SSSetPrivateIniValue("load", key.c_str(), key.c_str()), 0u);
        }
    };
    std::thread a(writer, "a"), b(writer, "b");
    a.join();
    b.join();
    for (const char *prefix : {"a", "b"}) {
        for (int i = 0; i < kPerWriter; ++i) {
            std::string key = prefix + std::to_string(i);
            EXPECT_EQ(get("load", key.c_str()), key);
        }
    }
}

TEST_F(IniStoreTest, TwoWriterProcessesLoseNoKey)
{
    constexpr int kPerWriter = 100;
    pid_t children[2];
    const char *prefixes[2] = {"p", "q"};
    for (int c = 0; c < 2; ++c) {
        children[c] = fork();
        ASSERT_GE(children[c], 0);
        if (children[c] == 0) {
            int failures = 0;
            for (int i = 0; i < kPerWriter; ++i) {
                std::string key = prefixes[c] + std::to_string(i);
                failures += SSSetPrivateIniValue("load", key.c_str(), key.c_str()) != 0;
            }
            _exit(failures == 0 ? 0 : 1);
        }
    }
    for (pid_t child : children) {
        int status = 0;
        ASSERT_EQ(waitpid(child, &status, 0), child);
        EXPECT_TRUE(WIFEXITED(status) && WEXITSTATUS(status) == 0);
    }
    for (const char *prefix : prefixes) {
        for (int i = 0; i < kPerWriter; ++i) {
            std::string key = prefix + std::to_string(i);
            EXPECT_EQ(get("load", key.c_str()), key);
        }
    }
}

TEST_F(IniStoreTest, CheckNamesTheFileAndWhatIsWrongWithIt)
{
    const std::string fifo = dir_ + "/fifo.ini", big = dir_ + "/big.ini";
    ASSERT_EQ(mkfifo(fifo.c_str(), 0600), 0);
    std::ofstream(big, std::ios::binary) << "[general]\n" << std::string(1 << 20, ';');
    struct Case {
        std::string path;
        std::string answer;
    } const cases[] = {
        {fifo, "1: " + fifo + ": not a regular file"},
        {"/dev/zero", "1: /dev/zero: not a regular file"},
        {dir_, "1: " + dir_ + ": not a regular file"},
        {big, "1: " + big + ": over the limit of 1 MiB"},
        {dir_ + "/missing.ini", "0: "},
        {"", "0: "}, // the in-memory store
    };
    for (const Case &c : cases) {
        kelpRuntimeSetIniPath(c.path.c_str());
        EXPECT_EQ(check(), c.answer) << c.path;
    }
    kelpRuntimeSetIniPath(fifo.c_str());
    EXPECT_EQ(check(8), "1: " + fifo.substr(0, 7)) << "cut to the buffer with its NUL";
    EXPECT_NE(kelpRuntimeCheckIni(nullptr, 0), 0);
}

TEST_F(IniStoreTest, CheckOfAFileJustAtTheLimitOrWithMalformedLinesIsFine)
{
    writeFile("[general]\nDebugSNMP=On\n" + std::string((1 << 20) - 23, ';'));
    ASSERT_EQ(fs::file_size(path_), 1u << 20);
    EXPECT_EQ(check(), "0: ");
    EXPECT_EQ(get("general", "DebugSNMP"), "On");

    writeFile("[general]\njunk line\n");
    testing::internal::CaptureStderr();
    EXPECT_EQ(check(), "0: ");
    EXPECT_EQ(testing::internal::GetCapturedStderr(),
              "kelp: " + path_ + ":2: no '=' in line, line skipped\n");
}

TEST_F(IniStoreTest, CheckOfAnUnreadableFileGivesTheSystemsReason)
{
    if (geteuid() == 0)
        GTEST_SKIP() << "root reads any file";
    writeFile("[general]\n");
    fs::permissions(path_, fs::perms::none);
    EXPECT_EQ(check(), "1: " + path_ + ": cannot open: Permission denied");
}

TEST_F(IniStoreTest, CheckReadsTheFileKelpIniNamesWhenNoPathIsSet)
{
    const char *old = std::getenv("KELP_INI");
    const std::string saved = old != nullptr ? old : "";
    kelpRuntimeSetIniPath(nullptr);
    setenv("KELP_INI", "/dev/zero", 1);
    EXPECT_EQ(check(), "1: /dev/zero: not a regular file");
    unsetenv("KELP_INI");
    EXPECT_EQ(check(), "0: ");
    if (old != nullptr)
        setenv("KELP_INI", saved.c_str(), 1);
}

TEST_F(IniStoreTest, FifoAnswersNotFoundAtOnceAndIsNeverReplaced)
{
    ASSERT_EQ(mkfifo(path_.c_str(), 0600), 0);
    testing::internal::CaptureStderr();
    std::string value;
    uint32_t setStatus = 0;
    EXPECT_TRUE(returnsPromptly(path_, [&] { value = get("general", "DebugSNMP"); }));
    EXPECT_TRUE(returnsPromptly(path_, [&] { get("general", "DebugPath"); }));
    EXPECT_TRUE(
        returnsPromptly(path_, [&] { setStatus = SSSetPrivateIniValue("general", "k", "v"); }));
    std::string err = testing::internal::GetCapturedStderr();
    EXPECT_EQ(value, "<status 2>");
    EXPECT_EQ(setStatus, 5u);
    EXPECT_TRUE(fs::is_fifo(path_));
    EXPECT_EQ(err, "kelp: " + path_ + ": not a regular file\n") << "reported once";
}

TEST_F(IniStoreTest, FileOverTheLimitIsNeitherReadNorReplaced)
{
    const std::string text = "[general]\nDebugSNMP=On\n" + std::string(1 << 20, ';');
    writeFile(text);
    testing::internal::CaptureStderr();
    EXPECT_EQ(get("general", "DebugSNMP"), "<status 2>");
    EXPECT_EQ(SSSetPrivateIniValue("general", "DebugSNMP", "Off"), 5u);
    std::string err = testing::internal::GetCapturedStderr();
    EXPECT_EQ(readFile(), text);
    EXPECT_EQ(err, "kelp: " + path_ + ": over the limit of 1 MiB\n");

    // Once the file is fit again, a new fault is reported again.
    writeFile("[general]\nDebugSNMP=On\n");
    EXPECT_EQ(get("general", "DebugSNMP"), "On");
    writeFile(text);
    testing::internal::CaptureStderr();
    EXPECT_EQ(get("general", "DebugSNMP"), "<status 2>");
    EXPECT_EQ(testing::internal::GetCapturedStderr(),
              "kelp: " + path_ + ": over the limit of 1 MiB\n");
}

TEST_F(IniStoreTest, AFaultTheCheckAnsweredIsNotWarnedAboutAgainByTheReads)
{
    writeFile("[general]\nDebugSNMP=On\n" + std::string(1 << 20, ';'));
    testing::internal::CaptureStderr();
    char error[256];
    EXPECT_NE(kelpRuntimeCheckIni(error, sizeof error), 0);
    EXPECT_EQ(std::string(error), path_ + ": over the limit of 1 MiB");
    // The host reports what the check answered; the reads that follow say
    // nothing of the same fault.
    EXPECT_EQ(get("general", "DebugSNMP"), "<status 2>");
    EXPECT_EQ(testing::internal::GetCapturedStderr(), "");
}

TEST_F(IniStoreTest, DeviceIsNeitherReadNorWritten)
{
    kelpRuntimeSetIniPath("/dev/zero");
    testing::internal::CaptureStderr();
    EXPECT_EQ(get("general", "DebugSNMP"), "<status 2>");
    EXPECT_EQ(SSSetPrivateIniValue("general", "DebugSNMP", "Off"), 5u);
    testing::internal::GetCapturedStderr();
    EXPECT_FALSE(fs::exists("/dev/zero.lock"));
}

TEST_F(IniStoreTest, OverrideAnswersInPlaceOfTheFileAndIsNeverWritten)
{
    const std::string text = "[general]\nDebugSNMP=Off\n";
    writeFile(text);
    ASSERT_EQ(kelpRuntimeSetIniOverride("general", "DebugSNMP", "On"), 0);
    EXPECT_EQ(get("general", "DebugSNMP"), "On");
    EXPECT_EQ(get("GENERAL", "debugsnmp"), "On") << "names ignore ASCII case, as in the file";
    EXPECT_EQ(readFile(), text);
    ASSERT_EQ(kelpRuntimeSetIniOverride("General", "DEBUGSNMP", nullptr), 0);
    EXPECT_EQ(get("general", "DebugSNMP"), "Off");
    EXPECT_EQ(readFile(), text);
}

TEST_F(IniStoreTest, OverrideAnswersWhenTheFileCannotAnswer)
{
    ASSERT_EQ(kelpRuntimeSetIniOverride("general", "DebugSNMP", "On"), 0);
    EXPECT_EQ(get("general", "DebugSNMP"), "On") << "missing file";
    EXPECT_FALSE(fs::exists(path_));
    writeFile("[vcsipe]\nAggregateEvents=On\n");
    EXPECT_EQ(get("general", "DebugSNMP"), "On") << "file without the key";
    fs::remove(path_);
    ASSERT_EQ(mkfifo(path_.c_str(), 0600), 0);
    testing::internal::CaptureStderr();
    EXPECT_TRUE(returnsPromptly(path_, [] { EXPECT_EQ(get("general", "DebugSNMP"), "On"); }));
    testing::internal::GetCapturedStderr();
    kelpRuntimeSetIniPath("");
    EXPECT_EQ(get("general", "DebugSNMP"), "On") << "in-memory store";
}

TEST_F(IniStoreTest, SetOfAnOverriddenKeyWritesTheFileAndTheOverrideStillAnswers)
{
    ASSERT_EQ(kelpRuntimeSetIniOverride("general", "DebugSNMP", "On"), 0);
    EXPECT_EQ(SSSetPrivateIniValue("general", "DebugSNMP", "Off"), 0u);
    EXPECT_EQ(readFile(), "[general]\nDebugSNMP=Off\n");
    EXPECT_EQ(get("general", "DebugSNMP"), "On");
    ASSERT_EQ(kelpRuntimeSetIniOverride("general", "DebugSNMP", "On "), 0) << "replaces";
    EXPECT_EQ(get("general", "DebugSNMP"), "On ");
}

TEST_F(IniStoreTest, OverrideAnswersAShortBufferLikeTheFile)
{
    ASSERT_EQ(kelpRuntimeSetIniOverride("general", "DebugSNMP", "On"), 0);
    char buf[2];
    uint32_t size = sizeof buf;
    EXPECT_EQ(SSGetPrivateIniValue("general", "DebugSNMP", buf, &size), 16u);
    EXPECT_EQ(size, 3u);
}

TEST_F(IniStoreTest, OverrideRefusesWhatTheStoreCouldNotHold)
{
    EXPECT_NE(kelpRuntimeSetIniOverride(nullptr, "DebugSNMP", "On"), 0);
    EXPECT_NE(kelpRuntimeSetIniOverride("general", nullptr, "On"), 0);
    EXPECT_NE(kelpRuntimeSetIniOverride(nullptr, nullptr, nullptr), 0);
    EXPECT_NE(kelpRuntimeSetIniOverride("general", "DebugSNMP", "two\nlines"), 0);
    EXPECT_NE(kelpRuntimeSetIniOverride("gen]eral", "DebugSNMP", "On"), 0);
    EXPECT_NE(kelpRuntimeSetIniOverride("general", "a=b", "On"), 0);
    EXPECT_NE(kelpRuntimeSetIniOverride("general", "", "On"), 0);
    EXPECT_EQ(get("general", "DebugSNMP"), "<status 2>");
    EXPECT_EQ(kelpRuntimeSetIniOverride("general", "DebugSNMP", nullptr), 0)
        << "removing what is not there is no error";
}

TEST_F(IniStoreTest, OverridesChangedWhileOthersReadAreSafe)
{
    writeFile("[general]\nDebugSNMP=Off\n");
    std::atomic<bool> stop{false};
    std::thread changer([&] {
        for (int i = 0; !stop.load(); ++i)
            kelpRuntimeSetIniOverride("general", "DebugSNMP", i % 2 == 0 ? "On" : nullptr);
    });
    for (int i = 0; i < 2000; ++i) {
        std::string value = get("general", "DebugSNMP");
        ASSERT_TRUE(value == "On" || value == "Off") << value;
    }
    stop.store(true);
    changer.join();
}

} // namespace
