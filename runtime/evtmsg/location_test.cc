// The location texts of evtmsg_getObjLocationStrings: a table of every type
// code over a small model, the examples of data/NAMES.md over the sample
// model, nexus texts of every odd shape for every type code (named by kind
// and text, status 0), the calls that are refused, what happens without the
// object or without a model, and the output areas: always NUL-terminated
// within their size, cut on a character boundary, skipped when null.
#include <gtest/gtest.h>

#include <algorithm>
#include <array>
#include <cstdlib>
#include <cstring>
#include <iterator>
#include <memory>
#include <random>
#include <string>
#include <tuple>
#include <vector>

#include "datastore/model.h"
#include "datastore/model_store.h"
#include "evtmsg.h"

namespace {

namespace ds = kelp::ds;

// One object of every type, a controller without a Name, and a disk
// directly on a channel.
constexpr char kModel[] = R"(<storage>
  <object id="1" type="adapters"><Nexus>0</Nexus><Name>Vorn RX-240</Name></object>
  <object id="2" type="adapters"><Nexus>1</Nexus></object>
  <object id="10" type="bus" parent="1"><Nexus>0\0</Nexus></object>
  <object id="11" type="bus" parent="1"><Nexus>0\2</Nexus></object>
  <object id="12" type="bus" parent="2"><Nexus>1\1</Nexus></object>
  <object id="20" type="enclosures" parent="10"><Nexus>0\0\1</Nexus></object>
  <object id="30" type="fans" parent="20"><Nexus>0\0\1\1\2</Nexus></object>
  <object id="31" type="psupplies" parent="20"><Nexus>0\0\1\2\1</Nexus></object>
  <object id="32" type="tempprobes" parent="20"><Nexus>0\0\1\3\3</Nexus></object>
  <object id="33" type="emms" parent="20"><Nexus>0\0\1\4\0</Nexus></object>
  <object id="40" type="arraydisks" parent="20"><Nexus>0\0\1\4</Nexus></object>
  <object id="41" type="arraydisks" parent="11"><Nexus>0\2\5</Nexus></object>
  <object id="50" type="batteries" parent="1"><Nexus>0\64\0</Nexus></object>
  <object id="60" type="vdisks" parent="1"><Nexus>0\128\2</Nexus><Name>Data</Name></object>
  <object id="61" type="vdisks" parent="60"><Nexus>0\128\2\1</Nexus></object>
  <object id="70" type="VDPartitionNode"><Nexus>0\129\2\1</Nexus></object>
  <object id="80" type="Tape" parent="12"><Nexus>1\1\3</Nexus></object>
  <object id="90" type="NVMeAdapter"><Nexus>2</Nexus></object>
  <object id="100" type="Tidal Cache"><Nexus>3</Nexus><Name>Tidal Cache</Name></object>
  <object id="101" type="Tidal Cache Pool" parent="100"><Nexus>3\0</Nexus></object>
  <object id="102" type="CacheLunNode"><Nexus>3\0\1</Nexus></object>
  <link a="40" b="60"/>
  <link a="60" b="70"/>
</storage>)";

struct Answer {
    uint32_t status = 99;
    std::string location1, location2, displayName, detail;
};

// Calls with four areas of EVTMSG_TEXT_SIZE bytes, each filled with 'x' and
// followed by guard bytes, and checks that each area holds a NUL within its
// size and that nothing after it was written.
Answer locate(uint32_t type, const char *nexus, const char *separator = ",",
              const char *language = "en", uint32_t reserved = 0)
{
    constexpr size_t kGuard = 32;
    std::array<std::array<char, EVTMSG_TEXT_SIZE + kGuard>, 4> areas;
    for (auto &area : areas)
        area.fill('x');
    Answer answer;
    answer.status =
        evtmsg_getObjLocationStrings(type, nexus, separator, language, areas[0].data(),
                                     areas[1].data(), areas[2].data(), areas[3].data(), reserved);
    std::string *texts[] = {&answer.location1, &answer.location2, &answer.displayName,
                            &answer.detail};
    for (size_t i = 0; i < areas.size(); ++i) {
        const char *begin = areas[i].data();
        const auto *end = static_cast<const char *>(std::memchr(begin, '\0', EVTMSG_TEXT_SIZE));
        EXPECT_NE(end, nullptr) << "area " << i << " holds no NUL within its size";
        EXPECT_TRUE(std::all_of(areas[i].begin() + EVTMSG_TEXT_SIZE, areas[i].end(),
                                [](char c) { return c == 'x'; }))
            << "area " << i << " was written past its size";
        *texts[i] = end != nullptr ? std::string(begin, end) : std::string();
    }
    return answer;
}

std::string sampleModelPath()
{
    const char *source = std::getenv("KELP_SOURCE_DIR");
    return std::string(source != nullptr ? source : ".") + "/data/models/sample.xml";
}

class LocationTest : public ::testing::Test {
  protected:
    void SetUp() override
    {
        std::string error;
        ASSERT_TRUE(ds::loadModelText(kModel, "locations", &error)) << error;
    }
    void TearDown() override { ds::unloadModel(); }
};

constexpr char kCtrl0[] = "Controller 0 (Vorn RX-240)";

struct NameCase {
    uint32_t type;
    const char *nexus;
    uint32_t status;
    const char *displayName, *location1, *location2, *detail;
};

TEST_F(LocationTest, EveryTypeCodeIsNamedFromItsNexus)
{
    const NameCase cases[] = {
        {769, "0", 0, "Controller 0", kCtrl0, "", "0"},
        {769, "1", 0, "Controller 1", "Controller 1", "", "1"}, // no Name in the model
        {770, "0\\2", 0, "Channel 2", kCtrl0, "", "0,2"},
        {771, "0\\64\\0", 0, "Battery 0", kCtrl0, "", "0,64,0"},
        {772, "0\\0\\1\\4", 0, "Physical Disk 0:1:4", kCtrl0, "Enclosure 0:1", "0,0,1,4"},
        {783, "0\\0\\1\\4", 0, "Physical Disk 0:1:4", kCtrl0, "Enclosure 0:1", "0,0,1,4"},
        {785, "0\\0\\1\\4", 0, "PCIe SSD 0:1:4", kCtrl0, "Enclosure 0:1", "0,0,1,4"},
        {772, "0\\2\\5", 0, "Physical Disk 2:5", kCtrl0, "Channel 2", "0,2,5"},
        {783, "0\\2\\5", 0, "Physical Disk 2:5", kCtrl0, "Channel 2", "0,2,5"},
        {785, "0\\2\\5", 0, "PCIe SSD 2:5", kCtrl0, "Channel 2", "0,2,5"},
        {773, "0\\128\\2", 0, "Virtual Disk 2", kCtrl0, "", "0,128,2"},
        {773, "0\\128\\2\\1", 0, "Span 1", kCtrl0, "Virtual Disk 2", "0,128,2,1"},
        {774, "1\\1\\3", 0, "Tape Drive 1:3", "Controller 1", "Channel 1", "1,1,3"},
        {776, "0\\0\\1", 0, "Enclosure 0:1", kCtrl0, "Channel 0", "0,0,1"},
        {777, "0\\0\\1\\1\\2", 0, "Fan 2", kCtrl0, "Enclosure 0:1", "0,0,1,1,2"},
        {778, "0\\0\\1\\3\\3", 0, "Temperature Probe 3", kCtrl0, "Enclosure 0:1", "0,0,1,3,3"},
        {779, "0\\0\\1\\2\\1", 0, "Power Supply 1", kCtrl0, "Enclosure 0:1", "0,0,1,2,1"},
        {780, "0\\0\\1\\4\\0", 0, "EMM 0", kCtrl0, "Enclosure 0:1", "0,0,1,4,0"},
        {786, "3", 0, "Tidal Cache 3", "Tidal Cache 3", "", "3"},
        {789, "3\\0\\1", 0, "Cache Disk 1", "Tidal Cache 3", "Tidal Cache Pool 0", "3,0,1"},
        {791, "0\\129\\2\\1", 0, "Partition 1", kCtrl0, "Virtual Disk 2", "0,129,2,1"},
        {792, "3\\0", 0, "Tidal Cache Pool 0", "Tidal Cache 3", "", "3,0"},
        {793, "2", 0, "NVMe Adapter 2", "NVMe Adapter 2", "", "2"},
        // Not in the model: the same texts, made from the nexus.
        {772, "0\\0\\1\\9", 0, "Physical Disk 0:1:9", kCtrl0, "Enclosure 0:1", "0,0,1,9"},
        {776, "0\\2\\5", 0, "Enclosure 2:5", kCtrl0, "Channel 2", "0,2,5"}, // a disk's nexus
        {769, "7", 0, "Controller 7", "Controller 7", "", "7"},
        {777, "4294967295\\4294967295\\0\\1\\4294967295", 0, "Fan 4294967295",
         "Controller 4294967295", "Enclosure 4294967295:0", "4294967295,4294967295,0,1,4294967295"},
    };
    for (const NameCase &c : cases) {
        SCOPED_TRACE(std::to_string(c.type) + " " + c.nexus);
        const Answer a = locate(c.type, c.nexus);
        EXPECT_EQ(a.status, c.status);
        EXPECT_EQ(a.displayName, c.displayName);
        EXPECT_EQ(a.location1, c.location1);
        EXPECT_EQ(a.location2, c.location2);
        EXPECT_EQ(a.detail, c.detail);
    }
}

TEST_F(LocationTest, EveryObjectOfTheSampleModelIsFoundUnderItsTypeCode)
{
    std::string error;
    ASSERT_TRUE(ds::loadModelFile(sampleModelPath(), &error)) << error;
    const std::shared_ptr<const ds::Model> model = ds::servedModel();
    ASSERT_NE(model, nullptr);
    const ds::ModelData data = model->data();
    ASSERT_FALSE(data.objects.empty());
    for (const ds::ObjectData &object : data.objects) {
        const std::string *nexus = ds::firstAttribute(object, "Nexus");
        ASSERT_NE(nexus, nullptr) << "object " << object.id;
        SCOPED_TRACE(object.type + " " + *nexus);
        const Answer a = locate(ds::objectTypeCode(object.type), nexus->c_str());
        EXPECT_EQ(a.status, 0u);
        EXPECT_FALSE(a.displayName.empty());
        EXPECT_FALSE(a.location1.empty());
    }
}

TEST_F(LocationTest, TheExamplesOfTheNamesDocumentHoldForTheSampleModel)
{
    std::string error;
    ASSERT_TRUE(ds::loadModelFile(sampleModelPath(), &error)) << error;
    const char *rx = "Controller 0 (Vorn RX-240)", *hx = "Controller 1 (Vorn HX-120)";
    const NameCase cases[] = {
        {772, "0\\0\\0\\4", 0, "Physical Disk 0:0:4", rx, "Enclosure 0:0", "0,0,0,4"},
        {785, "0\\2\\0", 0, "PCIe SSD 2:0", rx, "Channel 2", "0,2,0"},
        {777, "1\\0\\0\\1\\1", 0, "Fan 1", hx, "Enclosure 0:0", "1,0,0,1,1"},
        {773, "0\\128\\1\\0", 0, "Span 0", rx, "Virtual Disk 1", "0,128,1,0"},
        {774, "1\\1\\3", 0, "Tape Drive 1:3", hx, "Channel 1", "1,1,3"},
        {789, "3\\0\\1", 0, "Cache Disk 1", "Tidal Cache 3", "Tidal Cache Pool 0", "3,0,1"},
    };
    for (const NameCase &c : cases) {
        SCOPED_TRACE(std::to_string(c.type) + " " + c.nexus);
        const Answer a = locate(c.type, c.nexus);
        EXPECT_EQ(a.status, c.status);
        EXPECT_EQ(a.displayName, c.displayName);
        EXPECT_EQ(a.location1, c.location1);
        EXPECT_EQ(a.location2, c.location2);
        EXPECT_EQ(a.detail, c.detail);
    }
}

// Each nexus is a well-formed one of the type spoilt in one way: named by
// the kind and the text as given, with location1 only when the model holds
// the controller the first element names.
struct SpoiltCase {
    uint32_t type;
    std::string nexus;
    const char *displayName, *location1, *detail;
};

TEST_F(LocationTest, ANexusWithoutTheTypesShapeIsNamedByKindAndText)
{
    ASSERT_EQ(locate(772, "0\\0\\1\\4").displayName, "Physical Disk 0:1:4")
        << "the nexus the cases spoil";
    const SpoiltCase cases[] = {
        {772, "0", "Physical Disk 0", kCtrl0, "0"}, // too few numbers for a disk
        {772, "0\\0", "Physical Disk 0\\0", kCtrl0, "0,0"},
        {772, "0\\0\\1\\4\\0", "Physical Disk 0\\0\\1\\4\\0", kCtrl0, "0,0,1,4,0"},
        {777, "0\\0\\1\\1\\2\\0", "Fan 0\\0\\1\\1\\2\\0", kCtrl0, "0,0,1,1,2,0"},
        {769, "0\\0", "Controller 0\\0", kCtrl0, "0,0"},
        {770, "0", "Channel 0", kCtrl0, "0"},
        {777, "0\\0\\1\\2\\1", "Fan 0\\0\\1\\2\\1", kCtrl0, "0,0,1,2,1"}, // a supply's marker
        {779, "0\\0\\1\\1\\2", "Power Supply 0\\0\\1\\1\\2", kCtrl0, "0,0,1,1,2"},
        {771, "0\\63\\0", "Battery 0\\63\\0", kCtrl0, "0,63,0"},
        {773, "0\\129\\2", "Virtual Disk 0\\129\\2", kCtrl0, "0,129,2"},
        {791, "0\\128\\2\\1", "Partition 0\\128\\2\\1", kCtrl0, "0,128,2,1"},
        {772, "0\\a\\1\\4", "Physical Disk 0\\a\\1\\4", kCtrl0, "0,a,1,4"},
        {772, "0\\+1\\1\\4", "Physical Disk 0\\+1\\1\\4", kCtrl0, "0,+1,1,4"},
        {772, "0\\01\\1\\4", "Physical Disk 0\\01\\1\\4", kCtrl0, "0,01,1,4"},
        {769, "99999999999", "Controller 99999999999", "", "99999999999"},
        {769, " 0", "Controller  0", "", " 0"}, // " 0" is no controller's nexus
        {769, "0 ", "Controller 0 ", "", "0 "},
        {769, "00", "Controller 00", "", "00"},
        {772, "0\\0\\\\4", "Physical Disk 0\\0\\\\4", kCtrl0, "0,0,,4"},
        {772, "\\0\\1\\4", "Physical Disk \\0\\1\\4", "", ",0,1,4"},
        {772, "0\\0\\1\\", "Physical Disk 0\\0\\1\\", kCtrl0, "0,0,1,"},
        {772, "0/0/1/4", "Physical Disk 0/0/1/4", "", "0/0/1/4"},
        {772, "0,0,1,4", "Physical Disk 0,0,1,4", "", "0,0,1,4"},
        {786, "3\\1", "Tidal Cache 3\\1", "Tidal Cache 3", "3,1"},
        {789, "3\\0", "Cache Disk 3\\0", "Tidal Cache 3", "3,0"},
        {793, "2\\0", "NVMe Adapter 2\\0", "NVMe Adapter 2", "2,0"},
        {793, "9\\0", "NVMe Adapter 9\\0", "", "9,0"},
    };
    for (const SpoiltCase &c : cases) {
        SCOPED_TRACE(std::to_string(c.type) + " \"" + c.nexus + "\"");
        const Answer a = locate(c.type, c.nexus.c_str());
        EXPECT_EQ(a.status, 0u);
        EXPECT_EQ(a.displayName, c.displayName);
        EXPECT_EQ(a.location1, c.location1);
        EXPECT_EQ(a.location2, "");
        EXPECT_EQ(a.detail, c.detail);
    }
}

// What a type code is called, and which of the model's top-level devices
// its nexus's first element numbers.
struct KindCase {
    uint32_t type;
    const char *kind;
    enum Top { kController, kCache, kNvme } top;
};

constexpr KindCase kKindCases[] = {
    {769, "Controller", KindCase::kController},
    {770, "Channel", KindCase::kController},
    {771, "Battery", KindCase::kController},
    {772, "Physical Disk", KindCase::kController},
    {773, "Virtual Disk", KindCase::kController},
    {774, "Tape Drive", KindCase::kController},
    {776, "Enclosure", KindCase::kController},
    {777, "Fan", KindCase::kController},
    {778, "Temperature Probe", KindCase::kController},
    {779, "Power Supply", KindCase::kController},
    {780, "EMM", KindCase::kController},
    {783, "Physical Disk", KindCase::kController},
    {785, "PCIe SSD", KindCase::kController},
    {786, "Tidal Cache", KindCase::kCache},
    {789, "Cache Disk", KindCase::kCache},
    {791, "Partition", KindCase::kController},
    {792, "Tidal Cache Pool", KindCase::kCache},
    {793, "NVMe Adapter", KindCase::kNvme},
};

// A nexus text no type has a shape for, what the names show of it, its
// detail with "," and location1 for each kind of top-level device.
struct OddNexus {
    const char *why;
    std::string nexus;
    std::string shown, detail;
    std::array<const char *, 3> location1; // controller, Tidal Cache, NVMe adapter
};

std::vector<OddNexus> oddNexusTexts()
{
    const std::string x32(32, 'x'), y35(35, 'y'), z157(157, 'z');
    return {
        {"empty", "", "", "", {"", "", ""}},
        {"40 characters",
         "0\\0\\1\\1\\" + x32,
         "0\\0\\1\\1\\" + x32,
         "0,0,1,1," + x32,
         {kCtrl0, "", ""}},
        {"41 characters",
         "3\\0\\1\\" + y35,
         "3\\0\\1\\" + y35,
         "3,0,1," + y35,
         {"", "Tidal Cache 3", ""}},
        {"159 characters (the model's longest value)",
         "2\\" + z157,
         "2\\" + z157,
         "2," + z157,
         {"", "", "NVMe Adapter 2"}},
        {"UTF-8",
         "0\\0\\\xC3\xA9\\\xE2\x82\xAC",
         "0\\0\\\xC3\xA9\\\xE2\x82\xAC",
         "0,0,\xC3\xA9,\xE2\x82\xAC",
         {kCtrl0, "", ""}},
        {"bytes that are not UTF-8",
         "1\\\xFF\\\xC3\\\xC0\x80\\\xED\xA0\x80",
         "1\\?\\?\\??\\???",
         "1,?,?,??,???",
         {"Controller 1", "", ""}},
        {"control characters", "0\t1\\\x7F\\\x1B", "0?1\\?\\?", "0?1,?,?", {"", "", ""}},
        {"backslashes only", "\\\\\\", "\\\\\\", ",,,", {"", "", ""}},
        {"letters", "0\\0\\T0", "0\\0\\T0", "0,0,T0", {kCtrl0, "", ""}},
        {"letters only", "abc", "abc", "abc", {"", "", ""}},
        {"a number past 2^32", "4294967296", "4294967296", "4294967296", {"", "", ""}},
        {"a number past 2^32 inside",
         "0\\0\\99999999999\\1",
         "0\\0\\99999999999\\1",
         "0,0,99999999999,1",
         {kCtrl0, "", ""}},
        {"a negative number", "0\\0\\0\\-1", "0\\0\\0\\-1", "0,0,0,-1", {kCtrl0, "", ""}},
        {"a negative first number", "-1", "-1", "-1", {"", "", ""}},
        {"over 54 bytes of numbers",
         "3\\" + std::string(60, '1'),
         "3\\" + std::string(60, '1'),
         "3," + std::string(60, '1'),
         {"", "Tidal Cache 3", ""}},
    };
}

TEST_F(LocationTest, OddNexusTextsOfEveryTypeCodeAnswer0WithKindAndText)
{
    for (const OddNexus &odd : oddNexusTexts()) {
        for (const KindCase &k : kKindCases) {
            SCOPED_TRACE(std::to_string(k.type) + ", " + odd.why);
            const Answer a = locate(k.type, odd.nexus.c_str());
            EXPECT_EQ(a.status, 0u);
            EXPECT_EQ(a.displayName, odd.nexus.empty() ? std::string(k.kind)
                                                       : std::string(k.kind) + " " + odd.shown);
            EXPECT_EQ(a.location1, odd.location1[k.top]);
            EXPECT_EQ(a.location2, "");
            EXPECT_EQ(a.detail, odd.detail);
        }
    }
}

TEST_F(LocationTest, ALongOddNexusIsCutTo255BytesBeforeAWholeCharacter)
{
    std::string accents;
    for (int i = 0; i < 150; ++i)
        accents += "\xC3\xA9";
    // "Fan " and 125 two-byte characters fill 254 bytes; the 126th would
    // straddle the last byte. "Tape Drive " is odd, so 122 fill all 255.
    EXPECT_EQ(locate(777, accents.c_str()).displayName, "Fan " + accents.substr(0, 250));
    EXPECT_EQ(locate(774, accents.c_str()).displayName, "Tape Drive " + accents.substr(0, 244));
    EXPECT_EQ(locate(777, accents.c_str()).detail, accents.substr(0, 254));

    // A nexus longer than anything it can show is read no further than that:
    // the areas hold its beginning.
    const std::string huge = "0\\" + std::string(100000, '7');
    const Answer a = locate(772, huge.c_str());
    EXPECT_EQ(a.status, 0u);
    EXPECT_EQ(a.displayName, "Physical Disk " + huge.substr(0, 255 - 14));
    EXPECT_EQ(a.location1, kCtrl0);
    EXPECT_EQ(a.detail, "0," + std::string(253, '7'));

    // A cut in the middle of a character where reading stops does not make
    // it a '?': with an empty separator, 1023 backslashes and a two-byte
    // character leave nothing but what was read whole.
    const std::string straddling = std::string(1023, '\\') + "\xC3\xA9" + "tail";
    EXPECT_EQ(locate(777, straddling.c_str(), "").detail, "");
    const std::string whole = std::string(1022, '\\') + "\xC3\xA9" + "tail";
    EXPECT_EQ(locate(777, whole.c_str(), "").detail, "\xC3\xA9");
}

TEST_F(LocationTest, AnUnknownTypeCodeAnswers5WithEmptyTexts)
{
    for (uint32_t type : {775u, 781u, 782u, 784u, 0u, 768u, 794u, 0xFFFFFFFFu}) {
        for (const char *nexus : {"0", "", "0\\0\\1\\4"}) {
            SCOPED_TRACE(std::to_string(type) + " \"" + nexus + "\"");
            const Answer a = locate(type, nexus);
            EXPECT_EQ(a.status, 5u);
            EXPECT_EQ(a.location1 + a.location2 + a.displayName + a.detail, "");
        }
    }
}

TEST_F(LocationTest, RandomNexusTextsAnswer0AndANameOfTheirKind)
{
    const std::string alphabet = "0123456789\\\\\\ -a\xC3\xA9\xFF\t";
    std::mt19937 random(20571);
    for (int round = 0; round < 3000; ++round) {
        std::string nexus(random() % 64, ' ');
        for (char &c : nexus)
            c = alphabet[random() % alphabet.size()];
        const KindCase &k = kKindCases[random() % std::size(kKindCases)];
        SCOPED_TRACE(std::to_string(k.type) + " \"" + nexus + "\"");
        const Answer a = locate(k.type, nexus.c_str());
        ASSERT_EQ(a.status, 0u);
        // A span of a virtual disk is the one name that does not start with
        // its kind.
        EXPECT_TRUE(a.displayName.starts_with(k.kind) ||
                    (k.type == 773 && a.displayName.starts_with("Span ")))
            << a.displayName;
        EXPECT_EQ(a.displayName.find_first_of("\t\xFF"), std::string::npos) << a.displayName;
        EXPECT_EQ(a.detail.find_first_of("\t\xFF\\"), std::string::npos) << a.detail;
    }
}

TEST_F(LocationTest, NullNexusSeparatorOrLanguageOrAReservedValueAnswers5WithEmptyTexts)
{
    ASSERT_EQ(locate(769, "0").status, 0u);
    for (const Answer &a : {locate(769, nullptr), locate(769, "0", nullptr),
                            locate(769, "0", ",", nullptr), locate(769, "0", ",", "en", 1)}) {
        EXPECT_EQ(a.status, 5u);
        EXPECT_EQ(a.location1 + a.location2 + a.displayName + a.detail, "");
    }
}

TEST_F(LocationTest, NullAreasAreSkippedAndTheOthersFilled)
{
    for (int skipped = 0; skipped < 4; ++skipped) {
        SCOPED_TRACE(skipped);
        std::array<std::array<char, EVTMSG_TEXT_SIZE>, 4> areas{};
        char *at[4];
        for (int i = 0; i < 4; ++i)
            at[i] = i == skipped ? nullptr : areas[static_cast<size_t>(i)].data();
        EXPECT_EQ(evtmsg_getObjLocationStrings(777, "0\\0\\1\\1\\2", ",", "en", at[0], at[1], at[2],
                                               at[3], 0),
                  0u);
        const char *expected[] = {kCtrl0, "Enclosure 0:1", "Fan 2", "0,0,1,1,2"};
        for (int i = 0; i < 4; ++i) {
            if (i != skipped) {
                EXPECT_STREQ(at[i], expected[i]);
            }
        }
    }
    EXPECT_EQ(
        evtmsg_getObjLocationStrings(769, "0", ",", "en", nullptr, nullptr, nullptr, nullptr, 0),
        0u);
}

TEST_F(LocationTest, TheDetailJoinsTheNumbersWithTheSeparatorGiven)
{
    EXPECT_EQ(locate(772, "0\\0\\1\\4", "").detail, "0014");
    EXPECT_EQ(locate(772, "0\\0\\1\\4", " / ").detail, "0 / 0 / 1 / 4");
    EXPECT_EQ(locate(772, "0\\0\\1\\4", "\\").detail, "0\\0\\1\\4");
    EXPECT_EQ(locate(769, "0", "--").detail, "0") << "one number has no separator";
}

TEST_F(LocationTest, ALongDetailIsCutTo255BytesBeforeAWholeCharacter)
{
    const std::string dashes(300, '-');
    const Answer a = locate(772, "0\\0\\1\\4", dashes.c_str());
    EXPECT_EQ(a.status, 0u);
    EXPECT_EQ(a.detail, "0" + std::string(254, '-'));
    EXPECT_EQ(a.displayName, "Physical Disk 0:1:4") << "only the long text is cut";

    // "10" and 126 two-byte characters fill 254 bytes; the 127th would
    // straddle the last byte, so it is left out whole.
    std::string accents;
    for (int i = 0; i < 150; ++i)
        accents += "\xC3\xA9";
    EXPECT_EQ(locate(770, "10\\0", accents.c_str()).detail, "10" + accents.substr(0, 252));
    EXPECT_EQ(locate(770, "1\\0", accents.c_str()).detail, "1" + accents.substr(0, 254))
        << "a cut that falls between characters keeps all 255 bytes";
}

TEST_F(LocationTest, TheLongestControllerNameFitsWhole)
{
    const std::string name(ds::kMaxAttributeValueBytes, 'N');
    std::string error;
    ASSERT_TRUE(ds::setAttribute(1, "Name", name, &error)) << error;
    EXPECT_EQ(locate(772, "0\\0\\1\\4").location1, "Controller 0 (" + name + ")");
    ASSERT_TRUE(ds::setAttribute(1, "Name", "", &error)) << error;
    EXPECT_EQ(locate(772, "0\\0\\1\\4").location1, "Controller 0") << "an empty Name is left out";
}

TEST_F(LocationTest, AnyLanguageIsAnsweredInEnglish)
{
    for (const char *language : {"en", "de", "", "EN-us"}) {
        SCOPED_TRACE(language);
        const Answer a = locate(776, "0\\0\\1", ",", language);
        EXPECT_EQ(a.status, 0u);
        EXPECT_EQ(a.displayName, "Enclosure 0:1");
    }
}

TEST_F(LocationTest, ChangesToTheModelAreSeenAtOnce)
{
    std::string error;
    ASSERT_TRUE(ds::setAttribute(1, "Name", "Vorn RX-480", &error)) << error;
    EXPECT_EQ(locate(769, "0").location1, "Controller 0 (Vorn RX-480)");
    EXPECT_EQ(locate(772, "0\\T9").location1, "Controller 0 (Vorn RX-480)");

    // A controller that leaves nexus 0 leaves the names of objects with a
    // shape as they were, but for its Name; a nexus without a shape no
    // longer names it at all.
    ASSERT_TRUE(ds::setAttribute(1, "Nexus", "5", &error)) << error;
    const Answer shaped = locate(772, "0\\0\\1\\4");
    EXPECT_EQ(shaped.status, 0u);
    EXPECT_EQ(shaped.displayName, "Physical Disk 0:1:4");
    EXPECT_EQ(shaped.location1, "Controller 0");
    const Answer odd = locate(772, "0\\T9");
    EXPECT_EQ(odd.status, 0u);
    EXPECT_EQ(odd.displayName, "Physical Disk 0\\T9");
    EXPECT_EQ(odd.location1, "");
}

// The plug-in asks for the name of an object it still lists after the
// model dropped it, and of one the model never held: both are named as
// they would be while held, with status 0.
TEST_F(LocationTest, AnObjectNoLongerOrNeverInTheModelIsNamedAsWhileHeld)
{
    std::string error;
    ASSERT_TRUE(ds::addObjects("<object id='42' type='arraydisks' parent='20'>"
                               "<Nexus>0\\0\\1\\7</Nexus></object>"
                               "<object id='43' type='fans' parent='20'>"
                               "<Nexus>0\\0\\F1</Nexus></object>",
                               &error))
        << error;
    const Answer heldDisk = locate(772, "0\\0\\1\\7");
    const Answer heldFan = locate(777, "0\\0\\F1");
    EXPECT_EQ(heldDisk.status, 0u);
    EXPECT_EQ(heldDisk.displayName, "Physical Disk 0:1:7");
    EXPECT_EQ(heldFan.status, 0u);
    EXPECT_EQ(heldFan.displayName, "Fan 0\\0\\F1");
    ASSERT_TRUE(ds::removeObject(42, &error)) << error;
    ASSERT_TRUE(ds::removeObject(43, &error)) << error;
    for (const auto &[type, nexus, held] :
         {std::tuple{772u, "0\\0\\1\\7", heldDisk}, std::tuple{777u, "0\\0\\F1", heldFan}}) {
        SCOPED_TRACE(nexus);
        const Answer gone = locate(type, nexus);
        EXPECT_EQ(gone.status, 0u);
        EXPECT_EQ(gone.displayName, held.displayName);
        EXPECT_EQ(gone.location1, held.location1);
        EXPECT_EQ(gone.location2, held.location2);
        EXPECT_EQ(gone.detail, held.detail);
    }
    const Answer never = locate(779, "0\\0\\9\\2\\3");
    EXPECT_EQ(never.status, 0u);
    EXPECT_EQ(never.displayName, "Power Supply 3");
    EXPECT_EQ(never.location2, "Enclosure 0:9");
}

TEST(LocationWithoutModelTest, TheTextsComeFromTheNexus)
{
    ds::unloadModel();
    const Answer a = locate(772, "0\\0\\1\\4");
    EXPECT_EQ(a.status, 0u);
    EXPECT_EQ(a.displayName, "Physical Disk 0:1:4");
    EXPECT_EQ(a.location1, "Controller 0") << "the Name is in the model";
    EXPECT_EQ(a.location2, "Enclosure 0:1");
    EXPECT_EQ(a.detail, "0,0,1,4");
    const Answer odd = locate(774, "0\\0\\T0");
    EXPECT_EQ(odd.status, 0u);
    EXPECT_EQ(odd.displayName, "Tape Drive 0\\0\\T0");
    EXPECT_EQ(odd.location1, "") << "no model names the controller";
    EXPECT_EQ(odd.detail, "0,0,T0");
}

} // namespace
