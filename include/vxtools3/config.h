/* vxtools3 — configuration store and text-parsing helpers.
 *
 * The store keeps an application's named settings as text entries and persists them in a
 * plain text file of one entry per line: the value name, one blank, the entry's fields. A
 * value is defined with a type string, one letter per field:
 *   'f'  a double, written with "%.7g" (C locale); a missing field reads as 0.0
 *   'i'  a 32-bit signed integer, written with "%d"
 *   's'  a word, quoted when needed (see QuoteWord); read with PullQuoteWord
 *   't'  bare text, written as it is and read up to the next white space (PullNonWhite)
 * any other letter is an empty field that takes no argument. Setters take the fields as
 * variadic arguments in type-string order (double, int, const char *; NULL reads as ""),
 * getters take pointers (double *, int32_t *, char * to CONFIG_TEXT_SIZE bytes).
 *
 * The last field of a type string, when it is an 's', is written as it is, blanks included,
 * and read back as the rest of the entry; it is quoted only when it could not be read back
 * that way (empty, beginning with white space or '"', or holding control characters).
 *
 * Quoting rules (QuoteWord / PullQuoteWord): a word that is empty or holds white space, '"',
 * '\\' or control characters (bytes below 0x20 and 0x7f) is written between double quotes
 * with the escapes \" \\ \n \t \r and \xHH (two hex digits) for other control characters;
 * every other word, and every byte from 0x80 up, is written as it is. Reading inverts this
 * exactly; an unquoted word is read verbatim up to white space. White space is blank, tab,
 * newline, vertical tab, form feed and carriage return.
 *
 * Files: lines are read up to the newline and cut at 1023 characters (the rest of a longer
 * line is dropped); a NUL byte ends a line's text, a carriage return before the newline is
 * dropped, leading blanks and tabs are skipped, and a line with a name but no value text is
 * ignored. Only values with a type string and a nonzero export flag are written.
 *
 * The store exists while at least one client is registered (ConfigAddClient or
 * ConfigStartup): every other call does nothing and returns 0 / NULL without one. Names are
 * compared byte for byte. Wherever a names array (NULL-terminated) is taken, aliases in it
 * are expanded recursively. Calls that allocate return 0 / NULL when memory runs out (raised
 * through an open checkpoint block, see ckpt.h) and then leave the store as it was. The store
 * belongs to the main thread. Callbacks and sync functions must not raise a checkpoint
 * failure out of themselves; a client removed from inside one is freed when it returns. */
#ifndef VXTOOLS3_CONFIG_H
#define VXTOOLS3_CONFIG_H

#include "common.h"

VX_BEGIN_DECLS

/* Size of the buffers that getters fill for 's' and 't' fields (words up to 1023 bytes). */
#define CONFIG_TEXT_SIZE 1024

/* Event on the global port "application-events" that makes a started store write its
 * default file. */
#define CONFIG_EVENT_WRITE 5

typedef struct VxConfigClient VxConfigClient;

/* A client's synchronisation: direction 1 asks it to store its state in the configuration,
 * direction 0 to read its state back. */
typedef void ConfigSyncFunc(uintptr_t data, int32_t direction);
/* A value's change callback: callback(data, valueName). */
typedef void ConfigChangeFunc(uintptr_t data, const char *name);

/* ---- Clients and start-up --------------------------------------------------------------- */

/* Registers a client (syncFunc may be NULL); the first one creates the store. Returns the
 * handle, or NULL when memory ran out. */
VX_API VxConfigClient *ConfigAddClient(ConfigSyncFunc *syncFunc, uintptr_t data);
/* Gives the client the values it owns (a copy of `names`; NULL forgets them), which
 * ConfigSynchronize uses to call owners first. Returns 1, or 0 for an unknown client or when
 * memory ran out (the old names stay). */
VX_API int ConfigSetClientNames(VxConfigClient *client, const char *const *names);
/* Removes a client (unknown handles are ignored). Removing the last one writes the default
 * file, unless a checkpoint recovery is under way, and frees the whole store. */
VX_API void ConfigRemClient(VxConfigClient *client);
/* Adds the application's client and attaches to the global port "application-events" (event
 * CONFIG_EVENT_WRITE writes the default file). When `base` is given and `readFlag` is nonzero,
 * the file ConfigGenerateName(dir, base) becomes the default file and is imported (a missing
 * file is not an error). A non-empty dir becomes system path 5: dir itself when it is a
 * directory, else its directory part. Returns 1, or 0 when already started, when the file name
 * cannot be formed, or when memory ran out (nothing then changes). */
VX_API int ConfigStartup(const char *dir, const char *base, int32_t readFlag);
/* Detaches from the port and removes the application's client (see ConfigRemClient). */
VX_API void ConfigShutdown(void);

/* ---- Values and aliases ----------------------------------------------------------------- */

/* Defines value `name` with `typeString` (export flag 1). A value only met in a file or
 * through ConfigTrackValues keeps its entries and receives the type. Returns 1, or 0 when
 * either argument is NULL or empty, the name is an alias, the value already has a type
 * string, or memory ran out. */
VX_API int ConfigDefineValue(const char *name, const char *typeString);
/* Defines `name` as an alias for a copy of `names` (values or other aliases). Returns 1, or 0
 * when the name is already an alias or a value, an argument is NULL, or memory ran out. */
VX_API int ConfigSetAlias(const char *name, const char *const *names);
/* Sets the change callback, its data and the export flag of every named value, defining
 * unknown names without a type. Returns 1, or 0 when memory ran out (values defined by this
 * call are then removed again). */
VX_API int ConfigTrackValues(const char *const *names, ConfigChangeFunc *callback, uintptr_t data,
                             int32_t exportFlag);
/* Walks the values in definition order: returns the name of the value after `name`, the
 * first value's name for NULL, and NULL after the last value or for an unknown name. */
VX_API const char *ConfigNextValue(const char *name);

/* ---- Notifications ---------------------------------------------------------------------- */

/* Holds change callbacks back; holds nest. The first hold forgets earlier pending changes. */
VX_API void ConfigHold(void);
/* Undoes one hold; when the last is released, calls the callback of every value changed
 * meanwhile, in definition order. Does nothing when nothing is held. */
VX_API void ConfigRelease(void);

/* ---- Setting and reading entries ---------------------------------------------------------- */

/* Drops entries 1 .. n-1 and formats the arguments into entry 0 (created when absent), then
 * notifies. Returns 1, or 0 for an unknown or untyped value or when memory ran out. */
VX_API int ConfigSet(const char *name, ...);
/* Formats the arguments into entry `index`, appending an entry when there is none there.
 * Returns 1, or 0 for a negative index, an unknown or untyped value, or memory exhaustion. */
VX_API int ConfigISet(const char *name, int32_t index, ...);
/* Parses entry 0 / entry `index` into the pointers. Returns 1 when the entry exists and every
 * field parsed, else 0 (fields before the failing one may have been stored). */
VX_API int ConfigGet(const char *name, ...);
VX_API int ConfigIGet(const char *name, int32_t index, ...);
/* Returns the number of entries of the value (0 when unknown). */
VX_API int32_t ConfigNum(const char *name);

/* Keyed entries: the key is the first field, passed as the first variadic argument in the
 * type of the first letter. A double key matches when it equals the stored field after both
 * went through "%.7g"; word keys match byte for byte; the first matching entry wins.
 * ConfigXSet replaces the matching entry (or appends one) and notifies: 1, or 0 as ConfigSet.
 * ConfigXGet(name, key, pointers...) parses the fields after the key: 1, or 0 when no entry
 * matches or a field fails. ConfigXClear(name, key) removes the matching entry: 1 when one was
 * removed, else 0. */
VX_API int ConfigXSet(const char *name, ...);
VX_API int ConfigXGet(const char *name, ...);
VX_API int ConfigXClear(const char *name, ...);

/* Removes entry `index` and notifies; returns 1 when it existed, else 0. */
VX_API int ConfigIClear(const char *name, int32_t index);
/* Removes every entry of the value and notifies; returns 1 for a known value, else 0. */
VX_API int ConfigClear(const char *name);
/* Removes every entry of every value, then notifies every value. */
VX_API void ConfigClearAll(void);

/* Returns entry `index` as stored (valid until the entry changes), or NULL. */
VX_API const char *ConfigRawGet(const char *name, int32_t index);
/* Stores `text` as it is in entry `index` (appending an entry when there is none there, and
 * defining an unknown value without a type); NULL text removes the entry. Sends no
 * notification. Returns 1, or 0 for a negative index, an alias, a missing entry to remove, or
 * memory exhaustion. */
VX_API int ConfigRawSet(const char *name, int32_t index, const char *text);

/* ---- Synchronisation and files ---------------------------------------------------------- */

/* Calls the clients' sync functions: those owning a named value first (once each, in the
 * order they were added), then, when a named value is owned by none of them, every other
 * client with a function. NULL names means all values. Direction 1 holds notifications for
 * the duration. */
VX_API void ConfigSynchronize(int32_t direction, const char *const *names);
/* Synchronises with direction 1 and writes one line "name entry\n" for every entry of the
 * named (NULL: all) values that have a type and a nonzero export flag, in the order the
 * entries were made. Returns 1, or 0 when the file cannot be opened or written (the store is
 * then unchanged) or memory ran out. */
VX_API int ConfigExport(const char *file, const char *const *names);
/* Reads the file line by line under a hold, between a synchronisation with direction 1 and
 * one with direction 0. A named (NULL: any) value found in the file loses its old entries at
 * its first line; every line appends an entry; an unknown name is defined without a type;
 * lines naming an alias are ignored. Returns 1, or 0 when the file cannot be opened or read, or
 * memory ran out (the store is then unchanged apart from what the clients' sync did). */
VX_API int ConfigImport(const char *file, const char *const *names);
/* Drops every entry and imports the default file again. Returns 1, or 0 when there is no
 * default file or it cannot be opened (the store is then unchanged) or memory ran out. */
VX_API int ConfigRevert(void);
/* Exports all values to the default file; returns 1, or 0 when there is none or it failed. */
VX_API int ConfigDefaultWrite(void);

/* Returns the configuration file name for (dir, base) in a buffer shared by all calls (valid
 * until the next call). A NULL or empty dir means system path 5 (FileSystemPath). When the
 * directory is an existing directory, or ends in '/', the name is dir/BASE.CFG with `base`
 * upper-cased (ASCII letters); any other dir names the file itself and is returned as it is.
 * `description` is not used. Returns NULL when a base name is needed but NULL or empty, or
 * when the name would exceed 4095 bytes. */
VX_API const char *ConfigGenerateName(const char *dir, const char *base, const char *description);

/* ---- Text-parsing helpers --------------------------------------------------------------- */

/* Writes `word` in its field form (see the quoting rules above) into `out`, at most size-1
 * bytes and a terminating NUL when size > 0 (out may be NULL when size is 0). Returns the
 * length of the full field form, as snprintf does; a result >= size means it was cut. */
VX_API int QuoteWord(char *out, int size, const char *word);
/* Each Pull function skips white space at *text, reads one field, stores it and advances
 * *text past it. It returns 1, or 0 with nothing stored and *text unchanged when no field is
 * left or the field is malformed. A number must end at white space or the end of the text. */
/* Reads a decimal number in the C locale ("inf" and "nan" included; leading '+' allowed). */
VX_API int PullDouble(const char **text, double *value);
/* Reads a decimal integer within the 32-bit signed range. */
VX_API int PullInteger(const char **text, int32_t *value);
/* Reads a quoted or plain word into `word` (`size` bytes); 0 when it does not fit. */
VX_API int PullQuoteWord(const char **text, char *word, int size);
/* Reads the text up to the next white space into `word` (`size` bytes); 0 when it does not
 * fit. */
VX_API int PullNonWhite(const char **text, char *word, int size);

VX_END_DECLS

#endif
