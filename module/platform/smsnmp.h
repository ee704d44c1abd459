/* smsnmp.h - the records and the entry point shared by the SNMP agent framework
 * and a MIB implementer plug-in.
 *
 * Conventions
 * - Every record here crosses the plug-in boundary; sizes and offsets are fixed
 *   (64-bit pointers, natural alignment) and checked at compile time.
 * - Status numbers are SNMP error-status values: 0 noError, 1 tooBig,
 *   2 noSuchName, 3 badValue, 4 readOnly, 5 genErr.
 * - Memory that passes between framework and plug-in comes from SMAllocMem and
 *   goes back with SMFreeMem (vcsupt.h).
 */
#ifndef KELP_PLATFORM_SMSNMP_H
#define KELP_PLATFORM_SMSNMP_H

#include <stddef.h>
#include <stdint.h>

#ifdef __cplusplus
extern "C" {
#endif

/* SNMP error-status numbers, as the dispatch and every handler return them. */
enum {
    SM_SNMP_NOERROR = 0,
    SM_SNMP_TOOBIG = 1,
    SM_SNMP_NOSUCHNAME = 2,
    SM_SNMP_BADVALUE = 3,
    SM_SNMP_READONLY = 4,
    SM_SNMP_GENERR = 5
};

/* ASN.1 BER tags found in SMSnmpValue.type. */
enum {
    SM_ASN_INTEGER = 0x02,
    SM_ASN_OCTET_STRING = 0x04,
    SM_ASN_OBJECT_ID = 0x06,
    SM_ASN_IPADDRESS = 0x40,
    SM_ASN_COUNTER32 = 0x41,
    SM_ASN_GAUGE32 = 0x42,
    SM_ASN_TIMETICKS = 0x43,
    SM_ASN_OPAQUE = 0x44
};

/* An object identifier: arc count and the arcs, owned by the record's holder. */
typedef struct SMSnmpOID {
    uint32_t count;
    uint32_t reserved;
    uint32_t *arcs;
} SMSnmpOID;

/* A variable binding. `value` is the integer for the integer types, the length
 * in bytes for OCTET STRING, IpAddress and Opaque, the arc count for OBJECT
 * IDENTIFIER, and the buffer's capacity while a buffer is being filled. */
typedef struct SMSnmpValue {
    SMSnmpOID name;
    uint32_t type;
    uint32_t value;
    void *buffer;
} SMSnmpValue;

/* One column of a MIB group. */
typedef struct SMMibColumnDef {
    uint32_t column;     /* the column's arc */
    uint32_t valueClass; /* 1 integer, 5 string */
    uint32_t asnType;    /* 2 or 4 */
    uint32_t hasLimit;   /* 1 when `limit` applies */
    uint32_t limit;      /* largest integer value, or largest string length */
    uint32_t access;     /* 1 readable, 2 writable, 4 integer column */
} SMMibColumnDef;

enum {
    SM_MIB_CLASS_INTEGER = 1,
    SM_MIB_CLASS_STRING = 5,
    SM_MIB_ACCESS_READ = 1,
    SM_MIB_ACCESS_WRITE = 2,
    SM_MIB_ACCESS_INTEGER = 4
};

/* One scalar group or table of a MIB definition. The area at 8 is 64 zero
 * bytes per group, for the framework's own use; the plug-in never touches it. */
typedef struct SMMibGroupDef {
    uint64_t reserved0;
    void *frameworkArea;
    uint32_t reserved16;
    uint32_t arcCount; /* arcs of the scalar group or table entry OID */
    const uint32_t *arcs;
    uint32_t indexCount; /* 0 scalar group, 1 table */
    uint32_t reserved36;
    const SMMibColumnDef *indexColumn; /* copy of column 1 for a table, else null */
    uint32_t columnCount;              /* n */
    uint32_t reserved52;
    const SMMibColumnDef *columns; /* n + 1 entries; entry 0 is all zeros */
} SMMibGroupDef;

/* Dispatch commands. 1-3 are informational, 4/5 load and unload, 6 lists the
 * MIB definitions, 7/8 start and stop the monitor threads, 9/10 Get and
 * GetNext, 11/12 the two Set phases. */
enum {
    SM_CMD_INFO1 = 1,
    SM_CMD_INFO2 = 2,
    SM_CMD_INFO3 = 3,
    SM_CMD_LOAD = 4,
    SM_CMD_UNLOAD = 5,
    SM_CMD_LIST_MIB = 6,
    SM_CMD_START_MONITOR = 7,
    SM_CMD_STOP_MONITOR = 8,
    SM_CMD_GET = 9,
    SM_CMD_GETNEXT = 10,
    SM_CMD_SET1 = 11,
    SM_CMD_SET2 = 12
};

/* The in-buffer of command 4: the framework's service table and its handle. */
typedef struct SMLoadArgs {
    void *const *services;
    uint64_t handle;
} SMLoadArgs;

/* The out-buffer of command 6: a count, then one pointer per MIB definition,
 * each a null-terminated array of group pointers. */
typedef struct SMMibList {
    uint32_t count;
    uint32_t reserved;
    const SMMibGroupDef *const *definitions[1];
} SMMibList;

/* Service table entry 7, the trap sender. The bindings stay the caller's; the
 * framework copies what it needs. Returns 0 when the trap was sent. */
typedef uint32_t (*SMTrapSendFn)(uint64_t handle, const SMSnmpOID *enterprise, uint32_t generic,
                                 uint32_t specific, uint32_t bindingCount, SMSnmpValue *bindings);
enum { SM_SERVICE_TRAP_SEND = 7, SM_SERVICE_ENTRY3 = 3, SM_SERVICE_COUNT = 8 };

/* Service table entry 3: four arguments passed through; the plug-in calls it
 * through a wrapper but never on its own. The signature is this project's. */
typedef void *(*SMServiceEntry3Fn)(void *a, void *b, void *c, void *d);

/* The plug-in's one export. */
typedef uint32_t (*SMMIBImplementerDispatchFn)(uint32_t command, void *inBuf, uint32_t inSize,
                                               void *outBuf, uint32_t outSize, uint32_t *outUsed);
#define SM_DISPATCH_SYMBOL "KELPIMP64_SMMIBImplementerDispatch"

#ifdef __cplusplus
} /* extern "C" */

static_assert(sizeof(SMSnmpOID) == 16 && offsetof(SMSnmpOID, arcs) == 8, "SMSnmpOID layout");
static_assert(sizeof(SMSnmpValue) == 32 && offsetof(SMSnmpValue, type) == 16 &&
                  offsetof(SMSnmpValue, value) == 20 && offsetof(SMSnmpValue, buffer) == 24,
              "SMSnmpValue layout");
static_assert(sizeof(SMMibColumnDef) == 24 && offsetof(SMMibColumnDef, access) == 20,
              "SMMibColumnDef layout");
static_assert(sizeof(SMMibGroupDef) == 64 && offsetof(SMMibGroupDef, frameworkArea) == 8 &&
                  offsetof(SMMibGroupDef, arcCount) == 20 && offsetof(SMMibGroupDef, arcs) == 24 &&
                  offsetof(SMMibGroupDef, indexCount) == 32 &&
                  offsetof(SMMibGroupDef, indexColumn) == 40 &&
                  offsetof(SMMibGroupDef, columnCount) == 48 &&
                  offsetof(SMMibGroupDef, columns) == 56,
              "SMMibGroupDef layout");
static_assert(sizeof(SMLoadArgs) == 16, "command 4 in-buffer");
static_assert(offsetof(SMMibList, definitions) == 8, "command 6 out-buffer");
#endif

#endif /* KELP_PLATFORM_SMSNMP_H */
