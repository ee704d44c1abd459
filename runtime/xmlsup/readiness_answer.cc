// The readiness answer's code, read from its fixed place.
#include "xmlsup/readiness_answer.h"

#include <cstring>

namespace kelp::rt::xml {
namespace {

// The two texts differ only in the code, one character at this offset.
constexpr size_t kCodeOffset = std::string_view("<DataStoreReady><Code>").size();
static_assert(kReadyAnswer.size() == kNotReadyAnswer.size());
static_assert(kReadyAnswer.substr(0, kCodeOffset) == kNotReadyAnswer.substr(0, kCodeOffset));
static_assert(kReadyAnswer.substr(kCodeOffset + 1) == kNotReadyAnswer.substr(kCodeOffset + 1));
static_assert(kReadyAnswer[kCodeOffset] == '0' && kNotReadyAnswer[kCodeOffset] == '1');

} // namespace

IndexedLookup findInReadinessAnswer(const char *xml, size_t length, std::string_view tag,
                                    uint32_t occurrence)
{
    if (length != kReadyAnswer.size() || occurrence != 0 || tag != "Code")
        return {};
    const char code = xml[kCodeOffset];
    if ((code != '0' && code != '1') || std::memcmp(xml, kReadyAnswer.data(), kCodeOffset) != 0 ||
        std::memcmp(xml + kCodeOffset + 1, kReadyAnswer.data() + kCodeOffset + 1,
                    length - kCodeOffset - 1) != 0) {
        return {};
    }
    IndexedLookup result;
    result.indexed = true;
    result.raw = std::string_view(xml + kCodeOffset, 1);
    return result;
}

} // namespace kelp::rt::xml
