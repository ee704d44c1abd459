// Traps as entry 7 receives them: what is copied, what is refused, and the
// hand-off to the sending thread (order, patience, closing).
#include "traps/trap.h"

#include <atomic>
#include <future>
#include <new>
#include <thread>
#include <vector>

#include <gtest/gtest.h>

#include "testing/failing_new.h"

namespace kelp::agent {
namespace {

TEST(CopyTrap, NamesTypesAndValuesAreCopied)
{
    uint32_t enterpriseArcs[] = {1, 3, 6, 1, 4, 1, 61234, 20571, 1, 20, 200};
    uint32_t name1[] = {1, 3, 6, 1, 4, 1, 61234, 20571, 1, 20, 200, 1, 0};
    uint32_t name2[] = {1, 3, 6, 1, 4, 1, 61234, 20571, 1, 20, 200, 2, 0};
    char text[] = "Disk 0:1:4 failed";
    SMSnmpValue bindings[2]{};
    bindings[0].name = {13, 0, name1};
    bindings[0].type = SM_ASN_INTEGER;
    bindings[0].value = 0xFFFFFFFF;
    bindings[1].name = {13, 0, name2};
    bindings[1].type = SM_ASN_OCTET_STRING;
    bindings[1].value = 17;
    bindings[1].buffer = text;
    const SMSnmpOID enterprise{11, 0, enterpriseArcs};

    Trap trap;
    std::string why;
    ASSERT_TRUE(copyTrap(&enterprise, 6, 2049, 2, bindings, &trap, &why)) << why;
    text[0] = 'X'; // the copy is the agent's own
    EXPECT_EQ(trap.enterprise.size(), 11u);
    EXPECT_EQ(trap.generic, 6u);
    EXPECT_EQ(trap.specific, 2049u);
    ASSERT_EQ(trap.bindings.size(), 2u);
    EXPECT_EQ(trap.bindings[0].name, std::vector<uint32_t>(name1, name1 + 13));
    EXPECT_EQ(trap.bindings[0].value.type, uint32_t{SM_ASN_INTEGER});
    EXPECT_EQ(trap.bindings[0].value.integer, -1);
    EXPECT_EQ(trap.bindings[1].value.type, uint32_t{SM_ASN_OCTET_STRING});
    EXPECT_EQ(trap.bindings[1].value.bytes, "Disk 0:1:4 failed");
}

TEST(CopyTrap, UnusableRecordsAreRefusedWithAReason)
{
    uint32_t arcs[] = {1, 3, 6};
    const SMSnmpOID enterprise{3, 0, arcs};
    const SMSnmpOID noArcs{3, 0, nullptr};
    SMSnmpValue untyped{};
    untyped.name = {3, 0, arcs};
    SMSnmpValue unnamed{};
    unnamed.type = SM_ASN_INTEGER;
    Trap trap;
    std::string why;
    EXPECT_FALSE(copyTrap(nullptr, 6, 1, 0, nullptr, &trap, &why));
    EXPECT_FALSE(copyTrap(&noArcs, 6, 1, 0, nullptr, &trap, &why));
    EXPECT_FALSE(copyTrap(&enterprise, 6, 1, 1, nullptr, &trap, &why));
    EXPECT_FALSE(copyTrap(&enterprise, 6, 1, kMaxTrapBindings + 1, &untyped, &trap, &why));
    EXPECT_FALSE(copyTrap(&enterprise, 6, 1, 1, &untyped, &trap, &why));
    EXPECT_NE(why.find("binding 0"), std::string::npos) << why;
    EXPECT_FALSE(copyTrap(&enterprise, 6, 1, 1, &unnamed, &trap, &why));
    EXPECT_TRUE(copyTrap(&enterprise, 6, 1, 0, nullptr, &trap, &why)) << why;
}

// Waits up to 10 s for the queue to have woken its pump `count` times.
bool wokenTimes(const std::atomic<int> &wakes, int count)
{
    for (int i = 0; i < 2000 && wakes.load() < count; i++) {
        std::this_thread::sleep_for(std::chrono::milliseconds(5));
    }
    return wakes.load() == count;
}

Trap trapNumbered(uint32_t specific)
{
    Trap trap;
    trap.enterprise = {1, 3, 6};
    trap.specific = specific;
    return trap;
}

TEST(TrapQueue, TrapsFromOtherThreadsAreSentByThePumpInOrder)
{
    std::vector<uint32_t> sent; // only the pump's thread touches it
    std::atomic<int> wakes{0};
    TrapQueue queue([&](const Trap &t) { return sent.push_back(t.specific), 0u; }, [&] { wakes++; },
                    std::chrono::seconds(10));
    queue.adoptPumpThread();
    std::future<uint32_t> first =
        std::async(std::launch::async, [&] { return queue.submit(trapNumbered(1)); });
    // Bounded: the submitter waits at most its patience.
    ASSERT_TRUE(wokenTimes(wakes, 1));
    queue.pump();
    EXPECT_EQ(first.get(), 0u);
    EXPECT_EQ(queue.submit(trapNumbered(2)), 0u) << "the pump's own thread sends at once";
    EXPECT_EQ(sent, (std::vector<uint32_t>{1, 2}));
}

TEST(TrapQueue, ATrapNotTakenInTimeIsWithdrawnAndFails)
{
    int sent = 0;
    TrapQueue queue([&](const Trap &) { return ++sent, 0u; }, [] {}, std::chrono::milliseconds(50));
    queue.adoptPumpThread();
    std::future<uint32_t> late =
        std::async(std::launch::async, [&] { return queue.submit(trapNumbered(1)); });
    EXPECT_EQ(late.get(), uint32_t{SM_SNMP_GENERR});
    queue.pump();
    EXPECT_EQ(sent, 0) << "a withdrawn trap is never sent late";
}

TEST(TrapQueue, ATrapWithoutMemoryToSendFailsAndThePumpGoesOn)
{
    std::vector<uint32_t> sent; // only the pump's thread touches it
    std::atomic<int> wakes{0};
    TrapQueue queue(
        [&](const Trap &t) {
            if (t.specific == 1) {
                throw std::bad_alloc();
            }
            return sent.push_back(t.specific), 0u;
        },
        [&] { wakes++; }, std::chrono::seconds(10));
    queue.adoptPumpThread();
    std::future<uint32_t> first =
        std::async(std::launch::async, [&] { return queue.submit(trapNumbered(1)); });
    ASSERT_TRUE(wokenTimes(wakes, 1));
    std::future<uint32_t> second =
        std::async(std::launch::async, [&] { return queue.submit(trapNumbered(2)); });
    ASSERT_TRUE(wokenTimes(wakes, 2));
    queue.pump();
    EXPECT_EQ(first.get(), uint32_t{SM_SNMP_GENERR});
    EXPECT_EQ(second.get(), 0u);
    EXPECT_EQ(queue.submit(trapNumbered(1)), uint32_t{SM_SNMP_GENERR})
        << "on the pump's own thread too";
    EXPECT_EQ(sent, (std::vector<uint32_t>{2}));
}

TEST(TrapQueue, ATrapWithoutMemoryToQueueFails)
{
    std::atomic<int> sent{0};
    TrapQueue queue([&](const Trap &) { return ++sent, 0u; }, [] {}, std::chrono::seconds(10));
    queue.adoptPumpThread();
    const uint32_t status = std::async(std::launch::async, [&] {
                                Trap trap = trapNumbered(1);
                                kelp::test::failNthAllocation(1);
                                const uint32_t s = queue.submit(std::move(trap));
                                kelp::test::failNthAllocation(0);
                                return s;
                            }).get();
    EXPECT_EQ(status, uint32_t{SM_SNMP_GENERR});
    queue.pump();
    EXPECT_EQ(sent.load(), 0);
}

TEST(TrapQueue, ClosingFailsWaitingAndLaterTraps)
{
    std::atomic<int> wakes{0};
    TrapQueue queue([](const Trap &) { return 0u; }, [&] { wakes++; }, std::chrono::seconds(30));
    queue.adoptPumpThread();
    std::future<uint32_t> waiting =
        std::async(std::launch::async, [&] { return queue.submit(trapNumbered(1)); });
    ASSERT_TRUE(wokenTimes(wakes, 1));
    queue.close();
    EXPECT_EQ(waiting.get(), uint32_t{SM_SNMP_GENERR});
    EXPECT_EQ(std::async(std::launch::async, [&] { return queue.submit(trapNumbered(2)); }).get(),
              uint32_t{SM_SNMP_GENERR});
}

TEST(TrapQueue, AfterStopWaitingTrapsAreTakenAtOnceAndTheLastPumpSendsThem)
{
    std::atomic<int> wakes{0};
    std::vector<uint32_t> sent;
    TrapQueue queue([&](const Trap &t) { return sent.push_back(t.specific), 0u; }, [&] { wakes++; },
                    std::chrono::seconds(30));
    queue.adoptPumpThread();
    std::future<uint32_t> waiting =
        std::async(std::launch::async, [&] { return queue.submit(trapNumbered(1)); });
    ASSERT_TRUE(wokenTimes(wakes, 1));
    queue.stopWaiting();
    ASSERT_EQ(waiting.wait_for(std::chrono::seconds(5)), std::future_status::ready);
    EXPECT_EQ(waiting.get(), uint32_t{SM_SNMP_NOERROR});
    std::future<uint32_t> later =
        std::async(std::launch::async, [&] { return queue.submit(trapNumbered(2)); });
    ASSERT_EQ(later.wait_for(std::chrono::seconds(5)), std::future_status::ready)
        << "a trap raised during the stop does not wait for the pump";
    EXPECT_EQ(later.get(), uint32_t{SM_SNMP_NOERROR});
    EXPECT_TRUE(sent.empty());
    queue.pump();
    EXPECT_EQ(sent, (std::vector<uint32_t>{1, 2}));
    queue.close();
    EXPECT_EQ(std::async(std::launch::async, [&] { return queue.submit(trapNumbered(3)); }).get(),
              uint32_t{SM_SNMP_GENERR});
}

} // namespace
} // namespace kelp::agent
