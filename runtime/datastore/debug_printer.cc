// The debug printer of the data-store library: VscilDebugInit picks where
// lines go, VscilDebugToggle switches printing, VscilDebugPrint writes one
// formatted text whole under a lock, VscilDebugExit closes. A file that cannot
// be written (a full disk) is reported once to the runtime's log, and writing
// goes on being tried without further reports.
#include <atomic>
#include <cerrno>
#include <cstdarg>
#include <cstdio>
#include <mutex>
#include <string>
#include <vector>

#include "kelp/runtime.h"
#include "support/config.h"
#include "support/errno_text.h"
#include "support/export_context.h"
#include "support/log.h"
#include "support/text.h"
#include "vscil.h"

namespace {

struct Printer {
    bool targetChosen = false;
    std::string target;        // the file; empty for stderr
    std::FILE *file = nullptr; // open while printing is on and target is a file
    bool writeFailed = false;  // a write to file failed and was reported
};

std::mutex g_printerMutex;
Printer g_printer; // guarded by g_printerMutex
// Written under g_printerMutex; read first by VscilDebugPrint, under a name
// of its own for the entry below, which the compiler must keep as it is.
__attribute__((used)) std::atomic<bool> g_on __asm__("kelpDebugPrintingOn"){false};
static_assert(sizeof(std::atomic<bool>) == 1 && std::atomic<bool>::is_always_lock_free,
              "the entry reads the switch as one byte");

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
        return;
    }
    // Every text is flushed at once anyway; unbuffered, a text that could not
    // be written is not kept back to be retried in front of the next one.
    std::setvbuf(g_printer.file, nullptr, _IONBF, 0);
}

// Requires g_printerMutex.
void closeTarget()
{
    if (g_printer.file != nullptr)
        std::fclose(g_printer.file);
    g_printer.file = nullptr;
    g_printer.writeFailed = false;
}

// Writes text whole to the open file. The first failure after the file was
// opened is reported; later ones are not, or a full disk would add a warning
// for every line. Requires g_printerMutex.
void writeToFile(const char *text, size_t size)
{
    std::FILE *file = g_printer.file;
    errno = 0;
    const bool written = std::fwrite(text, 1, size, file) == size && std::fflush(file) == 0;
    if (written)
        return;
    const int err = errno != 0 ? errno : EIO;
    // Lines that could not be written are dropped; the next one starts clean.
    std::clearerr(file);
    if (g_printer.writeFailed)
        return;
    g_printer.writeFailed = true;
    kelp::rt::logWarning("cannot write debug file %s: %s; debug lines are lost until it can be "
                         "written again",
                         g_printer.target.c_str(), kelp::rt::errnoText(err).c_str());
}

// Formats and writes one text. Kept out of VscilDebugPrint, which the
// plug-in calls several times per request with printing off: the check is
// then all a call costs, without this frame and its buffer.
__attribute__((noinline)) void printText(const char *format, va_list args)
{
    char small[1024];
    std::vector<char> large;
    const char *text = small;
    va_list again;
    va_copy(again, args);
    int n = std::vsnprintf(small, sizeof small, format, args);
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
    if (g_printer.file != nullptr) {
        writeToFile(text, static_cast<size_t>(n));
        return;
    }
    std::fwrite(text, 1, static_cast<size_t>(n), stderr);
    std::fflush(stderr);
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

#if defined(__x86_64__) && defined(__ELF__)
} // extern "C"

namespace {

// VscilDebugPrint with printing on: the entry below jumps here with the
// caller's argument registers, and %al (the vector registers a variadic
// call passes), as they were.
__attribute__((used)) void printOn(const char *format, ...) __asm__("kelpDebugPrintOn");
__attribute__((used)) void printOn(const char *format, ...)
{
    if (format == nullptr)
        return;
    va_list args;
    va_start(args, format);
    printText(format, args);
    va_end(args);
}

} // namespace

// The plug-in calls VscilDebugPrint several times a cell with printing off.
// A variadic function stores its argument registers before its first line
// runs; this entry tests the switch first, so that such a call costs a
// compare and a return.
__asm__(R"(
        .text
        .p2align 4
        .globl  VscilDebugPrint
        .type   VscilDebugPrint, @function
VscilDebugPrint:
        .cfi_startproc
        cmpb    $0, kelpDebugPrintingOn(%rip)
        jne     kelpDebugPrintOn
        ret
        .cfi_endproc
        .size   VscilDebugPrint, .-VscilDebugPrint
)");

extern "C" {
#else
void VscilDebugPrint(const char *format, ...)
{
    if (!g_on.load(std::memory_order_relaxed) || format == nullptr)
        return;
    va_list args;
    va_start(args, format);
    printText(format, args);
    va_end(args);
}
#endif

int kelpRuntimeDebugPrinting(void)
{
    return g_on.load() ? 1 : 0;
}

// Toggles only when the state differs, so the printer ends where a Toggle
// at load would have left it.
void kelpRuntimeSetDebugPrinting(int on)
{
    if ((on != 0) != g_on.load())
        VscilDebugToggle();
}

// The new file is opened before the old one is closed: a path that cannot be
// opened now leaves printing where it was.
int kelpRuntimeReopenDebugFile(char *error, unsigned errorSize)
{
    std::string message;
    {
        std::lock_guard lock(g_printerMutex);
        if (g_printer.file != nullptr) {
            std::FILE *fresh = std::fopen(g_printer.target.c_str(), "ae");
            if (fresh == nullptr) {
                message = kelp::rt::errnoMessage("cannot open debug file", g_printer.target) +
                          "; printing goes on into the file open before";
            } else {
                std::setvbuf(fresh, nullptr, _IONBF, 0);
                closeTarget();
                g_printer.file = fresh;
            }
        }
    }
    kelp::rt::copyToBuffer(message, error, errorSize);
    return message.empty() ? 0 : 1;
}

void VscilDebugExit(void)
{
    std::lock_guard lock(g_printerMutex);
    closeTarget();
    g_on.store(false);
    g_printer = Printer{};
}

} // extern "C"
