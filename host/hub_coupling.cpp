// Sharing the plug-in database with the other running applications through the asset hub. The
// database is one "Plugins" asset: module servers change only while this application holds
// it, and a changed catalogue reaches the others as a new file that the hub puts in place
// with one rename, after which each of them reads it again.
#include <vxtools3/ckpt.h>
#include <vxtools3/debug.h>
#include <vxtools3/host.h>
#include <vxtools3/hub.h>

#include "host/host_internal.h"

#include <limits.h>
#include <stdlib.h>
#include <unistd.h>

#include <cstdio>
#include <cstring>

namespace vx::host {
namespace {

constexpr char kAssetKind[] = "Plugins";

// Why the last change was refused. Each reason is said once on the debug output, and said
// again only after a change was allowed in between.
enum class Refusal : uint8_t { None, Frozen, HeldElsewhere, HubGone };
Refusal g_said = Refusal::None;

bool Refuse(Refusal why)
{
    static const char *const kTexts[] = {
        "",
        "plug-in database is locked against changes by this application\n",
        "plug-in database is held by another application: module servers stay as they are\n",
        "plug-in database: the asset hub is gone: module servers stay as they are until it is back\n",
    };
    if (why != g_said)
        DBprintf("%s", kTexts[static_cast<int>(why)]);
    g_said = why;
    return false;
}

// The hub's temporary name for the asset, or NULL. Memory running out is caught here: a save
// runs inside the application's HubDispatch, which must not be unwound.
const char *TempName(HubAsset *asset)
{
    if (CkptBegin()) {
        CkptLatchCode();
        return nullptr;
    }
    const char *temp = HubAssetTempName(asset);
    CkptEnd();
    return temp;
}

void SaveFailed() { DBprintf("plug-in database could not be saved through the asset hub\n"); }

// Writes the catalogue to the hub's temporary name and has the hub put it in place (the
// other applications then get event 2); the asset is free again afterwards. `mayLock` takes
// the asset first when it is not held; a hub that is shutting down grants no locks but still
// takes the file of a holder. When any step fails the temporary file is removed and the
// debug output says so.
void SaveToHub(bool mayLock)
{
    HubAsset *asset = g_host.hubAsset;
    if (mayLock && HubAssetState(asset) != HUB_HELD && !HubAssetLock(asset, HUB_HELD))
        return SaveFailed();
    const char *temp = TempName(asset);
    if (!temp)
        return SaveFailed();
    if (!WriteDatabaseFile(temp) || !HubAssetNewTemp(asset)) {
        unlink(temp);
        return SaveFailed();
    }
    HubAssetUnlock(asset);
    g_host.savedToHub = true;
}

// Reads the file another application put in place; a reload that runs out of memory keeps the
// catalogue as it was.
void Reload(const char *file)
{
    if (CkptBegin()) {
        CkptLatchCode();
        return;
    }
    ReadDatabaseFile(file);
    CkptEnd();
}

void OnAssetChange(HubAsset *, int32_t event, const char *file, void *)
{
    if (event == HUB_EVENT_REPLACED) {
        Reload(file);
    } else if ((event == HUB_EVENT_WANTED || event == HUB_EVENT_SHUTDOWN) && !g_host.savedToHub) {
        SaveToHub(event == HUB_EVENT_WANTED);
    }
}

// The database file's name with its folder made absolute, for the hub and the other
// applications have working folders of their own. False when it does not fit.
bool AbsoluteName(const char *name, char *out, size_t size)
{
    char folder[PATH_MAX], resolved[PATH_MAX];
    if (!FolderOf(name, folder, sizeof folder) || !realpath(folder, resolved))
        return false;
    const char *slash = std::strrchr(name, '/');
    const char *base = slash ? slash + 1 : name;
    return std::snprintf(out, size, "%s/%s", std::strcmp(resolved, "/") ? resolved : "", base) < static_cast<int>(size);
}

}  // namespace

bool HubAllowsChange()
{
    HubAsset *asset = g_host.hubAsset;
    const int32_t state = HubAssetState(asset);
    if (state == HUB_REFUSE)
        return Refuse(Refusal::Frozen);
    if (state != HUB_HELD) {
        if (!HubAssetLock(asset, HUB_HELD))
            return Refuse(HubFileDescriptor() < 0 ? Refusal::HubGone : Refusal::HeldElsewhere);
        g_host.savedToHub = false;
        g_host.database = DatabaseState::Changed;
    }
    g_said = Refusal::None;
    return true;
}

}  // namespace vx::host

using namespace vx::host;

extern "C" {

VX_API int HostAttachHub(void)
{
    if (!HostRunning() || g_host.database == DatabaseState::Catalogue)
        return 0;
    if (g_host.hubAsset)
        return 1;
    const char *name = DatabaseName();
    char file[PATH_MAX];
    if (!name || !AbsoluteName(name, file, sizeof file))
        return 0;
    CKPT_BEGIN_OR_RETURN(0);
    HubAsset *asset = HubAssetAdd(kAssetKind, file, OnAssetChange, nullptr);
    CkptEnd();
    if (!asset)
        return 0;
    g_host.hubAsset = asset;
    g_host.savedToHub = true;  // nothing changed yet: the file holds the catalogue
    g_said = Refusal::None;
    return 1;
}

VX_API void HostDetachHub(void)
{
    HubAsset *asset = g_host.hubAsset;
    if (!asset)
        return;
    if (!g_host.savedToHub)
        SaveToHub(true);
    g_host.hubAsset = nullptr;
    HubAssetRemove(asset);
    // The last application to leave writes the file. With the hub gone nobody can tell, so
    // changes the hub never received are written rather than lost.
    const int32_t others = HubAssetCount(kAssetKind);
    const bool last = others == 0 || (others < 0 && !g_host.savedToHub);
    if (g_host.database == DatabaseState::Changed && last && !WriteDatabase())
        return;  // not marked written: the shutdown tries again
    g_host.database = DatabaseState::Saved;
}

VX_API HubAsset *HostHubAsset(void) { return g_host.hubAsset; }

}  // extern "C"
