/* vxtools3 — debug output and alerts.
 *
 * The debug channel carries the library's diagnostics as printf-style lines ending in "\n".
 * It writes to standard error until DBfile names a file, and only while debug mode is on
 * (DBenable). The library never writes to standard output.
 *
 * Alerts are messages meant for a person (the fatal-error report of panic, balance reports
 * of CkptRebalance). The application installs the function that shows them; the default one
 * writes them to standard error. */
#ifndef VXTOOLS3_DEBUG_H
#define VXTOOLS3_DEBUG_H

#include <stdarg.h>
#include "common.h"

VX_BEGIN_DECLS

/* Sets debug mode (0 off, non-zero on); returns the previous mode. Off at load. */
VX_API int DBenable(int mode);
/* Returns the debug mode: non-zero while debug output is on. */
VX_API int DBmode(void);
/* Sends debug output to the file `path` (created or truncated); NULL returns it to standard
 * error. Returns 1, or 0 when the file cannot be opened (the destination is then unchanged). */
VX_API int DBfile(const char *path);
/* Returns the path given to DBfile, or NULL while debug output goes to standard error. */
VX_API const char *DBfilePath(void);
/* Writes a formatted message to the debug output while debug mode is on; returns the number
 * of bytes written (0 while debug mode is off). Safe to call from any thread. */
VX_API int DBprintf(const char *format, ...) VX_PRINTF(1, 2);
/* DBprintf with a va_list. */
VX_API int DBvprintf(const char *format, va_list args);

/* Alert severities: an alert reaches the alert function when its level is at least the one
 * set with AlertLevelSet. */
enum { ALERT_INFO = 0, ALERT_WARNING = 1, ALERT_ERROR = 2, ALERT_FATAL = 3 };

/* Shows a message to a person: a title, a one-line headline and a detail text. */
typedef void AlertFunc(const char *title, const char *headline, const char *detail);

/* Installs the function that shows alerts (NULL restores the default, which writes to
 * standard error); returns the previous one. */
VX_API AlertFunc *AlertSetFunction(AlertFunc *function);
/* Sets the lowest level that is shown (default ALERT_INFO: all); returns the previous one. */
VX_API int AlertLevelSet(int level);
/* Shows an alert of the given level through the installed function. */
VX_API void Alert(int level, const char *title, const char *headline, const char *detail);

VX_END_DECLS

#endif
