// libctxprobe.so: a stand-in module for the export-context test. Its only
// function asks the runtime for the calling module's context.
#include "vcsupt.h"

extern "C" uint32_t ctxprobeGetContext(SMExportContext *ctx)
{
    uint32_t status = SMGetExportContext(ctx);
    // Keeps the call from becoming a tail jump, which would make the runtime see
    // this function's caller as the calling module.
    asm volatile("" ::: "memory");
    return status;
}
