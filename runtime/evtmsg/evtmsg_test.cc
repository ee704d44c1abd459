// The event-message catalogue before the catalogue exists: 5 and empty texts.
#include <gtest/gtest.h>

#include <cstring>

#include "evtmsg.h"

namespace {

TEST(EvtMsgTest, AlertMessageAnswers5WithEmptyTexts)
{
    char level[EVTMSG_TEXT_SIZE], message[EVTMSG_MESSAGE_SIZE];
    std::memset(level, 'x', sizeof level);
    std::memset(message, 'x', sizeof message);
    char insert[] = "disk 0:1:2";
    char *inserts[] = {insert};
    EXPECT_EQ(evtmsg_getAlertMsg(2048, level, message, 1, inserts), 5u);
    EXPECT_STREQ(level, "");
    EXPECT_STREQ(message, "");
    EXPECT_EQ(evtmsg_getAlertMsg(2048, nullptr, nullptr, 0, nullptr), 5u);
}

TEST(EvtMsgTest, LocationStringsAnswer5WithEmptyTexts)
{
    char a[EVTMSG_TEXT_SIZE], b[EVTMSG_TEXT_SIZE], c[EVTMSG_TEXT_SIZE], d[EVTMSG_TEXT_SIZE];
    for (char *p : {a, b, c, d})
        std::memset(p, 'x', EVTMSG_TEXT_SIZE);
    EXPECT_EQ(evtmsg_getObjLocationStrings(772, "0:1:2", ":", "en", a, b, c, d, 0), 5u);
    for (char *p : {a, b, c, d})
        EXPECT_STREQ(p, "");
    EXPECT_EQ(evtmsg_getObjLocationStrings(772, "0", ":", "en", nullptr, b, nullptr, d, 0), 5u);
}

TEST(EvtMsgTest, ExtendedTrapTextAnswers5WithEmptyTexts)
{
    char description[EVTMSG_DESCRIPTION_SIZE], messageId[EVTMSG_TEXT_SIZE];
    std::memset(description, 'x', sizeof description);
    std::memset(messageId, 'x', sizeof messageId);
    EXPECT_EQ(getEEMItrap(772, 0, 2048, nullptr, description, messageId), 5u);
    EXPECT_STREQ(description, "");
    EXPECT_STREQ(messageId, "");
}

TEST(EvtMsgTest, UrlAnswers5AndSizeZero)
{
    char url[64];
    std::memset(url, 'x', sizeof url);
    uint32_t size = sizeof url;
    EXPECT_EQ(evtmsg_getPrylUrl(url, &size), 5u);
    EXPECT_EQ(size, 0u);
    EXPECT_EQ(url[0], '\0');
    EXPECT_EQ(evtmsg_getPrylUrl(nullptr, nullptr), 5u);
}

} // namespace
