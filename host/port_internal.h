// Read access to ports for their tests.
#pragma once

#include <vxtools3/ports.h>

namespace vx::port {

// Attachment records of the port, dead ones included.
int32_t RecordCount(const VxPort *port);
// Walks of the port's attachments in progress (notifications and the like).
int32_t WalkDepth(const VxPort *port);
// The server identity of the port.
uintptr_t PortServer(const VxPort *port);
// The named port, or NULL; never creates one.
VxPort *FindGlobal(const char *name);
VxPort *FindPublic(const char *name);
// Ports on the public (true) or the global (false) list.
int32_t NamedCount(bool publicList);

}  // namespace vx::port
