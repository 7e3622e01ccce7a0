/*
 * Opt-in: route a source file's malloc, calloc, realloc, strdup and free through the vemo
 * memory-debugging allocator (<vemo/mw.h>), with the caller's __FILE__ and __LINE__.
 *
 * Including this header is the opt-in; it changes nothing for files that do not include it.
 * Include it after every system header (it includes <stdlib.h> and <string.h> itself, so
 * those are safe either way). To build the same sources without tracking, define
 * VEMO_MW_OVERRIDE_OFF before including it (for instance -DVEMO_MW_OVERRIDE_OFF for a release
 * build); the names then stay the system's.
 *
 * The mapping is done with function-like macros, so:
 *   - only calls are mapped: a function pointer taken as plain `free` stays the system's;
 *   - memory that other code allocated with the system allocator (a library's strdup,
 *     getline, ...) must be released with mwFree_ (or free before this header is included),
 *     otherwise it is reported as a "WILD free" and not released;
 *   - memory from the mapped malloc must not reach code that frees it with the system's free
 *     (the system would see a pointer into the middle of a block).
 * libvemo's own texts are the exception to both: free() the responses of
 * vemo_send_request_sync and vemo_get_response as usual, and let handlers store answers made
 * with the mapped malloc or strdup; the library releases them with the matching allocator.
 */
#ifndef VEMO_MW_OVERRIDE_H
#define VEMO_MW_OVERRIDE_H

#include <stdlib.h>
#include <string.h>
#include <vemo/mw.h>

#ifndef VEMO_MW_OVERRIDE_OFF

#undef malloc
#undef calloc
#undef realloc
#undef strdup
#undef free

#define malloc(size) mwMalloc((size), __FILE__, __LINE__)
#define calloc(count, size) mwCalloc((count), (size), __FILE__, __LINE__)
#define realloc(p, size) mwRealloc((p), (size), __FILE__, __LINE__)
#define strdup(s) mwStrdup((s), __FILE__, __LINE__)
#define free(p) mwFree((p), __FILE__, __LINE__)

#endif /* VEMO_MW_OVERRIDE_OFF */

#endif /* VEMO_MW_OVERRIDE_H */
