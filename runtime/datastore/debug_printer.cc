// The debug printer of the data-store library: VscilDebugInit picks where
// lines go, VscilDebugToggle switches printing, VscilDebugPrint writes one
// formatted text whole under a lock, VscilDebugExit closes.
#include <atomic>
#include <cstdarg>
#include <cstdio>
#include <mutex>
#include <string>
#include <vector>

#include "support/config.h"
#include "support/errno_text.h"
#include "support/export_context.h"
#include "support/log.h"
#include "vscil.h"

namespace {

struct Printer {
    bool targetChosen = false;
    std::string target;        // the file; empty for stderr
    std::FILE *file = nullptr; // open while printing is on and target is a file
};

std::mutex g_printerMutex;
Printer g_printer;             // guarded by g_printerMutex
std::atomic<bool> g_on{false}; // written under g_printerMutex; read first by Print

// KELP_DEBUG_FILE (or the host's setting), else "<path>/<module>.log" for a
// non-empty path, else stderr (empty).
std::string chooseTarget(const char *path)
{
    std::string file = kelp::rt::debugFile();
    if (!file.empty())
        return file;
    if (path == nullptr || path[0] == '\0')
        return std::string();
    std::string module = kelp::rt::currentModuleName();
    std::string dir = path;
    if (dir.back() != '/')
        dir += '/';
    return dir + (module.empty() ? "kelp" : module) + ".log";
}

// Opens the target for appending; a file that cannot be opened is reported
// and printing goes to stderr instead. Requires g_printerMutex.
void openTarget()
{
    if (g_printer.target.empty() || g_printer.file != nullptr)
        return;
    g_printer.file = std::fopen(g_printer.target.c_str(), "ae");
    if (g_printer.file == nullptr) {
        kelp::rt::logWarning(
            "%s; printing to stderr",
            kelp::rt::errnoMessage("cannot open debug file", g_printer.target).c_str());
        g_printer.target.clear();
    }
}

// Requires g_printerMutex.
void closeTarget()
{
    if (g_printer.file != nullptr)
        std::fclose(g_printer.file);
    g_printer.file = nullptr;
}

} // namespace

extern "C" {

// A second Init retargets: the old file is closed and, when printing is on,
// the new one opened.
void VscilDebugInit(const char *path)
{
    std::lock_guard lock(g_printerMutex);
    closeTarget();
    g_printer.target = chooseTarget(path);
    g_printer.targetChosen = true;
    if (g_on.load())
        openTarget();
}

// A Toggle before any Init prints where Init(null) would.
void VscilDebugToggle(void)
{
    std::lock_guard lock(g_printerMutex);
    if (!g_printer.targetChosen) {
        g_printer.target = chooseTarget(nullptr);
        g_printer.targetChosen = true;
    }
    bool on = !g_on.load();
    g_on.store(on);
    if (on) {
        openTarget();
    } else {
        closeTarget();
    }
}

void VscilDebugPrint(const char *format, ...)
{
    if (!g_on.load(std::memory_order_relaxed) || format == nullptr)
        return;
    char small[1024];
    std::vector<char> large;
    const char *text = small;
    va_list args;
    va_start(args, format);
    va_list again;
    va_copy(again, args);
    int n = std::vsnprintf(small, sizeof small, format, args);
    va_end(args);
    if (n >= static_cast<int>(sizeof small)) {
        large.resize(static_cast<size_t>(n) + 1);
        std::vsnprintf(large.data(), large.size(), format, again);
        text = large.data();
    }
    va_end(again);
    if (n <= 0)
        return;
    std::lock_guard lock(g_printerMutex);
    if (!g_on.load())
        return;
    std::FILE *out = g_printer.file != nullptr ? g_printer.file : stderr;
    std::fwrite(text, 1, static_cast<size_t>(n), out);
    std::fflush(out);
}

void VscilDebugExit(void)
{
    std::lock_guard lock(g_printerMutex);
    closeTarget();
    g_on.store(false);
    g_printer = Printer{};
}

} // extern "C"
