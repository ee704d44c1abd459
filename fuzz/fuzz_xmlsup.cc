// Element text out of XML (XMLSupGetXMLMemData) and the data store's
// answers it is used on. The input is text:
//   line 1: TAG OCCURRENCE CAPACITY
//   line 2: where the XML comes from: "xml" (the rest of the input),
//           "object ID", "list TYPE", "associated KIND ID", "count KIND ID"
//           or "ready" (the data store's answer on the sample model)
//   the rest: the XML for "xml".
// Each extraction is tried with the capacity given, then with exactly the
// size the library asked for and one byte less, into buffers of exactly that
// size, so that a write past the capacity is out of bounds.
#include <cstdint>
#include <cstdlib>
#include <cstring>
#include <sstream>
#include <string>
#include <string_view>
#include <vector>

#include "datastore/model_store.h"
#include "fuzz_common.h"
#include "platform/vscil.h"
#include "platform/xmlsup.h"

namespace {

std::string_view nextLine(std::string_view *text)
{
    const size_t end = text->find('\n');
    std::string_view line = text->substr(0, end);
    text->remove_prefix(end == std::string_view::npos ? text->size() : end + 1);
    return line;
}

// One extraction into a buffer of exactly `capacity` bytes; the size the
// library answers.
uint32_t extract(const std::string &tag, uint32_t occurrence, uint32_t capacity,
                 std::string_view xml, uint32_t *size)
{
    std::vector<char> out(capacity);
    *size = capacity;
    const uint32_t status = XMLSupGetXMLMemData(0, tag.c_str(), 1, occurrence, 1, size,
                                                capacity == 0 ? nullptr : out.data(), 0, nullptr,
                                                xml.data(), static_cast<uint32_t>(xml.size()));
    if (status == 0) {
        // The text and its NUL, within the buffer.
        FUZZ_CHECK(*size >= 1 && *size <= capacity);
        FUZZ_CHECK(out[*size - 1] == '\0');
    }
    return status;
}

void extractAll(const std::string &tag, uint32_t occurrence, uint32_t capacity,
                std::string_view xml)
{
    uint32_t size = 0;
    const uint32_t status = extract(tag, occurrence, capacity, xml, &size);
    if (status == 16) {
        // Too small: exactly the size asked for fits, one byte less does not.
        FUZZ_CHECK(size > capacity);
        if (size > 1 << 20) {
            return;
        }
        uint32_t again = 0;
        FUZZ_CHECK(extract(tag, occurrence, size, xml, &again) == 0);
        FUZZ_CHECK(again == size);
        FUZZ_CHECK(extract(tag, occurrence, size - 1, xml, &again) == 16);
    } else if (status == 0 && size > 1) {
        uint32_t again = 0;
        FUZZ_CHECK(extract(tag, occurrence, size - 1, xml, &again) == 16);
        FUZZ_CHECK(again == size);
    }
}

// The data store's answer named by `source`, or null.
char *answer(std::string_view source)
{
    std::istringstream words{std::string(source)};
    std::string what, first, second;
    words >> what >> first >> second;
    const auto number = [](const std::string &word) {
        return static_cast<uint32_t>(std::strtoul(word.c_str(), nullptr, 10));
    };
    uint32_t status = 0;
    if (what == "object") {
        return GetSingleObject(&status, 0, number(first));
    }
    if (what == "list") {
        return GetObjectList(&status, first.c_str());
    }
    if (what == "associated") {
        return GetAssociated(&status, first.c_str(), number(second));
    }
    if (what == "count") {
        return GetAssociatedPhyDevCount(&status, first.c_str(), number(second));
    }
    if (what == "ready") {
        return DataStoreReady(&status);
    }
    return nullptr;
}

} // namespace

extern "C" int LLVMFuzzerInitialize(int *, char ***)
{
    std::string error;
    if (!kelp::ds::loadModelFile(std::string(KELP_SOURCE_DIR) + "/data/models/sample.xml",
                                 &error)) {
        fuzzcommon::fail(error);
    }
    return 0;
}

extern "C" int LLVMFuzzerTestOneInput(const uint8_t *data, size_t size)
{
    std::string_view text(reinterpret_cast<const char *>(data), size);
    std::istringstream header{std::string(nextLine(&text))};
    std::string tag;
    uint32_t occurrence = 0, capacity = 0;
    header >> tag >> occurrence >> capacity;
    capacity %= 1 << 16;
    const std::string_view source = nextLine(&text);
    if (source == "xml") {
        // Not NUL-terminated: the library is given the length.
        const std::vector<char> xml(text.begin(), text.end());
        extractAll(tag, occurrence, capacity, std::string_view(xml.data(), xml.size()));
        return 0;
    }
    char *xml = answer(source);
    if (xml != nullptr) {
        extractAll(tag, occurrence, capacity, xml);
        freeMem(xml);
    }
    return 0;
}
