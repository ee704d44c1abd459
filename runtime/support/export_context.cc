// The export context: which module is running on a thread. SMGetExportContext
// identifies its caller by the return address; the current context is a
// thread_local record switched by SMSetExportContext/SMResetExportContext.
#include "support/export_context.h"

#include <dlfcn.h>
#include <unistd.h>

#include <climits>
#include <cstddef>
#include <cstring>
#include <functional>

#include "vcsupt.h"

static_assert(sizeof(SMExportContext) == 328, "export context layout");
static_assert(offsetof(SMExportContext, moduleName) == 8, "export context layout");
static_assert(offsetof(SMExportContext, modulePath) == 72, "export context layout");

namespace kelp::rt {
namespace {

// size == 0: the thread runs no module's code.
thread_local SMExportContext t_current{};

// Installs ctx as the current context, its texts terminated whatever the
// caller handed in.
void install(const SMExportContext &ctx)
{
    t_current = ctx;
    t_current.moduleName[sizeof t_current.moduleName - 1] = '\0';
    t_current.modulePath[sizeof t_current.modulePath - 1] = '\0';
}

template <size_t N> void copyCut(char (&dst)[N], std::string_view src)
{
    size_t n = src.size() < N - 1 ? src.size() : N - 1;
    std::memcpy(dst, src.data(), n);
    dst[n] = '\0';
}

// The file the code at `address` belongs to; the program itself when the
// loader reports no name for it.
std::string fileOfAddress(const void *address)
{
    Dl_info info{};
    if (dladdr(address, &info) != 0 && info.dli_fname != nullptr && info.dli_fname[0] != '\0') {
        return info.dli_fname;
    }
    char buf[PATH_MAX];
    ssize_t n = readlink("/proc/self/exe", buf, sizeof buf - 1);
    return n > 0 ? std::string(buf, static_cast<size_t>(n)) : std::string();
}

} // namespace

std::string moduleNameFromPath(std::string_view path)
{
    size_t slash = path.rfind('/');
    std::string_view name = slash == std::string_view::npos ? path : path.substr(slash + 1);
    if (name.size() > 3 && name.substr(0, 3) == "lib" && name[3] != '.')
        name.remove_prefix(3);
    size_t dot = name.find('.');
    if (dot != std::string_view::npos && dot > 0)
        name = name.substr(0, dot);
    return std::string(name);
}

std::string currentModuleName()
{
    return t_current.size != 0 ? std::string(t_current.moduleName) : std::string();
}

} // namespace kelp::rt

extern "C" {

// A module keeps its context in a global, so the image that holds the record
// names the module; that survives a caller whose call became a tail call. A
// record on the stack or the heap falls back to the caller's return address.
// noinline: the return address must be the caller's, not an inlining site's.
__attribute__((noinline)) uint32_t SMGetExportContext(SMExportContext *ctx)
{
    if (ctx == nullptr)
        return SM_STATUS_FAILURE;
    Dl_info holder{};
    const void *owner =
        dladdr(ctx, &holder) != 0 ? static_cast<const void *>(ctx) : __builtin_return_address(0);
    std::string path = kelp::rt::fileOfAddress(owner);
    if (path.empty())
        return SM_STATUS_FAILURE;
    std::memset(ctx, 0, sizeof *ctx);
    kelp::rt::copyCut(ctx->moduleName, kelp::rt::moduleNameFromPath(path));
    kelp::rt::copyCut(ctx->modulePath, path);
    ctx->size = sizeof *ctx;
    return SM_STATUS_SUCCESS;
}

// `saved` may be null when the caller does not need the previous context.
uint32_t SMSetExportContext(SMExportContext *saved, const SMExportContext *ctx)
{
    if (ctx == nullptr)
        return SM_STATUS_FAILURE;
    // A module calls this around every dispatch: the record is copied
    // through a temporary only when ctx and saved share memory.
    // std::less: a total order even between pointers into different objects.
    const std::less<const char *> before;
    const auto *from = reinterpret_cast<const char *>(ctx);
    const auto *to = reinterpret_cast<const char *>(saved);
    if (saved == nullptr || !before(from, to + sizeof *saved) || !before(to, from + sizeof *ctx)) {
        if (saved != nullptr)
            *saved = kelp::rt::t_current;
        kelp::rt::install(*ctx);
        return SM_STATUS_SUCCESS;
    }
    const SMExportContext next = *ctx;
    *saved = kelp::rt::t_current;
    kelp::rt::install(next);
    return SM_STATUS_SUCCESS;
}

// Reinstalls a context saved by SMSetExportContext; one with size 0 leaves the
// thread without a context.
uint32_t SMResetExportContext(const SMExportContext *saved)
{
    if (saved == nullptr)
        return SM_STATUS_FAILURE;
    kelp::rt::install(*saved);
    return SM_STATUS_SUCCESS;
}

} // extern "C"
