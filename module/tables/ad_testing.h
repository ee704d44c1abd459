// Test helpers for the array disk table: the table fixture on getAD, and a
// disk served from an inline model.
#ifndef KELP_MODULE_TABLES_AD_TESTING_H
#define KELP_MODULE_TABLES_AD_TESTING_H

#include <string>

#include "store/tablelist.h"
#include "tables/getters.h"
#include "testing/table_fixture.h"

namespace adtest {

using namespace tabletest;

inline std::string disk(uint32_t id, const std::string &nexus, const Attributes &attributes,
                        uint32_t parent = 0)
{
    return item(id, "arraydisks", nexus, attributes, parent);
}

class AdTest : public TableTest {
  protected:
    AdTest() : TableTest({getAD, 130, 4, &adList, "arraydisks"}) {}

    // Serves disk 1 (nexus "0\0\0\3") with `attributes`, then `more`, and
    // builds the array disk table.
    void serveDisk(const Attributes &attributes, const std::string &more = "")
    {
        serveTable(disk(1, "0\\0\\0\\3", attributes) + more);
    }
};

} // namespace adtest

#endif // KELP_MODULE_TABLES_AD_TESTING_H
