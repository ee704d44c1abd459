// The ini file reader and writer (runtime/queue): any text parsed, written
// back, searched and changed. Parsing never fails; what is written reads
// back the same; a value set where writable() allows it is found again.
// The input is the file's text, and after a line "@@set" the lines
// SECTION, KEY and VALUE of a change. The same file is also read through
// the plug-in's ini call (SSGetPrivateIniValue) into buffers of exactly the
// size it asks for and one byte less.
#include <algorithm>
#include <cstdint>
#include <fstream>
#include <optional>
#include <string>
#include <string_view>
#include <vector>

#include "fuzz_common.h"
#include "kelp/runtime.h"
#include "platform/queue.h"
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

std::string g_iniPath;

// SSGetPrivateIniValue on the file `text`: the value found (by the same
// rules as ini::find), copied with its NUL into exactly the size asked for
// and refused into one byte less.
void readThroughCall(std::string_view text, const std::string &section, const std::string &key,
                     const std::optional<std::string> &expected)
{
    std::ofstream(g_iniPath, std::ios::binary | std::ios::trunc) << text;
    char none = 0;
    uint32_t size = 0;
    const uint32_t status = SSGetPrivateIniValue(section.c_str(), key.c_str(), &none, &size);
    if (!expected.has_value() || expected->find('\0') != std::string::npos ||
        section.find('\0') != std::string::npos || key.find('\0') != std::string::npos) {
        return;
    }
    FUZZ_CHECK(status == 16);
    FUZZ_CHECK(size == expected->size() + 1);
    std::vector<char> exact(size);
    uint32_t capacity = size;
    FUZZ_CHECK(SSGetPrivateIniValue(section.c_str(), key.c_str(), exact.data(), &capacity) == 0);
    FUZZ_CHECK(capacity == size && std::string(exact.data()) == *expected);
    // One byte less; a capacity of 0 still gets a buffer (a null one is a
    // bad argument), which must stay untouched.
    std::vector<char> shorter(std::max<uint32_t>(size - 1, 1), '#');
    capacity = size - 1;
    FUZZ_CHECK(SSGetPrivateIniValue(section.c_str(), key.c_str(), shorter.data(), &capacity) == 16);
    FUZZ_CHECK(size > 1 || shorter[0] == '#');
}

} // namespace

extern "C" int LLVMFuzzerInitialize(int *, char ***)
{
    g_iniPath = fuzzcommon::tempDir() + "/kelp.ini";
    kelpRuntimeSetIniPath(g_iniPath.c_str());
    return 0;
}

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
    readThroughCall(input.substr(0, cut), std::string(section), std::string(key),
                    ini::find(doc, section, key));
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
