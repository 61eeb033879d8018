/* The C side of vxtool: the demo sections, written in C against the library's C interface as a
 * plug-in would use it, and the pieces of the commands they share. */
#ifndef VXTOOL_C_H
#define VXTOOL_C_H

#include <vxtools3/envelope.h>
#include <vxtools3/image.h>

#include <stddef.h>
#include <stdio.h>

#ifdef __cplusplus
extern "C" {
#endif

/* Demo sections. Each prints what it shows to `out`, writes any files into the existing
 * directory `dir`, and returns 1 when every check held. */
int vx_demo_core(FILE *out, const char *dir);
int vx_demo_containers(FILE *out, const char *dir);
int vx_demo_ports(FILE *out, const char *dir);
int vx_demo_undo(FILE *out, const char *dir);
int vx_demo_image(FILE *out, const char *dir);
int vx_demo_threads(FILE *out, const char *dir);
int vx_demo_plugins(FILE *out, const char *dir);
int vx_demo_env(FILE *out, const char *dir);
int vx_demo_io(FILE *out, const char *dir);
int vx_demo_config(FILE *out, const char *dir);

/* Prints the chunk tree of the IFF data at `data` as `vxtool iff dump` does; 1 when it is a
 * well-formed FORM, else 0 after a line saying what is wrong and where. */
int vx_iff_dump(FILE *out, const void *data, size_t size);

/* Draws `count` envelopes into the SVG picture `path` as `vxtool env plot` does: a panel each,
 * over the key range and one more cycle either side, keys marked. 1 when written, else 0. */
int vx_env_plot(const char *path, VxEnvelope *const *envs, int count);

/* Writes `image` as an 8-bit PNG file (see vxtool::PngWrite); 1 when written, else 0 after a
 * message on standard error. */
int vx_png_write(const char *path, VxImage *image);

#ifdef __cplusplus
}
#endif

#endif
