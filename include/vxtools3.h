/* vxtools3 — the toolkit library of the Vexmark 3D suite. Includes every public header. */
#ifndef VXTOOLS3_H
#define VXTOOLS3_H

#include "vxtools3/common.h"
#include "vxtools3/memory.h"
#include "vxtools3/debug.h"
#include "vxtools3/ckpt.h"
#include "vxtools3/lists.h"
#include "vxtools3/containers.h"
#include "vxtools3/actions.h"
#include "vxtools3/platform.h"
#include "vxtools3/streams.h"
#include "vxtools3/iff.h"
#include "vxtools3/states.h"
#include "vxtools3/envelope.h"
#include "vxtools3/image.h"
#include "vxtools3/ports.h"
#include "vxtools3/host.h"
#include "vxtools3/imagefile.h"
#include "vxtools3/undo.h"
#include "vxtools3/config.h"
#include "vxtools3/threads.h"
#include "vxtools3/hub.h"

#endif
