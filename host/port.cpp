// Ports: publish/subscribe points with re-entrant notification, and the two process-wide
// lists of named ports (global and public).
//
// Re-entrancy rests on one rule: while anything walks a port's attachments (a notification,
// a late owner's announcement, a detach calling the attach function) the port's depth is
// non-zero and no attachment record is freed, only marked dead. The outermost walk reclaims
// the dead records when it ends, and frees the port itself when it was destroyed meanwhile.
#include <vxtools3/ckpt.h>
#include <vxtools3/lists.h>
#include <vxtools3/memory.h>
#include <vxtools3/ports.h>

#include "host/port_internal.h"

#include <cstring>
#include <initializer_list>

struct VxPort {
    VxNode node;  // links a named port into its list
    char *name;   // owned; NULL for an unnamed port
    uintptr_t data;
    uintptr_t server;
    PortAttachFunc *attachFunction;
    VxList attachments;  // VxPortAttachment records in the order attached
    int32_t depth;       // walks of the attachments in progress
    int32_t deadCount;   // records marked dead and not yet reclaimed
    int32_t linked;      // on a named list
    int32_t doomed;      // destroyed during a walk; freed when the outermost walk ends
};

namespace vx::port {
namespace {

struct NamedList {
    VxList ports;
    bool made;
};

NamedList g_global;
NamedList g_public;
bool g_cleanupRegistered = false;

VxPortAttachment *AsAttachment(VxNode *node) { return reinterpret_cast<VxPortAttachment *>(node); }

bool IsEmpty(const VxList &list) { return list.head->succ == nullptr; }

// The record with `key`, dead or alive: keys are unique among all records of a port.
VxPortAttachment *FindAny(VxPort *port, uintptr_t key)
{
    for (VxNode *n = port->attachments.head; n->succ; n = n->succ)
        if (AsAttachment(n)->clientKey == key)
            return AsAttachment(n);
    return nullptr;
}

VxPortAttachment *FindLive(VxPort *port, uintptr_t key)
{
    if (!port || port->doomed)
        return nullptr;
    VxPortAttachment *a = FindAny(port, key);
    return a && !a->dead ? a : nullptr;
}

bool HasLive(VxPort *port)
{
    for (VxNode *n = port->attachments.head; n->succ; n = n->succ)
        if (!AsAttachment(n)->dead)
            return true;
    return false;
}

void FreeAttachment(VxPortAttachment *a)
{
    Remove(&a->node);
    FreeHeap(a, sizeof(VxPortAttachment));
}

void FreePort(VxPort *port)
{
    while (VxNode *n = RemHead(&port->attachments))
        FreeHeap(n, sizeof(VxPortAttachment));
    StringFree(port->name);
    FreeHeap(port, sizeof(VxPort));
}

void ReclaimDead(VxPort *port)
{
    if (!port->deadCount)
        return;  // the common case: no scan
    port->deadCount = 0;
    VxNode *n = port->attachments.head;
    while (n->succ) {
        VxNode *next = n->succ;
        if (AsAttachment(n)->dead)
            FreeAttachment(AsAttachment(n));
        n = next;
    }
}

void BeginWalk(VxPort *port) { ++port->depth; }

// Ends a walk; the outermost one frees what waited for it. The port may be gone afterwards.
void EndWalk(VxPort *port)
{
    if (--port->depth > 0)
        return;
    if (port->doomed)
        FreePort(port);
    else
        ReclaimDead(port);
}

// Visits the live attachments that were on the list when the walk began, in order. Records
// appended meanwhile wait for the next walk; a destroyed port stops the walk.
template <class Visit>
void WalkAttachments(VxPort *port, Visit visit)
{
    if (IsEmpty(port->attachments))
        return;
    VxNode *last = port->attachments.tailPred;
    BeginWalk(port);
    for (VxNode *n = port->attachments.head;; n = n->succ) {
        if (port->doomed)
            break;
        if (!AsAttachment(n)->dead)
            visit(AsAttachment(n));
        if (n == last)
            break;
    }
    EndWalk(port);
}

// Adds or revives the attachment of `key`: 1 new, -1 revived, 0 when memory ran out with no
// checkpoint block open (with one open the failure is raised through it).
int AttachRecord(VxPort *port, uintptr_t key, uint32_t mask, PortCallback *callback)
{
    const uint32_t effectiveMask = mask ? mask : 0xFFFFFFFFu;
    if (VxPortAttachment *existing = FindAny(port, key)) {
        existing->callback = callback;
        existing->mask = effectiveMask;
        existing->disableCount = 0;
        if (existing->dead) {
            existing->dead = 0;
            --port->deadCount;
        }
        return -1;
    }
    auto *a = static_cast<VxPortAttachment *>(StdAlloc(sizeof(VxPortAttachment)));
    if (!a)
        return 0;
    a->clientKey = key;
    a->callback = callback;
    a->mask = effectiveMask;
    AddTail(&port->attachments, &a->node);
    return 1;
}

void AnnounceAttach(VxPort *port, uintptr_t key)
{
    if (port->attachFunction)
        port->attachFunction(port->server, port->data, PORT_ATTACH, key);
}

// Destroys a port in the course of a failed named lookup.
void DestroyArm(uintptr_t port, uintptr_t) { PortDestroy(reinterpret_cast<VxPort *>(port)); }

void CleanupNamedLists(void *)
{
    for (NamedList *list : {&g_global, &g_public}) {
        if (!list->made)
            continue;
        while (!IsEmpty(list->ports))
            PortDestroy(reinterpret_cast<VxPort *>(list->ports.head));
        list->made = false;
    }
    g_cleanupRegistered = false;
}

VxPort *FindNamed(NamedList &list, const char *name)
{
    if (!list.made || !name)
        return nullptr;
    for (VxNode *n = list.ports.head; n->succ; n = n->succ) {
        auto *port = reinterpret_cast<VxPort *>(n);
        if (std::strcmp(port->name, name) == 0)  // strcmp compares as unsigned char
            return port;
    }
    return nullptr;
}

// Finds the port `name` or appends a new one. Must run inside a checkpoint block: a failure
// is raised, and a port made here is destroyed when the caller's block fails later on.
VxPort *FindOrCreateNamed(NamedList &list, const char *name)
{
    if (!list.made) {
        NewList(&list.ports);
        list.made = true;
    }
    if (VxPort *found = FindNamed(list, name))
        return found;
    if (!g_cleanupRegistered) {
        GlobalListSetCleanup(CleanupNamedLists, nullptr);
        g_cleanupRegistered = true;
    }
    VxPort *port = PortCreate(0, 0, nullptr);
    CkptArm(DestroyArm, reinterpret_cast<uintptr_t>(port), 0);
    port->name = StringCopy(name);
    AddTail(&list.ports, &port->node);
    port->linked = 1;
    return port;
}

uintptr_t PublicIdentity() { return reinterpret_cast<uintptr_t>(&g_public); }

// Detaches from a named port and destroys the port when `unowned` says it is no longer
// needed. The lookup is repeated after the detach: the attach function may have destroyed
// the port or replaced it.
template <class Unneeded>
void DetachNamed(NamedList &list, const char *name, uintptr_t key, Unneeded unneeded)
{
    PortDetach(FindNamed(list, name), key);
    VxPort *port = FindNamed(list, name);
    if (port && unneeded(port))
        PortDestroy(port);
}

// Attaches to the port named `name` in `list`, made when missing; `prepare` runs on the port
// before a new attachment is announced. Returns 1, or 0 with nothing changed.
template <class Prepare>
int AttachNamed(NamedList &list, const char *name, uintptr_t clientKey, uint32_t mask, PortCallback *callback,
                Prepare prepare)
{
    if (!name)
        return 0;
    CKPT_BEGIN_OR_RETURN(0);
    VxPort *port = FindOrCreateNamed(list, name);
    const int result = AttachRecord(port, clientKey, mask, callback);
    CkptEnd();
    prepare(port);
    if (result == 1)
        AnnounceAttach(port, clientKey);
    return 1;
}

}  // namespace

int32_t RecordCount(const VxPort *port)
{
    int32_t count = 0;
    for (VxNode *n = port->attachments.head; n->succ; n = n->succ)
        ++count;
    return count;
}

int32_t WalkDepth(const VxPort *port) { return port->depth; }

VxPort *FindGlobal(const char *name) { return FindNamed(g_global, name); }
VxPort *FindPublic(const char *name) { return FindNamed(g_public, name); }

int32_t NamedCount(bool publicList)
{
    const NamedList &list = publicList ? g_public : g_global;
    if (!list.made)
        return 0;
    int32_t count = 0;
    for (VxNode *n = list.ports.head; n->succ; n = n->succ)
        ++count;
    return count;
}

uintptr_t PortServer(const VxPort *port) { return port->server; }

}  // namespace vx::port

using namespace vx::port;

extern "C" {

VX_API VxPort *PortCreate(uintptr_t data, uintptr_t server, PortAttachFunc *attachFunction)
{
    auto *port = static_cast<VxPort *>(StdAlloc(sizeof(VxPort)));
    if (!port)
        return nullptr;
    port->data = data;
    port->server = server;
    port->attachFunction = attachFunction;
    NewList(&port->attachments);
    return port;
}

VX_API void PortDestroy(VxPort *port)
{
    if (!port || port->doomed)
        return;
    if (port->linked) {
        Remove(&port->node);
        port->linked = 0;
    }
    if (port->depth > 0)
        port->doomed = 1;
    else
        FreePort(port);
}

VX_API void PortSetServer(VxPort *port, int enable, uintptr_t server)
{
    if (port)
        port->server = enable ? server : 0;
}

VX_API int PortAttach(VxPort *port, uintptr_t clientKey, uint32_t mask, PortCallback *callback)
{
    if (!port || port->doomed)
        return 0;
    const int result = AttachRecord(port, clientKey, mask, callback);
    if (result == 1)
        AnnounceAttach(port, clientKey);
    return result;
}

VX_API void PortDetach(VxPort *port, uintptr_t clientKey)
{
    VxPortAttachment *a = FindLive(port, clientKey);
    if (!a)
        return;
    // Marked dead first, so that the attach function may detach, re-attach or notify freely;
    // the record is freed when no walk is left.
    a->dead = 1;
    ++port->deadCount;
    BeginWalk(port);
    if (port->attachFunction)
        port->attachFunction(port->server, port->data, PORT_DETACH, reinterpret_cast<uintptr_t>(a));
    EndWalk(port);
}

VX_API void PortSetEventMask(VxPort *port, uintptr_t clientKey, uint32_t mask)
{
    if (VxPortAttachment *a = FindLive(port, clientKey))
        a->mask = mask ? mask : 0xFFFFFFFFu;
}

VX_API void PortDisable(VxPort *port, uintptr_t clientKey)
{
    if (VxPortAttachment *a = FindLive(port, clientKey))
        ++a->disableCount;
}

VX_API void PortEnable(VxPort *port, uintptr_t clientKey)
{
    VxPortAttachment *a = FindLive(port, clientKey);
    if (a && a->disableCount > 0)
        --a->disableCount;
}

VX_API void PortNotify(VxPort *port, uintptr_t server, uintptr_t clientKey, int32_t event, uint32_t mask,
                       uintptr_t argument)
{
    if (!port || port->doomed || port->server != server)
        return;
    const uint32_t wanted = mask ? mask : 0xFFFFFFFFu;
    WalkAttachments(port, [&](VxPortAttachment *a) {
        if ((clientKey && a->clientKey != clientKey) || a->disableCount || !(a->mask & wanted))
            return;
        a->callback(a->clientKey, port->data, event, argument);
    });
}

VX_API int GlobalPortAttach(const char *name, uintptr_t clientKey, uint32_t mask, PortCallback *callback)
{
    return AttachNamed(g_global, name, clientKey, mask, callback, [](VxPort *) {});
}

VX_API void GlobalPortDetach(const char *name, uintptr_t clientKey)
{
    DetachNamed(g_global, name, clientKey, [](VxPort *port) { return !port->server && !HasLive(port); });
}

VX_API VxPort *GlobalPortAcquire(const char *name, uintptr_t data, uintptr_t server, PortAttachFunc *attachFunction)
{
    if (!name)
        return nullptr;
    CKPT_BEGIN_OR_RETURN(nullptr);
    VxPort *port = FindOrCreateNamed(g_global, name);
    CkptEnd();
    port->data = data;
    port->server = server;
    port->attachFunction = attachFunction;
    if (attachFunction) {
        WalkAttachments(port, [&](VxPortAttachment *a) {
            attachFunction(server, data, PORT_ATTACH, reinterpret_cast<uintptr_t>(a));
        });
    }
    return port;
}

VX_API int PublicPortAttach(const char *name, uintptr_t clientKey, uint32_t mask, PortCallback *callback)
{
    return AttachNamed(g_public, name, clientKey, mask, callback, [](VxPort *port) {
        if (!port->server)
            port->server = PublicIdentity();
    });
}

VX_API void PublicPortDetach(const char *name, uintptr_t clientKey)
{
    DetachNamed(g_public, name, clientKey, [](VxPort *port) { return !HasLive(port); });
}

VX_API void PublicPortNotify(const char *name, int32_t event, uint32_t mask, uintptr_t argument)
{
    if (VxPort *port = FindNamed(g_public, name))
        PortNotify(port, PublicIdentity(), 0, event, mask, argument);
}

}  // extern "C"
