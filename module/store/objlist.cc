// The list operations over ObjList. Nodes are only ever appended to a live
// list and unlinked only from staging lists, so in a live list a node's
// position equals its row index.
#include "store/objlist.h"

#include <cstdlib>
#include <cstring>

#include "platform/vscil.h"

void initList(ObjList *list)
{
    list->length = 0;
    list->head = nullptr;
    list->tail = nullptr;
}

void freeNode(ObjNode *node)
{
    std::free(node->nexusId);
    std::free(node);
}

void freeList(ObjList *list)
{
    ObjNode *node = list->head;
    while (node != nullptr) {
        ObjNode *next = node->next;
        freeNode(node);
        node = next;
    }
    initList(list);
}

static void appendNode(ObjList *list, ObjNode *node)
{
    if (list->length == 0) {
        list->head = node;
    } else {
        list->tail->next = node;
    }
    list->tail = node;
    list->length++;
    node->index = list->length;
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
    ObjNode *node = list->head;
    for (uint32_t step = 1; step < position && node != nullptr; step++) {
        node = node->next;
    }
    return node;
}

ObjNode *findByObjId(ObjList *list, int32_t objId)
{
    if (list == nullptr) {
        return nullptr;
    }
    for (ObjNode *node = list->head; node != nullptr; node = node->next) {
        if (node->objId == static_cast<uint32_t>(objId)) {
            return node;
        }
    }
    return nullptr;
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
