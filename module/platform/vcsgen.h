/* vcsgen.h - the instrumentation object layer: platform objects (chassis,
 * base board) looked up by object id.
 *
 * Conventions: lists and objects are owned by the library and released with
 * SMILFreeGeneric; null means not found. Object ids are 32-bit; the root
 * object of the system is id 2. The object layouts are this project's.
 */
#ifndef KELP_PLATFORM_VCSGEN_H
#define KELP_PLATFORM_VCSGEN_H

#include <stdint.h>

#ifdef __cplusplus
extern "C" {
#endif

typedef uint32_t SMILObjID;

enum { SMIL_OBJTYPE_CHASSIS_PROPS2 = 33, SMIL_OBJTYPE_BASE_BOARD = 259 };

typedef struct SMILObjIDList {
    uint32_t count;
    SMILObjID ids[1]; /* `count` entries */
} SMILObjIDList;

/* Every object starts with this header; objSize counts the whole object. */
typedef struct SMILObjHeader {
    uint32_t objSize;
    uint16_t objType;
    uint16_t reserved;
    SMILObjID objId;
} SMILObjHeader;

/* A base board. offsetServiceTag is the byte offset, from the object's start,
 * of its NUL-terminated UCS-2 service tag; 0 means none. */
typedef struct SMILBaseBoardObj {
    SMILObjHeader hdr;
    uint32_t baseBoardType; /* 13: the system board */
    uint32_t offsetServiceTag;
} SMILBaseBoardObj;

/* Chassis properties; offsetServiceTag as above. */
typedef struct SMILChassisProps2Obj {
    SMILObjHeader hdr;
    uint32_t offsetServiceTag;
} SMILChassisProps2Obj;

/* Children of *parent of the given type, or null. */
SMILObjIDList *SMILListChildOIDByType(const SMILObjID *parent, uint16_t objType);
/* The object, or null. */
void *SMILGetObjByOID(const SMILObjID *id);
/* Releases a list or an object; null is ignored. */
void SMILFreeGeneric(void *p);

#ifdef __cplusplus
}
#endif

#endif /* KELP_PLATFORM_VCSGEN_H */
