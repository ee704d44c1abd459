// number.cc - 64-bit numbers to and from decimal text through the
// framework's translator (SMXLTTypeValueToUTF8 / SMXLTUTF8ToTypeValue).
#include "mpi/mpi.h"
#include "platform/vcsupt.h"

namespace {

constexpr uint32_t kNumberTextBytes = 64;

} // namespace

extern "C" char *u64ToUTF8(const uint64_t *valuePointer)
{
    auto *text = static_cast<char *>(SMAllocMem(kNumberTextBytes));
    if (text == nullptr)
        return nullptr;
    text[0] = '\0';
    uint32_t size = kNumberTextBytes;
    // The type follows the pointer, not the value: a present value is always
    // converted as unsigned; type 4 only goes with a null pointer, which the
    // translator refuses, leaving the text empty.
    const uint32_t type = valuePointer != nullptr ? SM_XLT_TYPE_U64 : SM_XLT_TYPE_S64;
    if (SMXLTTypeValueToUTF8(valuePointer, sizeof(uint64_t), text, &size, type) !=
        SM_STATUS_SUCCESS)
        text[0] = '\0';
    return text;
}

extern "C" uint64_t utf8ToU64(const char *text)
{
    uint64_t value = 0;
    if (text == nullptr)
        return value;
    uint32_t size = sizeof value;
    // A leading "-" asks for a signed reading; its two's-complement pattern is
    // the result ("-1" gives all ones). The translator's status is not
    // reported: a text that is not a number leaves the value 0.
    const uint32_t type = text[0] == '-' ? SM_XLT_TYPE_S64 : SM_XLT_TYPE_U64;
    (void)SMXLTUTF8ToTypeValue(text, &value, &size, type);
    return value;
}
