// SES pages decode into the power supplies, fans, temperature sensors and
// controllers of every subenclosure, with the offsets into the status,
// threshold and descriptor pages counted over the skipped types too; every
// cut, mismatched or overlong page is refused cleanly (the test runs under
// ASan in CI, and cut pages are handed over in buffers of their exact size);
// the pages are read from capture files, and the SG_IO reader refuses what is
// not a SCSI generic node.
#include "datastore/live/ses.h"

#include <gtest/gtest.h>
#include <unistd.h>

#include <array>
#include <cstdlib>
#include <filesystem>
#include <fstream>
#include <sstream>
#include <string>
#include <vector>

namespace {

namespace fs = std::filesystem;
using kelp::live::decodeSes;
using kelp::live::SesElement;
using kelp::live::SesEnclosure;
using kelp::live::SesKind;
using kelp::live::SesPages;
using kelp::live::SesPageViews;

// ---- Building pages byte by byte -------------------------------------------

class Bytes {
  public:
    Bytes &u8(unsigned v)
    {
        s_ += static_cast<char>(v & 0xff);
        return *this;
    }
    Bytes &u16(unsigned v) { return u8(v >> 8).u8(v); }
    Bytes &u32(uint32_t v) { return u16(v >> 16).u16(v & 0xffff); }
    Bytes &raw(std::string_view text)
    {
        s_ += text;
        return *this;
    }
    template <size_t N> Bytes &raw(const std::array<uint8_t, N> &bytes)
    {
        for (uint8_t b : bytes)
            u8(b);
        return *this;
    }
    const std::string &str() const { return s_; }

  private:
    std::string s_;
};

// A status page: code, byte 1, the length of what follows, generation, body.
std::string page(unsigned code, uint32_t generation, const std::string &body)
{
    return Bytes()
        .u8(code)
        .u8(0)
        .u16(static_cast<unsigned>(4 + body.size()))
        .u32(generation)
        .raw(body)
        .str();
}

struct Sub {
    unsigned id;
    std::string logicalId;                 // 8 bytes
    std::string vendor, product, revision; // 8, 16 and 4 bytes, as sent
};

// One individual element: its status and threshold entries, its descriptor,
// and what it decodes to (nullopt: skipped).
struct Entry {
    std::array<uint8_t, 4> status, threshold;
    std::string descriptor;
    std::optional<SesElement> want;
};

// One type descriptor header and its elements.
struct Group {
    uint8_t type;
    unsigned sub;
    std::vector<Entry> elements;
};

// Overall elements carry values no individual one has, so that one decoded in
// place of an individual element shows.
constexpr std::array<uint8_t, 4> kOverallStatus = {0xef, 0xff, 0xff, 0xff};
constexpr std::array<uint8_t, 4> kOverallThreshold = {0xfe, 0xfe, 0xfe, 0xfe};
constexpr char kOverallText[] = "Overall";

std::string configPage(const std::vector<Sub> &subs, const std::vector<Group> &groups,
                       uint32_t generation)
{
    Bytes body;
    for (const Sub &sub : subs) {
        unsigned headers = 0;
        for (const Group &g : groups)
            headers += g.sub == sub.id ? 1 : 0;
        body.u8(0x11).u8(sub.id).u8(headers).u8(36);
        body.raw(sub.logicalId).raw(sub.vendor).raw(sub.product).raw(sub.revision);
    }
    std::string texts;
    for (const Group &g : groups) {
        std::string text = "type " + std::to_string(g.type);
        body.u8(g.type)
            .u8(static_cast<unsigned>(g.elements.size()))
            .u8(g.sub)
            .u8(static_cast<unsigned>(text.size()));
        texts += text;
    }
    body.raw(texts);
    std::string p = page(0x01, generation, body.str());
    p[1] = static_cast<char>(subs.size() - 1); // secondary subenclosures
    return p;
}

std::string statusPage(const std::vector<Group> &groups, uint32_t generation)
{
    Bytes body;
    for (const Group &g : groups) {
        body.raw(kOverallStatus);
        for (const Entry &e : g.elements)
            body.raw(e.status);
    }
    return page(0x02, generation, body.str());
}

std::string thresholdPage(const std::vector<Group> &groups, uint32_t generation)
{
    Bytes body;
    for (const Group &g : groups) {
        body.raw(kOverallThreshold);
        for (const Entry &e : g.elements)
            body.raw(e.threshold);
    }
    return page(0x05, generation, body.str());
}

std::string descriptorPage(const std::vector<Group> &groups, uint32_t generation)
{
    Bytes body;
    for (const Group &g : groups) {
        body.u16(0).u16(sizeof kOverallText - 1).raw(kOverallText);
        for (const Entry &e : g.elements)
            body.u16(0).u16(static_cast<unsigned>(e.descriptor.size())).raw(e.descriptor);
    }
    return page(0x07, generation, body.str());
}

// ---- The enclosure of most tests -------------------------------------------

constexpr uint32_t kGeneration = 0x01020304;

const std::vector<Sub> kSubs = {
    {0, std::string("\x50\x0a\x0b\x0c\x0d\x0e\x0f\x01", 8), "ACME    ", "JB-PRIMARY      ", "0100"},
    {1, std::string("\x50\x0a\x0b\x0c\x0d\x0e\x0f\x02", 8), "OTHERCO ",
     std::string("JB-SECONDARY\0\0\0\0", 16), " 2 \x01"},
};

// Expected element in the primary (0) or secondary (1) subenclosure.
SesElement in(unsigned sub, SesElement e)
{
    e.vendor = sub == 0 ? "ACME" : "OTHERCO";
    e.product = sub == 0 ? "JB-PRIMARY" : "JB-SECONDARY";
    e.revision = sub == 0 ? "0100" : "2 ?";
    return e;
}

constexpr std::array<uint8_t, 4> kNoThreshold = {0, 0, 0, 0};

// Status codes 1 to 8 all appear; bits around each field are set where the
// layout has neighbours, so that a wrong mask shows.
const std::vector<Group> kGroups = {
    {0x17,
     0, // array device slots: skipped
     {{{0x01, 0, 0, 0}, kNoThreshold, "Slot A", std::nullopt},
      {{0x05, 0, 0, 0}, kNoThreshold, "Slot B", std::nullopt}}},
    {0x02,
     0, // power supplies
     {{{0x01, 0, 0, 0x20},
       kNoThreshold,
       "  PSU L  ",
       in(0, {.kind = SesKind::kPowerSupply, .index = 0, .status = 1, .descriptor = "PSU L"})},
      {{0xe2, 0, 0, 0x20},
       kNoThreshold,
       "PSU R",
       in(0, {.kind = SesKind::kPowerSupply,
              .index = 1,
              .status = 2,
              .predictedFailure = true,
              .swapped = true,
              .disabled = true,
              .descriptor = "PSU R"})}}},
    {0x03,
     0, // cooling
     {{{0x01, 0x02, 0x08, 0x23},
       kNoThreshold,
       "Fan\x01 0",
       in(0, {.kind = SesKind::kCooling,
              .index = 0,
              .status = 1,
              .fanRpm = 5200,
              .speedCode = 3,
              .descriptor = "Fan? 0"})},
      {{0x13, 0xff, 0xff, 0xff},
       kNoThreshold,
       "Fan 1",
       in(0, {.kind = SesKind::kCooling,
              .index = 1,
              .status = 3,
              .fanRpm = 20470,
              .speedCode = 7,
              .descriptor = "Fan 1"})}}},
    {0x04,
     0, // temperature sensors
     {{{0x01, 0, 46, 0},
       {80, 70, 25, 20},
       "Temp In",
       in(0, {.kind = SesKind::kTemperature,
              .index = 0,
              .status = 1,
              .temperatureC = 26,
              .highCriticalC = 60,
              .highWarningC = 50,
              .lowWarningC = 5,
              .lowCriticalC = 0,
              .descriptor = "Temp In"})},
      {{0x04, 0xff, 0, 0xff},
       kNoThreshold,
       "",
       in(0, {.kind = SesKind::kTemperature, .index = 1, .status = 4})}}},
    {0x80,
     0, // vendor specific: skipped
     {{{0x01, 0x02, 0x03, 0x04}, {1, 2, 3, 4}, "Vendor thing", std::nullopt}}},
    {0x0e, 0, {}}, // enclosure, no individual elements: only its overall entry
    {0x07,
     0, // enclosure services controller electronics
     {{{0x01, 0, 0, 0},
       kNoThreshold,
       std::string("ESM A\0\0\0", 8),
       in(0, {.kind = SesKind::kEsm, .index = 0, .status = 1, .descriptor = "ESM A"})}}},
    {0x01,
     1, // device slot: skipped
     {{{0x01, 0, 0, 0}, kNoThreshold, "Bay 0", std::nullopt}}},
    {0x02,
     1,
     {{{0x05, 0, 0, 0},
       kNoThreshold,
       "PSU X",
       in(1, {.kind = SesKind::kPowerSupply, .index = 2, .status = 5, .descriptor = "PSU X"})}}},
    {0x03,
     1,
     {{{0x06, 0, 0, 0},
       kNoThreshold,
       "Fan X",
       in(1, {.kind = SesKind::kCooling,
              .index = 2,
              .status = 6,
              .fanRpm = 0,
              .speedCode = 0,
              .descriptor = "Fan X"})}}},
    {0x04,
     1,
     {{{0x07, 0, 1, 0},
       {255, 1, 255, 1},
       "Temp X",
       in(1, {.kind = SesKind::kTemperature,
              .index = 2,
              .status = 7,
              .temperatureC = -19,
              .highCriticalC = 235,
              .highWarningC = -19,
              .lowWarningC = 235,
              .lowCriticalC = -19,
              .descriptor = "Temp X"})}}},
    {0x07,
     1,
     {{{0x08, 0, 0, 0},
       kNoThreshold,
       "ESM X",
       in(1, {.kind = SesKind::kEsm, .index = 1, .status = 8, .descriptor = "ESM X"})}}},
};

SesPages allPages()
{
    return {configPage(kSubs, kGroups, kGeneration), statusPage(kGroups, kGeneration),
            thresholdPage(kGroups, kGeneration), descriptorPage(kGroups, kGeneration)};
}

// Page i (0 configuration, 1 status, 2 threshold, 3 descriptor) of *pages,
// const or not.
template <typename P> auto pageOf(P *pages, size_t i)
{
    std::array all{&pages->config, &pages->status, &pages->threshold, &pages->descriptor};
    return all[i];
}

constexpr const char *kPageNames[] = {"configuration page", "enclosure status page",
                                      "threshold in page", "element descriptor page"};

// ---- Comparing elements ----------------------------------------------------

template <typename T> std::string opt(const std::optional<T> &v)
{
    return v ? std::to_string(*v) : "none";
}

// Every field, so that a difference names itself in the failure message.
std::string describe(const SesElement &e)
{
    std::ostringstream o;
    o << "kind=" << static_cast<int>(e.kind) << " index=" << e.index << " status=" << e.status
      << " pf=" << e.predictedFailure << " swap=" << e.swapped << " disabled=" << e.disabled
      << " temp=" << opt(e.temperatureC) << " rpm=" << opt(e.fanRpm) << " speed=" << e.speedCode
      << " hc=" << opt(e.highCriticalC) << " hw=" << opt(e.highWarningC)
      << " lw=" << opt(e.lowWarningC) << " lc=" << opt(e.lowCriticalC) << " desc='" << e.descriptor
      << "' vendor='" << e.vendor << "' product='" << e.product << "' rev='" << e.revision << "'";
    return o.str();
}

std::vector<std::string> describeAll(const std::vector<SesElement> &elements)
{
    std::vector<std::string> out;
    for (const SesElement &e : elements)
        out.push_back(describe(e));
    return out;
}

// The elements kGroups decodes to, changed by `adjust`.
template <typename F> std::vector<std::string> wanted(F adjust)
{
    std::vector<std::string> out;
    for (const Group &g : kGroups) {
        for (const Entry &e : g.elements) {
            if (e.want) {
                SesElement w = *e.want;
                adjust(&w);
                out.push_back(describe(w));
            }
        }
    }
    return out;
}

// ---- Decoding --------------------------------------------------------------

TEST(SesDecode, EveryFieldOfEveryElementWithAllPages)
{
    SesEnclosure enc;
    std::string error;
    ASSERT_TRUE(decodeSes(allPages(), &enc, &error)) << error;
    EXPECT_EQ(enc.vendor, "ACME");
    EXPECT_EQ(enc.product, "JB-PRIMARY");
    EXPECT_EQ(enc.revision, "0100");
    EXPECT_EQ(enc.logicalId, "500a0b0c0d0e0f01");
    EXPECT_EQ(enc.generation, kGeneration);
    EXPECT_EQ(describeAll(enc.elements), wanted([](SesElement *) {}));
}

TEST(SesDecode, WithoutThresholdAndDescriptorPagesThoseFieldsAreEmpty)
{
    SesPages pages = allPages();
    pages.threshold.clear();
    pages.descriptor.clear();
    SesEnclosure enc;
    std::string error;
    ASSERT_TRUE(decodeSes(pages, &enc, &error)) << error;
    EXPECT_EQ(describeAll(enc.elements), wanted([](SesElement *w) {
                  w->highCriticalC = w->highWarningC = w->lowWarningC = w->lowCriticalC =
                      std::nullopt;
                  w->descriptor.clear();
              }));
}

TEST(SesDecode, EveryStatusCodeAndFlagIsPassedOn)
{
    for (unsigned byte0 = 0; byte0 < 256; ++byte0) {
        std::vector<Group> groups = {
            {0x02, 0, {{{static_cast<uint8_t>(byte0), 0, 0, 0}, kNoThreshold, "P", {}}}}};
        SesPages pages{configPage(kSubs, groups, 7), statusPage(groups, 7), "", ""};
        SesEnclosure enc;
        std::string error;
        ASSERT_TRUE(decodeSes(pages, &enc, &error)) << error;
        ASSERT_EQ(enc.elements.size(), 1u);
        EXPECT_EQ(enc.elements[0].status, byte0 & 0x0f) << byte0;
        EXPECT_EQ(enc.elements[0].predictedFailure, (byte0 & 0x80) != 0) << byte0;
        EXPECT_EQ(enc.elements[0].disabled, (byte0 & 0x40) != 0) << byte0;
        EXPECT_EQ(enc.elements[0].swapped, (byte0 & 0x20) != 0) << byte0;
    }
}

TEST(SesDecode, AnEnclosureWithNoTypesHasNoElements)
{
    std::vector<Group> none;
    SesPages pages{configPage(kSubs, none, 1), statusPage(none, 1), thresholdPage(none, 1),
                   descriptorPage(none, 1)};
    SesEnclosure enc;
    std::string error;
    ASSERT_TRUE(decodeSes(pages, &enc, &error)) << error;
    EXPECT_TRUE(enc.elements.empty());
    EXPECT_EQ(enc.vendor, "ACME");
}

// Decodes pages whose bytes sit in buffers of exactly their size, so that
// ASan catches a read past any of them.
bool decodeExact(const SesPages &pages, SesEnclosure *enc, std::string *error)
{
    std::vector<char> buffers[4];
    std::string_view views[4];
    for (size_t i = 0; i < 4; ++i) {
        const std::string &p = *pageOf(&pages, i);
        buffers[i].assign(p.begin(), p.end());
        views[i] = std::string_view(buffers[i].data(), buffers[i].size());
    }
    return decodeSes(SesPageViews{views[0], views[1], views[2], views[3]}, enc, error);
}

TEST(SesDecode, EveryCutOfEveryPageIsRefused)
{
    const SesPages whole = allPages();
    for (size_t p = 0; p < 4; ++p) {
        for (size_t n = 0; n < pageOf(&whole, p)->size(); ++n) {
            SesPages pages = whole;
            pageOf(&pages, p)->resize(n);
            SesEnclosure enc;
            enc.vendor = "untouched";
            std::string error;
            bool ok = decodeExact(pages, &enc, &error);
            // An empty optional page is one not given.
            if (p >= 2 && n == 0) {
                EXPECT_TRUE(ok) << error;
                continue;
            }
            ASSERT_FALSE(ok) << kPageNames[p] << " cut to " << n;
            EXPECT_NE(error.find(kPageNames[p]), std::string::npos) << error;
            EXPECT_EQ(enc.vendor, "untouched");
        }
    }
}

// The same cuts with the page length fixed to match, so that the walk through
// the descriptors, headers and entries meets the end of the page inside them.
TEST(SesDecode, EveryCutWithAMatchingLengthIsRefusedInsideThePage)
{
    const SesPages whole = allPages();
    for (size_t p = 0; p < 4; ++p) {
        for (size_t n = 8; n < pageOf(&whole, p)->size(); ++n) {
            SesPages pages = whole;
            std::string *page = pageOf(&pages, p);
            page->resize(n);
            (*page)[2] = static_cast<char>((n - 4) >> 8);
            (*page)[3] = static_cast<char>((n - 4) & 0xff);
            SesEnclosure enc;
            std::string error;
            bool ok = decodeExact(pages, &enc, &error);
            // Only the configuration page's type texts may be cut: they are
            // not needed.
            size_t textStart = whole.config.find("type ");
            if (p == 0 && n >= textStart) {
                EXPECT_TRUE(ok) << error;
                continue;
            }
            EXPECT_FALSE(ok) << kPageNames[p] << " cut to " << n;
            EXPECT_NE(error.find(kPageNames[p]), std::string::npos) << error;
        }
    }
}

// Every byte of every page set to 0x00, 0xff and 0x80 in turn: the decode
// answers either way without reading outside the pages.
TEST(SesDecode, AnyByteValueAnywhereIsDecodedOrRefusedCleanly)
{
    const SesPages whole = allPages();
    int refused = 0;
    for (size_t p = 0; p < 4; ++p) {
        for (size_t i = 0; i < pageOf(&whole, p)->size(); ++i) {
            for (unsigned value : {0x00u, 0xffu, 0x80u}) {
                SesPages pages = whole;
                (*pageOf(&pages, p))[i] = static_cast<char>(value);
                SesEnclosure enc;
                std::string error;
                if (!decodeExact(pages, &enc, &error)) {
                    EXPECT_FALSE(error.empty());
                    ++refused;
                }
            }
        }
    }
    EXPECT_GT(refused, 0);
}

// One change to the pages and the words the refusal must hold.
struct BadCase {
    const char *name;
    size_t page;   // index into kPageNames
    size_t named;  // the page the refusal names
    size_t offset; // byte to set
    unsigned value;
    const char *message;
};

// Offsets into allPages(): the configuration page has two enclosure
// descriptors of 40 bytes from byte 8, then the type headers from byte 88.
constexpr BadCase kBadCases[] = {
    {"configuration page code", 0, 0, 0, 0x02, "page code is 0x02"},
    {"status page code", 1, 1, 0, 0x01, "page code is 0x01"},
    {"threshold page code", 2, 2, 0, 0x04, "page code is 0x04"},
    {"descriptor page code", 3, 3, 0, 0x08, "page code is 0x08"},
    {"configuration length past the buffer", 0, 0, 2, 0x7f, "past the"},
    {"status length past the buffer", 1, 1, 2, 0x7f, "past the"},
    {"threshold length past the buffer", 2, 2, 2, 0x7f, "past the"},
    {"descriptor length past the buffer", 3, 3, 2, 0x7f, "past the"},
    {"status generation", 1, 1, 7, 0x05, "generation code"},
    {"threshold generation", 2, 2, 4, 0x09, "generation code"},
    {"descriptor generation", 3, 3, 5, 0x00, "generation code"},
    {"more secondary subenclosures than described", 0, 0, 1, 0xff, "enclosure descriptor 2"},
    {"enclosure descriptor past the page", 0, 0, 8 + 3, 0xff, "past the page"},
    {"enclosure descriptor too short for its fields", 0, 0, 8 + 3, 35, "too short"},
    {"more type headers than the page holds", 0, 0, 8 + 2, 0xff, "past the page"},
    {"more elements than the status page holds", 0, 1, 88 + 1, 0xff, "entries"},
    {"type header naming an unknown subenclosure", 0, 0, 88 + 2, 9, "subenclosure 9"},
    {"element descriptor length past the page", 3, 3, 8 + 2, 0x7f, "past the page"},
};

TEST(SesDecode, BadPagesAreRefusedWithTheReason)
{
    for (const BadCase &c : kBadCases) {
        SesPages pages = allPages();
        std::string *page = pageOf(&pages, c.page);
        ASSERT_LT(c.offset, page->size()) << c.name;
        ASSERT_NE(static_cast<unsigned char>((*page)[c.offset]), c.value) << c.name;
        (*page)[c.offset] = static_cast<char>(c.value);
        SesEnclosure enc;
        std::string error;
        EXPECT_FALSE(decodeExact(pages, &enc, &error)) << c.name;
        EXPECT_NE(error.find(kPageNames[c.named]), std::string::npos) << c.name << ": " << error;
        EXPECT_NE(error.find(c.message), std::string::npos) << c.name << ": " << error;
    }
}

// ---- Reading ---------------------------------------------------------------

class SesFilesTest : public ::testing::Test {
  protected:
    void SetUp() override
    {
        std::string pattern = ::testing::TempDir() + "kelp_ses_XXXXXX";
        ASSERT_NE(mkdtemp(pattern.data()), nullptr);
        dir_ = pattern;
    }
    void TearDown() override { fs::remove_all(dir_); }

  public:
    void write(const std::string &name, const std::string &bytes)
    {
        std::ofstream(dir_ + "/" + name, std::ios::binary) << bytes;
    }
    void writeAll(const SesPages &pages)
    {
        write("page-01.bin", pages.config);
        write("page-02.bin", pages.status);
        write("page-05.bin", pages.threshold);
        write("page-07.bin", pages.descriptor);
    }

    std::string dir_;
};

TEST_F(SesFilesTest, AllFourPagesAreReadAsWritten)
{
    SesPages want = allPages();
    writeAll(want);
    SesPages got;
    std::string error;
    ASSERT_TRUE(kelp::live::readSesPagesFiles(dir_, &got, &error)) << error;
    EXPECT_EQ(got.config, want.config);
    EXPECT_EQ(got.status, want.status);
    EXPECT_EQ(got.threshold, want.threshold);
    EXPECT_EQ(got.descriptor, want.descriptor);
}

TEST_F(SesFilesTest, MissingThresholdAndDescriptorFilesLeaveThosePagesEmpty)
{
    SesPages want = allPages();
    write("page-01.bin", want.config);
    write("page-02.bin", want.status);
    SesPages got{"x", "x", "stale", "stale"};
    std::string error;
    ASSERT_TRUE(kelp::live::readSesPagesFiles(dir_, &got, &error)) << error;
    EXPECT_EQ(got.config, want.config);
    EXPECT_EQ(got.status, want.status);
    EXPECT_EQ(got.threshold, "");
    EXPECT_EQ(got.descriptor, "");
}

TEST_F(SesFilesTest, RefusalsNameTheFile)
{
    struct Case {
        const char *name;
        void (*spoil)(SesFilesTest *);
        std::string dirSuffix;
        const char *message;
    };
    const Case cases[] = {
        {"missing configuration page",
         [](SesFilesTest *t) { fs::remove(t->dir_ + "/page-01.bin"); }, "",
         "page-01.bin: cannot open"},
        {"missing status page", [](SesFilesTest *t) { fs::remove(t->dir_ + "/page-02.bin"); }, "",
         "page-02.bin: cannot open"},
        {"empty status page", [](SesFilesTest *t) { t->write("page-02.bin", ""); }, "",
         "page-02.bin: empty"},
        {"empty descriptor page", [](SesFilesTest *t) { t->write("page-07.bin", ""); }, "",
         "page-07.bin: empty"},
        {"configuration page is a directory",
         [](SesFilesTest *t) {
             fs::remove(t->dir_ + "/page-01.bin");
             fs::create_directory(t->dir_ + "/page-01.bin");
         },
         "", "page-01.bin: not a regular file"},
        {"threshold page is a directory",
         [](SesFilesTest *t) {
             fs::remove(t->dir_ + "/page-05.bin");
             fs::create_directory(t->dir_ + "/page-05.bin");
         },
         "", "page-05.bin: not a regular file"},
        {"directory is a file", [](SesFilesTest *) {}, "/page-01.bin", "page-01.bin/page-01.bin"},
        {"directory missing", [](SesFilesTest *) {}, "/nowhere", "nowhere/page-01.bin"},
    };
    for (const Case &c : cases) {
        writeAll(allPages());
        c.spoil(this);
        SesPages got;
        std::string error;
        EXPECT_FALSE(kelp::live::readSesPagesFiles(dir_ + c.dirSuffix, &got, &error)) << c.name;
        EXPECT_NE(error.find(c.message), std::string::npos) << c.name << ": " << error;
        fs::remove_all(dir_ + "/page-01.bin");
        fs::remove_all(dir_ + "/page-05.bin");
    }
}

TEST_F(SesFilesTest, SgIoRefusesAMissingPathAndARegularFile)
{
    SesPages pages;
    std::string error;
    EXPECT_FALSE(kelp::live::readSesPagesSgIo(dir_ + "/sg99", &pages, &error));
    EXPECT_NE(error.find(dir_ + "/sg99"), std::string::npos) << error;
    EXPECT_NE(error.find("No such file"), std::string::npos) << error;

    write("sg8", allPages().config);
    error.clear();
    EXPECT_FALSE(kelp::live::readSesPagesSgIo(dir_ + "/sg8", &pages, &error));
    EXPECT_NE(error.find(dir_ + "/sg8: not a SCSI generic device"), std::string::npos) << error;
}

// ---- The server fixture's enclosure ----------------------------------------

TEST(SesFixture, TheServerEnclosurePagesDecodeToItsComponents)
{
    SesPages pages;
    std::string error;
    ASSERT_TRUE(kelp::live::readSesPagesFiles(KELP_SOURCE_DIR "/tests/fixtures/server/dev/sg8.ses",
                                              &pages, &error))
        << error;
    SesEnclosure enc;
    ASSERT_TRUE(decodeSes(pages, &enc, &error)) << error;
    EXPECT_EQ(enc.vendor, "HALDEN");
    EXPECT_EQ(enc.product, "HJ1200-12G");
    EXPECT_EQ(enc.revision, "0311");
    EXPECT_EQ(enc.logicalId, "500f1e7100000080");

    auto ok = [](SesElement e) {
        e.status = 1;
        e.vendor = "HALDEN";
        e.product = "HJ1200-12G";
        e.revision = "0311";
        return describe(e);
    };
    auto temp = [&](unsigned index, int celsius, const char *name) {
        return ok({.kind = SesKind::kTemperature,
                   .index = index,
                   .temperatureC = celsius,
                   .highCriticalC = 60,
                   .highWarningC = 50,
                   .lowWarningC = 5,
                   .lowCriticalC = 0,
                   .descriptor = name});
    };
    const std::vector<std::string> want = {
        ok({.kind = SesKind::kPowerSupply, .index = 0, .descriptor = "PSU 0"}),
        ok({.kind = SesKind::kPowerSupply, .index = 1, .descriptor = "PSU 1"}),
        ok({.kind = SesKind::kCooling,
            .index = 0,
            .fanRpm = 5200,
            .speedCode = 3,
            .descriptor = "Fan 0"}),
        ok({.kind = SesKind::kCooling,
            .index = 1,
            .fanRpm = 5400,
            .speedCode = 3,
            .descriptor = "Fan 1"}),
        temp(0, 26, "Temp Backplane"),
        temp(1, 31, "Temp PSU 0"),
        temp(2, 29, "Temp PSU 1"),
        ok({.kind = SesKind::kEsm, .index = 0, .descriptor = "ESM A"}),
        ok({.kind = SesKind::kEsm, .index = 1, .descriptor = "ESM B"}),
    };
    EXPECT_EQ(describeAll(enc.elements), want);
}

} // namespace
