// kelpctl save over SNMP: an agent started on the model it saved answers a
// walk of the whole MIB exactly as the agent that saved it, changes made
// through the control socket included.
#include <gtest/gtest.h>

#include <string>

#include "testkit.h"
#include "walk_after_save.h"

namespace kelp::test {
namespace {

TEST(AgentSave, TheSampleSavedAndServedAgainWalksTheSame)
{
    expectIdenticalWalkAfterSave({"--model", sourcePath("data/models/sample.xml")});
}

TEST(AgentSave, TheSampleChangedThroughTheControlSocketSavedAndServedAgainWalksTheSame)
{
    const std::string name = "Vorn <RX-240> & \"0\" \\ ";
    expectIdenticalWalkAfterSave(
        {"--model", sourcePath("data/models/sample.xml")}, [&](AgentUnderTest &agent) {
            ASSERT_EQ(agent.kelpctl({"set", "1", "Name", name}).status, 0);
            ASSERT_EQ(agent.kelpctl({"set", "30", "FanSpeed", "4"}).status, 0);
            const RunResult add = agent.kelpctl(
                {"add", "--xml",
                 R"(<object id="33" type="fans" parent="21"><Nexus>1\0\0\1\2</Nexus>)"
                 "<ObjState>1</ObjState><ObjStatus>3</ObjStatus><TreeStatus>3</TreeStatus>"
                 "<PartNo>VN-FN121</PartNo><Revision>B02</Revision>"
                 "<IsEnclosureJX33XX>0</IsEnclosureJX33XX><FanSpeed>2</FanSpeed></object>"});
            ASSERT_EQ(add.status, 0) << add.err;
            // The controller's name is read at request time; the new fan
            // appears once the plug-in has rebuilt its tables.
            ASSERT_TRUE(waitFor(
                [&] {
                    const std::string walk = tryWalk(agent).value_or("");
                    return walk.find("VN-FN121") != std::string::npos &&
                           walk.find("Vorn <RX-240> & ") != std::string::npos;
                },
                30s))
                << "the new fan or the controller's new name is not served";
        });
}

} // namespace
} // namespace kelp::test
