// The Get and GetNext mapping against a scripted dispatch: what each dispatch
// result and reply record becomes, which names reach the plug-in, the
// records the agent hands over, and the module's own value buffers going
// back through SMFreeMem.
#include "snmp/resolve.h"

#include "kelp/runtime.h"

#include <cstring>
#include <functional>
#include <limits>
#include <string>
#include <vector>

#include <gtest/gtest.h>

#include "records.h"
#include "vcsupt.h"

namespace kelp::agent {
namespace {

using Name = std::vector<uint64_t>;
using Arcs = std::vector<uint32_t>;

Name below(std::initializer_list<uint64_t> tail)
{
    Name name(std::begin(kMibRoot), std::end(kMibRoot));
    name.insert(name.end(), tail);
    return name;
}

// A dispatch whose every call runs `step` and is recorded. Every table's
// first cell (column 1, row 1) answers Get without a call, unless
// firstRowsAnswer is cleared: the agent asks for it when the plug-in's walk
// leaves a table, as the plug-in passes over a table without it.
struct FakeModule {
    struct Call {
        uint32_t command;
        Arcs request;
    };
    using Step = std::function<uint32_t(int call, SMSnmpValue *reply)>;

    Step step;
    std::vector<Call> calls;
    bool firstRowsAnswer = true;
    int firstRowGets = 0;

    // A new plug-in's rows: the agent forgets the rows scans found.
    FakeModule() { forgetKeptScans(); }

    Dispatch dispatch()
    {
        return [this](uint32_t command, void *in, uint32_t inSize, void *out, uint32_t outSize,
                      uint32_t *) {
            EXPECT_EQ(inSize, sizeof(SMSnmpValue));
            EXPECT_EQ(outSize, sizeof(SMSnmpValue));
            const auto *request = static_cast<SMSnmpValue *>(in);
            auto *reply = static_cast<SMSnmpValue *>(out);
            // The reply as the host presets it: nothing answered yet.
            EXPECT_EQ(reply->type, 0u);
            EXPECT_EQ(reply->name.count, 0u);
            EXPECT_NE(reply->name.arcs, nullptr);
            EXPECT_EQ(reply->value, ReplyRecord::kValueBytes);
            EXPECT_NE(reply->buffer, nullptr);
            const Arcs asked(request->name.arcs, request->name.arcs + request->name.count);
            if (firstRowsAnswer && command == SM_CMD_GET && asked.size() == kCellLength &&
                asked[12] == 1 && asked[13] == 1 && asked[14] == 1) {
                firstRowGets++;
                reply->type = SM_ASN_INTEGER;
                reply->value = 1;
                return 0u;
            }
            calls.push_back({command, asked});
            return step(static_cast<int>(calls.size()) - 1, reply);
        };
    }
};

void setName(SMSnmpValue *reply, const Name &name)
{
    reply->name.count = static_cast<uint32_t>(name.size());
    for (size_t i = 0; i < name.size(); i++) {
        reply->name.arcs[i] = static_cast<uint32_t>(name[i]);
    }
}

void setText(SMSnmpValue *reply, const char *text)
{
    reply->type = SM_ASN_OCTET_STRING;
    reply->value = static_cast<uint32_t>(std::strlen(text));
    std::memcpy(reply->buffer, text, std::strlen(text) + 1);
}

struct GetCase {
    const char *what;
    uint32_t status;
    std::function<void(SMSnmpValue *)> fill;
    Outcome outcome;
};

TEST(AnswerGet, EachDispatchResultAndReplyMapsAsTheTableSays)
{
    const GetCase cases[] = {
        {"integer", 0, [](SMSnmpValue *r) { r->type = 2, r->value = 300; }, Outcome::kValue},
        {"string", 0, [](SMSnmpValue *r) { setText(r, "Vorn Inc."); }, Outcome::kValue},
        {"untouched", 0, [](SMSnmpValue *) {}, Outcome::kNoSuchInstance},
        {"noSuchName", 2, [](SMSnmpValue *r) { setText(r, "ignored"); }, Outcome::kNoSuchInstance},
        {"genErr", 5, [](SMSnmpValue *) {}, Outcome::kGenErr},
        {"tooBig", 1, [](SMSnmpValue *) {}, Outcome::kGenErr},
        {"badValue", 3, [](SMSnmpValue *) {}, Outcome::kGenErr},
        {"readOnly", 4, [](SMSnmpValue *) {}, Outcome::kGenErr},
        {"unknown type", 0, [](SMSnmpValue *r) { r->type = 0x99; }, Outcome::kGenErr},
        {"string longer than the buffer", 0,
         [](SMSnmpValue *r) { r->type = 4, r->value = ReplyRecord::kValueBytes + 1; },
         Outcome::kGenErr},
        {"string without a buffer", 0,
         [](SMSnmpValue *r) { r->type = 4, r->value = 3, r->buffer = nullptr; }, Outcome::kGenErr},
    };
    for (const GetCase &c : cases) {
        FakeModule module;
        module.step = [&](int, SMSnmpValue *reply) {
            c.fill(reply);
            return c.status;
        };
        const Answer answer = answerGet(module.dispatch(), below({3, 0}));
        EXPECT_EQ(answer.outcome, c.outcome) << c.what;
        ASSERT_EQ(module.calls.size(), 1u) << c.what;
        EXPECT_EQ(module.calls[0].command, uint32_t{SM_CMD_GET});
        const Name asked = below({3, 0});
        EXPECT_EQ(module.calls[0].request, Arcs(asked.begin(), asked.end()));
    }
}

TEST(AnswerGet, IntegersReadAsSignedAndStringsByTheirLength)
{
    FakeModule module;
    module.step = [](int call, SMSnmpValue *reply) {
        if (call == 0) {
            reply->type = 2, reply->value = 0xFFFFFFFF, reply->buffer = nullptr;
        } else {
            setText(reply, "Vorn Inc.");
            reply->value = 4; // the length field wins over the terminator
        }
        return 0u;
    };
    const Answer integer = answerGet(module.dispatch(), below({110, 6, 0}));
    ASSERT_EQ(integer.outcome, Outcome::kValue);
    EXPECT_EQ(integer.value.type, uint32_t{SM_ASN_INTEGER});
    EXPECT_EQ(integer.value.integer, -1);
    EXPECT_EQ(integer.name, below({110, 6, 0}));
    const Answer text = answerGet(module.dispatch(), below({3, 0}));
    ASSERT_EQ(text.outcome, Outcome::kValue);
    EXPECT_EQ(text.value.type, uint32_t{SM_ASN_OCTET_STRING});
    EXPECT_EQ(text.value.bytes, "Vorn");
}

TEST(AnswerGet, AValueBufferOfTheModulesIsReadThenReleased)
{
    FakeModule module;
    module.step = [](int, SMSnmpValue *reply) {
        // Released by the host with SMFreeMem; a leak fails the sanitizer run.
        char *own = static_cast<char *>(SMAllocMem(ReplyRecord::kValueBytes));
        std::strcpy(own, "Halden (Storage Management)");
        reply->buffer = own;
        reply->type = 4;
        reply->value = static_cast<uint32_t>(std::strlen(own));
        return 0u;
    };
    const Answer answer = answerGet(module.dispatch(), below({4, 0}));
    ASSERT_EQ(answer.outcome, Outcome::kValue);
    EXPECT_EQ(answer.value.bytes, "Halden (Storage Management)");
}

TEST(AnswerGet, EveryDispatchGetsAFreshlyPresetReplyAfterOneThatChangedItAll)
{
    // The first reply names an instance, answers with a buffer of its own and
    // a long text; each later dispatch must still see the record as new
    // (FakeModule checks it), and an answer of nothing must not read what the
    // reply before it held.
    FakeModule module;
    module.firstRowsAnswer = false; // no table has a row
    module.step = [](int call, SMSnmpValue *reply) {
        if (call == 0) {
            setName(reply, below({3, 0}));
            char *own = static_cast<char *>(SMAllocMem(ReplyRecord::kValueBytes));
            std::strcpy(own, "Halden (Storage Management)");
            reply->buffer = own;
            reply->type = 4;
            reply->value = static_cast<uint32_t>(std::strlen(own));
        } else if (call == 1) {
            setText(reply, "Vorn Inc.");
        }
        return 0u;
    };
    EXPECT_EQ(answerGet(module.dispatch(), below({4, 0})).value.bytes,
              "Halden (Storage Management)");
    EXPECT_EQ(answerGet(module.dispatch(), below({3, 0})).value.bytes, "Vorn Inc.");
    EXPECT_EQ(answerGet(module.dispatch(), below({3, 0})).outcome, Outcome::kNoSuchInstance);
    const Answer next = answerGetNext(module.dispatch(), below({1, 0}), false);
    EXPECT_EQ(next.outcome, Outcome::kEndOfSubtree);
}

TEST(AnswerGet, ADispatchMadeInsideADispatchHasAReplyOfItsOwn)
{
    FakeModule inner;
    inner.step = [](int, SMSnmpValue *reply) {
        setText(reply, "inner");
        return 0u;
    };
    FakeModule outer;
    std::string innerValue;
    outer.step = [&](int, SMSnmpValue *reply) {
        setText(reply, "outer");
        innerValue = answerGet(inner.dispatch(), below({4, 0})).value.bytes;
        return 0u;
    };
    EXPECT_EQ(answerGet(outer.dispatch(), below({3, 0})).value.bytes, "outer");
    EXPECT_EQ(innerValue, "inner");
}

TEST(AnswerGet, AnArcAboveThirtyTwoBitsIsNoSuchObjectWithoutADispatch)
{
    FakeModule module;
    module.step = [](int, SMSnmpValue *) { return 0u; };
    const Answer answer = answerGet(module.dispatch(), below({1ull << 32, 0}));
    EXPECT_EQ(answer.outcome, Outcome::kNoSuchObject);
    EXPECT_TRUE(module.calls.empty());
}

TEST(AnswerGet, ANameThatIsNoInstanceIsAnsweredWithoutADispatch)
{
    const std::pair<Name, Outcome> cases[] = {
        {below({1}), Outcome::kNoSuchInstance},
        {below({1, 99}), Outcome::kNoSuchInstance},
        {below({2, 7, 7, 7}), Outcome::kNoSuchInstance},
        {below({100, 1}), Outcome::kNoSuchInstance},
        {below({110, 3, 5}), Outcome::kNoSuchInstance},
        {below({130, 1, 1, 2, 1, 9}), Outcome::kNoSuchInstance},
        {below({}), Outcome::kNoSuchObject},
        {below({140, 7, 1, 1, 1}), Outcome::kNoSuchObject},
        {below({130, 19, 1, 1, 1}), Outcome::kNoSuchObject},
        {below({200, 1, 0}), Outcome::kNoSuchObject},
    };
    for (const auto &[name, outcome] : cases) {
        FakeModule module;
        module.step = [](int, SMSnmpValue *reply) {
            setText(reply, "a value");
            return 0u;
        };
        EXPECT_EQ(answerGet(module.dispatch(), name).outcome, outcome)
            << ::testing::PrintToString(name);
        EXPECT_TRUE(module.calls.empty()) << ::testing::PrintToString(name);
    }
}

TEST(AnswerGet, ALockTimeOutIsToldApartFromOtherFailures)
{
    FakeModule module;
    module.step = [](int, SMSnmpValue *) { return kStatusLockTimeOut; };
    EXPECT_EQ(answerGet(module.dispatch(), below({3, 0})).outcome, Outcome::kLockTimeOut);
    EXPECT_EQ(answerGetNext(module.dispatch(), below({3, 0}), false).outcome,
              Outcome::kLockTimeOut);
}

struct NextCase {
    const char *what;
    uint32_t status;
    Name replyName;
    bool withValue;
    Outcome outcome;
};

TEST(AnswerGetNext, EachDispatchResultAndReplyMapsAsTheTableSays)
{
    // From a cell of the last table, so that "nothing after this" has no
    // table left to go on with.
    const Name from = below({140, 6, 1, 1, 1});
    const NextCase cases[] = {
        {"next name inside the root", 0, below({140, 6, 1, 2, 1}), true, Outcome::kValue},
        {"noSuchName: end of this subtree", 2, below({140, 6, 1, 2, 1}), true,
         Outcome::kEndOfSubtree},
        {"genErr", 5, below({140, 6, 1, 2, 1}), true, Outcome::kGenErr},
        {"readOnly", 4, below({140, 6, 1, 2, 1}), true, Outcome::kGenErr},
        {"name outside the root",
         0,
         {1, 3, 6, 1, 4, 1, 61234, 20571, 1, 21},
         true,
         Outcome::kEndOfSubtree},
        {"name equal to the request", 0, from, true, Outcome::kEndOfSubtree},
        {"name before the request", 0, below({140, 6, 1, 1, 0}), true, Outcome::kEndOfSubtree},
        {"name left empty", 0, {}, false, Outcome::kEndOfSubtree},
    };
    for (const NextCase &c : cases) {
        FakeModule module;
        module.step = [&](int call, SMSnmpValue *reply) {
            if (module.calls[static_cast<size_t>(call)].command == SM_CMD_GET)
                return 2u; // the cells after the cursor
            setName(reply, c.replyName);
            if (c.withValue) {
                setText(reply, "5.2.0");
            }
            return c.status;
        };
        const Answer answer = answerGetNext(module.dispatch(), from, false);
        EXPECT_EQ(answer.outcome, c.outcome) << c.what;
        ASSERT_FALSE(module.calls.empty()) << c.what;
        EXPECT_EQ(module.calls[0].command, uint32_t{SM_CMD_GETNEXT});
        // Where the plug-in's walk ends within a table whose first row
        // answers, the cells right after the cursor are asked for, in case
        // the table changed.
        const std::vector<FakeModule::Call> gets(module.calls.begin() + 1, module.calls.end());
        for (const FakeModule::Call &get : gets) {
            EXPECT_EQ(get.command, uint32_t{SM_CMD_GET}) << c.what;
        }
        EXPECT_EQ(gets.size(), c.outcome == Outcome::kEndOfSubtree ? 2u : 0u) << c.what;
        if (c.outcome == Outcome::kValue) {
            EXPECT_EQ(answer.name, c.replyName);
            EXPECT_EQ(answer.value.bytes, "5.2.0");
        }
    }
}

TEST(AnswerGetNext, NothingAfterATableGoesOnWithTheNextTablesUntilOneAnswers)
{
    // Tables 130.1 to 130.4 have no rows, and the plug-in's walk ends in
    // each of them.
    FakeModule module;
    module.firstRowsAnswer = false;
    int getNexts = 0;
    module.step = [&](int call, SMSnmpValue *reply) {
        if (module.calls[static_cast<size_t>(call)].command != SM_CMD_GETNEXT || getNexts++ < 3) {
            return 2u;
        }
        setName(reply, below({130, 5, 1, 1, 1}));
        setText(reply, "1");
        return 0u;
    };
    const Answer answer = answerGetNext(module.dispatch(), below({130, 1, 1, 73, 9}), false);
    ASSERT_EQ(answer.outcome, Outcome::kValue);
    EXPECT_EQ(answer.name, below({130, 5, 1, 1, 1}));
    std::vector<Arcs> walked;
    for (const FakeModule::Call &call : module.calls) {
        if (call.command == SM_CMD_GETNEXT)
            walked.push_back(call.request);
    }
    ASSERT_EQ(walked.size(), 4u);
    const Name asked[] = {below({130, 1, 1, 73, 9}), below({130, 2}), below({130, 3}),
                          below({130, 4})};
    for (size_t i = 0; i < 4; i++) {
        EXPECT_EQ(walked[i], Arcs(asked[i].begin(), asked[i].end())) << i;
    }
}

TEST(AnswerGetNext, ANameThePluginWouldMisreadIsAskedFromWhereItAnswersRightly)
{
    const std::pair<Name, Name> cases[] = {
        {below({130}), below({130, 1})},
        {below({140, 0}), below({140, 1})},
        {below({130, 4, 0, 1, 22}), below({130, 4})},
        {below({110, 7, 0}), below({110, 6, 0})},
        {below({130, 1, 1, 2, 4294967295ull}), below({130, 1, 1, 3})},
    };
    for (const auto &[name, cursor] : cases) {
        FakeModule module;
        module.step = [](int, SMSnmpValue *reply) {
            setName(reply, below({140, 6, 1, 1, 1}));
            setText(reply, "x");
            return 0u;
        };
        EXPECT_EQ(answerGetNext(module.dispatch(), name, false).outcome, Outcome::kValue);
        ASSERT_FALSE(module.calls.empty());
        EXPECT_EQ(module.calls[0].request, Arcs(cursor.begin(), cursor.end()))
            << ::testing::PrintToString(name);
    }
}

TEST(AnswerGetNext, AfterTheLastTableThereIsNothingWithoutADispatch)
{
    FakeModule module;
    module.step = [](int, SMSnmpValue *) { return 0u; };
    EXPECT_EQ(answerGetNext(module.dispatch(), below({140, 7}), false).outcome,
              Outcome::kEndOfSubtree);
    EXPECT_EQ(answerGetNext(module.dispatch(), below({200}), false).outcome,
              Outcome::kEndOfSubtree);
    EXPECT_TRUE(module.calls.empty());
}

TEST(AnswerGetNext, AnAnswerThatIsNoServedInstanceIsPassedOver)
{
    FakeModule module;
    module.step = [](int call, SMSnmpValue *reply) {
        // Column 74 of the controller table is not served.
        setName(reply, call == 0 ? below({130, 1, 1, 74, 1}) : below({130, 2, 1, 1, 1}));
        setText(reply, "x");
        return 0u;
    };
    const Answer answer = answerGetNext(module.dispatch(), below({130, 1, 1, 73, 1}), false);
    ASSERT_EQ(answer.outcome, Outcome::kValue);
    EXPECT_EQ(answer.name, below({130, 2, 1, 1, 1}));
}

TEST(AnswerGetNext, AnAnswerWithoutValueIsAskedAgainFromItsName)
{
    FakeModule module;
    module.step = [](int call, SMSnmpValue *reply) {
        setName(reply, below({2, 0}));
        if (call == 1) {
            setName(reply, below({3, 0}));
            setText(reply, "Vorn Inc.");
        }
        return 0u;
    };
    const Answer answer = answerGetNext(module.dispatch(), below({1, 0}), false);
    ASSERT_EQ(answer.outcome, Outcome::kValue);
    EXPECT_EQ(answer.name, below({3, 0}));
    ASSERT_EQ(module.calls.size(), 2u);
    const Name second = below({2, 0});
    EXPECT_EQ(module.calls[1].request, Arcs(second.begin(), second.end()));
}

TEST(AnswerGetNext, AskingAgainIsBounded)
{
    FakeModule module;
    module.step = [](int call, SMSnmpValue *reply) {
        setName(reply, below({130, 1, 1, 2, static_cast<uint64_t>(call) + 1}));
        return 0u;
    };
    EXPECT_EQ(answerGetNext(module.dispatch(), below({}), false).outcome, Outcome::kGenErr);
    EXPECT_EQ(module.calls.size(), size_t{kMaxGetNextSteps});
}

TEST(AnswerGetNext, InclusiveAnswersTheNameItselfWhenItHasAValue)
{
    FakeModule module;
    module.step = [](int, SMSnmpValue *reply) {
        setText(reply, "5.2.0");
        return 0u;
    };
    const Answer answer = answerGetNext(module.dispatch(), below({1, 0}), true);
    ASSERT_EQ(answer.outcome, Outcome::kValue);
    EXPECT_EQ(answer.name, below({1, 0}));
    ASSERT_EQ(module.calls.size(), 1u);
    EXPECT_EQ(module.calls[0].command, uint32_t{SM_CMD_GET});
}

TEST(AnswerGetNext, InclusiveGoesOnWhenTheNameHasNoValue)
{
    FakeModule module;
    module.step = [](int call, SMSnmpValue *reply) {
        if (call == 0) {
            return 2u;
        }
        setName(reply, below({2, 0}));
        setText(reply, "x");
        return 0u;
    };
    const Answer answer = answerGetNext(module.dispatch(), below({1, 0}), true);
    ASSERT_EQ(answer.outcome, Outcome::kValue);
    EXPECT_EQ(answer.name, below({2, 0}));
    ASSERT_EQ(module.calls.size(), 2u);
    EXPECT_EQ(module.calls[0].command, uint32_t{SM_CMD_GET});
    EXPECT_EQ(module.calls[1].command, uint32_t{SM_CMD_GETNEXT});
}

TEST(AnswerGetNext, InclusiveOfACellIsTheFirstNameAfterTheRowBefore)
{
    FakeModule module;
    module.step = [](int, SMSnmpValue *reply) {
        setName(reply, below({130, 2, 1, 3, 5}));
        setText(reply, "x");
        return 0u;
    };
    const Answer answer = answerGetNext(module.dispatch(), below({130, 2, 1, 3, 5}), true);
    ASSERT_EQ(answer.outcome, Outcome::kValue);
    EXPECT_EQ(answer.name, below({130, 2, 1, 3, 5}));
    ASSERT_EQ(module.calls.size(), 1u);
    EXPECT_EQ(module.calls[0].command, uint32_t{SM_CMD_GETNEXT});
    const Name before = below({130, 2, 1, 3, 4});
    EXPECT_EQ(module.calls[0].request, Arcs(before.begin(), before.end()));
}

TEST(AnswerGetNext, InclusiveOfANameThatIsNoInstanceAsksOnlyForTheNext)
{
    FakeModule module;
    module.step = [](int, SMSnmpValue *reply) {
        setName(reply, below({1, 0}));
        setText(reply, "5.2.0");
        return 0u;
    };
    const Answer answer = answerGetNext(module.dispatch(), below({}), true);
    ASSERT_EQ(answer.outcome, Outcome::kValue);
    EXPECT_EQ(answer.name, below({1, 0}));
    ASSERT_EQ(module.calls.size(), 1u);
    EXPECT_EQ(module.calls[0].command, uint32_t{SM_CMD_GETNEXT});
}

TEST(AnswerGetNext, NamesBeforeTheRequestAreSkippedAndAColumnThePluginEndsOnGoesOn)
{
    // The partition connection table's column 7 is no starting point of the
    // plug-in's walk: the agent asks from the column before, passes over
    // what lies before the request, and goes on with the next table when
    // the plug-in ends there.
    FakeModule module;
    module.step = [](int call, SMSnmpValue *reply) {
        if (call == 1) {
            return 2u;
        }
        setName(reply, call == 0 ? below({140, 3, 1, 7, 1}) : below({140, 4, 1, 1, 1}));
        reply->type = 2;
        reply->value = 1;
        return 0u;
    };
    const Answer answer = answerGetNext(module.dispatch(), below({140, 3, 1, 7, 2}), false);
    ASSERT_EQ(answer.outcome, Outcome::kValue);
    EXPECT_EQ(answer.name, below({140, 4, 1, 1, 1}));
    ASSERT_EQ(module.calls.size(), 3u);
    const Name asked[] = {below({140, 3, 1, 6, 4294967295ull}), below({140, 3, 1, 7, 1}),
                          below({140, 4})};
    for (size_t i = 0; i < 3; i++) {
        EXPECT_EQ(module.calls[i].request, Arcs(asked[i].begin(), asked[i].end())) << i;
    }
}

// A Get's answer from the fake plug-ins below: a cell that is present
// holds its column * 10 + its row.
uint32_t answerCell(bool present, const Arcs &name, SMSnmpValue *reply)
{
    if (!present)
        return 2u;
    reply->type = SM_ASN_INTEGER;
    reply->value = name[13] * 10 + name[14];
    return 0u;
}

// A plug-in whose fan table (130.7) lost the device of its row 1: Get
// answers rows 2 and 3 of columns 1 and 2, and the plug-in's walk passes
// over the table to the next one's first cell, or ends when `ends`.
struct HoleInRowOne {
    FakeModule module;
    bool ends = false;
    int gets = 0;

    HoleInRowOne()
    {
        module.firstRowsAnswer = false;
        module.step = [this](int call, SMSnmpValue *reply) {
            const Arcs &asked = module.calls[static_cast<size_t>(call)].request;
            if (module.calls[static_cast<size_t>(call)].command == SM_CMD_GETNEXT) {
                if (ends)
                    return 2u;
                setName(reply, below({130, 8, 1, 1, 1}));
                setText(reply, "next table");
                return 0u;
            }
            gets++;
            const bool fans = asked.size() == kCellLength && asked[10] == 130 && asked[11] == 7;
            const bool present = fans ? asked[13] <= 2 && (asked[14] == 2 || asked[14] == 3)
                                      : asked[11] == 8 && asked[13] == 1 && asked[14] == 1;
            return answerCell(present, asked, reply);
        };
    }

    Answer next(const Name &from) { return answerGetNext(module.dispatch(), from, false); }
};

TEST(AnswerGetNext, ATableWhoseFirstRowWentIsReadByGetWhereThePluginPassesItOver)
{
    const std::pair<Name, Name> walk[] = {
        {below({130, 6, 1, 7, 3}), below({130, 7, 1, 1, 2})}, // into the table
        {below({130, 7}), below({130, 7, 1, 1, 2})},
        {below({130, 7, 1, 1, 2}), below({130, 7, 1, 1, 3})}, // along a column
        {below({130, 7, 1, 1, 3}), below({130, 7, 1, 2, 2})}, // to the next column
        {below({130, 7, 1, 2, 2}), below({130, 7, 1, 2, 3})},
        {below({130, 7, 1, 2, 3}), below({130, 8, 1, 1, 1})}, // out of it, as the plug-in said
    };
    for (const auto &[from, to] : walk) {
        HoleInRowOne plugin;
        const Answer answer = plugin.next(from);
        ASSERT_EQ(answer.outcome, Outcome::kValue) << ::testing::PrintToString(from);
        EXPECT_EQ(answer.name, to) << ::testing::PrintToString(from);
        if (to[11] == 7) {
            EXPECT_EQ(answer.value.integer, static_cast<int64_t>(to[13] * 10 + to[14]));
        }
    }
    // Where the plug-in's walk ends at the table, the agent reads on too.
    HoleInRowOne ending;
    ending.ends = true;
    const Answer answer = ending.next(below({130, 7, 1, 1, 3}));
    ASSERT_EQ(answer.outcome, Outcome::kValue);
    EXPECT_EQ(answer.name, below({130, 7, 1, 2, 2}));
}

// A fan table (130.7) whose row 1 went and whose rows 2 to `rows` answer in
// columns 1 to 3; the plug-in's walk passes over it at every cell.
struct ManyRowsAfterAHole {
    FakeModule module;
    uint32_t rows = 50;
    int pastLastRow = 0; // Gets of column 1 right past the last row

    ManyRowsAfterAHole()
    {
        module.firstRowsAnswer = false;
        module.step = [this](int call, SMSnmpValue *reply) {
            const Arcs &asked = module.calls[static_cast<size_t>(call)].request;
            if (module.calls[static_cast<size_t>(call)].command == SM_CMD_GETNEXT) {
                setName(reply, below({130, 8, 1, 1, 1}));
                setText(reply, "next table");
                return 0u;
            }
            const bool fans = asked.size() == kCellLength && asked[10] == 130 && asked[11] == 7;
            if (fans && asked[13] == 1 && asked[14] == rows + 1)
                pastLastRow++;
            const bool present = fans ? asked[13] <= 3 && asked[14] >= 2 && asked[14] <= rows
                                      : asked[11] == 8 && asked[13] == 1 && asked[14] == 1;
            return answerCell(present, asked, reply);
        };
    }

    // The names a walk from the table's root shows in it.
    std::vector<Name> walk()
    {
        std::vector<Name> names;
        for (Name at = below({130, 7});;) {
            const Answer answer = answerGetNext(module.dispatch(), at, false);
            if (answer.outcome != Outcome::kValue || answer.name.span()[11] != 7)
                return names;
            at.assign(answer.name.span().begin(), answer.name.span().end());
            names.push_back(at);
        }
    }
};

TEST(AnswerGetNext, AWalkThroughATableWhoseFirstRowWentFindsItsRowsOnce)
{
    ManyRowsAfterAHole plugin;
    const std::vector<Name> names = plugin.walk();
    ASSERT_EQ(names.size(), 3u * 49);
    EXPECT_EQ(names.front(), below({130, 7, 1, 1, 2}));
    EXPECT_EQ(names.back(), below({130, 7, 1, 3, 50}));
    // Column 1 is read past its last row once, at its end, and not again in
    // columns 2 and 3 (each of their steps read it from row 1 before).
    EXPECT_EQ(plugin.pastLastRow, 1);

    // Rows appended past the last one found are read again once a Get has
    // answered one of them.
    plugin.rows = 60;
    plugin.pastLastRow = 0;
    ASSERT_EQ(answerGet(plugin.module.dispatch(), below({130, 7, 1, 1, 60})).outcome,
              Outcome::kValue);
    EXPECT_EQ(plugin.walk().size(), 3u * 59);
    EXPECT_EQ(plugin.pastLastRow, 1);

    // And once the served model has changed: the plug-in may have rebuilt.
    plugin.rows = 70;
    EXPECT_EQ(plugin.walk().size(), 3u * 59) << "the last row is kept";
    char error[256] = "";
    ASSERT_EQ(kelpRuntimeLoadModel(KELP_SOURCE_DIR "/data/models/sample.xml", error, sizeof error),
              0)
        << error;
    EXPECT_EQ(plugin.walk().size(), 3u * 69);
}

TEST(AnswerGetNext, RowsAppendedPastARunOfHolesAsLongAsTheRowsSeenAreFound)
{
    // A walk saw rows up to 100 of the temperature probe table (130.16).
    FakeModule seen;
    seen.step = [](int, SMSnmpValue *reply) {
        setName(reply, below({130, 16, 1, 1, 100}));
        setText(reply, "x");
        return 0u;
    };
    ASSERT_EQ(answerGetNext(seen.dispatch(), below({130, 16, 1, 1, 99}), false).name,
              below({130, 16, 1, 1, 100}));
    // Two reconfigurations later, without a walk between them, every row up
    // to 200 is a hole and rows 201 to 210 answer: the plug-in's walk
    // passes over the table.
    FakeModule module;
    module.firstRowsAnswer = false;
    int gets = 0;
    module.step = [&](int call, SMSnmpValue *reply) {
        const auto &asked = module.calls[static_cast<size_t>(call)];
        if (asked.command == SM_CMD_GETNEXT) {
            setName(reply, below({130, 17, 1, 1, 1}));
            setText(reply, "next table");
            return 0u;
        }
        gets++;
        const Arcs &name = asked.request;
        const bool probes = name.size() == kCellLength && name[10] == 130 && name[11] == 16;
        if (!probes || name[13] != 1 || name[14] < 201 || name[14] > 210)
            return 2u;
        reply->type = SM_ASN_INTEGER;
        reply->value = static_cast<uint32_t>(name[14]);
        return 0u;
    };
    const Answer answer = answerGetNext(module.dispatch(), below({130, 16}), false);
    ASSERT_EQ(answer.outcome, Outcome::kValue);
    EXPECT_EQ(answer.name, below({130, 16, 1, 1, 201}));
    EXPECT_EQ(answer.value.integer, 201);
    EXPECT_LE(gets, 202) << "read up to the first row found";
}

TEST(AnswerGetNext, ARowAGetAnsweredIsReachedPastTheHolesBeforeIt)
{
    // Only Gets have asked for the table (140.5): its row 150 answers.
    FakeModule module;
    module.firstRowsAnswer = false;
    module.step = [&](int call, SMSnmpValue *reply) {
        const auto &asked = module.calls[static_cast<size_t>(call)];
        if (asked.command == SM_CMD_GETNEXT) {
            setName(reply, below({140, 6, 1, 1, 1}));
            setText(reply, "next table");
            return 0u;
        }
        const Arcs &name = asked.request;
        if (name.size() != kCellLength || name[10] != 140 || name[11] != 5 || name[14] != 150)
            return 2u;
        reply->type = SM_ASN_INTEGER;
        reply->value = 150;
        return 0u;
    };
    ASSERT_EQ(answerGet(module.dispatch(), below({140, 5, 1, 2, 150})).outcome, Outcome::kValue);
    // Rows 1 to 149 are holes: the plug-in's walk passes over the table.
    const Answer answer = answerGetNext(module.dispatch(), below({140, 5}), false);
    ASSERT_EQ(answer.outcome, Outcome::kValue);
    EXPECT_EQ(answer.name, below({140, 5, 1, 1, 150}));
}

// A fan table (130.7) whose row 1 comes back while a walk is in it: rows 1
// and 2 of columns 1 and 2 answer, except that the plug-in's walk is
// answered as it was before, with row 1 gone, for its first `goneFor`
// calls: it passes over the table to the next one's first cell. The
// agent's Gets, which come after, see row 1.
struct RowOneComesBack {
    FakeModule module;
    int goneFor = 1;
    int getNexts = 0;

    RowOneComesBack()
    {
        module.firstRowsAnswer = false;
        module.step = [this](int call, SMSnmpValue *reply) {
            const auto &asked = module.calls[static_cast<size_t>(call)];
            const Arcs &name = asked.request;
            const bool fans = name.size() >= 12 && name[10] == 130 && name[11] == 7;
            if (asked.command == SM_CMD_GETNEXT) {
                const bool gone = getNexts++ < goneFor;
                Name next = below({130, 8, 1, 1, 1});
                if (fans && !gone) {
                    // The cell after the one asked from, in walk order.
                    const uint64_t column = name.size() > 13 ? name[13] : 1;
                    const uint64_t row = name.size() > 14 ? name[14] : 0;
                    if (column < 1 || (column == 1 && row == 0))
                        next = below({130, 7, 1, 1, 1});
                    else if (row < 2)
                        next = below({130, 7, 1, column, row + 1});
                    else if (column < 2)
                        next = below({130, 7, 1, column + 1, 1});
                }
                setName(reply, next);
                reply->type = SM_ASN_INTEGER;
                reply->value = static_cast<uint32_t>(next[13] * 10 + next[14]);
                return 0u;
            }
            const bool present = fans && name.size() == kCellLength && name[13] <= 2 &&
                                 name[14] >= 1 && name[14] <= 2;
            return answerCell(present, name, reply);
        };
    }

    Answer next(const Name &from) { return answerGetNext(module.dispatch(), from, false); }
};

TEST(AnswerGetNext, AFirstRowThatCameBackAfterThePluginPassedOverItsTableHidesNoRow)
{
    // From within the table: the next cell of the column, read by Get, or,
    // at the column's end, the plug-in's walk asked again.
    const struct {
        Name from, to;
        int getNexts;
    } walk[] = {
        {below({130, 7, 1, 1, 1}), below({130, 7, 1, 1, 2}), 1},
        {below({130, 7, 1, 2, 1}), below({130, 7, 1, 2, 2}), 1},
        {below({130, 7, 1, 1}), below({130, 7, 1, 1, 1}), 1},
        {below({130, 7, 1, 2}), below({130, 7, 1, 2, 1}), 1},
        {below({130, 7, 1, 1, 2}), below({130, 7, 1, 2, 1}), 2},
    };
    for (const auto &[from, to, getNexts] : walk) {
        RowOneComesBack plugin;
        const Answer answer = plugin.next(from);
        ASSERT_EQ(answer.outcome, Outcome::kValue) << ::testing::PrintToString(from);
        EXPECT_EQ(answer.name, to) << ::testing::PrintToString(from);
        EXPECT_EQ(answer.value.integer, static_cast<int64_t>(to[13] * 10 + to[14]));
        EXPECT_EQ(plugin.getNexts, getNexts) << ::testing::PrintToString(from);
    }
    // From before the table: its first cell, without asking the plug-in again.
    for (const Name &from : {below({130, 6, 1, 7, 3}), below({130, 7}), below({130, 7, 1})}) {
        RowOneComesBack plugin;
        const Answer answer = plugin.next(from);
        ASSERT_EQ(answer.outcome, Outcome::kValue) << ::testing::PrintToString(from);
        EXPECT_EQ(answer.name, below({130, 7, 1, 1, 1})) << ::testing::PrintToString(from);
        EXPECT_EQ(answer.value.integer, 11);
        EXPECT_EQ(plugin.getNexts, 1);
    }
}

TEST(AnswerGetNext, APluginThatKeepsLeavingATableWhoseFirstRowAnswersIsAskedAgainOnce)
{
    // Past the table's last cell the plug-in leaves it, and is not asked
    // again: nothing after the cursor answers.
    RowOneComesBack plugin;
    plugin.goneFor = 0;
    Answer answer = plugin.next(below({130, 7, 1, 2, 2}));
    ASSERT_EQ(answer.outcome, Outcome::kValue);
    EXPECT_EQ(answer.name, below({130, 8, 1, 1, 1}));
    EXPECT_EQ(plugin.getNexts, 1);

    // A plug-in that passes over the table every time it is asked, from the
    // end of a column whose next column answers.
    RowOneComesBack always;
    always.goneFor = 1000;
    answer = always.next(below({130, 7, 1, 1, 2}));
    ASSERT_EQ(answer.outcome, Outcome::kValue);
    EXPECT_EQ(answer.name, below({130, 8, 1, 1, 1}));
    EXPECT_EQ(always.getNexts, 2);
}

TEST(AnswerGetNext, LeavingATableWhoseFirstRowAnswersCostsTwoGetsAndWithinATableNone)
{
    // Leaving it, the agent asks for the table's first cell and the cell
    // right after the cursor (the last column has no column after it).
    FakeModule module;
    int getNexts = 0;
    module.step = [&](int call, SMSnmpValue *reply) {
        if (module.calls[static_cast<size_t>(call)].command == SM_CMD_GET)
            return 2u;
        setName(reply, getNexts++ == 0 ? below({130, 1, 1, 2, 1}) : below({130, 2, 1, 1, 1}));
        setText(reply, "x");
        return 0u;
    };
    EXPECT_EQ(answerGetNext(module.dispatch(), below({130, 1, 1, 1, 9}), false).name,
              below({130, 1, 1, 2, 1}));
    EXPECT_EQ(module.firstRowGets, 0);
    EXPECT_EQ(module.calls.size(), 1u);
    EXPECT_EQ(answerGetNext(module.dispatch(), below({130, 1, 1, 73, 9}), false).name,
              below({130, 2, 1, 1, 1}));
    EXPECT_EQ(module.firstRowGets, 1);
    ASSERT_EQ(module.calls.size(), 3u);
    EXPECT_EQ(module.calls[2].command, uint32_t{SM_CMD_GET});
    const Name after = below({130, 1, 1, 73, 10});
    EXPECT_EQ(module.calls[2].request, Arcs(after.begin(), after.end()));
}

TEST(AnswerRepetitions, EachRepetitionGoesOnFromTheOneBeforeUntilTheCountOrAnEnd)
{
    FakeModule module;
    module.step = [](int call, SMSnmpValue *reply) {
        if (call >= 3) {
            return 2u;
        }
        setName(reply, below({140, 6, 1, 1, static_cast<uint64_t>(call) + 1}));
        setText(reply, "x");
        return 0u;
    };
    std::vector<Answer> answers =
        answerRepetitions(module.dispatch(), below({140, 6, 1, 1}), false, 2, {});
    ASSERT_EQ(answers.size(), 2u);
    EXPECT_EQ(answers[1].name, below({140, 6, 1, 1, 2}));

    module.calls.clear();
    answers = answerRepetitions(module.dispatch(), below({140, 6, 1, 1}), false, 10, {});
    ASSERT_EQ(answers.size(), 4u) << "three values, then the end";
    EXPECT_EQ(answers[3].outcome, Outcome::kEndOfSubtree);

    module.calls.clear();
    const Name rangeEnd = below({140, 6, 1, 1, 2});
    answers = answerRepetitions(module.dispatch(), below({140, 6, 1, 1}), false, 10, rangeEnd);
    ASSERT_EQ(answers.size(), 2u) << "up to the first at or past the range's end";
    EXPECT_EQ(answers[1].name, rangeEnd);
}

TEST(AnswerSet, TheModuleSeesCommandElevenAndTheAnswerIsAlwaysNotWritable)
{
    for (const uint32_t status : {4u, 0u, 5u}) {
        std::vector<uint32_t> commands;
        std::vector<uint32_t> names;
        const Dispatch dispatch = [&](uint32_t command, void *in, uint32_t inSize, void *, uint32_t,
                                      uint32_t *) {
            EXPECT_EQ(inSize, sizeof(SMSnmpValue));
            commands.push_back(command);
            names.push_back(static_cast<SMSnmpValue *>(in)->name.count);
            return status;
        };
        EXPECT_EQ(answerSet(dispatch, below({3, 0})), Outcome::kNotWritable) << status;
        EXPECT_EQ(commands, std::vector<uint32_t>{SM_CMD_SET1});
        EXPECT_EQ(names, std::vector<uint32_t>{12});
        EXPECT_EQ(answerSet(dispatch, below({1ull << 32})), Outcome::kNotWritable);
        EXPECT_EQ(commands.size(), 1u) << "a name outside 32 bits is not handed over";
    }
}

} // namespace
} // namespace kelp::agent
