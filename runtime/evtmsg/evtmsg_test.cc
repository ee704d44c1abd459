// The event-message catalogue: the management address from the served model; the
// alert texts answer 5 and empty texts until the catalogue exists. The location
// texts have their own file, location_test.cc.
#include <gtest/gtest.h>

#include <cstring>
#include <string>

#include "datastore/model_store.h"
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

TEST(EvtMsgTest, ExtendedTrapTextAnswers5WithEmptyTexts)
{
    char description[EVTMSG_DESCRIPTION_SIZE], messageId[EVTMSG_TEXT_SIZE];
    std::memset(description, 'x', sizeof description);
    std::memset(messageId, 'x', sizeof messageId);
    EXPECT_EQ(getEEMItrap(772, 0, 2048, nullptr, description, messageId), 5u);
    EXPECT_STREQ(description, "");
    EXPECT_STREQ(messageId, "");
}

TEST(EvtMsgTest, UrlComesFromTheServedModel)
{
    std::string error;
    ASSERT_TRUE(kelp::ds::loadModelText("<storage url=\"https://host:1311/\"/>", "m", &error))
        << error;
    char url[64];
    uint32_t size = sizeof url;
    EXPECT_EQ(evtmsg_getPrylUrl(url, &size), 0u);
    EXPECT_STREQ(url, "https://host:1311/");
    EXPECT_EQ(size, 19u);

    char small[8];
    size = sizeof small;
    EXPECT_EQ(evtmsg_getPrylUrl(small, &size), 16u);
    EXPECT_EQ(size, 19u);
    EXPECT_EQ(evtmsg_getPrylUrl(nullptr, &size), 5u);
    EXPECT_EQ(evtmsg_getPrylUrl(url, nullptr), 5u);
    kelp::ds::unloadModel();
}

TEST(EvtMsgTest, WithoutAModelOrAddressTheUrlIsNotFound)
{
    kelp::ds::unloadModel();
    char url[64];
    std::memset(url, 'x', sizeof url);
    uint32_t size = sizeof url;
    EXPECT_EQ(evtmsg_getPrylUrl(url, &size), 2u);
    EXPECT_EQ(url[0], '\0');
    std::string error;
    ASSERT_TRUE(kelp::ds::loadModelText("<storage/>", "m", &error)) << error;
    EXPECT_EQ(evtmsg_getPrylUrl(url, &size), 2u);
    kelp::ds::unloadModel();
}

} // namespace
