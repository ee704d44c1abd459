// A small storage model shared by the data-store tests: two adapters, a
// channel, an enclosure with disks and a fan, a disk on the channel itself,
// a battery, a spanned virtual disk with a child, a partition and a tape.
// And answerText, which reads a query's answer.
#ifndef KELP_RUNTIME_DATASTORE_MODEL_TESTING_H
#define KELP_RUNTIME_DATASTORE_MODEL_TESTING_H

#include <cstdint>
#include <string>

#include "vscil.h"

namespace kelp::ds::testing {

// What query(&status) answers as text, or "<status N>" when it answers
// null; the answer is released.
template <typename Query> std::string answerText(Query query)
{
    uint32_t status = 99;
    char *xml = query(&status);
    std::string text = xml != nullptr ? xml : "<status " + std::to_string(status) + ">";
    freeMem(xml);
    return text;
}

inline constexpr char kTestModel[] = R"(<?xml version="1.0" encoding="UTF-8"?>
<storage ready="1" thermalShutdown="3" chassisServiceTag="7XYZ123"
         baseBoardServiceTag="7XYZ124" url="https://localhost:1311">
  <object id="1" type="adapters">
    <Nexus>0</Nexus>
    <Name>Vorn RX-240</Name>
  </object>
  <object id="2" type="bus" parent="1"><Nexus>0\0</Nexus></object>
  <object id="5" type="enclosures" parent="2"><Nexus>0\0\0</Nexus><Name>Backplane</Name></object>
  <object id="20" type="arraydisks" parent="5">
    <Nexus>0\0\0\20</Nexus><ObjStatus>2</ObjStatus><PreviousStatus>1</PreviousStatus>
    <AttributesMask>0000000000000000000000100</AttributesMask><Vendor>R&amp;D</Vendor>
  </object>
  <object id="21" type="arraydisks" parent="5"><Nexus>0\0\0\21</Nexus></object>
  <object id="22" type="arraydisks" parent="2"><Nexus>0\0\22</Nexus></object>
  <object id="30" type="batteries" parent="1"><Nexus>0\b</Nexus></object>
  <object id="40" type="vdisks" parent="1"><Nexus>v40</Nexus><Name>Data</Name></object>
  <object id="41" type="vdisks" parent="40"><Nexus>v41</Nexus><ParentVDID>40</ParentVDID></object>
  <object id="50" type="VDPartitionNode"><Nexus>p50</Nexus></object>
  <object id="60" type="adapters"><Nexus>1</Nexus><Name>HBA 9</Name></object>
  <object id="70" type="fans" parent="5"><Nexus>0\0\0\f</Nexus></object>
  <object id="80" type="Tape"><Nexus>t80</Nexus></object>
  <link a="20" b="40"/>
  <link a="21" b="41"/>
  <link a="40" b="50"/>
  <link a="80" b="60"/>
</storage>
)";

} // namespace kelp::ds::testing

#endif // KELP_RUNTIME_DATASTORE_MODEL_TESTING_H
