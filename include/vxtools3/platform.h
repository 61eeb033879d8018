/* vxtools3 — platform services: fatal errors. */
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

VX_END_DECLS

#endif
