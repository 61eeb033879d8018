/* vxtools3 — platform services: fatal errors and system paths. */
#ifndef VXTOOLS3_PLATFORM_H
#define VXTOOLS3_PLATFORM_H

#include "common.h"

VX_BEGIN_DECLS

/* Ends the process after a fatal fault. With debug mode on it first shows the alert
 * "Anomalous Exit!" carrying `message`; it then writes "PANIC EXIT -- <message>\n" to the
 * debug output and to standard error, calls Crash() and exits with status 10. */
#if defined(__GNUC__) || defined(__clang__)
__attribute__((noreturn))
#endif
VX_API void panic(const char *message);
/* Does nothing: a place for a debugger breakpoint, called by panic just before the exit. */
VX_API void Crash(void);

/* ---- System paths ----------------------------------------------------------------------
 * A table of SYSTEM_PATH_COUNT numbered directories. Numbers in use:
 *   0  SYSTEM_PATH_HOST    the host directory; defaults to the directory of the running
 *                          program (read through /proc/self/exe, "." when unreadable).
 *   5  SYSTEM_PATH_CONFIG  the configuration directory; ConfigStartup sets it and
 *                          ConfigGenerateName reads it when given no directory.
 *   7  SYSTEM_PATH_DATABASE the plug-in database directory; HostSetDatabase sets it.
 * Every other number is free for applications. A path that was never set (or was cleared)
 * reads as path 0. Paths are stored by copy, up to 4095 bytes; meant for the main thread. */
enum { SYSTEM_PATH_HOST = 0, SYSTEM_PATH_CONFIG = 5, SYSTEM_PATH_DATABASE = 7, SYSTEM_PATH_COUNT = 16 };

/* Returns path `number` (valid until that path is set again), or NULL when `number` is not
 * within 0 .. SYSTEM_PATH_COUNT-1. */
VX_API const char *FileSystemPath(int number);
/* Sets path `number` to a copy of `path`; NULL or "" returns it to its default. Returns 1, or
 * 0 (nothing changed) for a number out of range or a path of 4096 bytes or more. */
VX_API int FileSetSystemPath(int number, const char *path);

/* ---- Dynamic modules -------------------------------------------------------------------
 * Thin wrappers over the system's dynamic loader, used by the plug-in host's standard loader.
 * Modules are loaded with every symbol resolved at once (a module with an unresolved symbol
 * fails to load). */

/* Returns 1 when the file starts with the ELF magic bytes, 0 when it does not (or is shorter),
 * -1 when it cannot be opened. */
VX_API int DynLoadCheckMagic(const char *path);
/* Loads the shared object at `path`; returns its handle, or NULL (see DynLoadError). */
VX_API void *DynLoadOpen(const char *path);
/* Returns the address of the symbol `name` in the module, or NULL when it has none. */
VX_API void *DynLoadSymbol(void *handle, const char *name);
/* Unloads a module loaded by DynLoadOpen; NULL is ignored. */
VX_API void DynLoadClose(void *handle);
/* Returns the loader's description of the last failure ("" when there is none); valid until
 * the next call of these functions. */
VX_API const char *DynLoadError(void);

/* ---- Language --------------------------------------------------------------------------
 * The current language identifier picks among translated texts (the plug-in host's info
 * tags). Low 10 bits: the base language; 0 means none set. Language-aware comparison is plain
 * byte order. */

/* Returns the current language identifier (0 until set). */
VX_API int32_t LocusLanguage(void);
/* Sets the current language identifier. */
VX_API void LocusSetLanguage(int32_t id);

VX_END_DECLS

#endif
