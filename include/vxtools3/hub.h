/* vxtools3 — the asset hub client: applications of the suite running side by side share
 * files through the hub daemon vxhubd (one per user, on a Unix-domain socket in a directory
 * only that user can enter).
 *
 * An application connects once, adds an asset (a kind and a file) for each shared file with a
 * change function, and locks an asset before it changes the file. A lock is granted or refused
 * at once; nothing here waits on another application. Changed files are written to a temporary
 * name the hub hands out and then put in place by the hub with one atomic rename.
 *
 * The library starts no thread: events arrive on the connection's file descriptor, which the
 * application watches in its own event loop, and HubDispatch delivers them to the change
 * functions on the caller's thread. Every call answers within a few seconds: when the hub is
 * gone, calls fail (0, NULL or a negative value) and the next call tries to connect again;
 * after a reconnection the assets are added again, unlocked. Meant for one thread.
 *
 * Functions that allocate return their failure value when memory runs out; inside an open
 * checkpoint block the failure is raised to that block instead. */
#ifndef VXTOOLS3_HUB_H
#define VXTOOLS3_HUB_H

#include <stddef.h>

#include "common.h"

VX_BEGIN_DECLS

typedef struct HubAsset HubAsset;

/* Asset events, delivered as change(asset, event, file, data):
 * 2: another application replaced the file (`file` names it): reload it;
 * 7: another application asks for the asset: save what you have and unlock;
 * 8: the hub is shutting down: save what you have. */
enum { HUB_EVENT_REPLACED = 2, HUB_EVENT_WANTED = 7, HUB_EVENT_SHUTDOWN = 8 };
typedef void HubChangeFunc(HubAsset *asset, int32_t event, const char *file, void *data);

/* Lock states: 0 free; 1 refuse: nobody may change the file; 2 held: this application may. */
enum { HUB_FREE = 0, HUB_REFUSE = 1, HUB_HELD = 2 };

/* HubConnect flag: start vxhubd when none answers. */
enum { HUB_START = 1 };

/* Connects to the hub of `directory` (NULL: $VXHUB_DIR, else $XDG_RUNTIME_DIR/vxtools3, else
 * /tmp/vxhub-<uid>), starting it first with HUB_START. Returns 1, or 0 when no hub answers or
 * memory ran out. Connecting again first disconnects. */
VX_API int32_t HubConnect(const char *directory, int32_t flags);
/* Closes the connection and removes every asset (the hub releases their locks). */
VX_API void HubDisconnect(void);
/* Returns the connection's file descriptor to watch for reading, or -1 when not connected. */
VX_API int HubFileDescriptor(void);
/* Delivers the events that have arrived (never waits for more): returns how many, or -1 when
 * the hub is gone (the next call tries to reconnect). */
VX_API int32_t HubDispatch(void);

/* Adds an asset of `kind` (such as "Plugins") for `file` with its change function. Returns
 * the asset, or NULL when the hub is gone or memory ran out. */
VX_API HubAsset *HubAssetAdd(const char *kind, const char *file, HubChangeFunc *change, void *data);
/* Removes the asset and frees it (its lock is released): 1, or 0 when the hub was gone (the
 * asset is freed all the same). */
VX_API int32_t HubAssetRemove(HubAsset *asset);
/* Sets the asset's lock state (HUB_FREE, HUB_REFUSE or HUB_HELD): 1 when granted; 0 when
 * another application's lock conflicts (the holders get event 7) or the hub is gone. */
VX_API int32_t HubAssetLock(HubAsset *asset, int32_t state);
/* Sets the lock state back to free: 1, or 0 when the hub is gone. */
VX_API int32_t HubAssetUnlock(HubAsset *asset);
/* Returns the asset's lock state as last granted (0, 1 or 2); 0 once the hub is found gone
 * (this reads what the connection holds, without delivering events). */
VX_API int32_t HubAssetState(const HubAsset *asset);
/* Returns a temporary file name in the asset's directory to write a new version of the file
 * to (owned by the asset, valid until the next call for it), or NULL when the hub is gone or
 * memory ran out. */
VX_API const char *HubAssetTempName(HubAsset *asset);
/* The temporary file is complete: the hub renames it over the asset's file (atomic) and sends
 * event 2 to every other application with an asset for the file. Needs the asset held
 * (state 2). Returns 1, or 0 when not held, the rename failed or the hub is gone. */
VX_API int32_t HubAssetNewTemp(HubAsset *asset);
/* Returns how many applications (this one included) hold an asset of `kind`, or -1 when the
 * hub is gone. */
VX_API int32_t HubAssetCount(const char *kind);

/* Starts vxhubd for `directory` (NULL: as HubConnect) in a session of its own and copies the
 * line in which it says where it listens to `line`. Returns 1, or 0 when it could not start
 * (the reason is in `line`). */
VX_API int32_t HubStartDaemon(const char *directory, char *line, size_t size);
/* Copies the hub's list of connections and assets (one per line) to `text`: 1, or 0 when the
 * hub is gone. */
VX_API int32_t HubStatus(char *text, size_t size);
/* Asks the hub to send event 8 to every holder and exit: 1, or 0 when the hub is gone. */
VX_API int32_t HubStopDaemon(void);

VX_END_DECLS

#endif
