/* mpi.h - helpers over the records shared with the SNMP agent framework:
 * object identifiers, variable bindings, instance names of MIB groups, the
 * command-6 list of MIB definitions and two number-text conversions.
 *
 * Common rules
 * - Results are SNMP error-status numbers: 0 done, 1 buffer too small, 2
 *   noSuchName, 3 badValue, 5 genErr (allocation failure, null argument).
 * - Every memory block handed out or freed here comes from SMAllocMem and goes
 *   back with SMFreeMem (vcsupt.h).
 * - An SMSnmpOID whose count is non-zero must point at that many arcs, and the
 *   `value` field of an SMSnmpValue must describe its buffer (length, arc count
 *   or capacity, by type); the helpers trust those two facts and nothing more.
 *   An OID with a null arcs pointer is read as having no arcs.
 * - Nothing here prints, locks or keeps state; every function may be called
 *   from any thread on records that thread owns.
 */
#ifndef KELP_MPI_MPI_H
#define KELP_MPI_MPI_H

#include <stdint.h>

#include "platform/smsnmp.h"

#ifdef __cplusplus
extern "C" {
#endif

/* ---- Object identifiers ------------------------------------------------ */

/* A new, empty record (count 0, no arcs) from SMAllocMem, or null. Release it
 * with MPIOIDFree(oid, 1). */
SMSnmpOID *MPIOIDAlloc(void);

/* Gives `destination` its own copy of source's arcs: 4 x count bytes from
 * SMAllocMem, then the count. Arcs the destination held before are not
 * freed. A source without arcs gives count 0 and a null arcs pointer without
 * allocating. 5 for a null argument, or when the allocation fails (the
 * destination's count is then untouched and its arcs pointer null). */
uint32_t MPIOIDCopy(const SMSnmpOID *source, SMSnmpOID *destination);

/* A new record holding a copy of source (see MPIOIDCopy), or null when source
 * is null or an allocation fails; nothing is left allocated on failure. */
SMSnmpOID *MPIOIDDuplicate(const SMSnmpOID *source);

/* Frees oid's arcs (when present) and leaves count 0 and a null pointer; when
 * the low 16 bits of flags are 1 the record itself is freed too. Null oid is
 * accepted. */
void MPIOIDFree(SMSnmpOID *oid, uint32_t flags);

/* Walks arcs 0..n-1 and answers a's arc minus b's arc (wrapping 32-bit
 * subtraction) at the first position where they differ; 0 when n is 0 or all
 * compared arcs agree. Callers read the result as a signed number. The walk
 * stops at the end of the shorter OID, so positions past either count (and a
 * null OID, read as empty) compare equal. */
uint32_t MPIOIDComparePrefix(const SMSnmpOID *a, const SMSnmpOID *b, uint32_t n);

/* The GetNext ordering: the prefix comparison over min(a's count, b's count)
 * arcs; when that is 0, a's count minus b's count. Read as signed: negative
 * when a sorts first. A null OID is read as empty. */
uint32_t MPIOIDCompare(const SMSnmpOID *a, const SMSnmpOID *b);

/* Parses dotted decimal text ("1.3.6.1") into at most *countInOut arcs.
 * A leading and a trailing "." are accepted; each arc has at most 10 digits
 * and a value beyond 32 bits wraps modulo 2^32. Results: 0 with *countInOut =
 * number of arcs; 5 for a null arcsOut, countInOut or text, or a capacity of
 * 0; 3 for the empty text, a text without any arc, "..", a character other
 * than a digit or ".", an arc of 11 or more digits, or more arcs than the
 * capacity. On failure *countInOut is untouched and arcsOut may hold arcs
 * already parsed. */
uint32_t MPIOIDFromString(uint32_t *arcsOut, uint32_t *countInOut, const char *text);

/* ---- Instance names of a MIB group --------------------------------------
 * Let P be g's arc count and n its column count. These decode a request name
 * against g; they answer 0 or 2 (noSuchName), and 5 for a null argument, a
 * group without a columns array or (tables) without arcs. An output is
 * written only once every test before it has passed. */

/* Scalar instance g.c.0: exactly P + 2 arcs, the last 0, 1 <= c = arc P <= n.
 * *columnOut = &g->columns[c]. The arcs before P are not compared. */
uint32_t MPIMibGetScalarColumn(const SMSnmpOID *name, const SMMibGroupDef *g,
                               const SMMibColumnDef **columnOut);

/* Table cell g.c.i: exactly P + 2 arcs; arc P - 1 (the entry arc) equals g's
 * last arc (the only prefix arc compared); 1 <= c = arc P <= n. Then
 * *columnOut = &g->columns[c] and *index1Out = the last arc, which must be
 * non-zero (2 otherwise, with both outputs already written). */
uint32_t MPIMibGetTableIndex1(const SMSnmpOID *name, const SMMibGroupDef *g,
                              const SMMibColumnDef **columnOut, uint32_t *index1Out);

/* As MPIMibGetTableIndex1 with P + 3 and P + 4 arcs: the last two or three
 * arcs are the indexes, each stored and then tested non-zero, from the first
 * to the last; a zero index gives 2 and leaves the later outputs untouched. */
uint32_t MPIMibGetTableIndex2(const SMSnmpOID *name, const SMMibGroupDef *g,
                              const SMMibColumnDef **columnOut, uint32_t *index1Out,
                              uint32_t *index2Out);
uint32_t MPIMibGetTableIndex3(const SMSnmpOID *name, const SMMibGroupDef *g,
                              const SMMibColumnDef **columnOut, uint32_t *index1Out,
                              uint32_t *index2Out, uint32_t *index3Out);

/* Whether a Set of `binding` into `column` could be taken: 2 when the column
 * lacks the writable access bit, else 0 when the binding's type is the
 * column's type, else 3. 5 for a null argument. */
uint32_t MPIMibCheckSetValue(const SMSnmpValue *binding, const SMMibColumnDef *column);

/* ---- Variable bindings --------------------------------------------------
 * The setters take the value's type from the column definition, never from
 * the caller. Memory a setter allocates belongs to the binding and is
 * released by MPIVarBindFreeValue. A setter never frees what the binding held
 * before: free a binding before setting it again. */

/* Names `binding` g.columnArc.0 (P + 2 arcs, freshly allocated). 5 for a null
 * argument or when the allocation fails (the name's count is then 0 and its
 * arcs pointer null). */
uint32_t MPIVarBindSetScalarName(SMSnmpValue *binding, const SMMibGroupDef *g, uint32_t columnArc);

/* type = column's type, value field = value; the buffer is not touched.
 * 0, or 5 for a null argument. */
uint32_t MPIVarBindSetValueInt(SMSnmpValue *binding, const SMMibColumnDef *column, uint32_t value);

/* Puts `length` bytes of `data` into the binding's buffer.
 * - length 0: type = column's type, value field 0, result 0; data may be null
 *   and the buffer is neither allocated nor touched.
 * - allocate 1: the buffer becomes `length` fresh bytes (5 when that fails)
 *   and the value field, the capacity, becomes `length`.
 * - length above the value field (the capacity): the value field becomes
 *   `length` and the result is 1; the caller supplies a larger buffer and
 *   calls again.
 * - null data or a null buffer: 5.
 * - otherwise: type = column's type, the bytes copied, value field = length,
 *   result 0.
 * Null binding or column: 5. */
uint32_t MPIVarBindSetValueOctStr(SMSnmpValue *binding, const SMMibColumnDef *column,
                                  const void *data, uint32_t length, uint32_t allocate);

/* The octet-string setter over oid's arcs (4 x count bytes); on success the
 * value field is the arc count. 5 when oid is null, has no arcs or no arcs
 * pointer; 1 (value field = bytes needed) as for the octet-string setter. */
uint32_t MPIVarBindSetValueOID(SMSnmpValue *binding, const SMMibColumnDef *column,
                               const SMSnmpOID *oid, uint32_t allocate);

/* Converts the NUL-terminated UCS-2 text into the binding's buffer as UTF-8
 * (SMUCS2StrToUTF8Str), the value field giving the capacity. 0: value field
 * = length without the NUL, type = column's type. 1: the buffer was too
 * small; the value field is doubled (wrapping, so a capacity of 0 stays 0)
 * and the caller enlarges the buffer and calls again. 5: null argument, null
 * buffer, or any other conversion failure. */
uint32_t MPIVarBindSetValueUCS2Str(SMSnmpValue *binding, const SMMibColumnDef *column,
                                   const uint16_t *text);

/* Frees the name's arcs (count 0, null pointer) and, for the types whose
 * buffer the binding owns (4, 6, 0x40, 0x44), the value buffer; then clears
 * type, value field and buffer pointer whatever the type. 0, or 5 for null. */
uint32_t MPIVarBindFreeValue(SMSnmpValue *binding);

/* A 32-bit sum of the value: the value itself for 2, 0x41, 0x42, 0x43; the
 * sum of the value's bytes (unsigned) for 4, 0x40, 0x44; the sum of the
 * bytes of the arc array (4 x value-field bytes) for 6. A sum of 0 is
 * reported as 1. 3 for any other type; 5 for a null argument or a null
 * buffer under a non-zero length. */
uint32_t MPIVarBindValueChecksum(const SMSnmpValue *binding, uint32_t *sumOut);

/* ---- The command-6 list of MIB definitions (SMMibList) ------------------ */

/* size >= 8: *usedOut = 8, the `size` bytes at list zeroed (count 0),
 * result 0. size < 8: *usedOut = 0, result 1. 5 for a null argument. */
uint32_t MPIMibListClear(SMMibList *list, uint32_t size, uint32_t *usedOut);

/* Appends one definition (a null-terminated array of group pointers):
 * *usedInOut grows by 8; when that passes `size`, or the slot after the
 * list's count would, *usedInOut is restored and the result is 1 (tooBig);
 * else the pointer goes to byte 8 + 8 x count, the count grows, result 0.
 * 5 for a null argument. */
uint32_t MPIMibListAppend(const SMMibGroupDef *const *definition, SMMibList *list, uint32_t size,
                          uint32_t *usedInOut);

/* ---- Number-text conversions over the framework's translator ------------ */

/* A new 64-byte SMAllocMem buffer holding *valuePointer in unsigned decimal,
 * or null when the allocation fails; the caller frees it with SMFreeMem. The
 * translator is asked for type 8 when valuePointer is non-null and type 4
 * otherwise; when it fails the text is empty. */
char *u64ToUTF8(const uint64_t *valuePointer);

/* The value of a decimal text: read as signed 64-bit (type 4) when it begins
 * with "-", else as unsigned 64-bit (type 8), and returned as its 64-bit
 * pattern ("-1" gives UINT64_MAX). A text that is not such a number, or
 * null, gives 0 here; callers must not rely on any value in that case. */
uint64_t utf8ToU64(const char *text);

#ifdef __cplusplus
} /* extern "C" */
#endif

#endif /* KELP_MPI_MPI_H */
