// Runtime-private access to the export context: the module running on the
// calling thread, as installed by SMSetExportContext.
#ifndef KELP_RUNTIME_SUPPORT_EXPORT_CONTEXT_H
#define KELP_RUNTIME_SUPPORT_EXPORT_CONTEXT_H

#include <string>
#include <string_view>

namespace kelp::rt {

// The moduleName of the calling thread's current export context; empty when
// the thread has none.
std::string currentModuleName();

// A module's name from its file's path: the file name without a leading "lib"
// and without everything from its first '.' on ("/x/libkelpimp64.so" ->
// "kelpimp64", "libfoo.so.1" -> "foo", "kelpagent" -> "kelpagent").
std::string moduleNameFromPath(std::string_view path);

} // namespace kelp::rt

#endif // KELP_RUNTIME_SUPPORT_EXPORT_CONTEXT_H
