/*
 * vemo memory-debugging allocator ("memguard").
 *
 * An application that wants its heap checked allocates through mwMalloc, mwCalloc, mwRealloc,
 * mwStrdup and mwFree (or includes <vemo/mw_override.h>, which maps malloc & co. onto them).
 * Every tracked block carries a header and two 8-byte guard areas; frees are checked against
 * the allocator's own chain of blocks; failed allocations, double and wild frees, overruns,
 * leaks, trap hits and repairs are written as plain text lines to the allocator's log.
 * The client library allocates nothing through it, but releases the texts that cross between
 * it and the application correctly either way (Ownership below). docs/allocator.md tells how
 * to use the allocator.
 *
 * The log file
 *   "memguard.log" in the current working directory at the first call, opened for appending;
 *   when it cannot be opened, "memgrd01.log" to "memgrd99.log" are tried in turn. Output is
 *   buffered and flushed after every message once the first anomaly was found (mwDoFlush and
 *   mwFlushNow flush on demand). A few lines (trap prompts and trap ends, the closing
 *   anomaly count) are written straight to the log file even when mwSetOutFunc installed a
 *   hook; when no log file could be opened at all, those lines go to standard error.
 *
 * Start and end
 *   The first call of any tracked operation initialises the allocator and registers the final
 *   report (leaks, retained blocks, marks and statistics) to run at process exit. An
 *   application that calls mwInit itself must call mwTerm as often, the last mwTerm running
 *   the report; mwAbort runs the report at once. After the report the log is closed; a later
 *   call starts again (appending to the log).
 *
 * Ownership
 *   - Blocks from mwMalloc, mwCalloc, mwRealloc and mwStrdup are released with mwFree (or
 *     mwRealloc); blocks from the untracked twins mwMalloc_ & co. and from the system's
 *     malloc with mwFree_ or free(). mwFree(p, NULL, 0) releases untracked memory too.
 *   - The file name passed with every call is stored, not copied: it must stay valid while
 *     the block lives, and with statistics on (mwStatistics) until the process ends. A
 *     string literal such as __FILE__ always does.
 *   - Texts passed in (mark descriptions, trap texts, format strings) are borrowed for the
 *     call. The text an answer function receives lives only for that call.
 *   - The responses of vemo_send_request_sync and vemo_get_response are system memory that
 *     mwFree and mwRealloc recognise: free() releases them with or without the override
 *     header (mwRealloc keeps them system memory). An answer a vemo handler stores may be a
 *     tracked block or system memory; the library releases either kind correctly, a tracked
 *     one with mwFree under the place "libvemo", line 0.
 *
 * Results
 *   Pointers (NULL on failure, with a line in the log) and small counts; no error codes.
 *   Where a file name is NULL the log prints "unknown" in its place.
 *
 * Threads
 *   The allocator's state is process-wide and guarded by one internal (recursive) mutex, so
 *   any thread may call any function at any time.
 *   - The output hook of mwSetOutFunc is called with that mutex held: it must neither call
 *     the allocator nor wait for a thread that does.
 *   - An answer function (mwSetAriFunc, mwAriHandler) runs without the mutex: other threads
 *     go on while a trap waits for its answer.
 *   - A trap that ends the process calls exit() with the mutex held, so the exit handlers
 *     (the final report among them) run while other threads are kept out of the allocator.
 *   - When the process exits while another thread is still inside the allocator, the final
 *     report waits up to one second for it and is then skipped.
 *   - fork() waits until a call that is inside the allocator has finished.
 *   - The address probes replace the process-wide SIGSEGV handler for the time of one read;
 *     a fault of another thread in that moment is passed on to the previous handler.
 */
#ifndef VEMO_MW_H
#define VEMO_MW_H

#include <setjmp.h>
#include <stddef.h>
#include <vemo/export.h>

/* Answers of an answer function (mwSetAriFunc) and of mwAriHandler. */
#define MW_ARI_IGNORE 1
#define MW_ARI_RETRY 2
#define MW_ARI_ABORT 4

/* Bits of mwSetAriAction, used while no answer function is set. */
#define MW_ARI_ACTION_IGNORE 1 /* traps continue automatically */
#define MW_ARI_ACTION_FLUSH 16 /* one more flush of the log before a trap ends the process */

/* Items of mwTest. */
#define MW_TEST_CHAIN 0x0001
#define MW_TEST_ALLOC 0x0002
#define MW_TEST_NML 0x0004
#define MW_TEST_ALL 0xFFFF

/* Levels of mwNoMansLand. */
#define MW_NML_NONE 0 /* freed blocks go back to the system */
#define MW_NML_FREE 1 /* freed blocks are kept, filled with 0xFC, and checked later */
#define MW_NML_ALL 2  /* as 1, and all available memory is taken as reserve */

/* Levels of mwStatistics. */
#define MW_STAT_GLOBAL 0
#define MW_STAT_MODULE 1
#define MW_STAT_LINE 2

VEMO_BEGIN_DECLS

/* ---- Start and end ---------------------------------------------------------------------- */

/* Starts the allocator (opens the log, writes the banner once); calls nest. */
VEMO_API void mwInit(void);
/* Ends one level of mwInit; the last one runs the final report. */
VEMO_API void mwTerm(void);
/* Runs the final report now: lists leaks, retained blocks, marks and statistics, releases
 * every tracked block and closes the log. */
VEMO_API void mwAbort(void);

/* ---- Tracked allocation ----------------------------------------------------------------- */

/* NULL when out of memory, over the limit (mwLimit) or when size + overhead overflows. */
VEMO_API void *mwMalloc(size_t size, const char *file, int line);
/* count * size zeroed bytes; a product that overflows fails with a "fail:" line. */
VEMO_API void *mwCalloc(size_t count, size_t size, const char *file, int line);
/* Always moves the data to a new block; size 0 frees p and returns NULL. On failure p stays
 * valid and unchanged. */
VEMO_API void *mwRealloc(void *p, size_t size, const char *file, int line);
VEMO_API char *mwStrdup(const char *s, const char *file, int line);
/* A NULL file releases p untracked (for memory that never came from the tracked functions). */
VEMO_API void mwFree(void *p, const char *file, int line);

/* Untracked twins: the system functions, plus the automatic heap check when it is on. */
VEMO_API void *mwMalloc_(size_t size);
VEMO_API void *mwCalloc_(size_t count, size_t size);
VEMO_API void *mwRealloc_(void *p, size_t size);
VEMO_API void mwFree_(void *p);

/* ---- Checks ----------------------------------------------------------------------------- */

/* Checks the heap for the MW_TEST_* items; returns the number of errors found. */
VEMO_API int mwTest(const char *file, int line, int items);
/* Tests one tracked block: 0 intact, 1 damaged guard or not a tracked block, 2 unusable. */
VEMO_API int mwTestBuffer(const char *file, int line, void *p);
/* 1 when the length bytes at p can be read without a fault, else 0 (NULL gives 0). */
VEMO_API int mwIsReadAddr(const void *p, size_t length);
VEMO_API int mwIsSafeAddr(void *p, size_t length);
/* Checks the whole heap before every tracked operation (slow; for hunting a fault). */
VEMO_API void mwAutoCheck(int on);

/* ---- Traps, trace and marks --------------------------------------------------------------- */

/* When value is 0 the trap fires: it is logged, then the answer function (or the action bits)
 * decide: 0 continue, 1 retry (see MW_ASSERT), or the process ends with exit status 255. */
VEMO_API int mwAssert(int value, const char *text, const char *file, int line);
VEMO_API int mwVerify(int value, const char *text, const char *file, int line);
/* The ready-made answer function: prompts in the log and reads one line of standard input;
 * "r"/"R" retries, "i"/"I" ignores, anything else (or end of input) aborts. */
VEMO_API int mwAriHandler(const char *text);
/* Sets (NULL removes) the answer function; it receives the trap text, valid for the call,
 * and returns MW_ARI_IGNORE, MW_ARI_RETRY or MW_ARI_ABORT. */
VEMO_API void mwSetAriFunc(int (*func)(const char *text));
/* MW_ARI_ACTION_* bits used while no answer function is set; the default aborts. */
VEMO_API void mwSetAriAction(int bits);
/* Writes "breakout: <cause>" to the log. */
VEMO_API void mwBreakOut(const char *cause);
/* printf-style text into the log, flushed at once. */
VEMO_API void mwTrace(const char *format, ...) VEMO_PRINTF(1, 2);
/* Attaches a description to p; marks still set at the final report are listed there. */
VEMO_API void *mwMark(void *p, const char *description, const char *file, int line);
VEMO_API void *mwUnmark(void *p, const char *file, int line);

/* ---- Limits, reserve memory and switches ------------------------------------------------- */

/* Live tracked bytes may not exceed bytes (0: no limit). */
VEMO_API void mwLimit(long bytes);
/* Takes kilobytes of reserve memory from the system in 1 KB chunks (0: as much as possible,
 * up to 65000); returns the kilobytes taken. */
VEMO_API unsigned mwGrab(unsigned kilobytes);
/* Gives reserve taken by mwGrab back (0: all); returns the kilobytes given back. Chunks whose
 * filler was written to are reported. */
VEMO_API unsigned mwDrop(unsigned kilobytes);
/* MW_NML_* level of keeping freed blocks ("no-man's-land"). */
VEMO_API void mwNoMansLand(int level);
/* MW_STAT_* level of the statistics listed in the final report. */
VEMO_API void mwStatistics(int level);
/* Sends every character of the allocator's messages to func instead of the log file (NULL
 * restores the log file). func runs under the allocator's mutex: see Threads above. */
VEMO_API void mwSetOutFunc(void (*func)(int character));
/* Flushes the log now. */
VEMO_API void mwFlushNow(void);
/* Non-zero: flush the log after every message from now on. */
VEMO_API void mwDoFlush(int on);

/* ---- Objects of the address probes ------------------------------------------------------- */

/* The jump point of the probe that runs (saved with the signal mask). */
extern VEMO_API jmp_buf mwSIGSEGVjump;
/* The SIGSEGV handler that was in place before the probe that runs. */
extern VEMO_API void (*mwOldSIGSEGV)(int signal_number);

VEMO_END_DECLS

/* Convenience traps that re-evaluate the expression while the answer is "retry". */
#define MW_ASSERT(expr)                                                  \
  do {                                                                   \
  } while (mwAssert((expr) ? 1 : 0, #expr, __FILE__, __LINE__) != 0)
#define MW_VERIFY(expr)                                                  \
  do {                                                                   \
  } while (mwVerify((expr) ? 1 : 0, #expr, __FILE__, __LINE__) != 0)

#endif /* VEMO_MW_H */
