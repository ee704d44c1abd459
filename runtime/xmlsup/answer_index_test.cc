// Indexed look-ups in data-store answers: the same results as the scan, no
// index for texts the store did not hand out, and none left after freeMem.
#include "xmlsup/answer_index.h"

#include <gtest/gtest.h>

#include <cstdlib>
#include <cstring>
#include <string>

#include "vscil.h"
#include "xmlsup.h"
#include "xmlsup/xml_scan.h"

namespace {

using kelp::rt::xml::findAllElements;
using kelp::rt::xml::findElement;
using kelp::rt::xml::findIndexed;
using kelp::rt::xml::forgetAnswer;
using kelp::rt::xml::registerAnswer;
using kelp::rt::xml::registeredAnswers;

char *heapCopy(const std::string &text)
{
    char *block = static_cast<char *>(std::malloc(text.size() + 1));
    std::memcpy(block, text.c_str(), text.size() + 1);
    return block;
}

std::string get(const char *xml, const char *tag, uint32_t occurrence)
{
    char out[160];
    uint32_t size = sizeof out;
    const uint32_t status = XMLSupGetXMLMemData(0, tag, 1, occurrence, 1, &size, out, 0, nullptr,
                                                xml, static_cast<uint32_t>(std::strlen(xml)));
    if (status == 0)
        return out;
    std::string failed = "<";
    failed += std::to_string(status);
    failed += '>';
    return failed;
}

const std::string kShortText = "<ObjList><ObjID>1</ObjID><Nexus>a&amp;b</Nexus><E/>"
                               "<n><n>inner</n></n><ObjID>2</ObjID><Nexus>c</Nexus></ObjList>";
// The same elements in a text long enough to be indexed.
const std::string kText = kShortText.substr(0, kShortText.size() - 10) + "<Pad>" +
                          std::string(kelp::rt::xml::kIndexedAnswerSize, '.') + "</Pad></ObjList>";

TEST(FindAllElements, EntryNIsOccurrenceN)
{
    for (const char *tag : {"ObjID", "Nexus", "E", "n", "Missing"}) {
        const auto all = findAllElements(kShortText, tag);
        for (uint32_t n = 0; n <= all.size(); n++) {
            const auto one = findElement(kShortText, tag, n);
            if (n == all.size()) {
                EXPECT_FALSE(one.has_value()) << tag;
            } else {
                EXPECT_EQ(all[n], one) << tag << " " << n;
            }
        }
    }
}

TEST(AnswerIndex, AShortAnswerIsScannedWithoutAnIndex)
{
    const size_t before = registeredAnswers();
    char *answer = heapCopy(kShortText);
    registerAnswer(answer, kShortText.size());
    EXPECT_EQ(registeredAnswers(), before);
    EXPECT_FALSE(findIndexed(answer, kShortText.size(), "Nexus", 1).indexed);
    EXPECT_EQ(get(answer, "Nexus", 0), "a&b");
    EXPECT_EQ(get(answer, "ObjID", 1), "2");
    EXPECT_EQ(get(answer, "n", 1), "inner");
    forgetAnswer(answer);
    std::free(answer);
}

TEST(AnswerIndex, ARegisteredAnswerAnswersLikeTheScan)
{
    char *answer = heapCopy(kText);
    registerAnswer(answer, kText.size());
    const auto lookup = findIndexed(answer, kText.size(), "Nexus", 1);
    EXPECT_TRUE(lookup.indexed);
    ASSERT_TRUE(lookup.raw.has_value());
    EXPECT_EQ(*lookup.raw, "c");
    EXPECT_EQ(get(answer, "Nexus", 0), "a&b");
    EXPECT_EQ(get(answer, "ObjID", 1), "2");
    EXPECT_EQ(get(answer, "ObjID", 2), "<2>");
    EXPECT_EQ(get(answer, "n", 1), "inner");
    EXPECT_EQ(get(answer, "E", 0), "");
    forgetAnswer(answer);
    std::free(answer);
}

TEST(AnswerIndex, OtherTextsAndOtherLengthsAreNotIndexed)
{
    char *answer = heapCopy(kText);
    registerAnswer(answer, kText.size());
    EXPECT_TRUE(findIndexed(answer, kText.size(), "ObjID", 0).indexed);
    EXPECT_FALSE(findIndexed(kText.c_str(), kText.size(), "ObjID", 0).indexed);
    // Still long enough to be indexed, but not the registered length.
    EXPECT_FALSE(findIndexed(answer, kText.size() - 1, "ObjID", 0).indexed);
    forgetAnswer(answer);
    std::free(answer);
}

TEST(AnswerIndex, AForgottenAnswerHasNoIndexEvenAtTheSameAddress)
{
    const size_t before = registeredAnswers();
    char *answer = heapCopy(kText);
    registerAnswer(answer, kText.size());
    EXPECT_EQ(get(answer, "ObjID", 0), "1"); // builds the ObjID index
    forgetAnswer(answer);
    EXPECT_EQ(registeredAnswers(), before);
    EXPECT_FALSE(findIndexed(answer, kText.size(), "ObjID", 0).indexed);

    // Another text of the same length at the same address is read afresh.
    std::string other = kText;
    other.replace(other.find("<ObjID>1<"), 9, "<ObjID>7<");
    std::memcpy(answer, other.c_str(), other.size() + 1);
    EXPECT_EQ(get(answer, "ObjID", 0), "7");
    registerAnswer(answer, other.size());
    EXPECT_EQ(get(answer, "ObjID", 0), "7");
    forgetAnswer(answer);
    std::free(answer);
}

TEST(AnswerIndex, DataStoreAnswersAreForgottenByFreeMem)
{
    // freeMem of an unregistered or null text is harmless.
    const size_t before = registeredAnswers();
    freeMem(nullptr);
    freeMem(heapCopy("x"));
    EXPECT_EQ(registeredAnswers(), before);
}

} // namespace
