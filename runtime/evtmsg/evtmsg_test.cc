// The event-message catalogue: the management address from the served model. The
// alert texts are tested in catalogue_test.cc, the location texts in
// location_test.cc.
#include <gtest/gtest.h>

#include <cstring>
#include <string>

#include "datastore/model_store.h"
#include "evtmsg.h"

namespace {

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
