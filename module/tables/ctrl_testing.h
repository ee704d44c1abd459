// Test helpers for the controller table: the table fixture on getCtrl, and
// a controller served from an inline model.
#ifndef KELP_MODULE_TABLES_CTRL_TESTING_H
#define KELP_MODULE_TABLES_CTRL_TESTING_H

#include <string>

#include "store/tablelist.h"
#include "tables/getters.h"
#include "testing/table_fixture.h"

namespace ctrltest {

using namespace tabletest;

inline std::string adapter(uint32_t id, const std::string &nexus, const Attributes &attributes)
{
    return item(id, "adapters", nexus, attributes);
}

class CtrlTest : public TableTest {
  protected:
    CtrlTest() : TableTest({getCtrl, 130, 1, &ctrlList, "adapters"}) {}

    // Serves controller 1 (nexus "0") with `attributes`, then `more`, and
    // builds the controller table.
    void serveController(const Attributes &attributes, const std::string &more = "")
    {
        serveTable(adapter(1, "0", attributes) + more);
    }
};

} // namespace ctrltest

#endif // KELP_MODULE_TABLES_CTRL_TESTING_H
