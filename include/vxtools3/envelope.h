/* vxtools3 — animation envelopes: keyframed scalar channels.
 *
 * An envelope is an ordered list of keys (time, value, curve shape, five shape parameters)
 * with a behaviour before the first key and after the last, and a list of modifiers
 * (filters) applied to the curve value. Times are passed in seconds and stored as signed
 * 32-bit ticks of 1/3600 s: tick = floor(t * 3600 + 0.5), clamped to the 32-bit range (a NaN
 * time is tick 0). Every lookup by time compares ticks, so two keys never share a tick.
 *
 * Shapes (the curve of the segment that ends at a key): ENV_SHAPE_TCB (also any code not
 * listed), ENV_SHAPE_HERMITE, ENV_SHAPE_BEZIER, ENV_SHAPE_LINEAR, ENV_SHAPE_STEPPED,
 * ENV_SHAPE_BEZIER2 (2-D Bezier with time/value handles). Parameters p0 ... p4 by shape:
 * TCB: tension, continuity, bias, incoming and outgoing tangent (the tangents are written by
 * evaluation); Hermite and Bezier: p3 incoming, p4 outgoing tangent; 2-D Bezier: p0/p1 the
 * incoming handle's time (seconds, negative) and value offsets, p2/p3 the outgoing handle's.
 *
 * Notifications: an envelope with a port (EnvSetPort) notifies it as PortNotify(port, server,
 * 0, event, mask, argument) with (event, mask) = ENV_NOTIFY_KEY_ADDED and then
 * ENV_NOTIFY_KEY_INSERTED for a new key, ENV_NOTIFY_KEY_CHANGED for a key whose value, time
 * or shape changed, ENV_NOTIFY_KEY_DELETED for a deleted key (the key is still valid during
 * the delivery) and ENV_NOTIFY_ENVELOPE for changes of the envelope itself (argument 0).
 * While the tracking counter is 0 or less (EnvTrackSuspend), an edit sends nothing and
 * decrements the counter instead. Callbacks must not raise a checkpoint failure.
 *
 * Evaluation writes into the envelope (its last value) and into its keys (cached TCB
 * tangents): one envelope must not be evaluated from two threads at once. Allocating
 * operations open a checkpoint block (see ckpt.h): a failure raised inside them unwinds to
 * the caller's block when one is open, otherwise they return their failure value; in both
 * cases the envelope is left as it was. */
#ifndef VXTOOLS3_ENVELOPE_H
#define VXTOOLS3_ENVELOPE_H

#include "common.h"
#include "lists.h"
#include "ports.h"
#include "states.h"

VX_BEGIN_DECLS

typedef struct VxEnvelope VxEnvelope;
typedef struct VxEnvKey VxEnvKey;

/* A channel group: the list its envelopes live on (EnvCreate appends, EnvDestroy unlinks).
 * Make one with EnvGroupInit; it must outlive its envelopes. */
typedef struct VxEnvGroup {
    VxList envelopes;
} VxEnvGroup;

/* Channel types 7, 8 and 9 are the scale channels: empty, they evaluate to 1.0, not 0.0. */
enum { ENV_TYPE_SCALE_FIRST = 7, ENV_TYPE_SCALE_LAST = 9 };

enum {
    ENV_SHAPE_TCB = 0,
    ENV_SHAPE_HERMITE = 1,
    ENV_SHAPE_BEZIER = 2,
    ENV_SHAPE_LINEAR = 3,
    ENV_SHAPE_STEPPED = 4,
    ENV_SHAPE_BEZIER2 = 5
};

enum {
    ENV_BEHAVIOR_RESET = 0,
    ENV_BEHAVIOR_CONSTANT = 1,
    ENV_BEHAVIOR_REPEAT = 2,
    ENV_BEHAVIOR_OSCILLATE = 3,
    ENV_BEHAVIOR_OFFSET = 4,
    ENV_BEHAVIOR_LINEAR = 5
};

/* Attributes of EnvSet and EnvGet. EnvSet accepts PRE, POST (int32_t through the pointer),
 * LAST_VALUE (double) and TOUCH (nothing read). EnvGet returns every attribute as a double:
 * PRE, POST, KEY_COUNT, TYPE, CHANGE_STAMP, TRACKING (the tracking counter), FIRST_TIME and
 * LAST_TIME (seconds of the first and last key, 0.0 without keys), LAST_VALUE and SAVE_INDEX. */
enum {
    ENV_ATTR_PRE = 1,
    ENV_ATTR_POST = 2,
    ENV_ATTR_KEY_COUNT = 3,
    ENV_ATTR_TYPE = 4,
    ENV_ATTR_CHANGE_STAMP = 5,
    ENV_ATTR_TRACKING = 6,
    ENV_ATTR_FIRST_TIME = 7,
    ENV_ATTR_LAST_TIME = 8,
    ENV_ATTR_LAST_VALUE = 9,
    ENV_ATTR_SAVE_INDEX = 10,
    ENV_ATTR_TOUCH = 11
};

/* Notification (event, mask) pairs. */
#define ENV_NOTIFY_KEY_ADDED 1, 2
#define ENV_NOTIFY_KEY_INSERTED 1, 16
#define ENV_NOTIFY_KEY_DELETED 2, 2
#define ENV_NOTIFY_KEY_CHANGED 3, 2
#define ENV_NOTIFY_ENVELOPE 5, 4

/* The global port on which EnvCreate announces each new envelope (event 1, mask 1, argument
 * the envelope). */
#define ENV_GLOBAL_PORT "envelopes"
enum { ENV_EVENT_CREATED = 1 };

/* ---- Modifiers ------------------------------------------------------------------------ */

typedef struct VxEnvFilter VxEnvFilter;
/* Replaces *lastValue with the filtered value of the envelope at `time`. */
typedef void EnvFilterEvaluateFunc(VxEnvFilter *filter, VxEnvelope *env, double time, double *lastValue);
/* Writes the instance's own data; returns 0 or an error code. */
typedef int32_t EnvFilterSaveFunc(VxEnvFilter *filter, VxSaveState *state);
/* Releases the instance (called by EnvDestroy for the filters still attached). */
typedef void EnvFilterDestroyFunc(VxEnvFilter *filter);

/* A modifier instance, made by its creator (a plug-in server through the host, or the
 * application) and attached with EnvAddFilter. `node` belongs to the envelope while attached. */
struct VxEnvFilter {
    VxNode node;
    const char *serverName;          /* saved with the instance; owned by the creator */
    int32_t flags;                   /* ENV_FILTER_STOP ends the walk at this filter */
    EnvFilterEvaluateFunc *evaluate; /* may be NULL: the filter leaves the value alone */
    EnvFilterSaveFunc *save;         /* may be NULL: nothing beyond name and flags is saved */
    EnvFilterDestroyFunc *destroy;   /* may be NULL */
    void *data;                      /* the instance's own data */
};
enum { ENV_FILTER_STOP = 4 };

/* Makes a filter for a "CHAN" block met by EnvLoad: reads the instance's own data from
 * `state` and returns the instance, or NULL to skip the block. */
typedef VxEnvFilter *EnvFilterLoadFunc(const char *serverName, int32_t flags, VxLoadState *state, void *user);

/* ---- Envelope life -------------------------------------------------------------------- */

/* Makes `group` an empty channel group. */
VX_API void EnvGroupInit(VxEnvGroup *group);
/* The global root group, set up on first use. */
VX_API VxEnvGroup *EnvRootGroup(void);
/* A new envelope at the tail of `group` (NULL: the root group) with no keys, constant
 * behaviours and `name` (NULL: the type's default name) cut to 99 characters; announced on
 * ENV_GLOBAL_PORT. NULL when memory runs out. */
VX_API VxEnvelope *EnvCreate(VxEnvGroup *group, uintptr_t clientData, int32_t type, const char *name);
/* Unlinks the envelope, frees its keys, destroys its attached filters and frees it. NULL is
 * ignored. */
VX_API void EnvDestroy(VxEnvelope *env);
/* A new envelope in the same group with the same client data, type, name, behaviours and
 * keys (no port, no filters, save index -1); NULL when memory runs out. */
VX_API VxEnvelope *EnvCopy(VxEnvelope *env);
/* Replaces the keys of `to` by copies of the keys of `from` (times, values, shapes, masks and
 * parameters); behaviours, name and filters of `to` stay. Sends one ENV_NOTIFY_ENVELOPE.
 * Returns 1, or 0 when memory runs out (then `to` is unchanged). */
VX_API int EnvCopyKeys(VxEnvelope *to, const VxEnvelope *from);
VX_API const char *EnvName(const VxEnvelope *env);
VX_API int32_t EnvType(const VxEnvelope *env);
VX_API VxEnvGroup *EnvGetGroup(const VxEnvelope *env);
/* The rate of change of the curve at `t` in value per second: the difference of the curve
 * values one tick after and one tick before t, divided by 2/3600 s. Modifiers are not
 * applied and the last value is left as it was. */
VX_API double EnvSpeed(VxEnvelope *env, double t);
/* Sets the port that notifications go to (NULL: none) and the server they name. */
VX_API void EnvSetPort(VxEnvelope *env, VxPort *port, uintptr_t server);
/* Sets the save index written in front of the saved form (0 or negative writes 0). */
VX_API void EnvSetSaveIndex(VxEnvelope *env, int32_t index);
/* Stores an attribute (see ENV_ATTR_...); returns 1, or 0 for an unknown attribute. Each
 * success increments the change stamp and sends ENV_NOTIFY_ENVELOPE. */
VX_API int EnvSet(VxEnvelope *env, int32_t attribute, const void *value);
/* Reads an attribute (see ENV_ATTR_...); 0.0 for an unknown one. */
VX_API double EnvGet(const VxEnvelope *env, int32_t attribute);
/* Suspends notifications: sets the tracking counter to 0. */
VX_API void EnvTrackSuspend(VxEnvelope *env);
/* Sets the tracking counter back to 1. When edits were suppressed meanwhile (counter below
 * 0) sends one ENV_NOTIFY_ENVELOPE first and returns 1, else returns 0. */
VX_API int EnvTrackResume(VxEnvelope *env);

/* ---- Keys ----------------------------------------------------------------------------- */

/* The key at the tick of `t`, or NULL. */
VX_API VxEnvKey *EnvGetKey(const VxEnvelope *env, double t);
/* First, last, next and previous key, or NULL. */
VX_API VxEnvKey *EnvKeyFirst(const VxEnvelope *env);
VX_API VxEnvKey *EnvKeyLast(const VxEnvelope *env);
VX_API VxEnvKey *EnvKeyNext(const VxEnvelope *env, const VxEnvKey *key);
VX_API VxEnvKey *EnvKeyPrev(const VxEnvelope *env, const VxEnvKey *key);
/* The first key after / last key before the tick of `t`, or NULL. */
VX_API VxEnvKey *EnvNextKeyframe(const VxEnvelope *env, double t);
VX_API VxEnvKey *EnvPrevKeyframe(const VxEnvelope *env, double t);
/* Inserts a TCB key (all parameters 0) at the tick of `t`, or sets the value of the key
 * already there. Returns the key; NULL for a NULL envelope or when memory runs out. */
VX_API VxEnvKey *EnvAddKey(VxEnvelope *env, double t, double value);
/* Sets a key's value (ENV_NOTIFY_KEY_CHANGED); returns 1. */
VX_API int EnvSetKey(VxEnvelope *env, VxEnvKey *key, double value);
/* Unlinks and frees a key after sending ENV_NOTIFY_KEY_DELETED; returns 1, or 0 when the key
 * is not one of the envelope's. */
VX_API int EnvDelKey(VxEnvelope *env, VxEnvKey *key);
/* Moves `key` to the tick of `t` with `value` in one edit; a different key already at that
 * tick is deleted (the key replaces it). Returns the key. */
VX_API VxEnvKey *EnvKeyReplace(VxEnvelope *env, VxEnvKey *key, double t, double value);
/* Moves `key` to the tick of `t`, keeping the list sorted. Returns 1, or 0 (nothing moved)
 * when another key occupies that tick. */
VX_API int EnvKeySetTime(VxEnvelope *env, VxEnvKey *key, double t);
VX_API double EnvKeyValue(const VxEnvKey *key);
/* The key's time in seconds (tick times 1/3600). */
VX_API double EnvKeyTime(const VxEnvKey *key);
VX_API int32_t EnvKeyType(const VxEnvKey *key);
/* Changes the key's shape; converting to or from ENV_SHAPE_BEZIER2 sets the parameters so
 * that the curve keeps its tangents. Increments the change stamp; ENV_NOTIFY_KEY_CHANGED.
 * Converting to 2-D Bezier: the handle times are tick differences times 1/3600 times
 * -0.33333 (incoming) and 0.33333 (outgoing), and the handle values the key's in and out
 * tangents times them. At a first or last key the handle value comes instead from the slope to
 * its one neighbour, whose tick difference is divided by 3600: the conversion is described with
 * that division written out, unlike every other tick-to-seconds conversion, which multiplies
 * by 1/3600, and the written division is kept (the two can differ in the last bit). */
VX_API void EnvKeySetType(VxEnvelope *env, VxEnvKey *key, int32_t shape);
/* Parameter p[index] for index 0 ... 4; 0.0 for any other index. */
VX_API double EnvKeyGetParam(const VxEnvKey *key, int32_t index);
/* Sets p[index]; any other index is ignored. */
VX_API void EnvKeySetParam(VxEnvKey *key, int32_t index, double value);
VX_API uint32_t EnvKeyMask(const VxEnvKey *key);
/* Sets the caller's flag word; returns the previous one. */
VX_API uint32_t EnvKeySetMask(VxEnvKey *key, uint32_t mask);
/* Moves the run of keys from `first` to `last` (NULL: the first / last key of the envelope)
 * by the tick of `dt`. Returns 1, or 0 and moves nothing when a moved key would land on or
 * pass a key outside the run, leave the tick range, or the run is not in order. */
VX_API int EnvShiftKeys(VxEnvelope *env, VxEnvKey *first, VxEnvKey *last, double dt);
/* Scales the times of the run of keys from `first` to `last` (NULL as above) about the time
 * `pivot`: new tick = tick(pivot + (time - pivot) * factor); the time handles of 2-D Bezier
 * keys in the run scale with them. Returns 1, or 0 and changes nothing when `factor` is not
 * positive and finite, or two keys would share a tick or change order. */
VX_API int EnvScaleKeys(VxEnvelope *env, VxEnvKey *first, VxEnvKey *last, double pivot, double factor);

/* ---- Evaluation ----------------------------------------------------------------------- */

/* The curve value at `t` (stored as the last value), then passed through the modifiers.
 * Repeat, Oscillate and Offset repeat move t into the key range one cycle at a time, each
 * cycle adding (or subtracting) the range in seconds with its own rounding; the cost grows
 * with the binades the time crosses, not with the cycles. Every curve value inside the key
 * range has the offset added (0.0 outside those behaviours): a -0.0 curve value gives +0.0.
 * Two readings of cases the curve's description leaves open:
 * - The Linear behaviour's probe two ticks inside the first or last key is evaluated like any
 *   other time: when a key lies on the probe's tick (the neighbour is at most two ticks away)
 *   the probe gives that key's value. Its rule: a time on a key's tick gives that key's value.
 * - Before the first key, the probe of a Hermite-family segment that starts at a 2-D Bezier key
 *   is read from the 2-D Bezier curve over the two keys: the end key's p0 and p1 serve as its
 *   incoming handle whatever its shape, and no tangent rule runs, so the probe caches no
 *   tangents. Its rule: that probe value comes from the 2-D Bezier curve built as for a 2-D
 *   Bezier segment, not from the Hermite value. */
VX_API double EnvEvaluate(VxEnvelope *env, double t);
/* The curve value at `t`, stored as the last value; modifiers are not applied. */
VX_API double EnvKeyEvaluate(VxEnvelope *env, double t);
/* Runs the modifiers over `value` at `t` and returns the result; the last value is restored
 * afterwards. Without modifiers returns `value`. */
VX_API double EnvModEvaluate(VxEnvelope *env, double t, double value);

/* ---- Modifier list -------------------------------------------------------------------- */

/* Appends `filter` to the modifier list; returns 1. */
VX_API int EnvAddFilter(VxEnvelope *env, VxEnvFilter *filter);
/* Unlinks `filter` (it stays the caller's); returns 1, or 0 when it is not attached here. */
VX_API int EnvRemoveFilter(VxEnvelope *env, VxEnvFilter *filter);
/* The filter at `index` (0 first), or NULL. */
VX_API VxEnvFilter *EnvFilterInstance(const VxEnvelope *env, int32_t index);
/* The filter's server name, or NULL. */
VX_API const char *EnvFilterName(const VxEnvFilter *filter);
/* The index of `filter` in the list, or -1 (also for NULL). */
VX_API int32_t EnvFilterIndex(const VxEnvelope *env, const VxEnvFilter *filter);

/* ---- Saved form ----------------------------------------------------------------------- */

/* Writes the envelope as one "ENVL" block through a binary or text save state. The binary
 * form: the save index, then "NAME", "TYPE" (client-data and type low bytes), "PRE ", a
 * "KEY " (time, value as floats) and a "SPAN" (shape ID 'TCB ', 'HERM', 'LINE', 'STEP' or
 * 'BEZ2' and its parameters) per key, "POST", and a "CHAN" block per modifier (server name,
 * flags, the instance's own data). Bezier keys are saved as 'HERM'; shapes without an ID save
 * no span. The text form has the same blocks and values under the keywords Envelope, Name,
 * Type, Pre, Key, Span, Post and Channel:
 *     Envelope 0 {
 *       Name "Position.X"
 *       Type 0 1
 *       Pre 1
 *       Key 0.5 1.25
 *       Span 'TCB ' 0 0 0
 *       Post 1
 *     }
 * Returns 1, or 0 when the state failed (its `error` says why). */
VX_API int EnvSave(const VxEnvelope *env, VxSaveState *state);
/* Installs the maker of filters for "CHAN" blocks (NULL: they are skipped). */
VX_API void EnvSetFilterLoader(EnvFilterLoadFunc *loader, void *user);
/* Reads the next "ENVL" block of the state's current block into `env`: its name, type,
 * behaviours, keys, save index and the filters the loader makes (appended). Client data,
 * port and group stay. Returns 1; 0 when there is no further block (state->error 0) or the
 * block is malformed, the state failed or memory ran out (then `env` is unchanged). */
VX_API int EnvLoad(VxEnvelope *env, VxLoadState *state);

VX_END_DECLS

#endif
