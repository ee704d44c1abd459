// Object lists: one singly linked list of rows per SNMP table. A row binds
// its 1-based index to a data-store object id and the object's nexus text;
// column values are read from the data store at request time, never here.
// No operation locks: callers that run beside requests hold dataMutex.
#ifndef KELP_MODULE_STORE_OBJLIST_H
#define KELP_MODULE_STORE_OBJLIST_H

#include <cstdint>

struct ObjNode {
    uint32_t index;    // row index: the list's length right after this node was appended
    uint32_t objId;    // data-store object id; 0 marks a hole (read as absent)
    uint32_t subObjId; // the virtual disk's id in the array-disk-to-virtual-disk table, else 0
    char *nexusId;     // owned; may be null in a hole of that table
    ObjNode *next;
};

struct ObjList {
    uint32_t length; // nodes, holes included
    ObjNode *head;
    ObjNode *tail; // meaningful only while length is not 0
};

// Size of the buffer insertListCopy gives each nexus copy; builders keep
// nexus texts to at most kNexusBufferSize - 1 characters.
inline constexpr uint32_t kNexusBufferSize = 80;

extern "C" {

// Empties the head without freeing anything.
void initList(ObjList *list);

// Frees every node and its nexus text, then empties the head.
void freeList(ObjList *list);

// Appends a node that takes ownership of `nexus`. 0, or -1 (list unchanged,
// "Insufficient memory\n" logged) when the node cannot be allocated; on
// failure `nexus` stays the caller's.
int32_t InsertList(ObjList *list, uint32_t objId, uint32_t subObjId, char *nexus);

// Appends a node holding an 80-byte copy of `nexus` (borrowed; null stays
// null). Always 0.
int32_t insertListCopy(ObjList *list, uint32_t objId, uint32_t subObjId, const char *nexus);

// Unlinks the first node whose nexus equals `nexus` and hands it to the
// caller, who frees it (freeNode). Other nodes keep their index. Null when no
// node matches.
ObjNode *removeByNexus(ObjList *list, const char *nexus);

// The node at 1-based `position`, or null for 0 or a position past length.
// A walk asks for the rows of a list in order: each thread remembers where
// its last look-up ended and goes on from there when it can, so a walk of a
// list costs one step a row rather than one step a row before it. A look-up
// of the first row leaves that memory as it is.
ObjNode *getNodeByIndex(ObjList *list, uint32_t position);

// The nodes this thread's getNodeByIndex calls have stepped over so far
// (tests).
uint64_t nodeStepsWalked();

// The first node with this object id; null for a null list or no match.
// On long lists each thread keeps an index of ids to first nodes, made
// again after any change of the lists.
ObjNode *findByObjId(ObjList *list, int32_t objId);

// The first node whose nexus is not null and equals `nexus`.
ObjNode *findByNexus(ObjList *list, const char *nexus);

// Appends a copy of every node of `source`, in order, with the destination's
// next indices. Always 0.
int32_t appendListCopy(ObjList *destination, ObjList *source);

// Debug print of every node.
void dumpList(ObjList *list);

} // extern "C"

// Frees a node that removeByNexus handed out, with its nexus text. The node
// must no longer be reachable from any list: a thread that walks live lists
// without dataMutex (UnlockedListRead) may still hold it, and then the
// memory is freed when the last such walk ends.
void freeNode(ObjNode *node);

// A nexus text taken out of a node (the node's pointer already changed):
// freed as freeNode frees, once no walk without dataMutex can hold it.
void releaseNexus(char *nexus);

// Marks the calling thread as walking live lists without dataMutex (the
// trap sender naming an object's row) for the guard's lifetime: nodes and
// nexus texts the refresh thread takes out of the lists meanwhile stay
// readable until the last such walk ends. The walk may see a list as it was
// before or after a change, never freed memory.
class UnlockedListRead {
  public:
    UnlockedListRead();
    ~UnlockedListRead();
    UnlockedListRead(const UnlockedListRead &) = delete;
    UnlockedListRead &operator=(const UnlockedListRead &) = delete;
};

// The row index of the first node whose nexus is not null and equals
// `nexus`, or 0: findByNexus for a walk without dataMutex (the trap sender
// naming an event's row), which `reading` keeps from reading freed memory.
// Its reads of the list race with the refresh thread's changes by design
// (taking the lock there would deadlock a rescan); tsan.supp names this
// function, so every unlocked read of a live list must be made in it.
uint32_t rowOfNexusUnlocked(const UnlockedListRead &reading, ObjList *list, const char *nexus);

// Says that nodes' ids were changed in place (a rebuild's merge): the
// look-ups' per-thread positions and id indexes are forgotten. Every
// function above that links, unlinks or frees a node says so itself.
void noteListChange();

#endif // KELP_MODULE_STORE_OBJLIST_H
