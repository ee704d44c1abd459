// Reading a configuration or model file whole without trusting what its path
// names: only a regular file is read, a FIFO or device is refused without
// blocking, and nothing over a limit is taken into memory.
#ifndef KELP_RUNTIME_SUPPORT_FILE_READ_H
#define KELP_RUNTIME_SUPPORT_FILE_READ_H

#include <cstddef>
#include <string>

namespace kelp::rt {

enum class FileRead {
    kRead,    // *text holds the whole file
    kMissing, // nothing exists at the path (ENOENT); *text is empty
    kRefused, // see *error; *text is empty
};

// Reads the file at path (symbolic links followed) into *text. Never blocks
// on what the path names and never holds more than maxBytes + 1 bytes of it
// (maxBytes must be below SIZE_MAX). *error is untouched on kRead.
// kMissing and kRefused set *error to one line naming the file:
//   "PATH: cannot open: <errno text>" (kMissing is this with ENOENT),
//   "PATH: not a regular file", "PATH: over the limit of <maxBytes as
//   byteCountText>", "PATH: cannot read: <errno text>".
FileRead readRegularFile(const std::string &path, size_t maxBytes, std::string *text,
                         std::string *error);

// A byte count for messages: "1 MiB" or "64 KiB" when it is a whole number of
// them, else "N bytes".
std::string byteCountText(size_t bytes);

} // namespace kelp::rt

#endif // KELP_RUNTIME_SUPPORT_FILE_READ_H
