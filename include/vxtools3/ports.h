/* vxtools3 — ports: publish/subscribe points for change notifications.
 *
 * The owner of some state holds a port and calls PortNotify when the state changes; clients
 * attach to the port with a callback and an event mask. A notification is delivered only
 * when the notifier names the port's server (its owner's identity), so a stray PortNotify
 * from a non-owner delivers nothing.
 *
 * Global ports are found by name in a process-wide list ("plugin-database",
 * "application-events"), so owner and clients need not know each other; public ports are a
 * second, separate named list. Ports are used from the main thread only.
 *
 * Re-entrancy: callbacks may attach, detach, disable, enable, re-notify the same port and
 * even destroy it. A client detached during a notification gets nothing more from it; its
 * record is freed when the outermost PortNotify of the port returns. A client attached during
 * a notification receives the next notification, not the one in progress. A port destroyed
 * during its own notification stops delivering at once and is freed when the outermost
 * PortNotify returns. Callbacks and attach functions must not raise a checkpoint failure out
 * of themselves: the port would stay marked as notifying.
 *
 * Named ports: names are compared byte for byte; a NULL name finds and makes nothing (the
 * attach calls return 0, GlobalPortAcquire returns NULL). The named lists are freed by
 * GlobalListCleanup.
 *
 * Port data, server identities, client keys and notification arguments are pointer-sized
 * words; events and masks are 32-bit. */
#ifndef VXTOOLS3_PORTS_H
#define VXTOOLS3_PORTS_H

#include "common.h"
#include "lists.h"

VX_BEGIN_DECLS

typedef struct VxPort VxPort;

/* A client's callback: callback(clientKey, portData, event, argument). */
typedef void PortCallback(uintptr_t clientKey, uintptr_t portData, int32_t event, uintptr_t argument);

/* The owner's attach function: attachFunction(server, data, mode, x). Mode PORT_ATTACH with x
 * the new client's key when PortAttach adds a client; mode PORT_ATTACH with x the attachment
 * record (a VxPortAttachment *) for each earlier client when GlobalPortAcquire makes a late
 * owner; mode PORT_DETACH with x the attachment record when a client detaches. */
typedef void PortAttachFunc(uintptr_t server, uintptr_t data, int32_t mode, uintptr_t x);

enum { PORT_ATTACH = 0, PORT_DETACH = 1 };

/* One client's attachment, as handed to attach functions. Read it; never change or free it. */
typedef struct VxPortAttachment {
    VxNode node;
    uintptr_t clientKey;
    PortCallback *callback;
    uint32_t mask;         /* events of these bits are delivered */
    int32_t disableCount;  /* nothing is delivered while non-zero */
    int32_t dead;          /* detached during a notification; freed when it ends */
} VxPortAttachment;

/* Creates an unnamed port; returns it, or NULL when memory ran out (raised through an open
 * checkpoint block). */
VX_API VxPort *PortCreate(uintptr_t data, uintptr_t server, PortAttachFunc *attachFunction);
/* Unlinks a named port from its list and frees it with all its attachments (the attach
 * function is not called). During a notification of the port the free waits until the
 * outermost PortNotify returns. NULL is ignored. */
VX_API void PortDestroy(VxPort *port);
/* Sets the port's server to `server` when `enable` is non-zero, else to 0 (no owner). */
VX_API void PortSetServer(VxPort *port, int enable, uintptr_t server);
/* Attaches a client (mask 0 means all events). Returns 1 for a new attachment (then calls the
 * attach function with PORT_ATTACH and the key); -1 when the key was already attached (also
 * detached during the notification in progress): its callback and mask are replaced and it
 * is re-enabled and revived, without calling the attach function. Returns 0 when memory ran
 * out (raised through an open checkpoint block) or the port is NULL or being destroyed. */
VX_API int PortAttach(VxPort *port, uintptr_t clientKey, uint32_t mask, PortCallback *callback);
/* Detaches a client: calls the attach function with PORT_DETACH and the attachment record,
 * then frees the record (or, during a notification, marks it dead). Unknown keys are ignored. */
VX_API void PortDetach(VxPort *port, uintptr_t clientKey);
/* Sets a client's event mask (0 means all events). Unknown keys are ignored. */
VX_API void PortSetEventMask(VxPort *port, uintptr_t clientKey, uint32_t mask);
/* Silences a client; calls nest, and it hears again after as many PortEnable calls. */
VX_API void PortDisable(VxPort *port, uintptr_t clientKey);
/* Undoes one PortDisable; on a client that is not disabled it does nothing. */
VX_API void PortEnable(VxPort *port, uintptr_t clientKey);
/* Delivers (event, argument) to the clients whose mask shares a bit with `mask` (0: all
 * bits), that are enabled and, when `clientKey` is non-zero, whose key is `clientKey`; in the
 * order they attached. Nothing happens when `port` is NULL or `server` is not its server. */
VX_API void PortNotify(VxPort *port, uintptr_t server, uintptr_t clientKey, int32_t event, uint32_t mask,
                       uintptr_t argument);

/* Finds or creates the global port `name` and attaches the client to it (see PortAttach);
 * returns 1, or 0 when memory ran out (raised through an open checkpoint block). */
VX_API int GlobalPortAttach(const char *name, uintptr_t clientKey, uint32_t mask, PortCallback *callback);
/* Detaches the client from the global port `name`; a port left with no server and no clients
 * is destroyed. An unknown name does nothing. */
VX_API void GlobalPortDetach(const char *name, uintptr_t clientKey);
/* Finds or creates the global port `name` and makes the caller its owner (data, server and
 * attach function). A given attach function is called with PORT_ATTACH for every client that
 * attached before, in order. Returns the port, or NULL when memory ran out (raised through an
 * open checkpoint block). */
VX_API VxPort *GlobalPortAcquire(const char *name, uintptr_t data, uintptr_t server, PortAttachFunc *attachFunction);

/* Finds or creates the public port `name` and attaches the client; a port without a server
 * gets the public list's own identity as server. Returns 1, or 0 when memory ran out (raised
 * through an open checkpoint block). */
VX_API int PublicPortAttach(const char *name, uintptr_t clientKey, uint32_t mask, PortCallback *callback);
/* Detaches the client from the public port `name`; the port is destroyed when no client
 * remains. An unknown name does nothing. */
VX_API void PublicPortDetach(const char *name, uintptr_t clientKey);
/* Notifies the clients of the public port `name` (see PortNotify); an unknown name creates
 * nothing and does nothing. */
VX_API void PublicPortNotify(const char *name, int32_t event, uint32_t mask, uintptr_t argument);

VX_END_DECLS

#endif
