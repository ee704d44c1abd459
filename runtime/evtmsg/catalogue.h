// The alert catalogue: event numbers to a severity level, a message id, a
// message and an extended description, read from a text file (format in
// data/ALERTS.md, the shipped file is data/alerts.txt). The runtime serves one
// catalogue, loaded when the library is loaded and again when the host asks
// (kelpRuntimeReloadCatalogue); evtmsg.cc answers from it.
#ifndef KELP_RUNTIME_EVTMSG_CATALOGUE_H
#define KELP_RUNTIME_EVTMSG_CATALOGUE_H

#include <cstddef>
#include <cstdint>
#include <memory>
#include <string>
#include <string_view>
#include <unordered_map>
#include <vector>

namespace kelp::rt::evtmsg {

// The largest catalogue file read.
constexpr size_t kMaxCatalogueFileBytes = 4 * 1024 * 1024;
// The highest insert a text can name (%1..%10).
constexpr unsigned kMaxInsert = 10;

struct Alert {
    unsigned level = 4;      // 1 critical, 2 warning, 4 informational
    std::string messageId;   // at most 255 bytes
    std::string message;     // a text with markers, at most 255 bytes
    std::string description; // a text with markers, at most 1023 bytes
};

struct Catalogue {
    std::string origin; // the file it was read from
    std::unordered_map<uint32_t, Alert> alerts;
    Alert fallback; // the `default` line: any number without a line of its own
};

// Parses a catalogue's text; origin names it in errors. False with one line
// "ORIGIN:LINE: what is wrong" (or "ORIGIN: ..." for what concerns the whole
// file) in *error; *catalogue then holds only part of the text.
bool parseCatalogue(std::string_view text, const std::string &origin, Catalogue *catalogue,
                    std::string *error);

// Reads and parses the file at path (a regular file of at most
// kMaxCatalogueFileBytes). Null with the error in *error.
std::shared_ptr<const Catalogue> loadCatalogueFile(const std::string &path, std::string *error);

// The files tried, in order, when KELP_CATALOGUE is not set:
//   <runtime dir>/../share/kelp/alerts.txt   (installed)
//   <runtime dir>/../../data/alerts.txt      (build tree in the checkout)
//   <runtime dir>/../../share/kelp/alerts.txt (installed in lib/kelp)
//   <source dir>/data/alerts.txt             (the checkout it was built from)
// where <runtime dir> is the directory of libkelpruntime.so.
std::vector<std::string> catalogueCandidates(const std::string &runtimeDir);

// Loads the first of `places` that exists. Null with the error: that file's
// ("PATH:LINE: reason", "PATH: not a regular file" ...), or "no catalogue
// found in: PLACE, PLACE" when none of them exists.
std::shared_ptr<const Catalogue> findCatalogue(const std::vector<std::string> &places,
                                               std::string *error);

// The catalogue served: loaded on first use (the library's load uses it)
// from the file KELP_CATALOGUE names then, else from the first candidate
// that exists; that choice holds for every reload. Null when none is in
// force; the reason is logged once and kept for servedCatalogueError.
std::shared_ptr<const Catalogue> servedCatalogue();

// Why no catalogue is in force, or "" while one is.
std::string servedCatalogueError();

// Serves the catalogue in the file at path in place of the current one
// (tests, hosts). False with the error, the served catalogue unchanged.
bool serveCatalogueFile(const std::string &path, std::string *error);

// Reads the catalogue again as chosen at the first use (the file
// KELP_CATALOGUE named then, else the candidates, searched again) and serves
// it. False with the error: the served catalogue stays; when none was in
// force, the error becomes servedCatalogueError's. Safe while other threads
// answer from the served catalogue: they keep the one they took.
bool reloadCatalogue(std::string *error);

// Tests: back to the state before the library's load (no catalogue, no
// choice), so that the next servedCatalogue or reloadCatalogue chooses and
// loads as the load does.
void forgetServedCatalogue();

// A catalogue text with its markers replaced: %0 by eventId, %N (N = 1..10;
// "%10" is ten, otherwise one digit) by inserts[N - 1] when N <= insertCount
// and that insert is not null, else kept as written; "%%" by "%". Inserts are
// put in as they are (a % in one is not read again). The result is at most
// capacity - 1 bytes, cut before a UTF-8 character that would not fit whole;
// an insert is read no further than that.
std::string expandText(std::string_view text, uint32_t eventId, uint32_t insertCount,
                       const char *const *inserts, size_t capacity);

// text cut to at most capacity - 1 bytes, before a UTF-8 character that would
// not fit whole.
std::string_view cutText(std::string_view text, size_t capacity);

} // namespace kelp::rt::evtmsg

#endif // KELP_RUNTIME_EVTMSG_CATALOGUE_H
