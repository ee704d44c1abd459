// The blocked alert list read as the plug-in reads it, for the two rescan
// events.
#include "blockedalerts.h"

#include <gtest/gtest.h>

namespace kelp::agent {
namespace {

TEST(BlockedAlerts, ARescanEventAnywhereInTheFirstTenPiecesIsFound)
{
    const std::pair<const char *, std::optional<uint32_t>> cases[] = {
        {"", std::nullopt},
        {"2048,2049", std::nullopt},
        {"3060", 3060u},
        {"3061", 3061u},
        {"2048,3060", 3060u},
        {"3060,3061", 3061u},
        {" 3061", 3061u},
        {"+3060", 3060u},
        {"3060abc", 3060u},
        {",,,3061", 3061u},
        {"1,2,3,4,5,6,7,8,9,3060", 3060u},
        {"1,2,3,4,5,6,7,8,9,10,3060", std::nullopt},
        {"30600", std::nullopt},
        {"-3060", std::nullopt},
        {"4294970356", 3060u}, // 2^32 + 3060: the plug-in reads numbers in 32 bits
        {"abc", std::nullopt},
    };
    for (const auto &[list, expected] : cases) {
        EXPECT_EQ(blockedRescanEvent(list), expected) << '"' << list << '"';
    }
}

} // namespace
} // namespace kelp::agent
