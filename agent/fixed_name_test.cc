// Names held in place: at most their capacity, never more.
#include "fixed_name.h"

#include <gtest/gtest.h>

#include <cstdint>
#include <vector>

#include "records.h"

namespace {

using kelp::agent::FixedName;
using kelp::agent::PluginName;
using kelp::agent::RequestRecord;

using Short = FixedName<uint64_t, 4>;

TEST(FixedNameTest, HoldsWhatFitsAndRefusesWhatDoesNot)
{
    Short name;
    EXPECT_TRUE(name.empty());
    const std::vector<uint32_t> four = {1, 3, 6, 1};
    ASSERT_TRUE(name.assign(std::span<const uint32_t>(four)));
    EXPECT_EQ(name, (std::vector<uint64_t>{1, 3, 6, 1}));

    const std::vector<uint32_t> five = {1, 3, 6, 1, 4};
    EXPECT_FALSE(name.assign(std::span<const uint32_t>(five)));
    EXPECT_TRUE(name.empty()) << "a name too long leaves none";

    ASSERT_TRUE(name.append({1, 3}));
    EXPECT_FALSE(name.append({6, 1, 4})) << "would outgrow the capacity";
    EXPECT_EQ(name, (std::vector<uint64_t>{1, 3})) << "a refused append changes nothing";
    ASSERT_TRUE(name.append({6, 1}));
    EXPECT_EQ(name.size(), 4u);
    EXPECT_FALSE(name.append({0}));
}

TEST(FixedNameTest, ACopyHasTheSameArcs)
{
    Short name;
    ASSERT_TRUE(name.append({7, 8, 9}));
    const Short copy = name;
    EXPECT_EQ(copy, name);
    Short other;
    ASSERT_TRUE(other.append({1}));
    other = copy;
    EXPECT_EQ(other, (std::vector<uint64_t>{7, 8, 9}));
    EXPECT_EQ(std::vector<uint64_t>(other.begin(), other.end()), (std::vector<uint64_t>{7, 8, 9}));
    EXPECT_EQ(other.span().size(), 3u);
}

TEST(FixedNameTest, ARequestRecordTakesNamesUpToSnmpsLimit)
{
    std::vector<uint64_t> name(PluginName::kCapacity, 1);
    const std::optional<RequestRecord> longest = RequestRecord::fromName(name);
    ASSERT_TRUE(longest.has_value());
    EXPECT_EQ(longest->name().size(), PluginName::kCapacity);
    name.push_back(1);
    EXPECT_FALSE(RequestRecord::fromName(name).has_value());
    name.assign({1, 3, uint64_t{1} << 32});
    EXPECT_FALSE(RequestRecord::fromName(name).has_value()) << "an arc beyond 32 bits";
}

} // namespace
