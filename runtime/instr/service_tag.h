// The instrumentation objects' service tags: the chassis and base-board
// objects of the object layer (vcsgen.h) carry the served storage model's
// <storage chassisServiceTag="..." baseBoardServiceTag="..."> values as
// NUL-terminated UCS-2 text. Runtime-private (the object layer and its tests
// use it).
#ifndef KELP_RUNTIME_INSTR_SERVICE_TAG_H
#define KELP_RUNTIME_INSTR_SERVICE_TAG_H

#include <cstddef>
#include <cstdint>
#include <string>
#include <string_view>

#include "vcsgen.h"

namespace kelp::instr {

// The object ids of the layer: the system (the parent of both objects, and
// itself no object that can be fetched), its chassis and its base board.
inline constexpr SMILObjID kSystemId = 2;
inline constexpr SMILObjID kChassisId = 3;
inline constexpr SMILObjID kBaseBoardId = 4;

// The base board type of the system board.
inline constexpr uint32_t kSystemBoardType = 13;

// The longest tag served, in bytes of UTF-8: the model's limit for any
// attribute value. A longer value (which a valid model cannot hold) gives
// no object.
inline constexpr size_t kMaxServiceTagBytes = 159;

// The UTF-8 text as UTF-16 code units (UCS-2, with surrogate pairs for
// characters beyond the basic plane, which SMUCS2StrToUTF8Str reads back).
// Each byte of a malformed sequence (a stray continuation byte, a cut or
// overlong sequence, a surrogate or a value beyond U+10FFFF) becomes U+FFFD.
// Never more code units than `utf8` has bytes.
std::u16string utf8ToUcs2(std::string_view utf8);

} // namespace kelp::instr

#endif // KELP_RUNTIME_INSTR_SERVICE_TAG_H
