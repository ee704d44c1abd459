// The gates in front of Get and GetNext and the check against the MIB root.
#include <thread>
#include <vector>

#include "testing/frame_fixture.h"

namespace {

constexpr uint32_t kRoot[] = {1, 3, 6, 1, 4, 1, 61234, 20571, 1, 20};

class RequestTest : public FrameTest {
  protected:
    void SetUp() override
    {
        FrameTest::SetUp();
        ASSERT_EQ(load(), 0u);
    }

    // Get or GetNext of `arcs` through the dispatch; the reply starts with a
    // recognisable pattern so that an untouched reply can be told.
    uint32_t request(uint32_t command, std::vector<uint32_t> arcs, uint32_t *used = nullptr)
    {
        request_ = SMSnmpValue{};
        arcs_ = std::move(arcs);
        request_.name.count = static_cast<uint32_t>(arcs_.size());
        request_.name.arcs = arcs_.empty() ? nullptr : arcs_.data();
        reply_ = untouched();
        return dispatch(command, &request_, sizeof request_, &reply_, sizeof reply_, used);
    }

    // A reply as a host hands it in, with a recognisable pattern so that an
    // untouched reply can be told.
    SMSnmpValue untouched()
    {
        SMSnmpValue value{};
        value.type = 0xABCD;
        value.value = 0x1234;
        value.name.arcs = replyArcs_;
        value.buffer = replyBuffer_;
        return value;
    }

    bool replyUntouched() const
    {
        return reply_.type == 0xABCD && reply_.value == 0x1234 && reply_.name.count == 0 &&
               reply_.buffer == replyBuffer_ && reply_.name.arcs == replyArcs_;
    }

    uint32_t replyArcs_[128] = {};
    char replyBuffer_[1024] = {};

    std::vector<uint32_t> arcs_;
    SMSnmpValue request_{};
    SMSnmpValue reply_{};
};

TEST_F(RequestTest, BeforeTheTablesAreBuiltGetAndGetNextAnswerGenErr)
{
    std::vector<uint32_t> name(kRoot, kRoot + 10);
    name.insert(name.end(), {130, 1, 1, 2, 1});
    uint32_t used = 9;
    EXPECT_EQ(request(SM_CMD_GET, name, &used), 5u);
    EXPECT_EQ(used, 0u);
    EXPECT_TRUE(replyUntouched());
    EXPECT_EQ(request(SM_CMD_GETNEXT, name), 5u);
    const std::string text = debugText();
    EXPECT_NE(text.find("MIBImplementerGet(): exit g_bSNMPTableInitialised is false\n"),
              std::string::npos);
    EXPECT_NE(text.find("MIBImplementerGetNext(): exit g_bSNMPTableInitialised is false\n"),
              std::string::npos);
    // The lock was given back.
    EXPECT_EQ(SMMutexLock(dataMutex, 0), 0u);
    SMMutexUnLock(dataMutex);
}

TEST_F(RequestTest, WithoutADataStoreAnswerGenErr)
{
    fake::setDataStoreReadyAnswer(false);
    g_bSNMPTableInitialised = 1;
    EXPECT_EQ(request(SM_CMD_GET, {1, 3, 6}), 5u);
    EXPECT_EQ(request(SM_CMD_GETNEXT, {1, 3, 6}), 5u);
    EXPECT_TRUE(replyUntouched());
}

TEST_F(RequestTest, AStoreWhoseCodeIsNotZeroIsNotReady)
{
    g_bSNMPTableInitialised = 1;
    for (const char *answer :
         {"<Code>1</Code>", "<Code></Code>", "<Status>0</Status>", "<Code>x</Code>"}) {
        fake::setDataStoreReadyAnswer(true, answer);
        EXPECT_EQ(request(SM_CMD_GET, {1, 3, 6}), 5u) << answer;
        EXPECT_EQ(request(SM_CMD_GETNEXT, {1, 3, 6}), 5u) << answer;
    }
    fake::setDataStoreReadyAnswer(true, "<r><Code>0</Code></r>");
    // Past the gates: the resolution answers the name.
    EXPECT_EQ(request(SM_CMD_GET, {1, 3, 6}), 2u);
}

TEST_F(RequestTest, ALockHeldElsewhereForOverASecondGivesGenErr)
{
    g_bSNMPTableInitialised = 1;
    std::atomic<bool> locked{false}, release{false};
    std::thread holder([&] {
        SMMutexLock(dataMutex, SM_WAIT_FOREVER);
        locked = true;
        while (!release) {
            std::this_thread::sleep_for(std::chrono::milliseconds(5));
        }
        SMMutexUnLock(dataMutex);
    });
    while (!locked) {
        std::this_thread::yield();
    }
    EXPECT_EQ(request(SM_CMD_GET, {1, 3, 6}), 5u);
    EXPECT_EQ(request(SM_CMD_GETNEXT, {1, 3, 6}), 5u);
    release = true;
    holder.join();
    const std::string text = debugText();
    // GetNext prints its exit line on this path, Get does not.
    EXPECT_NE(text.find("MIBImplementerGetNext: entry\nMIBImplementerGetNext: exit\n"),
              std::string::npos);
    EXPECT_EQ(text.find("MIBImplementerGet: exit\n"), std::string::npos);
}

TEST_F(RequestTest, AFailedUnlockTurnsTheAnswerIntoGenErr)
{
    g_bSNMPTableInitialised = 1;
    fake::failNextUnlock();
    EXPECT_EQ(request(SM_CMD_GET, {1, 3, 6, 1, 4, 1, 61234, 20571, 2}), 5u);
    fake::failNextUnlock();
    EXPECT_EQ(request(SM_CMD_GETNEXT, {1, 3, 6, 1, 4, 1, 61234, 20571, 2}), 5u);
}

TEST_F(RequestTest, AGetPastTheRootAnswersNoErrorWithTheReplyUntouched)
{
    g_bSNMPTableInitialised = 1;
    uint32_t used = 0;
    EXPECT_EQ(request(SM_CMD_GET, {1, 3, 6, 1, 4, 1, 61234, 20571, 2}, &used), 0u);
    EXPECT_EQ(used, 32u);
    EXPECT_TRUE(replyUntouched());
    EXPECT_EQ(debugText().find("KelpmibGet: entry"), std::string::npos);
}

TEST_F(RequestTest, AGetNextBeforeTheRootIsPassedOnToTheWalk)
{
    g_bSNMPTableInitialised = 1;
    uint32_t replyArcs[128];
    char buffer[1024];
    std::vector<uint32_t> arcs{1, 3, 6, 1, 2};
    SMSnmpValue request{}, reply{};
    request.name = SMSnmpOID{5, 0, arcs.data()};
    reply.name = SMSnmpOID{0, 0, replyArcs};
    reply.buffer = buffer;
    uint32_t used = 0;
    ASSERT_EQ(dispatch(SM_CMD_GETNEXT, &request, sizeof request, &reply, sizeof reply, &used), 0u);
    EXPECT_EQ(used, 32u);
    EXPECT_EQ(std::vector<uint32_t>(replyArcs, replyArcs + reply.name.count),
              (std::vector<uint32_t>{1, 3, 6, 1, 4, 1, 61234, 20571, 1, 20, 1, 0}));
    const std::string text = debugText();
    EXPECT_LT(text.find("KelpmibGetNext: entry\n"), text.find("getNextValue: Entry\n"));
    EXPECT_LT(text.find("getNextValue: exit\n"), text.find("KelpmibGetNext: exit\n"));
}

TEST_F(RequestTest, AGetNextPastTheRootAnswersNoErrorWithTheReplyUntouched)
{
    g_bSNMPTableInitialised = 1;
    uint32_t used = 0;
    EXPECT_EQ(request(SM_CMD_GETNEXT, {1, 3, 6, 1, 4, 1, 61234, 20571, 2}, &used), 0u);
    EXPECT_EQ(used, 32u);
    EXPECT_TRUE(replyUntouched());
    EXPECT_EQ(debugText().find("KelpmibGetNext: entry"), std::string::npos);
}

TEST_F(RequestTest, AGetInsideTheRootReachesTheResolution)
{
    g_bSNMPTableInitialised = 1;
    std::vector<uint32_t> name(kRoot, kRoot + 10);
    name.insert(name.end(), {3, 0});
    reply_ = untouched();
    request_ = SMSnmpValue{};
    request_.name = SMSnmpOID{static_cast<uint32_t>(name.size()), 0, name.data()};
    ASSERT_EQ(dispatch(SM_CMD_GET, &request_, sizeof request_, &reply_, sizeof reply_), 0u);
    EXPECT_EQ(std::string(replyBuffer_, reply_.value), "Vorn Inc.");
    EXPECT_NE(debugText().find("MIBImplementerGet: entry\nKelpmibCheckPrefix: entry\n"
                               "KelpmibCheckPrefix: exit\nKelpmibGet: entry\ngetValue: Entry\n"
                               "getValue: exit\nKelpmibGet: exit\n\n"
                               "MIBImplementerGet: exit\n"),
              std::string::npos);
}

TEST_F(RequestTest, NamesOfAnyLengthAreHandled)
{
    g_bSNMPTableInitialised = 1;
    std::vector<uint32_t> longName(kRoot, kRoot + 10);
    longName.resize(1000, 0xFFFFFFFF);
    for (const std::vector<uint32_t> &name :
         {std::vector<uint32_t>{}, std::vector<uint32_t>{0xFFFFFFFF}, longName,
          std::vector<uint32_t>(1000, 7)}) {
        for (uint32_t command : {SM_CMD_GET, SM_CMD_GETNEXT}) {
            const uint32_t status = request(command, name);
            EXPECT_TRUE(status == 0 || status == 2 || status == 5) << status;
        }
    }
}

TEST_F(RequestTest, ANameWithArcsButNoArcArrayIsRefused)
{
    g_bSNMPTableInitialised = 1;
    SMSnmpValue broken{};
    broken.name.count = 12;
    SMSnmpValue reply = untouched();
    EXPECT_EQ(dispatch(SM_CMD_GET, &broken, sizeof broken, &reply, sizeof reply), 5u);
    EXPECT_EQ(dispatch(SM_CMD_GETNEXT, &broken, sizeof broken, &reply, sizeof reply), 5u);
}

TEST_F(RequestTest, AReplyWithoutBuffersIsRefused)
{
    g_bSNMPTableInitialised = 1;
    uint32_t arcs[] = {1, 3, 6, 1, 4, 1, 61234, 20571, 1, 20, 3, 0};
    SMSnmpValue request{};
    request.name = SMSnmpOID{12, 0, arcs};
    SMSnmpValue noBuffer = untouched();
    noBuffer.buffer = nullptr;
    SMSnmpValue noName = untouched();
    noName.name.arcs = nullptr;
    for (SMSnmpValue *reply : {&noBuffer, &noName}) {
        EXPECT_EQ(dispatch(SM_CMD_GET, &request, sizeof request, reply, sizeof *reply), 5u);
        EXPECT_EQ(dispatch(SM_CMD_GETNEXT, &request, sizeof request, reply, sizeof *reply), 5u);
    }
}

TEST(CheckPrefix, ComparesOverTheArcsBothNamesHave)
{
    struct Case {
        std::vector<uint32_t> arcs;
        int32_t expected;
    };
    const Case cases[] = {
        {{}, 0},
        {{1, 3, 6}, 0},
        {{1, 3, 6, 1, 4, 1, 61234, 20571, 1, 20}, 0},
        {{1, 3, 6, 1, 4, 1, 61234, 20571, 1, 20, 130, 1}, 0},
        {{1, 3, 6, 1, 4, 1, 61234, 20571, 2}, 1},
        {{1, 3, 6, 1, 2}, -2},
        {{1, 3, 6, 1, 4, 1, 61234, 20571, 1, 25}, 5},
        // Arcs are subtracted as 32-bit words: a huge arc reads as negative.
        {{1, 3, 6, 1, 4, 1, 61234, 20571, 1, 0xFFFFFFFF}, -21},
    };
    for (const Case &c : cases) {
        std::vector<uint32_t> arcs = c.arcs;
        SMSnmpValue request{};
        request.name.count = static_cast<uint32_t>(arcs.size());
        request.name.arcs = arcs.data();
        EXPECT_EQ(KelpmibCheckPrefix(&request), c.expected) << arcs.size();
    }
}

} // namespace
