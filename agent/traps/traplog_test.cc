// A trap's log line: its number and name, event and message, object and nexus, and
// the sinks it went to; generic traps by name, other enterprises by number,
// missing bindings left out, control characters kept off the line.
#include "traps/traplog.h"

#include <iterator>

#include <gtest/gtest.h>

namespace kelp::agent {
namespace {

TrapBinding binding(uint32_t n, const std::string &text)
{
    TrapBinding b;
    b.name.assign(std::begin(kTrapEnterprise), std::end(kTrapEnterprise));
    b.name.insert(b.name.end(), {n, 0});
    b.value.type = SM_ASN_OCTET_STRING;
    b.value.shape = ValueShape::kBytes;
    b.value.bytes = text;
    return b;
}

TrapBinding number(uint32_t n, int64_t value)
{
    TrapBinding b = binding(n, "");
    b.value.type = SM_ASN_INTEGER;
    b.value.shape = ValueShape::kSigned32;
    b.value.bytes.clear();
    b.value.integer = value;
    return b;
}

Trap storageTrap(uint32_t specific)
{
    Trap trap;
    trap.enterprise.assign(std::begin(kTrapEnterprise), std::end(kTrapEnterprise));
    trap.generic = 6;
    trap.specific = specific;
    return trap;
}

TEST(TrapLogLine, AStorageTrapNamesItsEventObjectAndSinks)
{
    Trap trap = storageTrap(904);
    trap.bindings = {number(1, 2048),
                     binding(2, "Physical disk 0:0:2 has failed."),
                     binding(3, "Controller 0 (Vorn RX-240)"),
                     binding(4, "Enclosure 0"),
                     binding(5, "1.3.6.1.4.1.61234.20571.1.20.130.4.1.1.3"),
                     binding(6, "0\\0\\0\\2"),
                     number(7, 3),
                     number(8, 2)};
    EXPECT_EQ(trapLogLine(trap, {"udp:127.0.0.1:162", "inform:udp:[::1]:162"}),
              "trap 904 arrayDiskCriticalAlert (event 2048: Physical disk 0:0:2 has failed.) "
              "object 0\\0\\0\\2 row "
              "1.3.6.1.4.1.61234.20571.1.20.130.4.1.1.3 at \"Controller 0 (Vorn RX-240)\", "
              "\"Enclosure 0\" sent to udp:127.0.0.1:162, inform:udp:[::1]:162");
}

TEST(TrapLogLine, EachFormOfTrapHasItsLine)
{
    struct Case {
        const char *what;
        Trap trap;
        std::vector<std::string> sinks;
        const char *line;
    };
    Trap shortEvent = storageTrap(101);
    shortEvent.bindings = {number(1, 2135), binding(2, "Battery learn\ncycle started.")};
    Trap coldStart = storageTrap(0);
    coldStart.generic = 0;
    Trap foreign;
    foreign.enterprise = {1, 3, 6, 1, 4, 1, 99};
    foreign.generic = 6;
    foreign.specific = 5;
    // A number the MIB does not declare has no name.
    Trap unnamed = storageTrap(999);
    unnamed.bindings = {binding(2, "Enclosure alarm.")};
    Trap unknown = storageTrap(903);
    unknown.bindings = {number(1, 2049),       binding(2, "Removed."), binding(3, "Controller 1"),
                        binding(4, "UNKNOWN"), binding(5, "UNKNOWN"),  binding(6, "0\x01x")};
    const Case cases[] = {
        {"a short event has no object",
         shortEvent,
         {"udp:h:162"},
         "trap 101 versionUnsupportedAlert (event 2135: Battery learn?cycle started.) sent to "
         "udp:h:162"},
        {"coldStart by name", coldStart, {"a", "b"}, "trap coldStart sent to a, b"},
        {"another enterprise by numbers",
         foreign,
         {"the AgentX master"},
         "trap enterprise 1.3.6.1.4.1.99 generic 6 specific 5 sent to the AgentX master"},
        {"no event number", unnamed, {}, "trap 999 (Enclosure alarm.) sent nowhere"},
        {"UNKNOWN texts left out",
         unknown,
         {"s"},
         "trap 903 arrayDiskWarningAlert (event 2049: Removed.) object 0?x at \"Controller 1\" "
         "sent to s"},
    };
    for (const Case &c : cases) {
        EXPECT_EQ(trapLogLine(c.trap, c.sinks), c.line) << c.what;
    }
}

} // namespace
} // namespace kelp::agent
