// The export context: which module is running on a thread. SMGetExportContext
// identifies its caller by the return address; the current context is a
// thread_local record switched by SMSetExportContext/SMResetExportContext.
#include "support/export_context.h"

#include <dlfcn.h>
#include <unistd.h>

#include <climits>
#include <cstddef>
#include <cstring>

#include "vcsupt.h"

static_assert(sizeof(SMExportContext) == 328, "export context layout");
static_assert(offsetof(SMExportContext, moduleName) == 8, "export context layout");
static_assert(offsetof(SMExportContext, modulePath) == 72, "export context layout");

namespace kelp::rt {
namespace {

// size == 0: the thread runs no module's code.
thread_local SMExportContext t_current{};

// A record moves as 32-byte chunks, the last one overlapping the one
// before: eleven loads and stores of vector registers on a processor with
// AVX2 (KELP_CONTEXT_CLONES), in place of 41 eight-byte moves.
typedef char Chunk __attribute__((vector_size(32)));
constexpr size_t kChunks = (sizeof(SMExportContext) + sizeof(Chunk) - 1) / sizeof(Chunk);
static_assert(sizeof(SMExportContext) >= sizeof(Chunk), "export context layout");

constexpr size_t chunkOffset(size_t i)
{
    return i + 1 < kChunks ? i * sizeof(Chunk) : sizeof(SMExportContext) - sizeof(Chunk);
}

// Reads the record at `from` whole into `chunks`, so that it may share
// memory with the record it is stored to.
__attribute__((always_inline)) inline void loadRecord(Chunk (&chunks)[kChunks], const void *from)
{
#pragma GCC unroll 16
    for (size_t i = 0; i < kChunks; ++i)
        std::memcpy(&chunks[i], static_cast<const char *>(from) + chunkOffset(i), sizeof(Chunk));
}

// Copies the record at `from` to `to`, which do not share memory.
__attribute__((always_inline)) inline void copyRecord(void *to, const void *from)
{
#pragma GCC unroll 16
    for (size_t i = 0; i < kChunks; ++i) {
        Chunk chunk;
        std::memcpy(&chunk, static_cast<const char *>(from) + chunkOffset(i), sizeof(Chunk));
        std::memcpy(static_cast<char *>(to) + chunkOffset(i), &chunk, sizeof(Chunk));
    }
}

// Installs the record read into `chunks` as the current context, its texts
// terminated whatever the caller handed in.
__attribute__((always_inline)) inline void install(SMExportContext &current,
                                                   const Chunk (&chunks)[kChunks])
{
#pragma GCC unroll 16
    for (size_t i = 0; i < kChunks; ++i)
        std::memcpy(reinterpret_cast<char *>(&current) + chunkOffset(i), &chunks[i], sizeof(Chunk));
    current.moduleName[sizeof current.moduleName - 1] = '\0';
    current.modulePath[sizeof current.modulePath - 1] = '\0';
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

// A module calls SMSetExportContext and SMResetExportContext around every
// dispatch. On x86-64 they are built twice, for x86-64-v3 (AVX2) and for
// any processor, and the loader binds the one the processor runs. GCC
// only: clang 14 names the dispatching symbol "SMSetExportContext.ifunc",
// which leaves the exported name undefined.
#if defined(__x86_64__) && defined(__GNUC__) && !defined(__clang__)
#define KELP_CONTEXT_CLONES __attribute__((target_clones("arch=x86-64-v3", "default")))
#else
#define KELP_CONTEXT_CLONES
#endif

// `saved` may be null when the caller does not need the previous context.
// ctx is read whole before saved is written, so the two may share memory.
KELP_CONTEXT_CLONES uint32_t SMSetExportContext(SMExportContext *saved, const SMExportContext *ctx)
{
    if (ctx == nullptr)
        return SM_STATUS_FAILURE;
    using namespace kelp::rt;
    SMExportContext &current = t_current;
    Chunk next[kChunks];
    loadRecord(next, ctx);
    if (saved != nullptr)
        copyRecord(saved, &current);
    install(current, next);
    return SM_STATUS_SUCCESS;
}

// Reinstalls a context saved by SMSetExportContext; one with size 0 leaves the
// thread without a context.
KELP_CONTEXT_CLONES uint32_t SMResetExportContext(const SMExportContext *saved)
{
    if (saved == nullptr)
        return SM_STATUS_FAILURE;
    using namespace kelp::rt;
    Chunk chunks[kChunks];
    loadRecord(chunks, saved);
    install(t_current, chunks);
    return SM_STATUS_SUCCESS;
}

} // extern "C"
