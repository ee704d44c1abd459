// Test helpers for the enclosure table: the table fixture on getEncl, an
// enclosure served below a controller and a channel, and a stand-in for the
// data store's disk count that can give the answers the store never gives.
#ifndef KELP_MODULE_TABLES_ENCL_TESTING_H
#define KELP_MODULE_TABLES_ENCL_TESTING_H

#include <optional>
#include <string>

#include "store/tablelist.h"
#include "tables/getters.h"
#include "testing/table_fixture.h"

namespace encltest {

using namespace tabletest;

// What GetAssociatedPhyDevCount answers while set: the text, or null for
// std::nullopt inside. Unset, the call goes to the data store. Defined in
// encl_test.cc, which stands in for the data store's function.
void setDiskCountAnswer(std::optional<std::optional<std::string>> answer);

// Controller 1 (target id 7) and its channel 10, the parents of the
// enclosures the tests serve.
inline std::string controllerAndChannel()
{
    return item(1, "adapters", "0", {{"TargetID", "7"}}) + item(10, "bus", "0\\0", {}, 1);
}

// `count` disks in enclosure `enclosure`, ids from `first`.
inline std::string disks(uint32_t enclosure, uint32_t first, uint32_t count)
{
    std::string text;
    for (uint32_t n = 0; n < count; n++) {
        text += item(first + n, "arraydisks", "0\\0\\0\\" + std::to_string(n), {}, enclosure);
    }
    return text;
}

class EnclTest : public TableTest {
  protected:
    EnclTest() : TableTest({getEncl, 130, 3, &enclList, "enclosures"}) {}

    void SetUp() override
    {
        TableTest::SetUp();
        setDiskCountAnswer(std::nullopt);
    }
    void TearDown() override
    {
        setDiskCountAnswer(std::nullopt);
        TableTest::TearDown();
    }

    // Serves enclosure 20 (nexus `nexus`) with `attributes` on channel 10 of
    // controller 1, then `more`, and builds the enclosure table.
    void serveEnclosure(const Attributes &attributes, const std::string &more = "",
                        const std::string &nexus = "0\\0\\0")
    {
        serveTable(controllerAndChannel() + item(20, "enclosures", nexus, attributes, 10) + more);
    }
};

} // namespace encltest

#endif // KELP_MODULE_TABLES_ENCL_TESTING_H
