// A test fixture for any table getter: objects served from an inline model,
// the table's list built, and the getter called on root.G.T.1.C.R with what
// it left in the reply. A table's tests are then rows of cells and answers.
#ifndef KELP_MODULE_TESTING_TABLE_FIXTURE_H
#define KELP_MODULE_TESTING_TABLE_FIXTURE_H

#include <array>
#include <cstdint>
#include <initializer_list>
#include <string>
#include <utility>
#include <vector>

#include <gtest/gtest.h>

#include "platform/smsnmp.h"
#include "platform/vcsupt.h"
#include "store/build.h"
#include "testing/model_fixture.h"

namespace tabletest {

using Attributes = std::vector<std::pair<std::string, std::string>>;
using Getter = int32_t (*)(SMSnmpValue *request, SMSnmpValue *reply, uint32_t position);

constexpr uint32_t kUntouched = 0xEEEE; // the reply's value before a call
constexpr uint32_t kUnsetType = 0x55;   // the reply's type before a call
constexpr uint32_t kInt = SM_ASN_INTEGER;
constexpr uint32_t kStr = SM_ASN_OCTET_STRING;

// One <object> of `type` with its "Nexus" and `attributes`; parent 0: none.
inline std::string item(uint32_t id, const std::string &type, const std::string &nexus,
                        const Attributes &attributes, uint32_t parent = 0)
{
    std::string text = "<object id=\"" + std::to_string(id) + "\" type=\"" + type + "\"";
    if (parent != 0) {
        text += " parent=\"" + std::to_string(parent) + "\"";
    }
    text += "><Nexus>" + nexus + "</Nexus>";
    for (const auto &[name, value] : attributes) {
        text += "<" + name + ">" + value + "</" + name + ">";
    }
    return text + "</object>";
}

// A 40-character mask with '1' at `ones` and '0' elsewhere.
inline std::string mask(std::initializer_list<uint32_t> ones)
{
    std::string text(40, '0');
    for (uint32_t position : ones) {
        text[position] = '1';
    }
    return text;
}

inline std::string withChar(std::string text, uint32_t position, char c)
{
    text[position] = c;
    return text;
}

// What one call of the getter left in the reply.
struct Answer {
    int32_t result = -1;
    uint32_t type = 0;
    uint32_t value = 0;
    std::string text; // type 4 only
    bool nullBuffer = false;
    bool ownBuffer = false; // the getter put a buffer of its own in the reply
};

// The table under test: its getter, its place (root.group.table) and the
// list the getter reads, built from objects of `listType`.
struct TableUnderTest {
    Getter getter;
    uint32_t group;
    uint32_t table;
    ObjList *list;
    const char *listType;
};

// The getter on `arcs` (entry arc at position 12), with a reply whose type,
// value and buffer (`buffer`, filled with 'Z') show what the getter left.
inline Answer callGetter(Getter getter, std::vector<uint32_t> arcs, std::array<char, 1024> *buffer)
{
    SMSnmpValue request{};
    request.name = SMSnmpOID{static_cast<uint32_t>(arcs.size()), 0, arcs.data()};
    buffer->fill('Z');
    SMSnmpValue reply{};
    reply.type = kUnsetType;
    reply.value = kUntouched;
    reply.buffer = buffer->data();
    Answer answer;
    answer.result = getter(&request, &reply, 12);
    answer.type = reply.type;
    answer.value = reply.value;
    answer.nullBuffer = reply.buffer == nullptr;
    answer.ownBuffer = reply.buffer != nullptr && reply.buffer != buffer->data();
    // A getter's own buffer holds at least as much as the caller's.
    if (reply.type == kStr && reply.buffer != nullptr && reply.value < buffer->size()) {
        answer.text.assign(static_cast<const char *>(reply.buffer), reply.value);
        EXPECT_EQ(static_cast<const char *>(reply.buffer)[reply.value], '\0')
            << "text without its NUL";
    }
    // It passed to the caller with the reply (getters.h).
    if (answer.ownBuffer) {
        SMFreeMem(reply.buffer);
    }
    return answer;
}

class TableTest : public ModelTest {
  protected:
    explicit TableTest(const TableUnderTest &table) : table_(table) {}

    // Serves `items` and builds the table's list.
    void serveTable(const std::string &items)
    {
        testmodel::serve(items);
        ASSERT_EQ(buildTable(table_.list, table_.listType), 0);
    }

    // The getter on root.group.table.1.column.row.
    Answer get(uint32_t column, uint32_t row = 1)
    {
        return getName(
            {1, 3, 6, 1, 4, 1, 61234, 20571, 1, 20, table_.group, table_.table, 1, column, row});
    }

    Answer getName(std::vector<uint32_t> arcs) { return callGetter(table_.getter, arcs, &buffer); }

    void expectNumber(uint32_t column, uint32_t expected, int32_t result = 0)
    {
        const Answer a = get(column);
        EXPECT_EQ(a.result, result) << "column " << column;
        EXPECT_EQ(a.type, kInt) << "column " << column;
        EXPECT_EQ(a.value, expected) << "column " << column;
    }

    void expectText(uint32_t column, const std::string &expected, int32_t result = 0)
    {
        const Answer a = get(column);
        EXPECT_EQ(a.result, result) << "column " << column;
        EXPECT_EQ(a.type, kStr) << "column " << column;
        EXPECT_EQ(a.text, expected) << "column " << column;
    }

    // The columns in [first, last] that answer 2 on row 1.
    std::vector<uint32_t> absentColumns(uint32_t first, uint32_t last)
    {
        std::vector<uint32_t> absent;
        for (uint32_t column = first; column <= last; column++) {
            if (get(column).result == 2) {
                absent.push_back(column);
            }
        }
        return absent;
    }

    std::array<char, 1024> buffer{};

  private:
    TableUnderTest table_;
};

} // namespace tabletest

#endif // KELP_MODULE_TESTING_TABLE_FIXTURE_H
