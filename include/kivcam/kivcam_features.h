/*
 * kivcam_features.h - camera features by name, from C and from any language
 * that calls C (the Python binding uses nothing else).
 *
 * An extension beside the core interface of kivcam.h, exported by the same
 * libkivcam.so. Every function follows the core conventions: a KIVCAM_BOOL
 * result (1 success, 0 failure), the reason of a failure in the calling
 * thread's last error (KIVCAM_GetLastError, reset to 0 at every call), the
 * call log's Start/End/Error lines under the function's name, and the camera
 * lock: calls on one camera serialise with each other and with the core
 * functions on that camera. Feature names are GenICam node names ("Width",
 * "PixelFormat"), case-sensitive.
 *
 * Errors common to every function:
 *   PARAM      not an open camera, a null pointer, no feature of that name,
 *              or the feature is not of the type the function handles
 *              (KIVCAMF_GetInt on an enumeration); a value out of range or
 *              not one of the feature's entries
 *   NO_CAMERA  the camera is not present
 *   ACCESS     the feature may not be read or written now (its access mode),
 *              or the device refused the register access
 *   BUFFER_SIZE a text does not fit; *size then holds the bytes needed
 *   OTHER      unexpected failure; the call log holds the details
 * A failure the node map reports writes its text to the call log.
 *
 * Texts out: `text` receives a zero-terminated string, `*size` is its
 * capacity in bytes on entry and the bytes the text needs (terminator
 * included) on return. A null `text` only asks for that size.
 */
#ifndef KIVCAM_KIVCAM_FEATURES_H
#define KIVCAM_KIVCAM_FEATURES_H

#include "kivcam.h"

#ifdef __cplusplus
extern "C" {
#endif

/* KIVCAMF_INFO.Type: the feature's principal interface. */
#define KIVCAMF_TYPE_VALUE       0u  /* a value of no specific type */
#define KIVCAMF_TYPE_INTEGER     2u
#define KIVCAMF_TYPE_BOOLEAN     3u
#define KIVCAMF_TYPE_COMMAND     4u
#define KIVCAMF_TYPE_FLOAT       5u
#define KIVCAMF_TYPE_STRING      6u
#define KIVCAMF_TYPE_REGISTER    7u
#define KIVCAMF_TYPE_CATEGORY    8u
#define KIVCAMF_TYPE_ENUMERATION 9u
#define KIVCAMF_TYPE_ENUMENTRY  10u
#define KIVCAMF_TYPE_PORT       11u

/* KIVCAMF_INFO.Access and the access of an entry. */
#define KIVCAMF_ACCESS_NI 0u  /* not implemented */
#define KIVCAMF_ACCESS_NA 1u  /* not available now */
#define KIVCAMF_ACCESS_WO 2u  /* write only */
#define KIVCAMF_ACCESS_RO 3u  /* read only */
#define KIVCAMF_ACCESS_RW 4u  /* read and write */

/* KIVCAMF_INFO.Visibility. */
#define KIVCAMF_VISIBILITY_BEGINNER  0u
#define KIVCAMF_VISIBILITY_EXPERT    1u
#define KIVCAMF_VISIBILITY_GURU      2u
#define KIVCAMF_VISIBILITY_INVISIBLE 3u

/* KIVCAMF_INFO.IncMode. */
#define KIVCAMF_INC_NONE  0u  /* any value in the range */
#define KIVCAMF_INC_FIXED 1u  /* Min plus a multiple of Inc */
#define KIVCAMF_INC_LIST  2u  /* integers: one of the EntryCount valid values */

/* KIVCAMF_INFO.Representation of a number; KIVCAMF_REPR_NONE otherwise. */
#define KIVCAMF_REPR_LINEAR      0u
#define KIVCAMF_REPR_LOGARITHMIC 1u
#define KIVCAMF_REPR_BOOLEAN     2u
#define KIVCAMF_REPR_PURENUMBER  3u
#define KIVCAMF_REPR_HEXNUMBER   4u
#define KIVCAMF_REPR_IPV4ADDRESS 5u
#define KIVCAMF_REPR_MACADDRESS  6u
#define KIVCAMF_REPR_NONE        7u

/* KIVCAMF_GetInfoText: which text. */
#define KIVCAMF_TEXT_DISPLAYNAME 0u  /* the feature's name when it has none */
#define KIVCAMF_TEXT_TOOLTIP     1u
#define KIVCAMF_TEXT_DESCRIPTION 2u
#define KIVCAMF_TEXT_UNIT        3u  /* numbers only; empty otherwise */

/* What a feature is (KIVCAMF_GetInfo). Ranges are read only when the
 * feature is readable; HasRange says whether they were. */
typedef struct KIVCAMF_INFO {
    uint32_t Type;            /* KIVCAMF_TYPE_* */
    uint32_t Access;          /* KIVCAMF_ACCESS_* */
    uint32_t Visibility;      /* KIVCAMF_VISIBILITY_* */
    uint32_t Representation;  /* KIVCAMF_REPR_* */
    uint32_t IncMode;         /* KIVCAMF_INC_* (numbers), else KIVCAMF_INC_NONE */
    uint32_t HasRange;        /* 1: the Min, Max and Inc fields of the type hold the range */
    uint32_t EntryCount;      /* enumeration: its entries (KIVCAMF_GetEntry); integer
                                 with KIVCAMF_INC_LIST: its valid values; else 0 */
    uint32_t ChildCount;      /* category: its features (KIVCAMF_GetChild); else 0 */
    int64_t  IntMin;          /* integer range and increment */
    int64_t  IntMax;
    int64_t  IntInc;
    double   FloatMin;        /* float range and increment (Inc 0 without one) */
    double   FloatMax;
    double   FloatInc;
    int64_t  MaxLength;       /* string: the longest value in bytes; else 0 */
} KIVCAMF_INFO;

KIVCAM_STATIC_ASSERT(sizeof(KIVCAMF_INFO) == 88, "size of KIVCAMF_INFO");
KIVCAM_STATIC_ASSERT(offsetof(KIVCAMF_INFO, IntMin) == 32, "offset of KIVCAMF_INFO.IntMin");
KIVCAM_STATIC_ASSERT(offsetof(KIVCAMF_INFO, FloatMin) == 56, "offset of KIVCAMF_INFO.FloatMin");
KIVCAM_STATIC_ASSERT(offsetof(KIVCAMF_INFO, MaxLength) == 80, "offset of KIVCAMF_INFO.MaxLength");

/* ---- Values --------------------------------------------------------------- */

/* Integer features (Integer, IntReg, MaskedIntReg, IntSwissKnife, ...).
 * Setting checks the range and increment. */
KIVCAM_API KIVCAM_BOOL KIVCAMF_GetInt(HCAMERA camera, const char *name, int64_t *value);
KIVCAM_API KIVCAM_BOOL KIVCAMF_SetInt(HCAMERA camera, const char *name, int64_t value);

/* Float features. A value that is not finite is refused with PARAM. */
KIVCAM_API KIVCAM_BOOL KIVCAMF_GetFloat(HCAMERA camera, const char *name, double *value);
KIVCAM_API KIVCAM_BOOL KIVCAMF_SetFloat(HCAMERA camera, const char *name, double value);

/* Boolean features: *value is 1 or 0; any non-zero value sets true. */
KIVCAM_API KIVCAM_BOOL KIVCAMF_GetBool(HCAMERA camera, const char *name, KIVCAM_BOOL *value);
KIVCAM_API KIVCAM_BOOL KIVCAMF_SetBool(HCAMERA camera, const char *name, KIVCAM_BOOL value);

/* String features (String, StringReg). */
KIVCAM_API KIVCAM_BOOL KIVCAMF_GetString(HCAMERA camera, const char *name, char *text, uint32_t *size);
KIVCAM_API KIVCAM_BOOL KIVCAMF_SetString(HCAMERA camera, const char *name, const char *text);

/* Enumerations by symbol ("Mono8") and by value (the entry's integer). A
 * symbol or value that is no available entry is refused with PARAM. */
KIVCAM_API KIVCAM_BOOL KIVCAMF_GetEnum(HCAMERA camera, const char *name, char *symbol, uint32_t *size);
KIVCAM_API KIVCAM_BOOL KIVCAMF_SetEnum(HCAMERA camera, const char *name, const char *symbol);
KIVCAM_API KIVCAM_BOOL KIVCAMF_GetEnumInt(HCAMERA camera, const char *name, int64_t *value);
KIVCAM_API KIVCAM_BOOL KIVCAMF_SetEnumInt(HCAMERA camera, const char *name, int64_t value);

/* Any value feature as text, the way the node map writes and parses it (an
 * enumeration's symbol, a float in its notation, "1"/"0" for a boolean). */
KIVCAM_API KIVCAM_BOOL KIVCAMF_ToString(HCAMERA camera, const char *name, char *text, uint32_t *size);
KIVCAM_API KIVCAM_BOOL KIVCAMF_FromString(HCAMERA camera, const char *name, const char *text);

/* Executes a command and waits up to timeout ms (KIVCAM_INFINITE: no limit;
 * 0: one look) until the device reports it done. The camera lock is given up
 * between looks. Errors: also TIMEOUT (executed, not done in time). */
KIVCAM_API KIVCAM_BOOL KIVCAMF_Execute(HCAMERA camera, const char *name, uint32_t timeout);

/* Whether a command is done: *done 1 or 0. */
KIVCAM_API KIVCAM_BOOL KIVCAMF_IsDone(HCAMERA camera, const char *name, KIVCAM_BOOL *done);

/* ---- Descriptions ----------------------------------------------------------- */

/* Fills *info (cleared first). Works on every node, readable or not. */
KIVCAM_API KIVCAM_BOOL KIVCAMF_GetInfo(HCAMERA camera, const char *name, KIVCAMF_INFO *info);

/* One text of the feature: KIVCAMF_TEXT_*; any other `which` is PARAM. */
KIVCAM_API KIVCAM_BOOL KIVCAMF_GetInfoText(HCAMERA camera, const char *name, uint32_t which, char *text,
                                           uint32_t *size);

/* Entry `index` (0 .. EntryCount-1) of an enumeration: its value, its access
 * (KIVCAMF_ACCESS_NA and NI: not selectable now) and its symbol; of an
 * integer with a list of valid values: the value, RO and an empty symbol.
 * `value` and `access` may be null. An index beyond the entries is PARAM. */
KIVCAM_API KIVCAM_BOOL KIVCAMF_GetEntry(HCAMERA camera, const char *name, uint32_t index, int64_t *value,
                                        uint32_t *access, char *symbol, uint32_t *size);

/* The name of feature `index` (0 .. ChildCount-1) of a category. Start at
 * "Root" to walk the whole tree. An index beyond the features is PARAM. */
KIVCAM_API KIVCAM_BOOL KIVCAMF_GetChild(HCAMERA camera, const char *name, uint32_t index, char *child,
                                        uint32_t *size);

/* ---- Reasons ----------------------------------------------------------------- */

/* The reason for the calling thread's last failure, in words, where the
 * library has one (for a feature, the node map's message: "Value 7 is not a
 * multiple of the increment 4"); empty after a success or a failure without
 * one. Copies at most `size` bytes, terminator included, into `text` (null
 * when `size` is 0) and returns the bytes the whole text needs, terminator
 * included. Like KIVCAM_GetLastError it leaves the last error as it is and
 * writes no line to the call log. Any export's failure sets it. */
KIVCAM_API uint32_t KIVCAMF_GetLastErrorText(char *text, uint32_t size);

#ifdef __cplusplus
} /* extern "C" */
#endif

#endif /* KIVCAM_KIVCAM_FEATURES_H */
