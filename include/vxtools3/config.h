/* vxtools3 — configuration store and text-parsing helpers. */
#ifndef VXTOOLS3_CONFIG_H
#define VXTOOLS3_CONFIG_H

#include "common.h"

VX_BEGIN_DECLS

/* Returns the configuration file name for (dir, base) in a buffer shared by all calls (valid
 * until the next call). A NULL or empty dir means system path 5 (FileSystemPath). When the
 * directory is an existing directory, or ends in '/', the name is dir/BASE.CFG with `base`
 * upper-cased (ASCII letters); any other dir names the file itself and is returned as it is.
 * `description` is not used. Returns NULL when a base name is needed but NULL or empty, or
 * when the name would exceed 4095 bytes. */
VX_API const char *ConfigGenerateName(const char *dir, const char *base, const char *description);

VX_END_DECLS

#endif
