// The list operations over ObjList. Nodes are only ever appended to a live
// list and unlinked only from staging lists, so in a live list a node's
// position equals its row index.
#include "store/objlist.h"

#include <atomic>
#include <cstdlib>
#include <cstring>
#include <mutex>
#include <unordered_map>
#include <vector>

#include "platform/vscil.h"

namespace {

// Threads walking live lists without dataMutex (UnlockedListRead), and the
// memory taken out of the lists while one of them walked: freed by the last
// of them to finish, or at once when none walks.
//
// Every access to the count is a read-modify-write, never a plain load and
// no fence: RMWs of one atomic are totally ordered and each reads the one
// before, so a reader whose increment comes after a release's RMW has
// acquired the unlink (and cannot find the memory), and a release whose RMW
// comes after a reader's decrement has acquired everything that walk read.
// ThreadSanitizer follows this, where it cannot follow fences.
std::atomic<int> g_unlockedReaders{0}; // atomic
std::mutex g_retiredMutex;
std::vector<void *> g_retired; // guarded by g_retiredMutex

// The number of walks without dataMutex now, read as an RMW (see above).
int unlockedReaders()
{
    return g_unlockedReaders.fetch_add(0, std::memory_order_acq_rel);
}

// Frees `memory`, which no list reaches any more, once no reader that
// started before it left the lists can still hold it.
void releaseUnreachable(void *memory)
{
    if (memory == nullptr) {
        return;
    }
    std::lock_guard lock(g_retiredMutex);
    // A reader that this RMW precedes starts after the unlink and cannot
    // find the memory.
    if (unlockedReaders() == 0) {
        std::free(memory);
    } else {
        g_retired.push_back(memory);
    }
}

// Moves on every change of any list's nodes: a look-up remembered under an
// older generation is not trusted. Atomic, no lock. Lists change under dataMutex, which
// readers hold too; the counter only has to tell a reader that its own
// memory of a list is out of date.
std::atomic<uint64_t> g_generation{1};

uint64_t generation()
{
    return g_generation.load(std::memory_order_acquire);
}

// Where this thread's last getNodeByIndex ended. The list's head and length
// are kept too, so that a list emptied or refilled behind the functions
// here (tests do) is not trusted either.
struct Cursor {
    const ObjList *list = nullptr;
    uint64_t generation = 0;
    const ObjNode *head = nullptr;
    uint32_t length = 0;
    uint32_t position = 0;
    ObjNode *node = nullptr;
};
thread_local Cursor t_cursor;  // thread-confined
thread_local uint64_t t_steps; // thread-confined: nodes stepped over

// Lists shorter than this are searched node by node.
constexpr uint32_t kIndexedLength = 64;

// One list's ids, each to the first node that holds it.
struct IdIndex {
    const ObjList *list = nullptr;
    uint64_t generation = 0;
    const ObjNode *head = nullptr;
    uint32_t length = 0;
    std::unordered_map<uint32_t, ObjNode *> nodes;
};
thread_local std::vector<IdIndex> t_indexes; // thread-confined

ObjNode *scanForObjId(ObjList *list, uint32_t objId)
{
    for (ObjNode *node = list->head; node != nullptr; node = node->next) {
        if (node->objId == objId) {
            return node;
        }
    }
    return nullptr;
}

// This thread's index of `list`, made again when the lists changed.
const IdIndex &indexOf(ObjList *list)
{
    IdIndex *index = nullptr;
    for (IdIndex &candidate : t_indexes) {
        if (candidate.list == list) {
            index = &candidate;
            break;
        }
    }
    if (index == nullptr) {
        index = &t_indexes.emplace_back();
        index->list = list;
    }
    const uint64_t now = generation();
    if (index->generation != now || index->head != list->head || index->length != list->length) {
        index->nodes.clear();
        for (ObjNode *node = list->head; node != nullptr; node = node->next) {
            index->nodes.emplace(node->objId, node); // the first node keeps its id
        }
        index->generation = now;
        index->head = list->head;
        index->length = list->length;
    }
    return *index;
}

} // namespace

void noteListChange()
{
    g_generation.fetch_add(1, std::memory_order_acq_rel);
}

void initList(ObjList *list)
{
    noteListChange();
    list->length = 0;
    list->head = nullptr;
    list->tail = nullptr;
}

UnlockedListRead::UnlockedListRead()
{
    g_unlockedReaders.fetch_add(1, std::memory_order_acq_rel);
}

UnlockedListRead::~UnlockedListRead()
{
    if (g_unlockedReaders.fetch_sub(1, std::memory_order_acq_rel) != 1) {
        return;
    }
    std::vector<void *> retired;
    {
        std::lock_guard lock(g_retiredMutex);
        if (unlockedReaders() == 0) {
            retired.swap(g_retired);
        }
    }
    for (void *memory : retired) {
        std::free(memory);
    }
}

void releaseNexus(char *nexus)
{
    releaseUnreachable(nexus);
}

void freeNode(ObjNode *node)
{
    noteListChange();
    releaseUnreachable(node->nexusId);
    releaseUnreachable(node);
}

// Kept out of line, so that a race report always names this function.
__attribute__((noinline)) uint32_t rowOfNexusUnlocked(const UnlockedListRead & /*reading*/,
                                                      ObjList *list, const char *nexus)
{
    for (const ObjNode *node = list->head; node != nullptr; node = node->next) {
        const char *text = node->nexusId; // read once: a merge may release it meanwhile
        if (text != nullptr && std::strcmp(text, nexus) == 0) {
            return node->index;
        }
    }
    return 0;
}

void freeList(ObjList *list)
{
    // Emptied first, so that a walk starting now finds no node being freed.
    ObjNode *node = list->head;
    initList(list);
    while (node != nullptr) {
        ObjNode *next = node->next;
        freeNode(node);
        node = next;
    }
}

static void appendNode(ObjList *list, ObjNode *node)
{
    noteListChange();
    // The index is set before the node is linked: a walk without the lock
    // that finds the node must read its index, not what malloc left there.
    node->index = list->length + 1;
    if (list->length == 0) {
        list->head = node;
    } else {
        list->tail->next = node;
    }
    list->tail = node;
    list->length++;
}

int32_t InsertList(ObjList *list, uint32_t objId, uint32_t subObjId, char *nexus)
{
    auto *node = static_cast<ObjNode *>(std::malloc(sizeof(ObjNode)));
    if (node == nullptr) {
        VscilDebugPrint("Insufficient memory\n");
        return -1;
    }
    node->objId = objId;
    node->subObjId = subObjId;
    node->nexusId = nexus;
    node->next = nullptr;
    appendNode(list, node);
    return 0;
}

int32_t insertListCopy(ObjList *list, uint32_t objId, uint32_t subObjId, const char *nexus)
{
    char *copy = nullptr;
    if (nexus != nullptr) {
        copy = static_cast<char *>(std::calloc(1, kNexusBufferSize));
        if (copy != nullptr) {
            // Builders hold nexus texts under 80 characters; the bound only
            // keeps a longer one from running past the buffer.
            std::strncpy(copy, nexus, kNexusBufferSize - 1);
        }
    }
    if (InsertList(list, objId, subObjId, copy) != 0) {
        std::free(copy);
    }
    return 0;
}

ObjNode *removeByNexus(ObjList *list, const char *nexus)
{
    if (nexus == nullptr) {
        return nullptr;
    }
    ObjNode *previous = nullptr;
    for (ObjNode *node = list->head; node != nullptr; previous = node, node = node->next) {
        if (node->nexusId == nullptr || std::strcmp(node->nexusId, nexus) != 0) {
            continue;
        }
        noteListChange();
        if (previous == nullptr) {
            list->head = node->next;
        } else {
            previous->next = node->next;
        }
        // Removing the only node leaves tail on it; length 0 makes the next
        // append reset head and tail, and nothing reads tail before that.
        if (node == list->tail && previous != nullptr) {
            list->tail = previous;
        }
        list->length--;
        node->next = nullptr;
        return node;
    }
    return nullptr;
}

ObjNode *getNodeByIndex(ObjList *list, uint32_t position)
{
    if (position == 0 || position > list->length) {
        return nullptr;
    }
    // The head is at hand, and the cursor stays where it is: a table's
    // first row is looked up between the rows of a walk (the empty-table
    // probe after every absent cell), and moving the cursor back to it
    // would start the walk's next look-up from the head.
    if (position == 1) {
        return list->head;
    }
    const uint64_t now = generation();
    Cursor &cursor = t_cursor;
    ObjNode *node = list->head;
    uint32_t step = 1;
    if (cursor.list == list && cursor.generation == now && cursor.head == list->head &&
        cursor.length == list->length && cursor.position <= position) {
        node = cursor.node;
        step = cursor.position;
    }
    t_steps += position - step;
    for (; step < position && node != nullptr; step++) {
        node = node->next;
    }
    if (node != nullptr) {
        cursor = Cursor{list, now, list->head, list->length, position, node};
    }
    return node;
}

uint64_t nodeStepsWalked()
{
    return t_steps;
}

ObjNode *findByObjId(ObjList *list, int32_t objId)
{
    if (list == nullptr) {
        return nullptr;
    }
    const auto id = static_cast<uint32_t>(objId);
    if (list->length < kIndexedLength) {
        return scanForObjId(list, id);
    }
    const IdIndex &index = indexOf(list);
    const auto found = index.nodes.find(id);
    // An id the index does not know, or a node whose id changed without a
    // word, is searched for the long way.
    if (found == index.nodes.end() || found->second->objId != id) {
        return scanForObjId(list, id);
    }
    return found->second;
}

ObjNode *findByNexus(ObjList *list, const char *nexus)
{
    for (ObjNode *node = list->head; node != nullptr; node = node->next) {
        if (node->nexusId != nullptr && std::strcmp(node->nexusId, nexus) == 0) {
            return node;
        }
    }
    return nullptr;
}

int32_t appendListCopy(ObjList *destination, ObjList *source)
{
    for (ObjNode *node = source->head; node != nullptr; node = node->next) {
        insertListCopy(destination, node->objId, node->subObjId, node->nexusId);
    }
    return 0;
}

void dumpList(ObjList *list)
{
    VscilDebugPrint("dumpList: entry\n");
    VscilDebugPrint("dumpList: Dump data in table ---- \n");
    VscilDebugPrint("dumpList: Length of table - %d\n", list->length);
    for (ObjNode *node = list->head; node != nullptr; node = node->next) {
        if (node->nexusId != nullptr) {
            VscilDebugPrint("%u:%u::%s \n", node->objId, node->subObjId, node->nexusId);
        } else {
            VscilDebugPrint("%u:%u::NULL \n", node->objId, node->subObjId);
        }
    }
    VscilDebugPrint("End Dbg: Dump data in table ---- \n");
}
