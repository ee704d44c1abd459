// The thread's last scan of a short text: asked again in the same bytes (a
// new copy of a count answer, say) it answers as the scan did, and in
// any other text, for any other tag or occurrence, it answers nothing.
#include "xmlsup/last_scan.h"

#include <gtest/gtest.h>

#include <string>
#include <thread>

#include "xmlsup.h"
#include "xmlsup/xml_scan.h"

namespace {

namespace xml = kelp::rt::xml;

const std::string kShort = "<Health><Code>0</Code></Health>";

// Scans `text` for the occurrence-th `tag` and keeps the scan, as
// XMLSupGetXMLMemData does.
void scan(const std::string &text, const std::string &tag, uint32_t occurrence)
{
    xml::rememberScan(text.data(), text.size(), tag, occurrence,
                      xml::findElement(text, tag, occurrence));
}

// XMLSupGetXMLMemData's answer for the occurrence-th `tag` of `text`, or
// "status N" when it fails.
std::string lookUp(const std::string &text, const char *tag, uint32_t occurrence)
{
    char out[160] = {};
    uint32_t size = sizeof out;
    const uint32_t status = XMLSupGetXMLMemData(0, tag, 1, occurrence, 1, &size, out, 0, nullptr,
                                                text.data(), uint32_t(text.size()));
    return status == 0 ? std::string(out) : "status " + std::to_string(status);
}

class LastScanTest : public ::testing::Test {
  protected:
    void SetUp() override { xml::forgetLastScan(); }
    void TearDown() override { xml::forgetLastScan(); }
};

TEST_F(LastScanTest, NothingIsKeptBeforeAScan)
{
    EXPECT_FALSE(xml::findInLastScan(kShort.data(), kShort.size(), "Code", 0).indexed);
}

TEST_F(LastScanTest, ACopyOfTheTextIsAnsweredFromTheScanInTheCopy)
{
    scan(kShort, "Code", 0);
    const std::string copy = kShort;
    const xml::IndexedLookup found = xml::findInLastScan(copy.data(), copy.size(), "Code", 0);
    ASSERT_TRUE(found.indexed);
    ASSERT_TRUE(found.raw.has_value());
    EXPECT_EQ(*found.raw, "0");
    EXPECT_EQ(found.raw->data(), copy.data() + kShort.find(">0<") + 1);
}

TEST_F(LastScanTest, AnotherTagOccurrenceOrTextIsScanned)
{
    scan(kShort, "Code", 0);
    EXPECT_FALSE(xml::findInLastScan(kShort.data(), kShort.size(), "Health", 0).indexed);
    EXPECT_FALSE(xml::findInLastScan(kShort.data(), kShort.size(), "Cod", 0).indexed);
    EXPECT_FALSE(xml::findInLastScan(kShort.data(), kShort.size(), "Code", 1).indexed);
    std::string changed = kShort;
    changed[changed.find(">0<") + 1] = '1';
    EXPECT_FALSE(xml::findInLastScan(changed.data(), changed.size(), "Code", 0).indexed);
    const std::string longer = kShort + " ";
    EXPECT_FALSE(xml::findInLastScan(longer.data(), longer.size(), "Code", 0).indexed);
    const std::string shorter = kShort.substr(0, kShort.size() - 1);
    EXPECT_FALSE(xml::findInLastScan(shorter.data(), shorter.size(), "Code", 0).indexed);
}

TEST_F(LastScanTest, AMissingElementIsKeptAsMissing)
{
    scan(kShort, "Status", 0);
    const xml::IndexedLookup found = xml::findInLastScan(kShort.data(), kShort.size(), "Status", 0);
    EXPECT_TRUE(found.indexed);
    EXPECT_FALSE(found.raw.has_value());
}

TEST_F(LastScanTest, ASelfClosedElementIsKeptAsEmpty)
{
    const std::string text = "<A><B/><B>x</B></A>";
    scan(text, "B", 0);
    const std::string copy = text;
    const xml::IndexedLookup found = xml::findInLastScan(copy.data(), copy.size(), "B", 0);
    ASSERT_TRUE(found.indexed);
    ASSERT_TRUE(found.raw.has_value());
    EXPECT_TRUE(found.raw->empty());
    EXPECT_EQ(lookUp(copy, "B", 0), "");
    EXPECT_EQ(lookUp(copy, "B", 1), "x");
}

TEST_F(LastScanTest, ALongerTextIsNotKeptAndLeavesTheLastShortOne)
{
    const std::string atLimit = "<V>" + std::string(xml::kLastScanSize - 7, 'a') + "</V>";
    ASSERT_EQ(atLimit.size(), xml::kLastScanSize);
    scan(atLimit, "V", 0);
    EXPECT_TRUE(xml::findInLastScan(atLimit.data(), atLimit.size(), "V", 0).indexed);

    const std::string over = "<V>" + std::string(xml::kLastScanSize - 6, 'a') + "</V>";
    ASSERT_EQ(over.size(), xml::kLastScanSize + 1);
    scan(over, "V", 0);
    EXPECT_FALSE(xml::findInLastScan(over.data(), over.size(), "V", 0).indexed);
    // The short text stays found across other, longer ones.
    EXPECT_TRUE(xml::findInLastScan(atLimit.data(), atLimit.size(), "V", 0).indexed);
}

TEST_F(LastScanTest, TheLibraryKeepsItsScanOfAShortTextAndAnswersAsItScans)
{
    EXPECT_EQ(lookUp(kShort, "Code", 0), "0");
    EXPECT_TRUE(xml::findInLastScan(kShort.data(), kShort.size(), "Code", 0).indexed);
    EXPECT_EQ(lookUp(std::string(kShort), "Code", 0), "0");

    std::string notReady = kShort;
    notReady[notReady.find(">0<") + 1] = '1';
    EXPECT_EQ(lookUp(notReady, "Code", 0), "1");
    EXPECT_EQ(lookUp(kShort, "Code", 0), "0");
    EXPECT_EQ(lookUp(kShort, "Code", 1), "status 2");
    EXPECT_EQ(lookUp(kShort, "Code", 1), "status 2");
    EXPECT_EQ(lookUp(kShort, "Health", 0), "<Code>0</Code>");
}

TEST_F(LastScanTest, AScanIsKeptForItsThreadOnly)
{
    scan(kShort, "Code", 0);
    bool seen = true;
    std::thread other(
        [&] { seen = xml::findInLastScan(kShort.data(), kShort.size(), "Code", 0).indexed; });
    other.join();
    EXPECT_FALSE(seen);
    EXPECT_TRUE(xml::findInLastScan(kShort.data(), kShort.size(), "Code", 0).indexed);
}

} // namespace
