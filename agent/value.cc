// Reading a binding record's value: one row per ASN.1 type the plug-in's
// records can carry. Adding a type is adding a row.
#include "value.h"

#include <cstring>

namespace kelp::agent {
namespace {

struct TypeRow {
    uint32_t type;
    ValueShape shape;
    uint32_t fixedLength; // bytes a value of this type must have; 0 for any
    const char *name;
};

constexpr TypeRow kTypes[] = {
    {SM_ASN_INTEGER, ValueShape::kSigned32, 0, "INTEGER"},
    {SM_ASN_OCTET_STRING, ValueShape::kBytes, 0, "OCTET STRING"},
    {SM_ASN_OBJECT_ID, ValueShape::kArcs, 0, "OBJECT IDENTIFIER"},
    {SM_ASN_IPADDRESS, ValueShape::kBytes, 4, "IpAddress"},
    {SM_ASN_COUNTER32, ValueShape::kUnsigned32, 0, "Counter32"},
    {SM_ASN_GAUGE32, ValueShape::kUnsigned32, 0, "Gauge32"},
    {SM_ASN_TIMETICKS, ValueShape::kUnsigned32, 0, "TimeTicks"},
    {SM_ASN_OPAQUE, ValueShape::kBytes, 0, "Opaque"},
};

const TypeRow *findType(uint32_t type)
{
    for (const TypeRow &row : kTypes) {
        if (row.type == type) {
            return &row;
        }
    }
    return nullptr;
}

} // namespace

ValueRead readValue(const SMSnmpValue &record, size_t readable, Value *out)
{
    if (record.type == 0) {
        return ValueRead::kEmpty;
    }
    const TypeRow *row = findType(record.type);
    if (row == nullptr) {
        return ValueRead::kBad;
    }
    *out = Value{};
    out->type = row->type;
    out->shape = row->shape;
    switch (row->shape) {
    case ValueShape::kSigned32:
        // The record's field is unsigned; the MIB's integers are signed, so
        // 0xFFFFFFFF is -1.
        out->integer = static_cast<int32_t>(record.value);
        return ValueRead::kValue;
    case ValueShape::kUnsigned32:
        out->integer = record.value;
        return ValueRead::kValue;
    case ValueShape::kBytes: {
        const size_t length = record.value;
        if ((row->fixedLength != 0 && length != row->fixedLength) || length > readable ||
            (length > 0 && record.buffer == nullptr)) {
            return ValueRead::kBad;
        }
        if (length > 0) {
            out->bytes.assign(static_cast<const char *>(record.buffer), length);
        }
        return ValueRead::kValue;
    }
    case ValueShape::kArcs: {
        const size_t count = record.value;
        if (count > kMaxValueArcs || count * sizeof(uint32_t) > readable ||
            (count > 0 && record.buffer == nullptr)) {
            return ValueRead::kBad;
        }
        out->arcs.resize(count);
        if (count > 0) {
            std::memcpy(out->arcs.data(), record.buffer, count * sizeof(uint32_t));
        }
        return ValueRead::kValue;
    }
    }
    return ValueRead::kBad;
}

const char *valueTypeName(uint32_t type)
{
    const TypeRow *row = findType(type);
    return row != nullptr ? row->name : nullptr;
}

} // namespace kelp::agent
