// Internal state and operations of the memory-debugging allocator, shared by its files:
// core.cc (blocks, chain, alloc and free), state.cc (lock, start and end), writer.cc (log
// output), final_report.cc, checks.cc (probes and checks), repair.cc, traps.cc, marks.cc,
// reserve.cc.
//
// Every variable below is guarded by mwLock. Exported functions take the lock (MwGuard) and
// call the internal operations, which require it; the lock is recursive because the final
// report can run from an exit handler inside a trap that already holds it.
#ifndef VEMO_MEMGUARD_MW_INTERNAL_H
#define VEMO_MEMGUARD_MW_INTERNAL_H

#include <stdarg.h>
#include <stddef.h>
#include <stdint.h>
#include <stdio.h>

#include <atomic>

#include "memguard/crossing.h"
#include "util/thread_annotations.h"
#include "vemo/mw.h"

// The checks read headers, guards and links that the application may have overwritten with
// anything, and stale pointers of blocks already freed; the probes make those reads safe, so
// the sanitizers must not flag them. (All of it runs under mwLock, so no race hides here.)
#if defined(__GNUC__) || defined(__clang__)
#define MW_UNCHECKED_ACCESS                                                               \
  __attribute__((no_sanitize("address"))) __attribute__((no_sanitize("undefined"))) \
  __attribute__((no_sanitize("thread")))
#else
#define MW_UNCHECKED_ACCESS
#endif

namespace vemo {

// ---- Block layout ------------------------------------------------------------------------

// The header at the start of every tracked block. On the 32-bit target it is 32 bytes; on
// LP64 hosts the pointer-wide fields grow to 8 bytes while line and flags stay ints, so the
// record is 56 bytes and mwDataSize follows it (the banner prints the true sizes).
struct mwData {
  mwData *prev;      // newer neighbour, NULL for the head
  mwData *next;      // older neighbour, NULL for the tail
  const char *file;  // allocating caller's file name, not copied
  long count;        // event number of the allocation
  unsigned long check;
  size_t size;  // user size
  int line;
  int flags;  // kFlagRetained
};

constexpr size_t mwROUNDALLOC = 8;
constexpr size_t kGuardLen = mwROUNDALLOC;
constexpr size_t kDataSize = (sizeof(mwData) + mwROUNDALLOC - 1) / mwROUNDALLOC * mwROUNDALLOC;
constexpr unsigned long kCheckSeed = 0x00FE0180UL;
constexpr int kFlagRetained = 1;
constexpr unsigned char kFillNew = 0xFE;
constexpr unsigned char kFillRetained = 0xFC;
constexpr unsigned char kFillReleased = 0xFD;
constexpr int kFreedRingSlots = 64;
constexpr int kLineChars = 2048;  // longest text one write passes on
constexpr int kTypeGrabbed = 251;
constexpr int kTypeNoMansLand = 252;
constexpr size_t kChunkSize = 1024;

extern const char mwGuard[kGuardLen];  // "mEmGuArD", no terminator

struct mwStatEntry {
  mwStatEntry *next;
  const char *file;
  long total;
  long number;
  long largest;
  long unfreed;
  int line;  // -1 for a module entry
};

struct mwMarkEntry {
  void *host;
  char *text;
  mwMarkEntry *next;
  int depth;
};

struct mwGrabChunkHead {
  void *next;
  int type;
};
// Exactly 1 KB: the filler takes what the two fields leave (1016 bytes on the 32-bit target,
// 1008 on LP64 hosts).
struct mwGrabChunk {
  mwGrabChunk *next;
  int type;
  unsigned char filler[kChunkSize - sizeof(mwGrabChunkHead)];
};
static_assert(sizeof(mwGrabChunk) == kChunkSize, "a reserve chunk is 1 KB");

struct mwFreedSlot {
  const void *p;
  const char *file;
  int line;
};

// ---- The lock ------------------------------------------------------------------------------

class CAPABILITY("mutex") MwLock {
 public:
  void lock() ACQUIRE();
  void unlock() RELEASE();
  // Gives up after timeout_ms; used only by the exit-time report.
  bool lock_within_ms(int timeout_ms) VEMO_TSA(try_acquire_capability(true));
};
extern MwLock mwLock;

class SCOPED_CAPABILITY MwGuard {
 public:
  MwGuard() ACQUIRE(mwLock) { mwLock.lock(); }
  ~MwGuard() RELEASE() { mwLock.unlock(); }
  // Lets other threads in while the guarded code waits for the application (answer function).
  void release() RELEASE() { mwLock.unlock(); }
  void reacquire() ACQUIRE() { mwLock.lock(); }
  MwGuard(const MwGuard &) = delete;
  MwGuard &operator=(const MwGuard &) = delete;
};

// ---- Process-wide state --------------------------------------------------------------------

extern int mwInitCount GUARDED_BY(mwLock);
extern int mwBannerDone GUARDED_BY(mwLock);
extern int mwExitHookWanted GUARDED_BY(mwLock);
extern bool mwInReport GUARDED_BY(mwLock);
// Set when no log file could be opened at the last start (every name was tried).
extern bool mwLogUnavailable GUARDED_BY(mwLock);
extern mwData *mwHead GUARDED_BY(mwLock);
extern mwData *mwTail GUARDED_BY(mwLock);
extern size_t mwDataSize GUARDED_BY(mwLock);
extern long mwEventCount GUARDED_BY(mwLock);
extern long mwAnomalies GUARDED_BY(mwLock);
extern long mwTotalBytes GUARDED_BY(mwLock);
extern long mwLiveBytes GUARDED_BY(mwLock);
extern long mwPeakBytes GUARDED_BY(mwLock);
extern long mwAllocCount GUARDED_BY(mwLock);
extern long mwLiveBlocks GUARDED_BY(mwLock);
extern long mwRetainedBytes GUARDED_BY(mwLock);
extern long mwRetainedBlocks GUARDED_BY(mwLock);
extern int mwStatMode GUARDED_BY(mwLock);
extern mwStatEntry *mwStatEntries GUARDED_BY(mwLock);
extern int mwLimitOn GUARDED_BY(mwLock);
extern long mwLimitBytes GUARDED_BY(mwLock);
extern int mwAutoCheckOn GUARDED_BY(mwLock);
extern int mwCheckItems GUARDED_BY(mwLock);
extern int mwRetainMode GUARDED_BY(mwLock);
extern mwGrabChunk *mwReserveChunks GUARDED_BY(mwLock);
extern long mwReserveBytes GUARDED_BY(mwLock);
extern mwMarkEntry *mwFirstMark GUARDED_BY(mwLock);
extern void (*mwOutHook)(int) GUARDED_BY(mwLock);
extern int (*mwAriCallback)(const char *) GUARDED_BY(mwLock);
extern int mwAriActionMask GUARDED_BY(mwLock);
// Three copies each, kept apart in memory, so that one stray write cannot change all three.
extern FILE *mwLogStream1 GUARDED_BY(mwLock);
extern FILE *mwLogStream2 GUARDED_BY(mwLock);
extern FILE *mwLogStream3 GUARDED_BY(mwLock);
extern int mwFlushLevel1 GUARDED_BY(mwLock);
extern int mwFlushLevel2 GUARDED_BY(mwLock);
extern int mwFlushLevel3 GUARDED_BY(mwLock);
extern char mwLineBuffer[kLineChars + 8] GUARDED_BY(mwLock);
extern mwFreedSlot mwFreedRing[kFreedRingSlots] GUARDED_BY(mwLock);
extern int mwFreedPos GUARDED_BY(mwLock);
// The system allocation every piece of the allocator's own memory comes from; tests replace
// it to make allocations fail.
extern void *(*mwSysMalloc)(size_t) GUARDED_BY(mwLock);

// ---- Helpers -------------------------------------------------------------------------------

// What the log prints for a missing file name or text. The untracked twins and several
// settings pass no location; "unknown" is the word the checks themselves use for one.
inline const char *mwName(const char *text) { return text != nullptr ? text : "unknown"; }

MW_UNCHECKED_ACCESS inline unsigned long mwCheckValue(const mwData *mw) {
  return kCheckSeed ^ (unsigned long)mw->count ^ (unsigned long)mw->size ^ (unsigned long)mw->line;
}
MW_UNCHECKED_ACCESS inline bool mwCheckRight(const mwData *mw) {
  return mw->check == mwCheckValue(mw);
}
inline unsigned char *mwUserArea(mwData *mw) REQUIRES(mwLock) {
  return reinterpret_cast<unsigned char *>(mw) + mwDataSize + kGuardLen;
}
inline mwData *mwHeaderOf(const void *p) REQUIRES(mwLock) {
  return reinterpret_cast<mwData *>(reinterpret_cast<uintptr_t>(p) - mwDataSize - kGuardLen);
}
// Every header and list entry the allocator made sits at an address aligned for a pointer.
// Anything else is garbage, and is never read as a record: on the ARM target a misaligned
// word load can raise SIGBUS, which no probe catches.
inline bool mwAligned(const void *p) {
  return (reinterpret_cast<uintptr_t>(p) & (alignof(void *) - 1)) == 0;
}

// A walk along the chain never takes more steps than there can be blocks, so a loop that a
// damaged link closes cannot hang the process.
inline long mwWalkLimit() REQUIRES(mwLock) {
  long blocks = mwLiveBlocks + mwRetainedBlocks;
  return (blocks > 0 ? 2 * blocks : 0) + 64;
}

// Fills a block that is about to go back to the system. Called through a volatile pointer:
// a fill right before free() is a dead store the optimiser would drop, and the fill is what
// makes a stale pointer's header fail every later check.
extern void *(*volatile mwFillReleased)(void *, int, size_t);

// ---- Internal operations ---------------------------------------------------------------------

// state.cc
void mwInitLocked() REQUIRES(mwLock);
void mwEnsureInit() REQUIRES(mwLock);
void mwRunAutoCheck(const char *file, int line) REQUIRES(mwLock);

// core.cc
void *mwMallocLocked(size_t size, const char *file, int line) REQUIRES(mwLock);
void mwFreeLocked(void *p, const char *file, int line) REQUIRES(mwLock);
void mwUnlinkBlock(mwData *mw, const char *file, int line) REQUIRES(mwLock);
size_t mwFreeUp(size_t needed) REQUIRES(mwLock);
bool mwRetainedIntact(mwData *mw) REQUIRES(mwLock);

// writer.cc
void mwWrite(const char *format, ...) VEMO_PRINTF(1, 2) REQUIRES(mwLock);
void mwDirect(const char *format, ...) VEMO_PRINTF(1, 2) REQUIRES(mwLock);
// Where mwDirect writes, or NULL when such lines are skipped.
FILE *mwDirectStream() REQUIRES(mwLock);
void mwLogPutc(int c) REQUIRES(mwLock);
FILE *mwCheckedLog() REQUIRES(mwLock);
int mwCheckedFlushLevel() REQUIRES(mwLock);
void mwSetFlushLevel(int level) REQUIRES(mwLock);
void mwFlushLog() REQUIRES(mwLock);
void mwCountAnomaly() REQUIRES(mwLock);
void mwOpenLog(const char *name) REQUIRES(mwLock);
// Formats into mwLineBuffer; returns the length kept and whether the text was cut.
size_t mwFormat(bool *cut, const char *format, va_list args) VEMO_PRINTF(2, 0) REQUIRES(mwLock);

// final_report.cc
mwStatEntry *mwStatFind(const char *file, int line, int create) REQUIRES(mwLock);
void mwStatFreeAll() REQUIRES(mwLock);
void mwAbortLocked() REQUIRES(mwLock);

// checks.cc: the address probe (1 readable, 0 not)
int mwProbe(const void *p, size_t length) REQUIRES(mwLock);

// checks.cc
int mwHeapIntact(mwData *block) REQUIRES(mwLock);
int mwIsOwned(mwData *mw, const char *file, int line) REQUIRES(mwLock);
int mwCheckBlock(mwData *mw, const char *file, int line) REQUIRES(mwLock);
int mwCheckHeap(const char *file, int line, bool automatic) REQUIRES(mwLock);

// repair.cc
int mwRepairChain(mwData *block, const char *file, int line) REQUIRES(mwLock);

// traps.cc
void mwTraceText(const char *format, ...) VEMO_PRINTF(1, 2) REQUIRES(mwLock);

// crossing.cc (and crossing.h): texts handed between the application and the client library.
// Set by the first tracked allocation: until then no answer can be a tracked block.
extern std::atomic<bool> mwTrackedEver;

// reserve.cc
unsigned mwGrabChunks(unsigned kilobytes, int type) REQUIRES(mwLock);
unsigned mwDropChunks(unsigned kilobytes, int type, bool silent) REQUIRES(mwLock);

}  // namespace vemo

#endif
