/* The pieces of vxtool's commands that the demo shares, callable from C. */
#ifndef VXTOOL_C_H
#define VXTOOL_C_H

#include <vxtools3/envelope.h>

#include <stddef.h>
#include <stdio.h>

#ifdef __cplusplus
extern "C" {
#endif

/* Draws `count` envelopes into the SVG picture `path` as `vxtool env plot` does: a panel each,
 * over the key range and one more cycle either side, keys marked. 1 when written, else 0. */
int vx_env_plot(const char *path, VxEnvelope *const *envs, int count);

#ifdef __cplusplus
}
#endif

#endif
