// The readiness answer's code is read from its fixed place in either
// readiness text, wherever the text lies, and only there: any other text,
// tag or occurrence is left to the scan, and what is read is what the scan
// finds.
#include "xmlsup/readiness_answer.h"

#include <gtest/gtest.h>

#include <string>
#include <vector>

#include "xmlsup.h"
#include "xmlsup/xml_scan.h"

namespace {

namespace xml = kelp::rt::xml;

TEST(ReadinessAnswer, TheCodeOfEitherAnswerIsReadWhereTheScanFindsIt)
{
    for (std::string_view answer : {xml::kReadyAnswer, xml::kNotReadyAnswer}) {
        const std::string copy(answer); // not the constant's own bytes
        const xml::IndexedLookup lookup =
            xml::findInReadinessAnswer(copy.data(), copy.size(), "Code", 0);
        ASSERT_TRUE(lookup.indexed) << answer;
        ASSERT_TRUE(lookup.raw.has_value());
        const std::optional<std::string_view> scanned = xml::findElement(copy, "Code", 0);
        ASSERT_TRUE(scanned.has_value());
        EXPECT_EQ(lookup.raw->data(), scanned->data());
        EXPECT_EQ(*lookup.raw, *scanned);
    }
}

TEST(ReadinessAnswer, AnyOtherTextTagOrOccurrenceIsLeftToTheScan)
{
    const std::string ready(xml::kReadyAnswer);
    EXPECT_FALSE(xml::findInReadinessAnswer(ready.data(), ready.size(), "Code", 1).indexed);
    EXPECT_FALSE(xml::findInReadinessAnswer(ready.data(), ready.size(), "Cod", 0).indexed);
    EXPECT_FALSE(
        xml::findInReadinessAnswer(ready.data(), ready.size(), "DataStoreReady", 0).indexed);
    // One byte changed anywhere, the code included, or a length of its own.
    for (size_t i = 0; i < ready.size(); ++i) {
        std::string changed = ready;
        changed[i] = changed[i] == '2' ? '3' : '2';
        EXPECT_FALSE(xml::findInReadinessAnswer(changed.data(), changed.size(), "Code", 0).indexed)
            << changed;
    }
    const std::string longer = "<DataStoreReady><Code>00</Code></DataStoreReady>";
    EXPECT_FALSE(xml::findInReadinessAnswer(longer.data(), longer.size(), "Code", 0).indexed);
    EXPECT_FALSE(xml::findInReadinessAnswer(ready.data(), ready.size() - 1, "Code", 0).indexed);
}

// The library's answer for the readiness texts and for texts close to them.
TEST(ReadinessAnswer, TheLibraryAnswersEveryTextAsItsScanDoes)
{
    const std::vector<std::string> texts = {std::string(xml::kReadyAnswer),
                                            std::string(xml::kNotReadyAnswer),
                                            "<DataStoreReady><Code>2</Code></DataStoreReady>",
                                            "<DataStoreReady><Code>&#48;</Code></DataStoreReady>",
                                            "<DataStoreReady><Code>10</Code></DataStoreReady>"};
    for (const std::string &text : texts) {
        for (uint32_t occurrence : {0u, 1u}) {
            char out[64] = {};
            uint32_t size = sizeof out;
            const uint32_t status =
                XMLSupGetXMLMemData(0, "Code", 1, occurrence, 1, &size, out, 0, nullptr,
                                    text.data(), static_cast<uint32_t>(text.size()));
            const std::optional<std::string_view> scanned =
                xml::findElement(text, "Code", occurrence);
            if (!scanned) {
                EXPECT_EQ(status, 2u) << text;
                continue;
            }
            ASSERT_EQ(status, 0u) << text;
            EXPECT_EQ(std::string(out), xml::decodeEntities(*scanned)) << text;
        }
    }
}

} // namespace
