// The export context: the caller's module name and path, and the thread's
// current context switched by set and reset.
#include "support/export_context.h"

#include <gtest/gtest.h>

#include <cstddef>
#include <cstring>
#include <string>
#include <thread>

#include "vcsupt.h"

extern "C" uint32_t ctxprobeGetContext(SMExportContext *ctx);

namespace {

SMExportContext contextNamed(const char *name)
{
    SMExportContext ctx{};
    ctx.size = sizeof ctx;
    std::strcpy(ctx.moduleName, name);
    std::strcpy(ctx.modulePath, "/opt/kelp/lib/libsomething.so");
    return ctx;
}

bool endsWith(const std::string &s, const std::string &tail)
{
    return s.size() >= tail.size() && s.compare(s.size() - tail.size(), tail.size(), tail) == 0;
}

TEST(ExportContextTest, ModuleNameDropsLibAndExtensions)
{
    struct Case {
        const char *path, *name;
    } cases[] = {
        {"/usr/lib/kelp/libkelpimp64.so", "kelpimp64"},
        {"libkelpimp64.so", "kelpimp64"},
        {"/x/libfoo.so.1.2.3", "foo"},
        {"/usr/bin/kelpagent", "kelpagent"},
        {"/x/y/library.so", "rary"},
        {"/x/lib.so", "lib"},
        {"/x/lib", "lib"},
        {"plain", "plain"},
    };
    for (const auto &c : cases)
        EXPECT_EQ(kelp::rt::moduleNameFromPath(c.path), c.name) << c.path;
}

TEST(ExportContextTest, GetNamesTheCallingModule)
{
    SMExportContext ctx;
    std::memset(&ctx, 0x55, sizeof ctx);
    ASSERT_EQ(ctxprobeGetContext(&ctx), 0u);
    EXPECT_EQ(ctx.size, sizeof(SMExportContext));
    EXPECT_STREQ(ctx.moduleName, "ctxprobe");
    EXPECT_TRUE(endsWith(ctx.modulePath, "/libctxprobe.so")) << ctx.modulePath;
}

TEST(ExportContextTest, GetFromTheProgramNamesTheProgram)
{
    SMExportContext ctx{};
    ASSERT_EQ(SMGetExportContext(&ctx), 0u);
    EXPECT_STREQ(ctx.moduleName, "support_test");
    EXPECT_EQ(SMGetExportContext(nullptr), 5u);
}

TEST(ExportContextTest, SetAndResetRoundTrip)
{
    EXPECT_EQ(kelp::rt::currentModuleName(), "");
    SMExportContext a = contextNamed("alpha"), b = contextNamed("beta");
    SMExportContext savedBeforeA, savedBeforeB;
    std::memset(&savedBeforeA, 0x55, sizeof savedBeforeA);
    ASSERT_EQ(SMSetExportContext(&savedBeforeA, &a), 0u);
    EXPECT_EQ(savedBeforeA.size, 0u); // the thread had no context
    EXPECT_EQ(kelp::rt::currentModuleName(), "alpha");

    ASSERT_EQ(SMSetExportContext(&savedBeforeB, &b), 0u);
    EXPECT_STREQ(savedBeforeB.moduleName, "alpha");
    EXPECT_EQ(kelp::rt::currentModuleName(), "beta");

    ASSERT_EQ(SMResetExportContext(&savedBeforeB), 0u);
    EXPECT_EQ(kelp::rt::currentModuleName(), "alpha");
    ASSERT_EQ(SMResetExportContext(&savedBeforeA), 0u);
    EXPECT_EQ(kelp::rt::currentModuleName(), "");
}

// The new context is what ctx held at the call, and saved the one before,
// however the two records share memory: apart, the same record, or
// overlapping by some bytes either way.
TEST(ExportContextTest, SetWithTheSavedRecordOverTheNewOne)
{
    // -1000: apart; the others: saved that many bytes after ctx.
    for (const ptrdiff_t shift : {ptrdiff_t{-1000}, ptrdiff_t{0}, ptrdiff_t{8}, ptrdiff_t{-8}}) {
        SCOPED_TRACE(shift);
        alignas(SMExportContext) char memory[4 * sizeof(SMExportContext)];
        char *const middle = memory + 2 * sizeof(SMExportContext);
        auto *ctx = reinterpret_cast<SMExportContext *>(middle);
        *ctx = contextNamed("gamma");
        SMExportContext outer = contextNamed("outer"), beforeOuter;
        ASSERT_EQ(SMSetExportContext(&beforeOuter, &outer), 0u);
        auto *saved = reinterpret_cast<SMExportContext *>(
            shift == -1000 ? memory : reinterpret_cast<char *>(ctx) + shift);
        ASSERT_EQ(SMSetExportContext(saved, ctx), 0u);
        EXPECT_EQ(kelp::rt::currentModuleName(), "gamma");
        EXPECT_STREQ(saved->moduleName, "outer");
        ASSERT_EQ(SMResetExportContext(saved), 0u);
        EXPECT_EQ(kelp::rt::currentModuleName(), "outer");
        SMResetExportContext(&beforeOuter);
    }
}

// saved receives every byte of the context installed before, as the caller
// handed it in (but for the texts' last bytes): the bytes after the names'
// ends and after the path, and either way round of each record's edges.
TEST(ExportContextTest, SavedGetsEveryByteOfThePreviousContext)
{
    SMExportContext first, second, saved, back;
    auto *const f = reinterpret_cast<unsigned char *>(&first);
    auto *const s = reinterpret_cast<unsigned char *>(&second);
    for (size_t i = 0; i < sizeof first; ++i) {
        f[i] = static_cast<unsigned char>(i * 7 + 1);
        s[i] = static_cast<unsigned char>(i * 13 + 5);
    }
    SMExportContext expected = first;
    expected.moduleName[sizeof expected.moduleName - 1] = '\0';
    expected.modulePath[sizeof expected.modulePath - 1] = '\0';
    ASSERT_EQ(SMSetExportContext(&back, &first), 0u);
    std::memset(&saved, 0xee, sizeof saved);
    ASSERT_EQ(SMSetExportContext(&saved, &second), 0u);
    EXPECT_EQ(std::memcmp(&saved, &expected, sizeof saved), 0);
    // Reset installs the record whole: a later Set hands it back.
    ASSERT_EQ(SMResetExportContext(&saved), 0u);
    SMExportContext again;
    ASSERT_EQ(SMSetExportContext(&again, &second), 0u);
    EXPECT_EQ(std::memcmp(&again, &expected, sizeof again), 0);
    ASSERT_EQ(SMResetExportContext(&back), 0u);
    EXPECT_EQ(kelp::rt::currentModuleName(), "");
}

TEST(ExportContextTest, TheContextBelongsToTheThread)
{
    SMExportContext a = contextNamed("alpha"), saved;
    ASSERT_EQ(SMSetExportContext(&saved, &a), 0u);
    std::string seen = "unset";
    std::thread([&] { seen = kelp::rt::currentModuleName(); }).join();
    EXPECT_EQ(seen, "");
    SMResetExportContext(&saved);
}

TEST(ExportContextTest, AnUnterminatedNameIsCutToTheRecord)
{
    SMExportContext ctx{}, saved;
    ctx.size = sizeof ctx;
    std::memset(ctx.moduleName, 'x', sizeof ctx.moduleName);
    ASSERT_EQ(SMSetExportContext(&saved, &ctx), 0u);
    EXPECT_EQ(kelp::rt::currentModuleName(), std::string(sizeof ctx.moduleName - 1, 'x'));
    SMResetExportContext(&saved);
}

TEST(ExportContextTest, NullArgumentsAnswer5)
{
    SMExportContext saved;
    EXPECT_EQ(SMSetExportContext(&saved, nullptr), 5u);
    EXPECT_EQ(SMResetExportContext(nullptr), 5u);
}

} // namespace
