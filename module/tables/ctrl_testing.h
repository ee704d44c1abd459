// Test helpers for the controller table: a controller served from an inline
// model, '0'/'1' masks, and getCtrl called on a cell with what it left in the
// reply.
#ifndef KELP_MODULE_TABLES_CTRL_TESTING_H
#define KELP_MODULE_TABLES_CTRL_TESTING_H

#include <array>
#include <initializer_list>
#include <string>
#include <utility>
#include <vector>

#include <gtest/gtest.h>

#include "store/build.h"
#include "tables/columns.h"
#include "tables/getters.h"
#include "testing/model_fixture.h"

namespace ctrltest {

using Attributes = std::vector<std::pair<std::string, std::string>>;

constexpr uint32_t kUntouched = 0xEEEE; // the reply's value before a call
constexpr uint32_t kUnsetType = 0x55;   // the reply's type before a call
constexpr uint32_t kInt = SM_ASN_INTEGER;
constexpr uint32_t kStr = SM_ASN_OCTET_STRING;

inline std::string adapter(uint32_t id, const std::string &nexus, const Attributes &attributes)
{
    std::string text =
        "<object id=\"" + std::to_string(id) + "\" type=\"adapters\"><Nexus>" + nexus + "</Nexus>";
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

// What one call of getCtrl left in the reply.
struct Answer {
    int32_t result = -1;
    uint32_t type = 0;
    uint32_t value = 0;
    std::string text; // type 4 only
    bool nullBuffer = false;
};

class CtrlTest : public ModelTest {
  protected:
    // Serves controller 1 (nexus "0") with `attributes`, then `more`, and
    // builds the controller table.
    void serveController(const Attributes &attributes, const std::string &more = "")
    {
        testmodel::serve(adapter(1, "0", attributes) + more);
        ASSERT_EQ(buildTable(&ctrlList, "adapters"), 0);
    }

    // getCtrl on the name root.130.1.1.column.row plus `extra` arcs.
    Answer get(uint32_t column, uint32_t row = 1)
    {
        return getName({1, 3, 6, 1, 4, 1, 61234, 20571, 1, 20, 130, 1, 1, column, row});
    }

    Answer getName(std::vector<uint32_t> arcs)
    {
        SMSnmpValue request{};
        request.name = SMSnmpOID{static_cast<uint32_t>(arcs.size()), 0, arcs.data()};
        buffer.fill('Z');
        SMSnmpValue reply{};
        reply.type = kUnsetType;
        reply.value = kUntouched;
        reply.buffer = buffer.data();
        Answer answer;
        answer.result = getCtrl(&request, &reply, 12);
        answer.type = reply.type;
        answer.value = reply.value;
        answer.nullBuffer = reply.buffer == nullptr;
        if (reply.type == kStr && reply.buffer != nullptr && reply.value < buffer.size()) {
            answer.text.assign(buffer.data(), reply.value);
            EXPECT_EQ(buffer[reply.value], '\0') << "text without its NUL";
        }
        return answer;
    }

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

    std::array<char, 1024> buffer{};
};

} // namespace ctrltest

#endif // KELP_MODULE_TABLES_CTRL_TESTING_H
