// Replacing a file as one step: the text goes to a new file beside it, is
// flushed to disk, and is then renamed over the old one, so that a reader
// of the path finds the old file or the new one whole, never a part, and a
// crash leaves one of the two.
#ifndef KELP_RUNTIME_SUPPORT_FILE_WRITE_H
#define KELP_RUNTIME_SUPPORT_FILE_WRITE_H

#include <sys/types.h>

#include <string>
#include <string_view>

namespace kelp::rt {

// Writes text to a temporary file ".NAME.XXXXXX" in the directory of path,
// gives it mode (exactly: the umask does not apply), fsyncs it, renames it
// to path (replacing a file there, or a symbolic link itself rather than
// what it names) and fsyncs the directory. True when path holds text.
// False with *error, one line naming path, when nothing was replaced and no
// temporary file is left:
//   "PATH: is a directory", "PATH: not a regular file" (a FIFO, a device,
//   a socket), "PATH: names no file" (empty or ending in '/'),
//   "PATH: cannot create a file in DIR: <errno text>" (a missing or
//   unwritable directory), "PATH: cannot write: <errno text>",
//   "PATH: cannot rename the written file to it: <errno text>".
// A failed fsync of the directory is not reported: the file is in place.
bool replaceFile(const std::string &path, std::string_view text, mode_t mode, std::string *error);

} // namespace kelp::rt

#endif // KELP_RUNTIME_SUPPORT_FILE_WRITE_H
