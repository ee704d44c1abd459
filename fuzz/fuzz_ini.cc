// The ini file reader and writer (runtime/queue): any text parsed, written
// back, searched and changed. Parsing never fails; what is written reads
// back the same; a value set where writable() allows it is found again.
// The input is the file's text, and after a line "@@set" the lines
// SECTION, KEY and VALUE of a change.
#include <cstdint>
#include <string>
#include <string_view>

#include "fuzz_common.h"
#include "queue/ini_text.h"

namespace {

constexpr std::string_view kSet = "\n@@set\n";

std::string_view nextLine(std::string_view *text)
{
    const size_t end = text->find('\n');
    std::string_view line = text->substr(0, end);
    text->remove_prefix(end == std::string_view::npos ? text->size() : end + 1);
    return line;
}

} // namespace

extern "C" int LLVMFuzzerTestOneInput(const uint8_t *data, size_t size)
{
    namespace ini = kelp::rt::ini;
    const std::string_view input(reinterpret_cast<const char *>(data), size);
    const size_t cut = input.find(kSet);
    ini::Document doc = ini::parse(input.substr(0, cut));
    const std::string written = ini::serialise(doc);
    FUZZ_CHECK(ini::serialise(ini::parse(written)) == written);
    if (cut == std::string_view::npos) {
        return 0;
    }
    std::string_view change = input.substr(cut + kSet.size());
    const std::string_view section = nextLine(&change);
    const std::string_view key = nextLine(&change);
    const std::string_view value = nextLine(&change);
    (void)ini::find(doc, section, key);
    if (!ini::writable(section, key, value)) {
        return 0;
    }
    ini::set(doc, section, key, value);
    const std::optional<std::string> found = ini::find(doc, section, key);
    FUZZ_CHECK(found.has_value() && *found == value);
    // And after a trip through the file's text.
    const std::optional<std::string> reread =
        ini::find(ini::parse(ini::serialise(doc)), section, key);
    FUZZ_CHECK(reread.has_value() && *reread == value);
    return 0;
}
