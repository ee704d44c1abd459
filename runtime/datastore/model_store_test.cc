// The served model: loading (from a host, from KELP_MODEL), the changes the
// control socket makes, all or nothing, event fields, and readers that never
// see half a change.
#include <gtest/gtest.h>
#include <sys/stat.h>

#include <algorithm>
#include <atomic>
#include <chrono>
#include <cstdlib>
#include <filesystem>
#include <fstream>
#include <string>
#include <thread>
#include <vector>

#include "datastore/large_models_testing.h"
#include "datastore/model.h"
#include "datastore/model_store.h"
#include "datastore/model_testing.h"
#include "kelp/runtime.h"
#include "support/fifo_testing.h"
#include "vscil.h"

namespace {

namespace fs = std::filesystem;
namespace ds = kelp::ds;
using Fields = std::vector<std::pair<std::string, std::string>>;

class ModelStoreTest : public ::testing::Test {
  protected:
    void SetUp() override
    {
        std::string pattern = ::testing::TempDir() + "kelp_model_XXXXXX";
        ASSERT_NE(mkdtemp(pattern.data()), nullptr);
        dir_ = pattern;
        unsetenv("KELP_MODEL");
        ds::resetForTesting();
    }
    void TearDown() override
    {
        unsetenv("KELP_MODEL");
        ds::resetForTesting();
        fs::remove_all(dir_);
    }

    std::string writeFile(const std::string &name, const std::string &text)
    {
        std::string path = dir_ + "/" + name;
        std::ofstream(path, std::ios::binary) << text;
        return path;
    }
    void loadTestModel()
    {
        std::string error;
        ASSERT_TRUE(ds::loadModelText(ds::testing::kTestModel, "test.xml", &error)) << error;
    }
    // The object's answer from the data store, or "<status N>".
    static std::string object(uint32_t id)
    {
        return ds::testing::answerText([id](uint32_t *s) { return GetSingleObject(s, 0, id); });
    }
    // The list of a type from the data store, or "<status N>".
    static std::string list(const char *type)
    {
        return ds::testing::answerText([type](uint32_t *s) { return GetObjectList(s, type); });
    }

    std::string dir_;
};

TEST_F(ModelStoreTest, StatusCountsEveryTypeInTypeOrder)
{
    EXPECT_FALSE(ds::modelStatus().served);
    loadTestModel();
    ds::ModelStatus s = ds::modelStatus();
    EXPECT_TRUE(s.served);
    EXPECT_EQ(s.origin, "test.xml");
    EXPECT_TRUE(s.ready);
    ASSERT_EQ(s.counts.size(), 16u);
    EXPECT_EQ(s.counts[0], (std::pair<std::string, uint32_t>("adapters", 2)));
    EXPECT_EQ(s.counts[2], (std::pair<std::string, uint32_t>("arraydisks", 3)));
    EXPECT_EQ(s.counts[3], (std::pair<std::string, uint32_t>("Tape", 1)));
    EXPECT_EQ(s.counts[8], (std::pair<std::string, uint32_t>("emms", 0)));
    EXPECT_EQ(s.counts[15].first, "NVMeAdapter");
    ds::unloadModel();
    EXPECT_FALSE(ds::modelStatus().served);
    EXPECT_EQ(object(1), "<status 7>");
}

TEST_F(ModelStoreTest, LoadingAFileServesItAndABadFileChangesNothing)
{
    std::string good = writeFile("good.xml", ds::testing::kTestModel);
    std::string error;
    ASSERT_TRUE(ds::loadModelFile(good, &error)) << error;
    EXPECT_EQ(ds::modelStatus().origin, good);
    std::shared_ptr<const ds::Model> before = ds::servedModel();

    std::string bad = writeFile("bad.xml", "<storage>\n<object id='1' type='fans'/>\n"
                                           "<object id='1' type='fans'/></storage>");
    EXPECT_FALSE(ds::loadModelFile(bad, &error));
    EXPECT_EQ(error, bad + ":3: duplicate object id 1 (first at " + bad + ":2)");
    EXPECT_FALSE(ds::loadModelFile(dir_ + "/missing.xml", &error));
    EXPECT_EQ(error, dir_ + "/missing.xml: cannot open: No such file or directory");
    EXPECT_FALSE(ds::loadModelFile(dir_, &error));
    EXPECT_EQ(error, dir_ + ": not a regular file");
    EXPECT_EQ(ds::servedModel(), before) << "the served model stays as it was";
}

TEST_F(ModelStoreTest, FifoDeviceAndOversizedFileAreRefusedAtOnceAndChangeNothing)
{
    std::string error;
    ASSERT_TRUE(ds::loadModelFile(writeFile("good.xml", ds::testing::kTestModel), &error)) << error;
    std::shared_ptr<const ds::Model> before = ds::servedModel();
    const std::string fifo = dir_ + "/model.fifo", big = dir_ + "/big.xml";
    ASSERT_EQ(mkfifo(fifo.c_str(), 0600), 0);
    // Sparse: its size is over the limit, its blocks are not.
    writeFile("big.xml", "<storage/>");
    fs::resize_file(big, ds::kMaxModelFileBytes + 1);
    const std::pair<std::string, std::string> cases[] = {
        {fifo, fifo + ": not a regular file"},
        {"/dev/zero", "/dev/zero: not a regular file"},
        {big, big + ": over the limit of 256 MiB"},
    };
    for (const auto &[path, message] : cases) {
        bool loaded = true;
        EXPECT_TRUE(returnsPromptly(fifo, [&] { loaded = ds::loadModelFile(path, &error); }))
            << path;
        EXPECT_FALSE(loaded) << path;
        EXPECT_EQ(error, message);
        char full[512] = "unchanged";
        EXPECT_TRUE(returnsPromptly(fifo, [&] {
            EXPECT_NE(kelpRuntimeLoadModel(path.c_str(), full, sizeof full), 0);
        })) << path;
        EXPECT_EQ(std::string(full), message);
        EXPECT_EQ(ds::servedModel(), before) << path;
    }
}

TEST_F(ModelStoreTest, RuntimeCallReportsErrorsCutToTheBuffer)
{
    std::string bad = writeFile("bad.xml", "<storage>\n<object id='1' type='fan'/></storage>");
    char error[16];
    EXPECT_NE(kelpRuntimeLoadModel(bad.c_str(), error, sizeof error), 0);
    EXPECT_EQ(std::string(error), (bad + ":2: object 1").substr(0, 15));
    char full[512];
    EXPECT_NE(kelpRuntimeLoadModel(bad.c_str(), full, sizeof full), 0);
    EXPECT_NE(std::string(full).find(":2: object 1: unknown type \"fan\""), std::string::npos);
    EXPECT_NE(kelpRuntimeLoadModel(nullptr, full, sizeof full), 0);
    EXPECT_EQ(std::string(full), "no model file named");
    EXPECT_NE(kelpRuntimeLoadModel(bad.c_str(), nullptr, 0), 0);
    EXPECT_NE(kelpRuntimeLoadModel(bad.c_str(), error, 0), 0);
    EXPECT_EQ(object(1), "<status 7>");

    std::string good = writeFile("good.xml", ds::testing::kTestModel);
    EXPECT_EQ(kelpRuntimeLoadModel(good.c_str(), full, sizeof full), 0);
    EXPECT_EQ(std::string(full), "");
    EXPECT_EQ(object(30), "<ObjID>30</ObjID><Nexus>0\\b</Nexus>");
}

TEST_F(ModelStoreTest, FirstQueryLoadsKelpModelWhenNoHostChoseOne)
{
    std::string good = writeFile("good.xml", ds::testing::kTestModel);
    setenv("KELP_MODEL", good.c_str(), 1);
    EXPECT_EQ(GetSmartThermalShutdownStatus(), 3u);
    EXPECT_EQ(ds::modelStatus().origin, good);

    // A host's own model wins, and after it the environment is not read.
    ds::resetForTesting();
    std::string error;
    ASSERT_TRUE(ds::loadModelText("<storage thermalShutdown='9'/>", "host", &error)) << error;
    EXPECT_EQ(GetSmartThermalShutdownStatus(), 9u);
    ds::unloadModel();
    EXPECT_EQ(GetSmartThermalShutdownStatus(), 0u);
    EXPECT_FALSE(ds::modelStatus().served) << "unloading is a host's choice too";
}

TEST_F(ModelStoreTest, BadKelpModelIsReportedOnceAndNothingIsServed)
{
    std::string bad = writeFile("bad.xml", "<storage>\n<object/></storage>");
    setenv("KELP_MODEL", bad.c_str(), 1);
    ::testing::internal::CaptureStderr();
    uint32_t status = 0;
    EXPECT_EQ(DataStoreReady(&status), nullptr);
    EXPECT_EQ(status, 7u);
    EXPECT_EQ(DataStoreReady(&status), nullptr);
    std::string err = ::testing::internal::GetCapturedStderr();
    EXPECT_EQ(err, "kelp: KELP_MODEL: " + bad + ":2: <object> has no id attribute\n");
}

TEST_F(ModelStoreTest, ChangesNeedAServedModel)
{
    std::string error;
    EXPECT_FALSE(ds::setReady(false, &error));
    EXPECT_EQ(error, "no model is served");
    EXPECT_FALSE(ds::setAttribute(1, "Name", "x", &error));
    EXPECT_FALSE(ds::addObjects("<object id='1' type='fans'/>", &error));
    EXPECT_FALSE(ds::removeObject(1, nullptr));
    Fields fields;
    EXPECT_FALSE(ds::eventFieldsOf(1, &fields, &error));
}

TEST_F(ModelStoreTest, ReadyOffMakesTheStoreAnswerANonZeroCode)
{
    loadTestModel();
    std::string error;
    ASSERT_TRUE(ds::setReady(false, &error)) << error;
    EXPECT_FALSE(ds::modelStatus().ready);
    uint32_t status = 99;
    char *xml = DataStoreReady(&status);
    ASSERT_NE(xml, nullptr);
    EXPECT_EQ(status, 0u);
    EXPECT_STREQ(xml, "<DataStoreReady><Code>1</Code></DataStoreReady>");
    freeMem(xml);
    ASSERT_TRUE(ds::setReady(true, &error)) << error;
    EXPECT_TRUE(ds::modelStatus().ready);
    auto code = [] { return ds::testing::answerText(DataStoreReady); };
    EXPECT_EQ(code(), "<DataStoreReady><Code>0</Code></DataStoreReady>");
    // The answer follows every model served: one loaded not ready, none.
    ASSERT_TRUE(ds::loadModelText("<storage ready='0'/>", "host", &error)) << error;
    EXPECT_EQ(code(), "<DataStoreReady><Code>1</Code></DataStoreReady>");
    ds::unloadModel();
    EXPECT_EQ(code(), "<status 7>");
    ASSERT_TRUE(ds::loadModelText("<storage ready='1'/>", "host", &error)) << error;
    EXPECT_EQ(code(), "<DataStoreReady><Code>0</Code></DataStoreReady>");
}

TEST_F(ModelStoreTest, SetAttributeReplacesTheFirstOccurrenceOrAppends)
{
    ASSERT_TRUE(ds::loadModelText("<storage><object id='1' type='fans'><A>1</A><A>2</A>"
                                  "</object></storage>",
                                  "m", nullptr));
    std::string error;
    ASSERT_TRUE(ds::setAttribute(1, "A", "x<y", &error)) << error;
    ASSERT_TRUE(ds::setAttribute(1, "B", "", &error)) << error;
    EXPECT_EQ(object(1), "<ObjID>1</ObjID><A>x&lt;y</A><A>2</A><B></B>");
}

TEST_F(ModelStoreTest, InvalidChangesAreRefusedAndChangeNothing)
{
    loadTestModel();
    std::shared_ptr<const ds::Model> before = ds::servedModel();
    const struct {
        const char *name;
        bool (*change)(std::string *);
        const char *message;
    } cases[] = {
        {"no such object", [](std::string *e) { return ds::setAttribute(3, "A", "1", e); },
         "no object 3"},
        {"value too long",
         [](std::string *e) { return ds::setAttribute(1, "Name", std::string(160, 'x'), e); },
         "kelpctl set: object 1: Name has 160 bytes, over the limit of 159"},
        {"NUL in a value",
         [](std::string *e) { return ds::setAttribute(1, "Name", std::string("a\0", 2), e); },
         "kelpctl set: object 1: Name is not UTF-8 text without control characters"},
        {"ObjID", [](std::string *e) { return ds::setAttribute(1, "ObjID", "7", e); },
         "kelpctl set: object 1: ObjID is no attribute: the id attribute gives it"},
        {"bad name", [](std::string *e) { return ds::setAttribute(1, "<x>", "7", e); },
         "kelpctl set: object 1: \"<x>\" is not an attribute name"},
        {"duplicate in a fragment",
         [](std::string *e) {
             return ds::addObjects("<object id='95' type='fans'/>\n<object id='20' type='fans'/>",
                                   e);
         },
         "added XML:2: duplicate object id 20 (first at test.xml:10)"},
        {"malformed fragment", [](std::string *e) { return ds::addObjects("<object id='95'", e); },
         "added XML:1: start tag <object> is not closed"},
        {"link to nothing",
         [](std::string *e) { return ds::addObjects("<link a='1' b='2000'/>", e); },
         "added XML:1: link of 1 and 2000: no object 2000"},
        {"remove a parent", [](std::string *e) { return ds::removeObject(5, e); },
         "object 5 has children (object 20 first); remove them first"},
        {"remove nothing", [](std::string *e) { return ds::removeObject(4, e); }, "no object 4"},
    };
    for (const auto &c : cases) {
        std::string error;
        EXPECT_FALSE(c.change(&error)) << c.name;
        EXPECT_EQ(error, c.message) << c.name;
        EXPECT_EQ(ds::servedModel(), before) << c.name;
    }
    EXPECT_FALSE(ds::setAttribute(3, "A", "1", nullptr)) << "a null error is accepted";
}

TEST_F(ModelStoreTest, AddAndRemoveObjectsWithTheirLinks)
{
    loadTestModel();
    std::string error;
    ASSERT_TRUE(ds::addObjects("<object id='90' type='arraydisks' parent='5'>"
                               "<Nexus>0\\0\\0\\90</Nexus></object><link a='90' b='40'/>",
                               &error))
        << error;
    EXPECT_EQ(ds::modelStatus().counts[2].second, 4u);
    uint32_t status = 0;
    char *xml = GetAssociatedPhyDevCount(&status, "arraydisks", 40);
    ASSERT_NE(xml, nullptr);
    EXPECT_STREQ(xml, "<objectCount>2</objectCount>");
    freeMem(xml);

    ASSERT_TRUE(ds::removeObject(90, &error)) << error;
    EXPECT_EQ(object(90), "<status 2>");
    xml = GetAssociatedPhyDevCount(&status, "arraydisks", 40);
    ASSERT_NE(xml, nullptr);
    EXPECT_STREQ(xml, "<objectCount>1</objectCount>");
    freeMem(xml);
    ASSERT_TRUE(ds::removeObject(20, &error)) << "its link to 40 goes with it: " << error;
    EXPECT_EQ(GetAssociated(&status, "arraydisks", 40), nullptr);
    EXPECT_EQ(status, 2u);
}

TEST_F(ModelStoreTest, EventFieldsDescribeTheObjectAndItsController)
{
    loadTestModel();
    Fields fields;
    std::string error;
    ASSERT_TRUE(ds::eventFieldsOf(20, &fields, &error)) << error;
    EXPECT_EQ(fields, (Fields{{"ObjType", "772"},
                              {"Nexus", "0\\0\\0\\20"},
                              {"ObjStatus", "2"},
                              {"PreviousStatus", "1"},
                              {"AttributesMask", "0000000000000000000000100"},
                              {"ControllerName", "Vorn RX-240"}}));
    ASSERT_TRUE(ds::eventFieldsOf(40, &fields, &error)) << error;
    EXPECT_EQ(fields, (Fields{{"ObjType", "773"},
                              {"Nexus", "v40"},
                              {"ControllerName", "Vorn RX-240"},
                              {"VirtualDiskName", "Data"}}));
    ASSERT_TRUE(ds::eventFieldsOf(1, &fields, &error)) << error;
    EXPECT_EQ(fields,
              (Fields{{"ObjType", "769"}, {"Nexus", "0"}, {"ControllerName", "Vorn RX-240"}}));
    ASSERT_TRUE(ds::eventFieldsOf(80, &fields, &error)) << error;
    EXPECT_EQ(fields, (Fields{{"ObjType", "774"}, {"Nexus", "t80"}, {"ControllerName", "HBA 9"}}))
        << "a linked adapter owns the tape";
    ASSERT_TRUE(ds::eventFieldsOf(50, &fields, &error)) << error;
    EXPECT_EQ(fields, (Fields{{"ObjType", "791"}, {"Nexus", "p50"}})) << "no controller";
    EXPECT_FALSE(ds::eventFieldsOf(4, &fields, &error));
    EXPECT_EQ(error, "no object 4");
}

TEST_F(ModelStoreTest, TypeCodesOfTheEventInterface)
{
    const std::pair<const char *, uint32_t> cases[] = {
        {"adapters", 769},
        {"bus", 770},
        {"batteries", 771},
        {"arraydisks", 772},
        {"vdisks", 773},
        {"Tape", 774},
        {"enclosures", 776},
        {"fans", 777},
        {"tempprobes", 778},
        {"psupplies", 779},
        {"emms", 780},
        {"Tidal Cache", 786},
        {"CacheLunNode", 789},
        {"VDPartitionNode", 791},
        {"Tidal Cache Pool", 792},
        {"NVMeAdapter", 793},
        {"adtoenclosure", 0},
        {"", 0},
    };
    for (const auto &[name, code] : cases)
        EXPECT_EQ(ds::objectTypeCode(name), code) << name;
}

TEST_F(ModelStoreTest, StorageAttributesOfTheServedModel)
{
    std::string value;
    EXPECT_FALSE(ds::storageAttribute("url", &value));
    loadTestModel();
    ASSERT_TRUE(ds::storageAttribute("url", &value));
    EXPECT_EQ(value, "https://localhost:1311");
    ASSERT_TRUE(ds::storageAttribute("baseBoardServiceTag", &value));
    EXPECT_EQ(value, "7XYZ124");
    EXPECT_FALSE(ds::storageAttribute("none", &value));
}

// The file kelpRuntimeServedModelPath answers, or "<status N>" without one.
std::string servedPath(unsigned size = 4096)
{
    std::string buffer(size, 'x');
    const int status = kelpRuntimeServedModelPath(size == 0 ? nullptr : buffer.data(), size);
    if (status != 0)
        return "<status " + std::to_string(status) +
               (size > 0 ? " " + std::string(buffer.c_str()) : "") + ">";
    return buffer.c_str();
}

TEST_F(ModelStoreTest, ServedModelPathIsTheFileOfTheLastLoadThroughChanges)
{
    EXPECT_EQ(servedPath(), "<status 1 >") << "no model";
    const std::string first = writeFile("first.xml", ds::testing::kTestModel);
    const std::string second = writeFile("second.xml", ds::testing::kTestModel);
    const std::string bad = writeFile("bad.xml", "<storage>");
    std::string error;
    ASSERT_TRUE(ds::loadModelFile(first, &error)) << error;
    EXPECT_EQ(servedPath(), first);
    EXPECT_FALSE(ds::loadModelFile(bad, &error));
    EXPECT_EQ(servedPath(), first) << "a failed load changes nothing";
    ASSERT_TRUE(ds::setAttribute(40, "Name", "Other", &error)) << error;
    ASSERT_TRUE(ds::addObjects("<object id='96' type='fans'/>", &error)) << error;
    EXPECT_EQ(servedPath(), first) << "a changed model still comes from its file";
    char message[256];
    ASSERT_EQ(kelpRuntimeLoadModel(second.c_str(), message, sizeof message), 0) << message;
    EXPECT_EQ(servedPath(), second);
    // The path and its NUL, or nothing.
    EXPECT_EQ(servedPath(static_cast<unsigned>(second.size() + 1)), second);
    EXPECT_EQ(servedPath(static_cast<unsigned>(second.size())), "<status 1 >");
    EXPECT_EQ(servedPath(0), "<status 1>");
    loadTestModel();
    EXPECT_EQ(servedPath(), "<status 1 >") << "a model from a text has no file";
    ASSERT_TRUE(ds::loadModelFile(first, &error)) << error;
    ds::unloadModel();
    EXPECT_EQ(servedPath(), "<status 1 >");

    ds::resetForTesting();
    setenv("KELP_MODEL", second.c_str(), 1);
    EXPECT_EQ(servedPath(), second) << "KELP_MODEL is loaded from its file";
}

// A query loop keeps being answered while a large model is read, parsed and
// validated: the load holds no lock the queries need but for the swap. A
// query held up by the load would wait for much of it; the bound, 100 ms or
// a tenth of the load in a slow (sanitizer) build, is far above a query's
// own time on a busy machine. The model is large enough that its load
// takes well over the 200 ms the test needs to tell anything, in an
// optimised build too.
TEST_F(ModelStoreTest, QueriesAreAnsweredWhileALargeModelLoads)
{
    using Clock = std::chrono::steady_clock;
    using namespace std::chrono_literals;
    const std::string big =
        writeFile("big.xml", ds::testing::modelWithObjectsOfAttributes(200000, 3));
    loadTestModel();
    std::atomic<bool> stop{false};
    std::atomic<int> answered{0};
    std::atomic<int> unanswered{0};
    std::atomic<Clock::rep> longest{0};
    std::thread queries([&] {
        while (!stop.load()) {
            const auto begin = Clock::now();
            uint32_t status = 99;
            char *ready = DataStoreReady(&status);
            // Object 1 is an adapter, then a disk: no list here hands its id
            // out, so it is answered whichever it is.
            char *object = GetSingleObject(&status, 0, 1);
            char *list = GetObjectList(&status, "fans");
            if (ready == nullptr || object == nullptr)
                ++unanswered;
            freeMem(ready);
            freeMem(object);
            freeMem(list);
            const auto waited = (Clock::now() - begin).count();
            if (waited > longest.load())
                longest.store(waited);
            ++answered;
            std::this_thread::sleep_for(100us); // leaves the load its share of the machine
        }
    });
    while (answered.load() == 0)
        std::this_thread::sleep_for(1ms);
    const int before = answered.load();
    const auto begin = Clock::now();
    std::string error;
    EXPECT_TRUE(ds::loadModelFile(big, &error)) << error;
    const auto loading = Clock::now() - begin;
    const int during = answered.load() - before;
    stop.store(true);
    queries.join();
    const auto longestWait = Clock::duration(longest.load());
    const auto ms = [](Clock::duration d) {
        return static_cast<long long>(
            std::chrono::duration_cast<std::chrono::milliseconds>(d).count());
    };
    std::printf("load: %lld ms; queries answered meanwhile: %d, the longest in %lld ms\n",
                ms(loading), during, ms(longestWait));
    const Clock::duration bound = std::max<Clock::duration>(100ms, loading / 10);
    EXPECT_EQ(unanswered.load(), 0);
    EXPECT_GT(loading, 2 * 100ms) << "the model is too small to tell";
    EXPECT_GT(during, 10);
    EXPECT_LT(longestWait, bound);
}

// A query that still answers from the model a load replaces lets go of it
// without freeing it: the load frees it, off the request path.
TEST_F(ModelStoreTest, TheModelALoadReplacesIsFreedByTheLoadNotByAQuery)
{
    using namespace std::chrono_literals;
    loadTestModel();
    std::shared_ptr<const ds::Model> held = ds::servedModel(); // as a query holds it
    const std::weak_ptr<const ds::Model> old = held;
    std::string error;
    bool loaded = false;
    std::thread load([&] { loaded = ds::loadModelText(ds::testing::kTestModel, "next", &error); });
    const auto giveUp = std::chrono::steady_clock::now() + 30s;
    while (ds::servedModel() == held && std::chrono::steady_clock::now() < giveUp)
        std::this_thread::sleep_for(1ms);
    ASSERT_NE(ds::servedModel(), held) << "the load never swapped its model in";
    held.reset();
    EXPECT_FALSE(old.expired()) << "the query's reference was the last: it freed the model";
    load.join();
    EXPECT_TRUE(loaded) << error;
    EXPECT_TRUE(old.expired());
}

// Readers run while a writer changes one attribute back and forth and adds
// and removes an object: every answer is one whole state or the other.
TEST_F(ModelStoreTest, ReadersNeverSeeHalfAChange)
{
    loadTestModel();
    const std::string nameA = "<ObjID>40</ObjID><Nexus>v40</Nexus><Name>Data</Name>";
    const std::string nameB = "<ObjID>40</ObjID><Nexus>v40</Nexus><Name>Other</Name>";
    std::atomic<bool> stop{false};
    std::atomic<int> bad{0};
    std::vector<std::thread> readers;
    for (int r = 0; r < 3; ++r) {
        readers.emplace_back([&] {
            while (!stop.load()) {
                std::string got = object(40);
                if (got != nameA && got != nameB)
                    ++bad;
                uint32_t status = 0;
                char *list = GetObjectList(&status, "fans");
                if (list == nullptr)
                    ++bad;
                std::string text = list != nullptr ? list : "";
                freeMem(list);
                if (text != "<ObjList><ObjID>70</ObjID><Nexus>0\\0\\0\\f</Nexus></ObjList>" &&
                    text != "<ObjList><ObjID>70</ObjID><Nexus>0\\0\\0\\f</Nexus>"
                            "<ObjID>96</ObjID></ObjList>") {
                    ++bad;
                }
            }
        });
    }
    for (int i = 0; i < 200; ++i) {
        std::string error;
        ASSERT_TRUE(ds::setAttribute(40, "Name", i % 2 == 0 ? "Other" : "Data", &error)) << error;
        ASSERT_TRUE(ds::addObjects("<object id='96' type='fans'/>", &error)) << error;
        ASSERT_TRUE(ds::removeObject(96, &error)) << error;
    }
    stop.store(true);
    for (auto &t : readers)
        t.join();
    EXPECT_EQ(bad.load(), 0);
}

// Walkers going through whole lists while loads replace the model: each
// answer is one model's or the other's, whole; none comes from a model
// already freed (the sanitizer build would see the read).
TEST_F(ModelStoreTest, WalksDuringReloadsSeeTheOldModelOrTheNewOne)
{
    using kelp::ds::testing::modelWithObjectsOfAttributes;
    const std::string a = modelWithObjectsOfAttributes(150, 10);
    std::string b = a;
    for (size_t at = b.find(">v"); at != std::string::npos; at = b.find(">v", at + 2))
        b[at + 1] = 'w';
    std::string error;
    ASSERT_TRUE(ds::loadModelText(b, "b", &error)) << error;
    const std::string listB = list("arraydisks");
    ASSERT_TRUE(ds::loadModelText(a, "a", &error)) << error;
    const std::string listA = list("arraydisks");
    ASSERT_NE(listA, listB);
    ASSERT_EQ(listA.rfind("<ObjList><ObjID>1</ObjID>", 0), 0u) << listA.substr(0, 64);
    std::atomic<bool> stop{false};
    std::atomic<int> walks{0}, bad{0};
    std::vector<std::thread> walkers;
    for (int w = 0; w < 2; ++w) {
        walkers.emplace_back([&] {
            while (!stop.load()) {
                const std::string got = list("arraydisks");
                if (got != listA && got != listB)
                    ++bad;
                const std::string one = object(100);
                if (one.find("<A0>v100.0</A0>") == std::string::npos &&
                    one.find("<A0>w100.0</A0>") == std::string::npos)
                    ++bad;
                ++walks;
                // A gap between walks, as between an agent's requests: a
                // load frees the model it replaced once no walk holds it
                // (waiting up to 2 s), which back-to-back walks would delay.
                std::this_thread::sleep_for(std::chrono::microseconds(200));
            }
        });
    }
    for (int i = 0; i < 10; ++i)
        ASSERT_TRUE(ds::loadModelText(i % 2 == 0 ? b : a, "reload", &error)) << error;
    stop.store(true);
    for (auto &t : walkers)
        t.join();
    EXPECT_EQ(bad.load(), 0);
    EXPECT_GT(walks.load(), 0);
}

} // namespace
