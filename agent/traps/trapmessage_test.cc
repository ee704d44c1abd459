// The messages the sinks send, decoded again with net-snmp's own parser: an
// SNMPv2c notification is sysUpTime.0, snmpTrapOID.0 = enterprise.0.specific,
// the bindings and snmpTrapEnterprise.0; an SNMPv1 trap carries enterprise,
// agent address, generic and specific numbers and the bindings; both carry
// the community; an inform is the notification as an InformRequest with a
// request-id of its own. coldStart names kelp's trap enterprise; a trap too
// large for a datagram is refused.
#include "traps/trapmessage.h"

// net-snmp's headers in the order they need: configuration, library.
#include <net-snmp/net-snmp-config.h>

#include <net-snmp/net-snmp-includes.h>

#include <net-snmp/library/snmp_impl.h>

#include <cstring>
#include <iterator>
#include <string>
#include <vector>

#include <gtest/gtest.h>

namespace kelp::agent {
namespace {

const std::vector<uint32_t> kEnterprise{1, 3, 6, 1, 4, 1, 61234, 20571, 1, 20, 200};

Trap diskTrap()
{
    Trap trap;
    trap.enterprise = kEnterprise;
    trap.generic = 6;
    trap.specific = 904;
    TrapBinding number;
    number.name = {1, 3, 6, 1, 4, 1, 61234, 20571, 1, 20, 200, 1, 0};
    number.value.type = SM_ASN_INTEGER;
    number.value.integer = 2048;
    TrapBinding text;
    text.name = {1, 3, 6, 1, 4, 1, 61234, 20571, 1, 20, 200, 2, 0};
    text.value.type = SM_ASN_OCTET_STRING;
    text.value.shape = ValueShape::kBytes;
    text.value.bytes = "Physical disk 0:0:2 has failed.";
    trap.bindings = {number, text};
    return trap;
}

struct Decoded {
    long version = -1;
    std::string community;
    netsnmp_pdu *pdu = nullptr;
    ~Decoded() { snmp_free_pdu(pdu); }
};

// The message taken apart by net-snmp: header, then the PDU.
bool decode(const std::string &message, Decoded *out)
{
    std::vector<u_char> data(message.begin(), message.end());
    size_t length = data.size();
    u_char community[256];
    size_t communityLength = sizeof community;
    u_char *pdu =
        snmp_comstr_parse(data.data(), &length, community, &communityLength, &out->version);
    if (pdu == nullptr) {
        return false;
    }
    out->community.assign(reinterpret_cast<char *>(community), communityLength);
    out->pdu = snmp_pdu_create(0);
    return snmp_pdu_parse(out->pdu, pdu, &length) == 0;
}

std::vector<oid> nameOf(const netsnmp_variable_list *var)
{
    return {var->name, var->name + var->name_length};
}

std::vector<oid> oidValue(const netsnmp_variable_list *var)
{
    return {var->val.objid, var->val.objid + var->val_len / sizeof(oid)};
}

TEST(TrapMessage, AV2cNotificationIsUptimeTrapOidBindingsAndEnterprise)
{
    std::string message;
    std::string why;
    ASSERT_TRUE(encodeTrap(diskTrap(), TrapForm::kV2cTrap, "private", &message, &why)) << why;
    Decoded decoded;
    ASSERT_TRUE(decode(message, &decoded));
    EXPECT_EQ(decoded.version, SNMP_VERSION_2c);
    EXPECT_EQ(decoded.community, "private");
    EXPECT_EQ(decoded.pdu->command, SNMP_MSG_TRAP2);

    std::vector<const netsnmp_variable_list *> vars;
    for (const netsnmp_variable_list *var = decoded.pdu->variables; var != nullptr;
         var = var->next_variable) {
        vars.push_back(var);
    }
    ASSERT_EQ(vars.size(), 5u);
    EXPECT_EQ(nameOf(vars[0]), (std::vector<oid>{1, 3, 6, 1, 2, 1, 1, 3, 0}));
    EXPECT_EQ(vars[0]->type, ASN_TIMETICKS);
    EXPECT_EQ(nameOf(vars[1]), (std::vector<oid>{1, 3, 6, 1, 6, 3, 1, 1, 4, 1, 0}));
    std::vector<oid> trapOid(kEnterprise.begin(), kEnterprise.end());
    trapOid.insert(trapOid.end(), {0, 904});
    EXPECT_EQ(oidValue(vars[1]), trapOid);
    EXPECT_EQ(vars[2]->type, ASN_INTEGER);
    EXPECT_EQ(*vars[2]->val.integer, 2048);
    EXPECT_EQ(vars[3]->type, ASN_OCTET_STR);
    EXPECT_EQ(std::string(reinterpret_cast<char *>(vars[3]->val.string), vars[3]->val_len),
              "Physical disk 0:0:2 has failed.");
    EXPECT_EQ(nameOf(vars[4]), (std::vector<oid>{1, 3, 6, 1, 6, 3, 1, 1, 4, 3, 0}));
    EXPECT_EQ(oidValue(vars[4]), std::vector<oid>(kEnterprise.begin(), kEnterprise.end()));
}

TEST(TrapMessage, AV1TrapCarriesEnterpriseAgentAddressAndNumbers)
{
    std::string message;
    std::string why;
    ASSERT_TRUE(encodeTrap(diskTrap(), TrapForm::kV1Trap, "public", &message, &why)) << why;
    Decoded decoded;
    ASSERT_TRUE(decode(message, &decoded));
    EXPECT_EQ(decoded.version, SNMP_VERSION_1);
    EXPECT_EQ(decoded.community, "public");
    EXPECT_EQ(decoded.pdu->command, SNMP_MSG_TRAP);
    EXPECT_EQ(std::vector<oid>(decoded.pdu->enterprise,
                               decoded.pdu->enterprise + decoded.pdu->enterprise_length),
              std::vector<oid>(kEnterprise.begin(), kEnterprise.end()));
    EXPECT_EQ(decoded.pdu->trap_type, 6);
    EXPECT_EQ(decoded.pdu->specific_type, 904);
    in_addr_t address = 0;
    std::memcpy(&address, decoded.pdu->agent_addr, sizeof address);
    EXPECT_EQ(address, get_myaddr());
    int count = 0;
    for (const netsnmp_variable_list *var = decoded.pdu->variables; var != nullptr;
         var = var->next_variable) {
        count++;
    }
    EXPECT_EQ(count, 2) << "the bindings alone";
}

TEST(TrapMessage, AnInformIsTheNotificationWithARequestIdOfItsOwn)
{
    std::string first, second, trap;
    std::string why;
    ASSERT_TRUE(encodeTrap(diskTrap(), TrapForm::kV2cInform, "alarms", &first, &why)) << why;
    ASSERT_TRUE(encodeTrap(diskTrap(), TrapForm::kV2cInform, "alarms", &second, &why)) << why;
    ASSERT_TRUE(encodeTrap(diskTrap(), TrapForm::kV2cTrap, "alarms", &trap, &why)) << why;
    Decoded a, b, t;
    ASSERT_TRUE(decode(first, &a));
    ASSERT_TRUE(decode(second, &b));
    ASSERT_TRUE(decode(trap, &t));
    EXPECT_EQ(a.version, SNMP_VERSION_2c);
    EXPECT_EQ(a.community, "alarms");
    EXPECT_EQ(a.pdu->command, SNMP_MSG_INFORM);
    EXPECT_NE(a.pdu->reqid, b.pdu->reqid) << "each inform is acknowledged on its own";
    std::vector<std::vector<oid>> informNames, trapNames;
    for (const netsnmp_variable_list *var = a.pdu->variables; var; var = var->next_variable) {
        informNames.push_back(nameOf(var));
    }
    for (const netsnmp_variable_list *var = t.pdu->variables; var; var = var->next_variable) {
        trapNames.push_back(nameOf(var));
    }
    EXPECT_EQ(informNames, trapNames);
}

TEST(TrapMessage, TheInformPduOfAnSnmpV3SinkHasTheInformsBindings)
{
    std::string why;
    netsnmp_pdu *first = informPdu(diskTrap(), &why);
    netsnmp_pdu *second = informPdu(diskTrap(), &why);
    ASSERT_NE(first, nullptr) << why;
    ASSERT_NE(second, nullptr) << why;
    std::string inform;
    ASSERT_TRUE(encodeTrap(diskTrap(), TrapForm::kV2cInform, "alarms", &inform, &why)) << why;
    Decoded encoded;
    ASSERT_TRUE(decode(inform, &encoded));
    EXPECT_EQ(first->command, SNMP_MSG_INFORM);
    EXPECT_NE(first->reqid, 0);
    EXPECT_NE(first->reqid, second->reqid) << "each inform is acknowledged on its own";
    std::vector<std::vector<oid>> pduNames, encodedNames;
    for (const netsnmp_variable_list *var = first->variables; var; var = var->next_variable) {
        pduNames.push_back(nameOf(var));
    }
    for (const netsnmp_variable_list *var = encoded.pdu->variables; var; var = var->next_variable) {
        encodedNames.push_back(nameOf(var));
    }
    EXPECT_EQ(pduNames, encodedNames);
    snmp_free_pdu(first);
    snmp_free_pdu(second);
}

struct ColdStartCase {
    TrapForm form;
    long version;
};

TEST(TrapMessage, ColdStartNamesKelpsTrapEnterpriseInEveryForm)
{
    const Trap trap = coldStartTrap();
    const std::vector<uint32_t> enterprise(std::begin(kTrapEnterprise), std::end(kTrapEnterprise));
    EXPECT_EQ(trap.enterprise, kEnterprise);
    EXPECT_EQ(trap.enterprise, enterprise);
    EXPECT_EQ(trap.generic, 0u);
    EXPECT_EQ(trap.specific, 0u);
    EXPECT_TRUE(trap.bindings.empty());
    const std::vector<oid> expected(kEnterprise.begin(), kEnterprise.end());
    for (const ColdStartCase c : {ColdStartCase{TrapForm::kV1Trap, SNMP_VERSION_1},
                                  ColdStartCase{TrapForm::kV2cTrap, SNMP_VERSION_2c},
                                  ColdStartCase{TrapForm::kV2cInform, SNMP_VERSION_2c}}) {
        std::string message;
        std::string why;
        ASSERT_TRUE(encodeTrap(trap, c.form, "public", &message, &why)) << why;
        Decoded decoded;
        ASSERT_TRUE(decode(message, &decoded));
        EXPECT_EQ(decoded.version, c.version);
        if (c.form == TrapForm::kV1Trap) {
            EXPECT_EQ(std::vector<oid>(decoded.pdu->enterprise,
                                       decoded.pdu->enterprise + decoded.pdu->enterprise_length),
                      expected);
            EXPECT_EQ(decoded.pdu->trap_type, 0);
            EXPECT_EQ(decoded.pdu->specific_type, 0);
            continue;
        }
        // sysUpTime.0, snmpTrapOID.0 = coldStart, snmpTrapEnterprise.0.
        const netsnmp_variable_list *trapOid = decoded.pdu->variables->next_variable;
        EXPECT_EQ(oidValue(trapOid), (std::vector<oid>{1, 3, 6, 1, 6, 3, 1, 1, 5, 1}));
        const netsnmp_variable_list *last = trapOid->next_variable;
        ASSERT_NE(last, nullptr);
        EXPECT_EQ(nameOf(last), (std::vector<oid>{1, 3, 6, 1, 6, 3, 1, 1, 4, 3, 0}));
        EXPECT_EQ(oidValue(last), expected);
        EXPECT_EQ(last->next_variable, nullptr);
    }
}

TEST(TrapMessage, ATrapLargerThanADatagramIsRefusedWithTheReason)
{
    Trap trap = diskTrap();
    trap.bindings[1].value.bytes.assign(kMaxTrapMessageBytes, 'x');
    std::string message;
    std::string why;
    EXPECT_FALSE(encodeTrap(trap, TrapForm::kV2cTrap, "public", &message, &why));
    EXPECT_NE(why.find("over 65507"), std::string::npos) << why;
    trap.bindings[1].value.bytes.assign(60000, 'x');
    EXPECT_TRUE(encodeTrap(trap, TrapForm::kV2cTrap, "public", &message, &why)) << why;
    EXPECT_GT(message.size(), 60000u);
}

} // namespace
} // namespace kelp::agent
