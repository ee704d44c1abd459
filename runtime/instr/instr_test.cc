// The instrumentation object layer: the chassis and base-board objects of
// the served storage model, read back as the plug-in reads them (list the
// system's children by type, fetch the object, convert its UCS-2 tag), and
// the answers to bad input.
#include <gtest/gtest.h>

#include <atomic>
#include <cstddef>
#include <cstdlib>
#include <cstring>
#include <memory>
#include <optional>
#include <string>
#include <thread>
#include <vector>

#include "datastore/model_store.h"
#include "instr/service_tag.h"
#include "kelp/runtime.h"
#include "support/env_testing.h"
#include "vcsgen.h"
#include "vcsupt.h"

namespace {

using kelp::instr::kBaseBoardId;
using kelp::instr::kChassisId;
using kelp::instr::kSystemId;

struct Freer {
    void operator()(void *p) const { SMILFreeGeneric(p); }
};
using List = std::unique_ptr<SMILObjIDList, Freer>;
using Object = std::unique_ptr<unsigned char, Freer>;

List listChildren(SMILObjID parent, uint16_t type)
{
    return List(SMILListChildOIDByType(&parent, type));
}

Object getObject(SMILObjID id)
{
    return Object(static_cast<unsigned char *>(SMILGetObjByOID(&id)));
}

std::string storage(const std::string &attributes)
{
    return "<storage ready=\"1\" " + attributes +
           "><object id=\"1\" type=\"adapters\">"
           "<Nexus>0</Nexus></object></storage>";
}

// The tag of an object as the plug-in reads it: the offset checked against
// the object's size, then the UCS-2 text converted to UTF-8. nullopt when
// the offset or the text is not where the object says.
std::optional<std::string> tagOf(const unsigned char *obj, uint32_t offset)
{
    SMILObjHeader hdr;
    std::memcpy(&hdr, obj, sizeof hdr);
    if (offset == 0)
        return std::string();
    if (offset > hdr.objSize - 2 || offset % 2 != 0)
        return std::nullopt;
    // The text and its NUL lie inside the object.
    const size_t units = (hdr.objSize - offset) / 2;
    std::vector<uint16_t> text(units);
    std::memcpy(text.data(), obj + offset, units * 2);
    if (text.empty() || text.back() != 0)
        return std::nullopt;
    char utf8[1024];
    uint32_t size = sizeof utf8;
    if (SMUCS2StrToUTF8Str(utf8, &size, text.data()) != 0)
        return std::nullopt;
    return std::string(utf8);
}

std::optional<std::string> baseBoardTag()
{
    List list = listChildren(kSystemId, SMIL_OBJTYPE_BASE_BOARD);
    if (list == nullptr || list->count != 1)
        return std::nullopt;
    Object obj = getObject(list->ids[0]);
    if (obj == nullptr)
        return std::nullopt;
    SMILBaseBoardObj board;
    std::memcpy(&board, obj.get(), sizeof board);
    EXPECT_EQ(board.hdr.objType, SMIL_OBJTYPE_BASE_BOARD);
    EXPECT_EQ(board.hdr.objId, list->ids[0]);
    EXPECT_EQ(board.baseBoardType, kelp::instr::kSystemBoardType);
    return tagOf(obj.get(), board.offsetServiceTag);
}

std::optional<std::string> chassisTag()
{
    List list = listChildren(kSystemId, SMIL_OBJTYPE_CHASSIS_PROPS2);
    if (list == nullptr || list->count != 1)
        return std::nullopt;
    Object obj = getObject(list->ids[0]);
    if (obj == nullptr)
        return std::nullopt;
    SMILChassisProps2Obj chassis;
    std::memcpy(&chassis, obj.get(), sizeof chassis);
    EXPECT_EQ(chassis.hdr.objType, SMIL_OBJTYPE_CHASSIS_PROPS2);
    EXPECT_EQ(chassis.hdr.objId, list->ids[0]);
    return tagOf(obj.get(), chassis.offsetServiceTag);
}

class InstrTest : public ::testing::Test {
  protected:
    void SetUp() override
    {
        unsetenv("KELP_MODEL"); // restored by model_env_
        kelp::ds::resetForTesting();
    }
    void TearDown() override { kelp::ds::resetForTesting(); }

    static void load(const std::string &text)
    {
        std::string error;
        ASSERT_TRUE(kelp::ds::loadModelText(text, "test.xml", &error)) << error;
    }

    ScopedEnv model_env_{"KELP_MODEL"};
};

TEST_F(InstrTest, RecordLayoutsAreTheHeadersOwn)
{
    static_assert(sizeof(SMILObjHeader) == 12);
    static_assert(sizeof(SMILBaseBoardObj) == 20);
    static_assert(offsetof(SMILBaseBoardObj, offsetServiceTag) == 16);
    static_assert(sizeof(SMILChassisProps2Obj) == 16);
    static_assert(offsetof(SMILChassisProps2Obj, offsetServiceTag) == 12);
    static_assert(offsetof(SMILObjIDList, ids) == 4);
}

TEST_F(InstrTest, TagsComeFromTheServedModel)
{
    load(storage("chassisServiceTag=\"7XYZ123\" baseBoardServiceTag=\"7XYZ124\""));
    EXPECT_EQ(chassisTag(), "7XYZ123");
    EXPECT_EQ(baseBoardTag(), "7XYZ124");
}

TEST_F(InstrTest, ObjectsHaveTheirIdsTypesAndSizes)
{
    load(storage("chassisServiceTag=\"ABC\" baseBoardServiceTag=\"DEFG\""));
    List boards = listChildren(kSystemId, SMIL_OBJTYPE_BASE_BOARD);
    ASSERT_NE(boards, nullptr);
    EXPECT_EQ(boards->count, 1u);
    EXPECT_EQ(boards->ids[0], kBaseBoardId);
    List chassis = listChildren(kSystemId, SMIL_OBJTYPE_CHASSIS_PROPS2);
    ASSERT_NE(chassis, nullptr);
    EXPECT_EQ(chassis->count, 1u);
    EXPECT_EQ(chassis->ids[0], kChassisId);

    Object board = getObject(kBaseBoardId);
    ASSERT_NE(board, nullptr);
    SMILBaseBoardObj b;
    std::memcpy(&b, board.get(), sizeof b);
    EXPECT_EQ(b.hdr.objSize, sizeof(SMILBaseBoardObj) + 5 * 2); // "DEFG" and its NUL
    EXPECT_EQ(b.hdr.reserved, 0u);
    EXPECT_EQ(b.offsetServiceTag, sizeof(SMILBaseBoardObj));

    Object chassisObj = getObject(kChassisId);
    ASSERT_NE(chassisObj, nullptr);
    SMILChassisProps2Obj c;
    std::memcpy(&c, chassisObj.get(), sizeof c);
    EXPECT_EQ(c.hdr.objSize, sizeof(SMILChassisProps2Obj) + 4 * 2); // "ABC" and its NUL
    EXPECT_EQ(c.offsetServiceTag, sizeof(SMILChassisProps2Obj));
}

TEST_F(InstrTest, NoModelServedGivesNoChildrenAndNoObjects)
{
    for (uint16_t type : {SMIL_OBJTYPE_BASE_BOARD, SMIL_OBJTYPE_CHASSIS_PROPS2})
        EXPECT_EQ(listChildren(kSystemId, type), nullptr) << type;
    EXPECT_EQ(getObject(kBaseBoardId), nullptr);
    EXPECT_EQ(getObject(kChassisId), nullptr);
}

TEST_F(InstrTest, AMissingTagGivesNoObjectOfThatKindOnly)
{
    load(storage("baseBoardServiceTag=\"B0ARD\""));
    EXPECT_EQ(listChildren(kSystemId, SMIL_OBJTYPE_CHASSIS_PROPS2), nullptr);
    EXPECT_EQ(getObject(kChassisId), nullptr);
    EXPECT_EQ(baseBoardTag(), "B0ARD");

    load(storage("chassisServiceTag=\"CHASS1S\""));
    EXPECT_EQ(listChildren(kSystemId, SMIL_OBJTYPE_BASE_BOARD), nullptr);
    EXPECT_EQ(getObject(kBaseBoardId), nullptr);
    EXPECT_EQ(chassisTag(), "CHASS1S");
}

TEST_F(InstrTest, AnEmptyTagGivesAnObjectWithoutATag)
{
    load(storage("chassisServiceTag=\"\" baseBoardServiceTag=\"\""));
    Object board = getObject(kBaseBoardId);
    ASSERT_NE(board, nullptr);
    SMILBaseBoardObj b;
    std::memcpy(&b, board.get(), sizeof b);
    EXPECT_EQ(b.offsetServiceTag, 0u);
    EXPECT_EQ(b.hdr.objSize, sizeof(SMILBaseBoardObj));
    EXPECT_EQ(baseBoardTag(), "");
    EXPECT_EQ(chassisTag(), "");
}

TEST_F(InstrTest, ATagAtTheLimitIsServedWholeAndOneOverIsNeverServed)
{
    const std::string atLimit(kelp::instr::kMaxServiceTagBytes, 'T');
    load(storage("chassisServiceTag=\"" + atLimit + "\" baseBoardServiceTag=\"" + atLimit + "\""));
    EXPECT_EQ(chassisTag(), atLimit);
    EXPECT_EQ(baseBoardTag(), atLimit);
    Object board = getObject(kBaseBoardId);
    ASSERT_NE(board, nullptr);
    SMILObjHeader hdr;
    std::memcpy(&hdr, board.get(), sizeof hdr);
    EXPECT_EQ(hdr.objSize, sizeof(SMILBaseBoardObj) + (atLimit.size() + 1) * 2);

    // A model holding a longer tag is refused: the served one stays.
    std::string error;
    EXPECT_FALSE(kelp::ds::loadModelText(storage("chassisServiceTag=\"" + atLimit + "X\""),
                                         "long.xml", &error));
    EXPECT_NE(error.find("over the limit"), std::string::npos) << error;
    EXPECT_EQ(chassisTag(), atLimit);
}

TEST_F(InstrTest, ATagWithEntitiesAndNonAsciiTextReadsBackAsUtf8)
{
    // "S&T", e acute, the euro sign and a character beyond the basic plane.
    load(storage("chassisServiceTag=\"S&amp;T-\xC3\xA9\xE2\x82\xAC\xF0\x9F\x90\x99\" "
                 "baseBoardServiceTag=\"&#x4E2D;&lt;1&gt;\""));
    EXPECT_EQ(chassisTag(), "S&T-\xC3\xA9\xE2\x82\xAC\xF0\x9F\x90\x99");
    EXPECT_EQ(baseBoardTag(), "\xE4\xB8\xAD<1>");
}

TEST_F(InstrTest, NullIdsAnswerNull)
{
    load(storage("chassisServiceTag=\"A\" baseBoardServiceTag=\"B\""));
    EXPECT_EQ(SMILListChildOIDByType(nullptr, SMIL_OBJTYPE_BASE_BOARD), nullptr);
    EXPECT_EQ(SMILListChildOIDByType(nullptr, SMIL_OBJTYPE_CHASSIS_PROPS2), nullptr);
    EXPECT_EQ(SMILGetObjByOID(nullptr), nullptr);
}

TEST_F(InstrTest, UnknownParentsTypesAndIdsAnswerNull)
{
    load(storage("chassisServiceTag=\"A\" baseBoardServiceTag=\"B\""));
    for (SMILObjID parent : {0u, 1u, kChassisId, kBaseBoardId, 5u, 0xFFFFFFFFu}) {
        EXPECT_EQ(listChildren(parent, SMIL_OBJTYPE_BASE_BOARD), nullptr) << parent;
        EXPECT_EQ(listChildren(parent, SMIL_OBJTYPE_CHASSIS_PROPS2), nullptr) << parent;
    }
    for (unsigned type : {0u, 1u, 32u, 34u, 258u, 260u, 0xFFFFu})
        EXPECT_EQ(listChildren(kSystemId, static_cast<uint16_t>(type)), nullptr) << type;
    // The system has no record of its own.
    for (SMILObjID id : {0u, 1u, kSystemId, 5u, 33u, 259u, 0xFFFFFFFFu})
        EXPECT_EQ(getObject(id), nullptr) << id;
}

TEST_F(InstrTest, AnswersFollowTheModelAndOutliveIt)
{
    load(storage("chassisServiceTag=\"OLD\" baseBoardServiceTag=\"OLD\""));
    List list = listChildren(kSystemId, SMIL_OBJTYPE_CHASSIS_PROPS2);
    Object before = getObject(kChassisId);
    ASSERT_NE(list, nullptr);
    ASSERT_NE(before, nullptr);

    load(storage("chassisServiceTag=\"NEW\" baseBoardServiceTag=\"NEW\""));
    EXPECT_EQ(chassisTag(), "NEW");
    EXPECT_EQ(baseBoardTag(), "NEW");

    kelp::ds::unloadModel();
    EXPECT_EQ(getObject(list->ids[0]), nullptr); // listed, but gone since
    SMILChassisProps2Obj c;
    std::memcpy(&c, before.get(), sizeof c);
    EXPECT_EQ(tagOf(before.get(), c.offsetServiceTag), "OLD"); // a copy of its own
}

TEST_F(InstrTest, FreeGenericReleasesListsObjectsAndIgnoresNull)
{
    load(storage("chassisServiceTag=\"A\" baseBoardServiceTag=\"B\""));
    // Under LeakSanitizer a block that SMILFreeGeneric did not release fails
    // the run.
    SMILObjID system = kSystemId, board = kBaseBoardId, chassis = kChassisId;
    SMILFreeGeneric(SMILListChildOIDByType(&system, SMIL_OBJTYPE_BASE_BOARD));
    SMILFreeGeneric(SMILGetObjByOID(&board));
    SMILFreeGeneric(SMILGetObjByOID(&chassis));
    SMILFreeGeneric(nullptr);
}

TEST_F(InstrTest, ReadersWhileTheModelChangesSeeOneTagOrNone)
{
    load(storage("chassisServiceTag=\"AAAA\" baseBoardServiceTag=\"AAAA\""));
    std::atomic<bool> stop{false};
    std::vector<std::thread> readers;
    for (int r = 0; r < 2; ++r) {
        readers.emplace_back([&stop] {
            while (!stop.load()) {
                std::optional<std::string> tag = chassisTag();
                if (tag) {
                    EXPECT_TRUE(*tag == "AAAA" || *tag == "BBBBBBBB") << *tag;
                }
                SMILObjID id = kBaseBoardId;
                SMILFreeGeneric(SMILGetObjByOID(&id));
            }
        });
    }
    for (int i = 0; i < 50; ++i) {
        load(storage(i % 2 == 0 ? "chassisServiceTag=\"BBBBBBBB\""
                                : "chassisServiceTag=\"AAAA\" baseBoardServiceTag=\"AAAA\""));
        if (i % 10 == 0)
            kelp::ds::unloadModel();
    }
    stop = true;
    for (auto &t : readers)
        t.join();
}

// The UTF-8 to UCS-2 conversion on its own: malformed input never gives more
// code units than bytes, each bad byte one U+FFFD.
TEST(Utf8ToUcs2Test, WellFormedTextConverts)
{
    using kelp::instr::utf8ToUcs2;
    EXPECT_EQ(utf8ToUcs2(""), u"");
    EXPECT_EQ(utf8ToUcs2("7XYZ123"), u"7XYZ123");
    EXPECT_EQ(utf8ToUcs2("\xC3\xA9\xE2\x82\xAC"), u"\u00E9\u20AC");
    EXPECT_EQ(utf8ToUcs2("\xF0\x9F\x90\x99"), std::u16string({0xD83D, 0xDC19}));
    EXPECT_EQ(utf8ToUcs2("\xF4\x8F\xBF\xBF"), std::u16string({0xDBFF, 0xDFFF}));
    EXPECT_EQ(utf8ToUcs2("\xEF\xBF\xBF"), std::u16string({0xFFFF}));
}

TEST(Utf8ToUcs2Test, EachMalformedByteBecomesOneReplacement)
{
    using kelp::instr::utf8ToUcs2;
    const char16_t r = 0xFFFD;
    EXPECT_EQ(utf8ToUcs2("\x80"), std::u16string({r}));                      // stray continuation
    EXPECT_EQ(utf8ToUcs2("a\xC3"), std::u16string({u'a', r}));               // cut at the end
    EXPECT_EQ(utf8ToUcs2("\xE2\x82x"), std::u16string({r, r, u'x'}));        // cut in the middle
    EXPECT_EQ(utf8ToUcs2("\xC0\xAF"), std::u16string({r, r}));               // overlong
    EXPECT_EQ(utf8ToUcs2("\xE0\x80\xAF"), std::u16string({r, r, r}));        // overlong
    EXPECT_EQ(utf8ToUcs2("\xED\xA0\x80"), std::u16string({r, r, r}));        // a surrogate
    EXPECT_EQ(utf8ToUcs2("\xF4\x90\x80\x80"), std::u16string({r, r, r, r})); // past U+10FFFF
    EXPECT_EQ(utf8ToUcs2("\xFF\xFE"), std::u16string({r, r}));
}

TEST(Utf8ToUcs2Test, NeverMoreCodeUnitsThanBytes)
{
    std::string junk;
    for (int i = 0; i < 4096; ++i)
        junk.push_back(static_cast<char>((i * 37 + 11) & 0xFF));
    for (size_t len = 0; len <= junk.size(); len += 13) {
        std::string_view part(junk.data(), len);
        EXPECT_LE(kelp::instr::utf8ToUcs2(part).size(), part.size());
    }
}

} // namespace
