// The alert catalogue (catalogue.h): parsing the line format of data/ALERTS.md,
// finding the file, serving one catalogue, and putting inserts into texts.
#include "evtmsg/catalogue.h"

#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <mutex>
#include <new>

#include "evtmsg/utf8.h"
#include "kelp/runtime.h"
#include "queue.h"
#include "support/config.h"
#include "support/file_read.h"
#include "support/log.h"
#include "support/text.h"

#ifndef KELP_SOURCE_DIR
#define KELP_SOURCE_DIR ""
#endif

namespace kelp::rt::evtmsg {
namespace {

constexpr size_t kMaxMessageId = 255;
constexpr size_t kMaxMessage = 255;
constexpr size_t kMaxDescription = 1023;

bool isDigit(char c)
{
    return c >= '0' && c <= '9';
}

// The length of the marker that starts at text[at] (a '%'): 2 for "%%" and
// "%N", 3 for "%10"; 0 when the '%' starts no marker.
size_t markerLength(std::string_view text, size_t at)
{
    if (at + 1 >= text.size())
        return 0;
    const char next = text[at + 1];
    if (next == '%')
        return 2;
    if (!isDigit(next))
        return 0;
    if (next == '1' && at + 2 < text.size() && text[at + 2] == '0')
        return 3;
    return 2;
}

// Why text is not valid UTF-8 without control characters (tab allowed), or
// empty when it is.
std::string textProblem(std::string_view text)
{
    for (size_t i = 0; i < text.size();) {
        const size_t length = utf8CharLength(text, i);
        if (length == 0)
            return "bytes that are not UTF-8";
        if (length == 1 && isControl(text[i]) && text[i] != '\t') {
            return "a control character (byte " +
                   std::to_string(static_cast<unsigned char>(text[i])) + ")";
        }
        i += length;
    }
    return std::string();
}

// Why a message or description text cannot be used, or empty.
std::string templateProblem(std::string_view text, const char *what, size_t limit)
{
    if (text.empty())
        return std::string("the ") + what + " is empty";
    if (text.size() > limit) {
        return std::string("the ") + what + " has " + std::to_string(text.size()) +
               " bytes (at most " + std::to_string(limit) + ")";
    }
    std::string problem = textProblem(text);
    if (!problem.empty())
        return std::string("the ") + what + " holds " + problem;
    for (size_t i = 0; i < text.size(); ++i) {
        if (text[i] != '%')
            continue;
        const size_t length = markerLength(text, i);
        if (length == 0) {
            return std::string("a '%' in the ") + what +
                   " is followed by neither a number 0 to 10 nor another '%'";
        }
        i += length - 1;
    }
    return std::string();
}

std::string idProblem(std::string_view id)
{
    if (id.empty())
        return "the message id is empty";
    if (id.size() > kMaxMessageId)
        return "the message id has more than " + std::to_string(kMaxMessageId) + " bytes";
    for (char c : id) {
        const bool ok = isDigit(c) || (c >= 'A' && c <= 'Z') || (c >= 'a' && c <= 'z') ||
                        c == '-' || c == '_' || c == '.';
        if (!ok)
            return "the message id '" + std::string(id) + "' holds other than A-Z a-z 0-9 - _ .";
    }
    return std::string();
}

bool parseNumber(std::string_view text, uint32_t *number)
{
    if (text.empty() || text.size() > 10)
        return false;
    uint64_t value = 0;
    for (char c : text) {
        if (!isDigit(c))
            return false;
        value = value * 10 + static_cast<unsigned>(c - '0');
    }
    if (value > UINT32_MAX)
        return false;
    *number = static_cast<uint32_t>(value);
    return true;
}

std::vector<std::string_view> splitFields(std::string_view line)
{
    std::vector<std::string_view> fields;
    for (;;) {
        const size_t bar = line.find('|');
        fields.push_back(trimBlanks(line.substr(0, bar)));
        if (bar == std::string_view::npos)
            return fields;
        line.remove_prefix(bar + 1);
    }
}

class Parser {
  public:
    Parser(const std::string &origin, Catalogue *catalogue, std::string *error)
        : origin_(origin), catalogue_(catalogue), error_(error)
    {
    }

    bool line(std::string_view text, size_t number);
    bool finish();

  private:
    bool fail(size_t line, const std::string &message)
    {
        if (error_ != nullptr)
            *error_ = origin_ + ":" + std::to_string(line) + ": " + message;
        return false;
    }

    const std::string &origin_;
    Catalogue *catalogue_;
    std::string *error_;
    std::unordered_map<uint32_t, size_t> lineOf_;
    size_t defaultLine_ = 0;
};

bool Parser::line(std::string_view text, size_t number)
{
    if (!text.empty() && text.back() == '\r')
        text.remove_suffix(1);
    const std::string_view trimmed = trimBlanks(text);
    if (trimmed.empty() || trimmed.front() == '#')
        return true;
    const std::vector<std::string_view> fields = splitFields(trimmed);
    if (fields.size() != 5) {
        return fail(number, std::to_string(fields.size()) +
                                " fields where a line has 5: NUMBER | LEVEL | MESSAGE ID | "
                                "MESSAGE | DESCRIPTION");
    }
    const std::string_view key = fields[0];
    uint32_t eventId = 0;
    const bool isDefault = key == "default";
    if (!isDefault && !parseNumber(key, &eventId)) {
        std::string message = "'";
        message += key;
        message += "' is neither an event number (0 to 4294967295) nor 'default'";
        return fail(number, message);
    }
    if (isDefault && defaultLine_ != 0)
        return fail(number, "a second 'default' line (the first is line " +
                                std::to_string(defaultLine_) + ")");
    if (!isDefault) {
        auto seen = lineOf_.find(eventId);
        if (seen != lineOf_.end()) {
            return fail(number, "event " + std::to_string(eventId) + " is already on line " +
                                    std::to_string(seen->second));
        }
    }
    Alert alert;
    const std::string_view level = fields[1];
    if (level == "1" || level == "2" || level == "4")
        alert.level = static_cast<unsigned>(level[0] - '0');
    else
        return fail(number, "level '" + std::string(level) + "' is not 1, 2 or 4");
    std::string problem = idProblem(fields[2]);
    if (problem.empty())
        problem = templateProblem(fields[3], "message", kMaxMessage);
    if (problem.empty())
        problem = templateProblem(fields[4], "description", kMaxDescription);
    if (!problem.empty())
        return fail(number, problem);
    alert.messageId = fields[2];
    alert.message = fields[3];
    alert.description = fields[4];
    if (isDefault) {
        defaultLine_ = number;
        catalogue_->fallback = std::move(alert);
    } else {
        lineOf_.emplace(eventId, number);
        catalogue_->alerts.emplace(eventId, std::move(alert));
    }
    return true;
}

bool Parser::finish()
{
    if (defaultLine_ != 0)
        return true;
    if (error_ != nullptr) {
        *error_ = origin_ + ": no 'default' line (the alert of numbers without a line of "
                            "their own)";
    }
    return false;
}

// The catalogue in force and how it was chosen. Readers take a reference to
// the catalogue under the mutex and read it without: a reload replaces the
// pointer, never the catalogue.
struct Served {
    std::mutex mutex;
    // All guarded by mutex.
    bool settled = false; // the first use chose and loaded
    std::string chosen;   // KELP_CATALOGUE at the first use; empty: the candidates
    std::shared_ptr<const Catalogue> catalogue;
    std::string error; // why no catalogue is in force; empty while one is
};

Served &served()
{
    static Served instance;
    return instance;
}

std::string runtimeDir()
{
    char path[4096];
    uint32_t size = sizeof path;
    return GetInstallPath(path, &size) == 0 ? std::string(path) : std::string();
}

// The catalogue of a choice: the file named, or the first candidate.
std::shared_ptr<const Catalogue> loadChoice(const std::string &chosen, std::string *error)
{
    if (!chosen.empty())
        return loadCatalogueFile(chosen, error);
    return findCatalogue(catalogueCandidates(runtimeDir()), error);
}

// Makes the first use's choice and load, once. Requires state.mutex held.
void settle(Served &state)
{
    if (state.settled)
        return;
    state.settled = true;
    state.chosen = envValue("KELP_CATALOGUE");
    std::string error;
    state.catalogue = loadChoice(state.chosen, &error);
    if (state.catalogue == nullptr) {
        state.error = error;
        // A host that reports it asks for it (kelpRuntimeCatalogueStatus).
        if (&kelpRuntimeHostReportsCatalogue == nullptr)
            kelp::rt::logError("alert catalogue: %s", error.c_str());
    }
}

// The library's load loads the catalogue, so that a bad file is reported when
// the host starts rather than at its first event. Under a limit of address
// space the libraries may map with almost no heap left, where even the
// exception of a failed allocation cannot be made and the process would
// end in std::terminate before main: then the load is left to the first use.
constexpr size_t kHeapForTheLoad = size_t{1} << 20;

__attribute__((constructor)) void catalogueAttach()
{
    void *volatile room = std::malloc(kHeapForTheLoad);
    if (room == nullptr)
        return;
    std::free(room);
    try {
        (void)servedCatalogue();
    } catch (const std::bad_alloc &) {
        kelp::rt::logError("alert catalogue: out of memory");
    }
}

} // namespace

bool parseCatalogue(std::string_view text, const std::string &origin, Catalogue *catalogue,
                    std::string *error)
{
    Parser parser(origin, catalogue, error);
    size_t number = 0;
    while (!text.empty()) {
        ++number;
        const size_t end = text.find('\n');
        if (!parser.line(text.substr(0, end), number))
            return false;
        text.remove_prefix(end == std::string_view::npos ? text.size() : end + 1);
    }
    return parser.finish();
}

std::shared_ptr<const Catalogue> loadCatalogueFile(const std::string &path, std::string *error)
{
    std::string text, message;
    if (readRegularFile(path, kMaxCatalogueFileBytes, &text, &message) != FileRead::kRead) {
        *error = message;
        return nullptr;
    }
    auto catalogue = std::make_shared<Catalogue>();
    catalogue->origin = path;
    if (!parseCatalogue(text, path, catalogue.get(), error))
        return nullptr;
    return catalogue;
}

std::vector<std::string> catalogueCandidates(const std::string &runtimeDir)
{
    std::vector<std::string> places;
    if (!runtimeDir.empty()) {
        places.push_back(runtimeDir + "/../share/kelp/alerts.txt");
        places.push_back(runtimeDir + "/../../data/alerts.txt");
        places.push_back(runtimeDir + "/../../share/kelp/alerts.txt");
    }
    if (KELP_SOURCE_DIR[0] != '\0')
        places.push_back(std::string(KELP_SOURCE_DIR) + "/data/alerts.txt");
    return places;
}

std::shared_ptr<const Catalogue> findCatalogue(const std::vector<std::string> &places,
                                               std::string *error)
{
    for (const std::string &place : places) {
        std::string text, message;
        // A place where nothing exists is skipped; any other failure is the
        // catalogue's.
        const FileRead read = readRegularFile(place, kMaxCatalogueFileBytes, &text, &message);
        if (read == FileRead::kMissing)
            continue;
        if (read == FileRead::kRefused) {
            *error = message;
            return nullptr;
        }
        auto catalogue = std::make_shared<Catalogue>();
        catalogue->origin = place;
        if (!parseCatalogue(text, place, catalogue.get(), error))
            return nullptr;
        return catalogue;
    }
    std::string list;
    for (const std::string &place : places)
        list += (list.empty() ? "" : ", ") + place;
    *error = "no catalogue found in: " + list;
    return nullptr;
}

std::shared_ptr<const Catalogue> servedCatalogue()
{
    Served &state = served();
    std::lock_guard lock(state.mutex);
    settle(state);
    return state.catalogue;
}

std::string servedCatalogueError()
{
    Served &state = served();
    std::lock_guard lock(state.mutex);
    settle(state);
    return state.error;
}

bool serveCatalogueFile(const std::string &path, std::string *error)
{
    std::shared_ptr<const Catalogue> catalogue = loadCatalogueFile(path, error);
    if (catalogue == nullptr)
        return false;
    Served &state = served();
    std::lock_guard lock(state.mutex);
    settle(state);
    state.catalogue = std::move(catalogue);
    state.error.clear();
    return true;
}

bool reloadCatalogue(std::string *error)
{
    Served &state = served();
    std::string chosen;
    {
        std::lock_guard lock(state.mutex);
        settle(state);
        chosen = state.chosen;
    }
    // Read without the lock: readers go on with the catalogue in force.
    std::shared_ptr<const Catalogue> catalogue = loadChoice(chosen, error);
    std::lock_guard lock(state.mutex);
    if (catalogue == nullptr) {
        if (state.catalogue == nullptr)
            state.error = *error;
        return false;
    }
    state.catalogue = std::move(catalogue);
    state.error.clear();
    return true;
}

void forgetServedCatalogue()
{
    Served &state = served();
    std::lock_guard lock(state.mutex);
    state.settled = false;
    state.chosen.clear();
    state.catalogue = nullptr;
    state.error.clear();
}

std::string_view cutText(std::string_view text, size_t capacity)
{
    if (capacity == 0)
        return std::string_view();
    if (text.size() < capacity)
        return text;
    size_t n = capacity - 1;
    while (n > 0 && (static_cast<unsigned char>(text[n]) & 0xC0) == 0x80)
        --n;
    return text.substr(0, n);
}

std::string expandText(std::string_view text, uint32_t eventId, uint32_t insertCount,
                       const char *const *inserts, size_t capacity)
{
    std::string out;
    for (size_t i = 0; i < text.size() && out.size() < capacity; ++i) {
        const size_t length = text[i] == '%' ? markerLength(text, i) : 0;
        if (length == 0) {
            out.push_back(text[i]);
            continue;
        }
        const std::string_view marker = text.substr(i, length);
        i += length - 1;
        if (marker == "%%") {
            out.push_back('%');
            continue;
        }
        const unsigned n = length == 3 ? 10u : static_cast<unsigned>(marker[1] - '0');
        if (n == 0) {
            out += std::to_string(eventId);
        } else if (inserts != nullptr && n <= insertCount && inserts[n - 1] != nullptr) {
            // Read no more of the insert than could be shown.
            const char *insert = inserts[n - 1];
            out.append(insert, strnlen(insert, capacity));
        } else {
            out.append(marker);
        }
    }
    return std::string(cutText(out, capacity));
}

} // namespace kelp::rt::evtmsg

extern "C" {

// kelp/runtime.h: the catalogue's load status and its reload, for the host.
int kelpRuntimeCatalogueStatus(char *error, unsigned errorSize)
{
    try {
        kelp::rt::evtmsg::Served &state = kelp::rt::evtmsg::served();
        std::lock_guard lock(state.mutex);
        kelp::rt::evtmsg::settle(state);
        if (state.catalogue != nullptr) {
            kelp::rt::copyToBuffer("", error, errorSize);
            return 0;
        }
        kelp::rt::copyToBuffer(state.error, error, errorSize);
        return 1;
    } catch (const std::bad_alloc &) {
        kelp::rt::copyToBuffer("out of memory", error, errorSize);
        return 1;
    }
}

int kelpRuntimeReloadCatalogue(char *error, unsigned errorSize)
{
    try {
        std::string message;
        if (kelp::rt::evtmsg::reloadCatalogue(&message)) {
            kelp::rt::copyToBuffer("", error, errorSize);
            return 0;
        }
        kelp::rt::copyToBuffer(message, error, errorSize);
        return 1;
    } catch (const std::bad_alloc &) {
        kelp::rt::copyToBuffer("out of memory", error, errorSize);
        return 1;
    }
}

} // extern "C"
