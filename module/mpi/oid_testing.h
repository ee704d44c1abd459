// oid_testing.h - test-only: SMSnmpOID records over arcs the test owns.
#ifndef KELP_MPI_OID_TESTING_H
#define KELP_MPI_OID_TESTING_H

#include <cstdint>
#include <initializer_list>
#include <utility>
#include <vector>

#include "platform/smsnmp.h"

namespace kelp::testing {

// An OID whose arcs live in the object; get() points a record at them.
class TestOid {
  public:
    TestOid(std::initializer_list<uint32_t> arcs) : arcs_(arcs) {}
    explicit TestOid(std::vector<uint32_t> arcs) : arcs_(std::move(arcs)) {}

    TestOid then(std::initializer_list<uint32_t> more) const
    {
        std::vector<uint32_t> arcs = arcs_;
        arcs.insert(arcs.end(), more);
        return TestOid(std::move(arcs));
    }

    const SMSnmpOID *get()
    {
        record_ = SMSnmpOID{static_cast<uint32_t>(arcs_.size()), 0, arcs_.data()};
        return &record_;
    }

  private:
    std::vector<uint32_t> arcs_;
    SMSnmpOID record_{};
};

inline std::vector<uint32_t> arcsOf(const SMSnmpOID &oid)
{
    if (oid.arcs == nullptr)
        return {};
    return std::vector<uint32_t>(oid.arcs, oid.arcs + oid.count);
}

} // namespace kelp::testing

#endif // KELP_MPI_OID_TESTING_H
