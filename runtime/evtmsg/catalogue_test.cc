// The alert catalogue: the shipped file, the line format and its errors,
// markers and inserts, and the two calls that answer from the catalogue.
#include "evtmsg/catalogue.h"

#include <gtest/gtest.h>

#include <unistd.h>

#include <atomic>
#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <fstream>
#include <optional>
#include <string>
#include <thread>
#include <utility>
#include <vector>

#include "evtmsg.h"
#include "kelp/runtime.h"
#include "support/env_testing.h"

namespace em = kelp::rt::evtmsg;

namespace {

std::string shippedPath()
{
    const char *source = std::getenv("KELP_SOURCE_DIR");
    return std::string(source != nullptr ? source : ".") + "/data/alerts.txt";
}

// A file in the test's temporary dir holding text; removed with the object.
class TempFile {
  public:
    TempFile(const std::string &name, const std::string &text)
        : path_(testing::TempDir() + "kelp-" + std::to_string(getpid()) + "-" + name)
    {
        std::ofstream(path_, std::ios::binary) << text;
    }
    ~TempFile() { std::remove(path_.c_str()); }
    const std::string &path() const { return path_; }

  private:
    std::string path_;
};

const char kDefaultLine[] = "default | 4 | T0 | Event %0. | Event %0 has no line.\n";

// Parses text as a file named "t.txt" would be; the error or "ok".
std::string parseResult(const std::string &text)
{
    em::Catalogue catalogue;
    std::string error;
    return em::parseCatalogue(text, "t.txt", &catalogue, &error) ? "ok" : error;
}

// Serves a catalogue made of lines (plus the default) for one test and the
// shipped one again afterwards.
class ServedCatalogue {
  public:
    explicit ServedCatalogue(const std::string &lines)
        : file_("served.txt", std::string(kDefaultLine) + lines)
    {
        std::string error;
        ok_ = em::serveCatalogueFile(file_.path(), &error);
        EXPECT_TRUE(ok_) << error;
    }
    ~ServedCatalogue()
    {
        std::string error;
        EXPECT_TRUE(em::serveCatalogueFile(shippedPath(), &error)) << error;
    }

  private:
    TempFile file_;
    bool ok_ = false;
};

// An area with guard bytes after it: what the call may write, and a check
// that nothing beyond it was touched.
template <size_t Size> struct Guarded {
    char bytes[Size + 16];
    Guarded() { std::memset(bytes, 'x', sizeof bytes); }
    char *area() { return bytes; }
    bool guardsIntact() const
    {
        for (size_t i = Size; i < sizeof bytes; ++i) {
            if (bytes[i] != 'x')
                return false;
        }
        return true;
    }
};

TEST(CatalogueFileTest, TheShippedCatalogueLoads)
{
    std::string error;
    auto catalogue = em::loadCatalogueFile(shippedPath(), &error);
    ASSERT_NE(catalogue, nullptr) << error;
    EXPECT_GE(catalogue->alerts.size(), 60u);
    for (const auto &[number, alert] : catalogue->alerts) {
        EXPECT_TRUE(alert.level == 1 || alert.level == 2 || alert.level == 4) << number;
        EXPECT_EQ(alert.messageId, "KLP" + std::to_string(number));
    }
}

// The events the event monitor and the trap sender single out, each with a
// line of its own.
TEST(CatalogueFileTest, EveryEventTheTrapPathSinglesOutHasALine)
{
    std::string error;
    auto catalogue = em::loadCatalogueFile(shippedPath(), &error);
    ASSERT_NE(catalogue, nullptr) << error;
    const uint32_t singled[] = {
        2048, 2049,                         // examples of the blocked list
        3060, 3061,                         // rescan done, rescan started
        2262, 2263, 2287, 2448, 2449, 2164, // also trap 101
        2135, 2167, 2168,                   // also trap 103
        2121, 2122, 2123, 2124,             // trap chosen without the level
        2054,                               // sent at once
        2393, 2053, 2061, 2088, 2127, 2095, // wait for the tables
    };
    for (uint32_t number : singled)
        EXPECT_EQ(catalogue->alerts.count(number), 1u) << number;
    // The levels the event monitor's examples expect.
    EXPECT_EQ(catalogue->alerts.at(2164).level, 2u);
    EXPECT_EQ(catalogue->alerts.at(3061).level, 4u);
}

TEST(CatalogueFileTest, TheCommonStorageEventsHaveLines)
{
    std::string error;
    auto catalogue = em::loadCatalogueFile(shippedPath(), &error);
    ASSERT_NE(catalogue, nullptr) << error;
    // Failures of disks, batteries, fans, temperature, power supplies and
    // enclosures are critical; a degraded virtual disk a warning; a rebuild
    // starting or completing is information.
    for (uint32_t number : {2048u, 2140u, 2150u, 2155u, 2160u, 2170u})
        EXPECT_EQ(catalogue->alerts.at(number).level, 1u) << number;
    EXPECT_EQ(catalogue->alerts.at(2056).level, 2u);
    EXPECT_EQ(catalogue->alerts.at(2070).level, 4u);
    EXPECT_EQ(catalogue->alerts.at(2071).level, 4u);
}

TEST(CatalogueFileTest, TheCandidatesFollowTheRuntimeDir)
{
    const std::vector<std::string> places = em::catalogueCandidates("/opt/kelp/lib");
    ASSERT_GE(places.size(), 3u);
    EXPECT_EQ(places[0], "/opt/kelp/lib/../share/kelp/alerts.txt");
    EXPECT_EQ(places[1], "/opt/kelp/lib/../../data/alerts.txt");
    EXPECT_EQ(places[2], "/opt/kelp/lib/../../share/kelp/alerts.txt");
    EXPECT_EQ(em::catalogueCandidates("").size(), places.size() - 3);
}

TEST(CatalogueFileTest, TheRuntimeServesTheShippedCatalogueAtStart)
{
    if (std::getenv("KELP_CATALOGUE") != nullptr)
        GTEST_SKIP() << "KELP_CATALOGUE chooses another file";
    auto catalogue = em::servedCatalogue();
    ASSERT_NE(catalogue, nullptr) << em::servedCatalogueError();
    EXPECT_EQ(catalogue->alerts.count(3061), 1u);
    const std::string origin = catalogue->origin;
    EXPECT_EQ(origin.substr(origin.size() - 16), "/data/alerts.txt");
}

TEST(CatalogueFileTest, NoCatalogueInAnyPlaceNamesThePlaces)
{
    const std::string dir = testing::TempDir() + "kelp-" + std::to_string(getpid());
    std::string error;
    EXPECT_EQ(em::findCatalogue({dir + "-a/alerts.txt", dir + "-b/alerts.txt"}, &error), nullptr);
    EXPECT_EQ(error, "no catalogue found in: " + dir + "-a/alerts.txt, " + dir + "-b/alerts.txt");
    EXPECT_EQ(em::findCatalogue({}, &error), nullptr);
    EXPECT_EQ(error, "no catalogue found in: ");

    // The first place that exists is the catalogue, good or bad.
    auto found = em::findCatalogue({dir + "-a/alerts.txt", shippedPath()}, &error);
    ASSERT_NE(found, nullptr) << error;
    EXPECT_EQ(found->origin, shippedPath());
    EXPECT_EQ(em::findCatalogue({"/", shippedPath()}, &error), nullptr);
    EXPECT_EQ(error, "/: not a regular file");
}

// Tests of the choice the library's load makes: each starts from a runtime
// that has not chosen yet, with KELP_CATALOGUE naming a file of the test, and
// leaves a runtime that chooses again as it would at load.
class CatalogueChoiceTest : public ::testing::Test {
  protected:
    void SetUp() override
    {
        env_.emplace("KELP_CATALOGUE");
        em::forgetServedCatalogue();
    }
    void TearDown() override
    {
        env_.reset();
        em::forgetServedCatalogue();
    }

    // Writes text into the catalogue file as an editor that saves by rename
    // does, so that a reader never sees half of it.
    static void save(const std::string &path, const std::string &text)
    {
        const std::string next = path + ".new";
        std::ofstream(next, std::ios::binary) << text;
        ASSERT_EQ(std::rename(next.c_str(), path.c_str()), 0) << path;
    }

    static std::string alert(uint32_t eventId, uint32_t *status = nullptr)
    {
        char level[EVTMSG_TEXT_SIZE], message[EVTMSG_MESSAGE_SIZE];
        const uint32_t answer = evtmsg_getAlertMsg(eventId, level, message, 0, nullptr);
        if (status != nullptr)
            *status = answer;
        return message;
    }

    static std::pair<int, std::string> status()
    {
        char error[1024];
        std::memset(error, 'x', sizeof error);
        const int answer = kelpRuntimeCatalogueStatus(error, sizeof error);
        return {answer, error};
    }

    static std::pair<int, std::string> reload()
    {
        char error[1024];
        std::memset(error, 'x', sizeof error);
        const int answer = kelpRuntimeReloadCatalogue(error, sizeof error);
        return {answer, error};
    }

  private:
    std::optional<ScopedEnv> env_;
};

const std::string kSeven = std::string(kDefaultLine) + "7 | 2 | T7 | Seven. | Seven.\n";
const std::string kBadLevel = std::string(kDefaultLine) + "8 | 3 | T8 | Eight. | Eight.\n";

TEST_F(CatalogueChoiceTest, KelpCatalogueAtLoadChoosesTheFileForGood)
{
    TempFile mine("mine.txt", kSeven);
    setenv("KELP_CATALOGUE", mine.path().c_str(), 1);
    ASSERT_NE(em::servedCatalogue(), nullptr) << em::servedCatalogueError();
    EXPECT_EQ(em::servedCatalogue()->origin, mine.path());
    uint32_t answer = 99;
    EXPECT_EQ(alert(7, &answer), "Seven.");
    EXPECT_EQ(answer, 0u);
    EXPECT_EQ(status(), std::make_pair(0, std::string()));

    // What KELP_CATALOGUE names after the load does not change the choice.
    TempFile bad("bad.txt", kBadLevel);
    setenv("KELP_CATALOGUE", bad.path().c_str(), 1);
    EXPECT_EQ(reload(), std::make_pair(0, std::string()));
    EXPECT_EQ(em::servedCatalogue()->origin, mine.path());
}

TEST_F(CatalogueChoiceTest, AReloadServesTheFileAsItIsNow)
{
    TempFile mine("mine.txt", kSeven);
    setenv("KELP_CATALOGUE", mine.path().c_str(), 1);
    EXPECT_EQ(alert(7), "Seven.");
    save(mine.path(), std::string(kDefaultLine) + "7 | 2 | T7 | Seven again. | Seven.\n");
    EXPECT_EQ(alert(7), "Seven.") << "nothing changes before the reload";
    EXPECT_EQ(reload(), std::make_pair(0, std::string()));
    EXPECT_EQ(alert(7), "Seven again.");
}

TEST_F(CatalogueChoiceTest, AFailedReloadKeepsTheCatalogueInForce)
{
    TempFile mine("mine.txt", kSeven);
    setenv("KELP_CATALOGUE", mine.path().c_str(), 1);
    ASSERT_EQ(alert(7), "Seven.");

    save(mine.path(), kBadLevel);
    EXPECT_EQ(reload(), std::make_pair(1, mine.path() + ":2: level '3' is not 1, 2 or 4"));
    EXPECT_EQ(alert(7), "Seven.");
    EXPECT_EQ(status(), std::make_pair(0, std::string())) << "the catalogue in force loaded";

    std::remove(mine.path().c_str());
    EXPECT_EQ(reload(),
              std::make_pair(1, mine.path() + ": cannot open: No such file or directory"));
    EXPECT_EQ(alert(7), "Seven.");
    EXPECT_EQ(status().first, 0);
}

TEST_F(CatalogueChoiceTest, ABrokenCatalogueAtLoadIsTheStatusUntilAReloadSucceeds)
{
    TempFile mine("mine.txt", kBadLevel);
    setenv("KELP_CATALOGUE", mine.path().c_str(), 1);
    EXPECT_EQ(status(), std::make_pair(1, mine.path() + ":2: level '3' is not 1, 2 or 4"));
    uint32_t answer = 99;
    EXPECT_EQ(alert(8, &answer), "");
    EXPECT_EQ(answer, 5u) << "no catalogue: no alert";

    // A reload that fails again reports its own error, and so does the
    // status from then on.
    save(mine.path(), std::string(kDefaultLine) + "8 | 1 | T8 | Eight. | Eight.\n"
                                                  "8 | 1 | T8 | Eight. | Eight.\n");
    EXPECT_EQ(reload(), std::make_pair(1, mine.path() + ":3: event 8 is already on line 2"));
    EXPECT_EQ(status(), std::make_pair(1, mine.path() + ":3: event 8 is already on line 2"));

    save(mine.path(), std::string(kDefaultLine) + "8 | 1 | T8 | Eight. | Eight.\n");
    EXPECT_EQ(reload(), std::make_pair(0, std::string()));
    EXPECT_EQ(status(), std::make_pair(0, std::string()));
    EXPECT_EQ(alert(8, &answer), "Eight.");
    EXPECT_EQ(answer, 0u);
}

TEST_F(CatalogueChoiceTest, AMissingFileAtLoadIsTheStatus)
{
    const std::string path = testing::TempDir() + "kelp-" + std::to_string(getpid()) + "-none.txt";
    setenv("KELP_CATALOGUE", path.c_str(), 1);
    EXPECT_EQ(status(), std::make_pair(1, path + ": cannot open: No such file or directory"));
    TempFile empty("none.txt", "");
    EXPECT_EQ(reload(), std::make_pair(1, path + ": no 'default' line (the alert of numbers "
                                                 "without a line of their own)"));
}

TEST_F(CatalogueChoiceTest, TheMessageIsCutToTheCallersBuffer)
{
    TempFile mine("mine.txt", kBadLevel);
    setenv("KELP_CATALOGUE", mine.path().c_str(), 1);
    Guarded<12> small;
    EXPECT_NE(kelpRuntimeCatalogueStatus(small.area(), 12), 0);
    EXPECT_EQ(std::string(small.area()), mine.path().substr(0, 11));
    EXPECT_TRUE(small.guardsIntact());
    Guarded<12> again;
    EXPECT_NE(kelpRuntimeReloadCatalogue(again.area(), 12), 0);
    EXPECT_EQ(std::string(again.area()), mine.path().substr(0, 11));
    EXPECT_TRUE(again.guardsIntact());
    // No buffer: only the answer.
    EXPECT_NE(kelpRuntimeCatalogueStatus(nullptr, 0), 0);
    EXPECT_NE(kelpRuntimeReloadCatalogue(nullptr, 100), 0);
    char untouched = 'u';
    EXPECT_NE(kelpRuntimeCatalogueStatus(&untouched, 0), 0);
    EXPECT_EQ(untouched, 'u');
}

TEST_F(CatalogueChoiceTest, ReloadsWhileOtherThreadsReadTheAlerts)
{
    const std::string first = std::string(kDefaultLine) + "7 | 2 | T7 | First. | First.\n";
    const std::string second = std::string(kDefaultLine) + "7 | 1 | T7 | Second. | Second.\n";
    TempFile mine("mine.txt", first);
    setenv("KELP_CATALOGUE", mine.path().c_str(), 1);
    ASSERT_EQ(alert(7), "First.");

    std::atomic<bool> done{false};
    std::atomic<int> wrong{0}, reads{0};
    std::vector<std::thread> readers;
    for (int t = 0; t < 3; ++t) {
        readers.emplace_back([&] {
            while (!done) {
                char level[EVTMSG_TEXT_SIZE], message[EVTMSG_MESSAGE_SIZE];
                const uint32_t answer = evtmsg_getAlertMsg(7, level, message, 0, nullptr);
                const std::string seen = std::string(level) + " " + message;
                if (answer != 0 || (seen != "2 First." && seen != "1 Second."))
                    ++wrong;
                ++reads;
            }
        });
    }
    int failedReloads = 0;
    for (int i = 0; i < 200; ++i) {
        save(mine.path(), i % 2 == 0 ? second : first);
        failedReloads += kelpRuntimeReloadCatalogue(nullptr, 0) != 0 ? 1 : 0;
    }
    done = true;
    for (std::thread &reader : readers)
        reader.join();
    EXPECT_EQ(failedReloads, 0);
    EXPECT_EQ(wrong, 0);
    EXPECT_GT(reads, 0);
    EXPECT_EQ(alert(7), "First.") << "the last file saved is served";
}

TEST(CatalogueFormatTest, CommentsBlankLinesBlanksAndCrlfAreAllowed)
{
    em::Catalogue catalogue;
    std::string error;
    ASSERT_TRUE(em::parseCatalogue("# a comment\r\n\n   \t\n  # indented comment\n"
                                   "default|4|T0|Event %0.|Event %0.\r\n"
                                   "\t12 |1|  T12 |  Twelve %1 %% . |  Twelve, long.  \r\n",
                                   "t.txt", &catalogue, &error))
        << error;
    ASSERT_EQ(catalogue.alerts.count(12), 1u);
    const em::Alert &alert = catalogue.alerts.at(12);
    EXPECT_EQ(alert.level, 1u);
    EXPECT_EQ(alert.messageId, "T12");
    EXPECT_EQ(alert.message, "Twelve %1 %% .");
    EXPECT_EQ(alert.description, "Twelve, long.");
    EXPECT_EQ(catalogue.fallback.messageId, "T0");
    // The last line needs no newline.
    EXPECT_EQ(parseResult(std::string(kDefaultLine) + "4294967295 | 4 | T | M | D"), "ok");
}

TEST(CatalogueFormatTest, ABadLineNamesTheFileAndLine)
{
    const std::string d = kDefaultLine;
    EXPECT_EQ(parseResult(d + "\n12 | 1 | T | M\n"),
              "t.txt:3: 4 fields where a line has 5: NUMBER | LEVEL | MESSAGE ID | MESSAGE | "
              "DESCRIPTION");
    EXPECT_EQ(parseResult(d + "12 | 1 | T | M | D | E\n"),
              "t.txt:2: 6 fields where a line has 5: NUMBER | LEVEL | MESSAGE ID | MESSAGE | "
              "DESCRIPTION");
    EXPECT_EQ(parseResult(d + "just words\n"),
              "t.txt:2: 1 fields where a line has 5: NUMBER | LEVEL | MESSAGE ID | MESSAGE | "
              "DESCRIPTION");
    EXPECT_EQ(parseResult(d + "x12 | 1 | T | M | D\n"),
              "t.txt:2: 'x12' is neither an event number (0 to 4294967295) nor 'default'");
    EXPECT_EQ(parseResult(d + "4294967296 | 1 | T | M | D\n"),
              "t.txt:2: '4294967296' is neither an event number (0 to 4294967295) nor "
              "'default'");
    EXPECT_EQ(parseResult(d + "-1 | 1 | T | M | D\n"),
              "t.txt:2: '-1' is neither an event number (0 to 4294967295) nor 'default'");
    EXPECT_EQ(parseResult(d + "12 | 1 | T x | M | D\n"),
              "t.txt:2: the message id 'T x' holds other than A-Z a-z 0-9 - _ .");
    EXPECT_EQ(parseResult(d + "12 | 1 |  | M | D\n"), "t.txt:2: the message id is empty");
    EXPECT_EQ(parseResult(d + "12 | 1 | T |  | D\n"), "t.txt:2: the message is empty");
    EXPECT_EQ(parseResult(d + "12 | 1 | T | M | \n"), "t.txt:2: the description is empty");
    EXPECT_EQ(parseResult(d + "12 | 1 | T | 50% | D\n"),
              "t.txt:2: a '%' in the message is followed by neither a number 0 to 10 nor "
              "another '%'");
    EXPECT_EQ(parseResult(d + "12 | 1 | T | M | %x\n"),
              "t.txt:2: a '%' in the description is followed by neither a number 0 to 10 "
              "nor another '%'");
    EXPECT_EQ(parseResult(d + "12 | 1 | T | " + std::string(256, 'm') + " | D\n"),
              "t.txt:2: the message has 256 bytes (at most 255)");
    EXPECT_EQ(parseResult(d + "12 | 1 | T | M | " + std::string(1024, 'd') + "\n"),
              "t.txt:2: the description has 1024 bytes (at most 1023)");
    EXPECT_EQ(parseResult(d + "12 | 1 | T | M\xC3 | D\n"),
              "t.txt:2: the message holds bytes that are not UTF-8");
    EXPECT_EQ(parseResult(d + "12 | 1 | T | M | D\x01\n"),
              "t.txt:2: the description holds a control character (byte 1)");
    EXPECT_EQ(parseResult(d + "12 | 1 | T | \xC3\xA9t\xC3\xA9 | D\n"), "ok");
}

TEST(CatalogueFormatTest, ABadLevelIsRefused)
{
    const std::string d = kDefaultLine;
    for (const char *level : {"0", "3", "5", "01", "", "warning", "1 2"}) {
        EXPECT_EQ(parseResult(d + "12 | " + level + " | T | M | D\n"),
                  "t.txt:2: level '" + std::string(level) + "' is not 1, 2 or 4");
    }
}

TEST(CatalogueFormatTest, ADuplicateNumberNamesBothLines)
{
    const std::string d = kDefaultLine;
    EXPECT_EQ(parseResult(d + "12 | 1 | T | M | D\n# x\n12 | 2 | U | N | E\n"),
              "t.txt:4: event 12 is already on line 2");
    EXPECT_EQ(parseResult(d + "\n" + d), "t.txt:3: a second 'default' line (the first is line 1)");
}

TEST(CatalogueFormatTest, TheDefaultLineIsRequired)
{
    EXPECT_EQ(parseResult(""),
              "t.txt: no 'default' line (the alert of numbers without a line of their own)");
    EXPECT_EQ(parseResult("12 | 1 | T | M | D\n"),
              "t.txt: no 'default' line (the alert of numbers without a line of their own)");
}

TEST(CatalogueFormatTest, AFileErrorNamesTheFileAndLine)
{
    TempFile bad("dup.txt", std::string(kDefaultLine) + "5 | 1 | T | M | D\n5 | 1 | T | M | D\n");
    std::string error;
    EXPECT_EQ(em::loadCatalogueFile(bad.path(), &error), nullptr);
    EXPECT_EQ(error, bad.path() + ":3: event 5 is already on line 2");

    EXPECT_EQ(em::loadCatalogueFile("/nonexistent/alerts.txt", &error), nullptr);
    EXPECT_EQ(error.rfind("/nonexistent/alerts.txt: cannot open: ", 0), 0u) << error;
    EXPECT_EQ(em::loadCatalogueFile("/", &error), nullptr);
    EXPECT_EQ(error, "/: not a regular file");

    // A failed serve keeps the catalogue that was served.
    EXPECT_FALSE(em::serveCatalogueFile(bad.path(), &error));
    ASSERT_NE(em::servedCatalogue(), nullptr);
    EXPECT_EQ(em::servedCatalogue()->alerts.count(3061), 1u);
}

TEST(ExpandTextTest, MarkersTakeInsertsAndTheEventNumber)
{
    const char *inserts[] = {"a", "b", "c", "d", "e", "f", "g", "h", "i", "j"};
    EXPECT_EQ(em::expandText("%1 %2 %10 %9 %0 %%1", 77, 10, inserts, 256), "a b j i 77 %1");
    // "%10" is the tenth insert; "%11" the first followed by "1".
    EXPECT_EQ(em::expandText("%11|%100", 5, 10, inserts, 256), "a1|j0");
    EXPECT_EQ(em::expandText("no markers", 5, 10, inserts, 256), "no markers");
    EXPECT_EQ(em::expandText("%1%1%1", 5, 1, inserts, 256), "aaa");
}

TEST(ExpandTextTest, MissingInsertsKeepTheirMarker)
{
    const char *inserts[] = {"a", nullptr, "c"};
    EXPECT_EQ(em::expandText("%1 %2 %3 %4 %10", 5, 3, inserts, 256), "a %2 c %4 %10");
    // Fewer inserts than the array holds: only the count is read.
    EXPECT_EQ(em::expandText("%1 %3", 5, 1, inserts, 256), "a %3");
    EXPECT_EQ(em::expandText("%1 %3", 5, 0, inserts, 256), "%1 %3");
    EXPECT_EQ(em::expandText("%1 %3", 5, 3, nullptr, 256), "%1 %3");
}

TEST(ExpandTextTest, InsertsAreNotReadAgain)
{
    const char *inserts[] = {"50%2 %% %0", "x"};
    EXPECT_EQ(em::expandText("[%1] [%2]", 5, 2, inserts, 256), "[50%2 %% %0] [x]");
}

TEST(ExpandTextTest, TheResultIsCutToFit)
{
    const std::string longInsert(5000, 'x');
    const char *inserts[] = {longInsert.c_str()};
    const std::string out = em::expandText("head %1 tail", 5, 1, inserts, 256);
    EXPECT_EQ(out.size(), 255u);
    EXPECT_EQ(out.substr(0, 6), "head x");
    EXPECT_EQ(em::expandText("%0", 123456, 0, nullptr, 4), "123");
    EXPECT_EQ(em::expandText("abc", 5, 0, nullptr, 1), "");
    EXPECT_EQ(em::expandText("abc", 5, 0, nullptr, 0), "");

    // A cut never splits a UTF-8 character: "é" is two bytes.
    std::string accents;
    for (int i = 0; i < 200; ++i)
        accents += "\xC3\xA9";
    const char *utf8[] = {accents.c_str()};
    const std::string cut = em::expandText("%1", 5, 1, utf8, 256);
    EXPECT_EQ(cut.size(), 254u);
    EXPECT_EQ(em::expandText("x%1", 5, 1, utf8, 256).size(), 255u);
    EXPECT_EQ(em::cutText("a\xC3\xA9", 3), "a");
    EXPECT_EQ(em::cutText("a\xC3\xA9", 4), "a\xC3\xA9");
}

// An insert without a NUL within what could be shown is read no further.
TEST(ExpandTextTest, AnInsertIsReadNoFurtherThanTheArea)
{
    char unterminated[8];
    std::memset(unterminated, 'u', sizeof unterminated);
    const char *inserts[] = {unterminated};
    EXPECT_EQ(em::expandText("%1", 5, 1, inserts, sizeof unterminated), "uuuuuuu");
}

TEST(AlertMessageTest, AKnownEventFillsLevelAndMessage)
{
    char level[EVTMSG_TEXT_SIZE], message[EVTMSG_MESSAGE_SIZE];
    char insert[] = "0:1:2";
    char *inserts[] = {insert};
    EXPECT_EQ(evtmsg_getAlertMsg(2048, level, message, 1, inserts), 0u);
    EXPECT_STREQ(level, "1");
    EXPECT_STREQ(message, "Physical disk 0:1:2 has failed.");
    EXPECT_EQ(evtmsg_getAlertMsg(3061, level, message, 0, nullptr), 0u);
    EXPECT_STREQ(level, "4");
    EXPECT_EQ(evtmsg_getAlertMsg(2164, level, message, 0, nullptr), 0u);
    EXPECT_STREQ(level, "2");
}

TEST(AlertMessageTest, AnUnknownEventGetsTheDefault)
{
    char level[EVTMSG_TEXT_SIZE], message[EVTMSG_MESSAGE_SIZE];
    EXPECT_EQ(evtmsg_getAlertMsg(65000, level, message, 0, nullptr), 2u);
    EXPECT_STREQ(level, "4");
    EXPECT_STREQ(message, "Storage event 65000 occurred.");
    EXPECT_EQ(evtmsg_getAlertMsg(4294967295u, level, message, 0, nullptr), 2u);
    EXPECT_STREQ(message, "Storage event 4294967295 occurred.");
}

TEST(AlertMessageTest, AnUnknownEventTakesTheDefaultLinesLevel)
{
    // The level is the default line's, not a fixed one: a catalogue whose
    // default is critical answers 1.
    TempFile file(
        "critical-default.txt",
        "default | 1 | D0 | Unknown event %0. | Unknown.\n7 | 4 | T7 | Seven. | Seven.\n");
    std::string error;
    ASSERT_TRUE(em::serveCatalogueFile(file.path(), &error)) << error;
    char level[EVTMSG_TEXT_SIZE], message[EVTMSG_MESSAGE_SIZE];
    EXPECT_EQ(evtmsg_getAlertMsg(8, level, message, 0, nullptr), 2u);
    EXPECT_STREQ(level, "1");
    EXPECT_STREQ(message, "Unknown event 8.");
    EXPECT_EQ(evtmsg_getAlertMsg(7, level, message, 0, nullptr), 0u);
    EXPECT_STREQ(level, "4");
    ASSERT_TRUE(em::serveCatalogueFile(shippedPath(), &error)) << error;
}

TEST(AlertMessageTest, NullAreasAndInsertsAreSkipped)
{
    char level[EVTMSG_TEXT_SIZE], message[EVTMSG_MESSAGE_SIZE];
    EXPECT_EQ(evtmsg_getAlertMsg(2048, nullptr, nullptr, 0, nullptr), 0u);
    EXPECT_EQ(evtmsg_getAlertMsg(2048, level, nullptr, 0, nullptr), 0u);
    EXPECT_STREQ(level, "1");
    EXPECT_EQ(evtmsg_getAlertMsg(2048, nullptr, message, 3, nullptr), 0u);
    EXPECT_STREQ(message, "Physical disk %1 has failed.");
    char *none[] = {nullptr};
    EXPECT_EQ(evtmsg_getAlertMsg(2048, level, message, 1, none), 0u);
    EXPECT_STREQ(message, "Physical disk %1 has failed.");
}

TEST(AlertMessageTest, OverlongInsertsAreCutInsideTheArea)
{
    ServedCatalogue served("9 | 2 | T9 | %1%2 | [%1] [%2] [%1]\n");
    std::string longInsert(5000, 'y');
    char *inserts[] = {longInsert.data(), longInsert.data()};
    Guarded<EVTMSG_TEXT_SIZE> level;
    Guarded<EVTMSG_MESSAGE_SIZE> message;
    EXPECT_EQ(evtmsg_getAlertMsg(9, level.area(), message.area(), 2, inserts), 0u);
    EXPECT_STREQ(level.area(), "2");
    EXPECT_EQ(std::strlen(message.area()), EVTMSG_MESSAGE_SIZE - 1u);
    EXPECT_TRUE(level.guardsIntact());
    EXPECT_TRUE(message.guardsIntact());

    Guarded<EVTMSG_DESCRIPTION_SIZE> description;
    Guarded<EVTMSG_TEXT_SIZE> messageId;
    EXPECT_EQ(getEEMItrap(772, 2, 9, inserts, description.area(), messageId.area()), 0u);
    EXPECT_EQ(std::strlen(description.area()), EVTMSG_DESCRIPTION_SIZE - 1u);
    EXPECT_EQ(std::string(description.area(), 3), "[yy");
    EXPECT_STREQ(messageId.area(), "T9");
    EXPECT_TRUE(description.guardsIntact());
    EXPECT_TRUE(messageId.guardsIntact());
}

TEST(ExtendedTrapTest, AKnownEventFillsDescriptionAndMessageId)
{
    char description[EVTMSG_DESCRIPTION_SIZE], messageId[EVTMSG_TEXT_SIZE];
    char disk[] = "0:1:4";
    char *inserts[] = {disk};
    EXPECT_EQ(getEEMItrap(772, 1, 2074, inserts, description, messageId), 0u);
    EXPECT_STREQ(description, "Physical disk 0:1:4 reports that it is likely to fail soon. "
                              "Replace it while its virtual disk is still redundant.");
    EXPECT_STREQ(messageId, "KLP2074");
}

TEST(ExtendedTrapTest, AnUnknownEventGetsTheDefault)
{
    char description[EVTMSG_DESCRIPTION_SIZE], messageId[EVTMSG_TEXT_SIZE];
    EXPECT_EQ(getEEMItrap(0, 0, 65001, nullptr, description, messageId), 2u);
    EXPECT_EQ(std::string(description).rfind("Storage event 65001 occurred. ", 0), 0u);
    EXPECT_STREQ(messageId, "KLP0000");
    EXPECT_EQ(getEEMItrap(0, 0, 65001, nullptr, nullptr, nullptr), 2u);
    EXPECT_EQ(getEEMItrap(0, 0, 65001, nullptr, nullptr, messageId), 2u);
    EXPECT_STREQ(messageId, "KLP0000");
}

} // namespace
