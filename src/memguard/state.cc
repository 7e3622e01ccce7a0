// The allocator's process-wide state, its lock, and starting and ending the allocator.
#include <pthread.h>
#include <stdlib.h>
#include <string.h>
#include <time.h>

#include "memguard/mw_internal.h"

namespace vemo {

// ---- The lock ------------------------------------------------------------------------------

namespace {

// Plain storage set up on first use, so that a call from another module's static
// constructor, before this file's constructors ran, still finds a working lock.
pthread_once_t g_lock_once = PTHREAD_ONCE_INIT;
pthread_mutex_t g_mutex;

void make_recursive(pthread_mutex_t *mutex) {
  pthread_mutexattr_t attr;
  pthread_mutexattr_init(&attr);
  pthread_mutexattr_settype(&attr, PTHREAD_MUTEX_RECURSIVE);
  pthread_mutex_init(mutex, &attr);
  pthread_mutexattr_destroy(&attr);
}

// A fork while another thread is inside the allocator would leave the child with a lock that
// nobody can release: hold it across the fork and give the child a fresh one.
void fork_prepare() { pthread_mutex_lock(&g_mutex); }
void fork_parent() { pthread_mutex_unlock(&g_mutex); }
void fork_child() { make_recursive(&g_mutex); }

void init_lock() {
  make_recursive(&g_mutex);
  pthread_atfork(fork_prepare, fork_parent, fork_child);
}

}  // namespace

void MwLock::lock() {
  pthread_once(&g_lock_once, init_lock);
  pthread_mutex_lock(&g_mutex);
}

void MwLock::unlock() { pthread_mutex_unlock(&g_mutex); }

bool MwLock::lock_within_ms(int timeout_ms) {
  pthread_once(&g_lock_once, init_lock);
  // pthread_mutex_timedlock only knows the wall clock; a clock step merely changes how long
  // the exit-time report waits for a thread that is still inside the allocator.
  struct timespec deadline;
  clock_gettime(CLOCK_REALTIME, &deadline);
  deadline.tv_sec += timeout_ms / 1000;
  deadline.tv_nsec += (long)(timeout_ms % 1000) * 1000000L;
  if (deadline.tv_nsec >= 1000000000L) {
    deadline.tv_sec += 1;
    deadline.tv_nsec -= 1000000000L;
  }
  return pthread_mutex_timedlock(&g_mutex, &deadline) == 0;
}

MwLock mwLock;

// ---- State ---------------------------------------------------------------------------------

const char mwGuard[kGuardLen] = {'m', 'E', 'm', 'G', 'u', 'A', 'r', 'D'};

int mwInitCount = 0;
int mwBannerDone = 0;
int mwExitHookWanted = 0;
bool mwInReport = false;
bool mwLogUnavailable = false;
mwData *mwHead = nullptr;
mwData *mwTail = nullptr;
size_t mwDataSize = 0;
long mwEventCount = 0;
long mwAnomalies = 0;
FILE *mwLogStream1 = nullptr;
long mwTotalBytes = 0;
long mwLiveBytes = 0;
long mwPeakBytes = 0;
long mwAllocCount = 0;
long mwLiveBlocks = 0;
int mwFlushLevel1 = 0;
long mwRetainedBytes = 0;
long mwRetainedBlocks = 0;
int mwStatMode = 0;
mwStatEntry *mwStatEntries = nullptr;
int mwLimitOn = 0;
long mwLimitBytes = 0;
int mwAutoCheckOn = 0;
int mwCheckItems = 0;
int mwRetainMode = 0;
mwGrabChunk *mwReserveChunks = nullptr;
long mwReserveBytes = 0;
mwMarkEntry *mwFirstMark = nullptr;
void (*mwOutHook)(int) = nullptr;
int (*mwAriCallback)(const char *) = nullptr;
int mwAriActionMask = 4;
char mwLineBuffer[kLineChars + 8];
mwFreedSlot mwFreedRing[kFreedRingSlots];
int mwFreedPos = 0;
void *(*mwSysMalloc)(size_t) = ::malloc;
void *(*volatile mwFillReleased)(void *, int, size_t) = memset;

// ---- Start and end -------------------------------------------------------------------------

namespace {

bool g_exit_hook_registered GUARDED_BY(mwLock) = false;

// The report at process exit. Another thread may still be inside the allocator when main
// returns; rather than hang the exit, the report is skipped after a second.
void exit_report() {
  if (!mwLock.lock_within_ms(1000)) return;
  mwAbortLocked();
  mwLock.unlock();
}

}  // namespace

void mwInitLocked() {
  if (mwInitCount++ > 0) return;
  if (mwCheckedLog() == nullptr) {
    mwOpenLog("memguard.log");
    char name[16];
    for (int i = 1; i <= 99 && mwCheckedLog() == nullptr; ++i) {
      snprintf(name, sizeof name, "memgrd%02d.log", i);
      mwOpenLog(name);
    }
    mwLogUnavailable = mwCheckedLog() == nullptr;
  }
  mwStatFreeAll();
  mwTotalBytes = 0;
  mwLiveBytes = 0;
  mwPeakBytes = 0;
  mwAllocCount = 0;
  mwRetainedBytes = 0;
  mwRetainedBlocks = 0;
  mwDataSize = kDataSize;
  if (mwBannerDone == 0) {
    mwBannerDone = 1;
    char when[64];
    time_t now = time(nullptr);
    if (ctime_r(&now, when) == nullptr) snprintf(when, sizeof when, "(unknown time)\n");
    mwWrite("\n============= MEMGUARD 1.00 =============\n");
    mwWrite("\nStarted at %s\n", when);
    mwWrite("Modes: ");
    mwWrite("__STDC__ ");
    mwWrite("64-bit ");
    mwWrite("mwDWORD==(unsigned long)\n");
    mwWrite("mwROUNDALLOC==%d sizeof(mwData)==%d mwDataSize==%d\n", (int)mwROUNDALLOC,
            (int)sizeof(mwData), (int)mwDataSize);
    mwWrite("\n");
    mwFlushLog();
  }
  // One registration per process: a report that finds the allocator terminated does nothing
  // harmful, but the slots of atexit are limited on small C libraries.
  if (mwExitHookWanted != 0 && !g_exit_hook_registered) {
    g_exit_hook_registered = true;
    atexit(exit_report);
  }
}

void mwEnsureInit() {
  if (mwInitCount == 0) {
    mwExitHookWanted = 1;
    mwInitLocked();
  }
}

void mwRunAutoCheck(const char *file, int line) {
  if (mwAutoCheckOn != 0) mwCheckHeap(file, line, true);
}

}  // namespace vemo

using namespace vemo;

extern "C" VEMO_API void mwInit(void) {
  MwGuard guard;
  mwInitLocked();
}

extern "C" VEMO_API void mwTerm(void) {
  MwGuard guard;
  if (mwInitCount == 1) {
    mwAbortLocked();
  } else if (mwInitCount == 0) {
    mwWrite("internal: mwTerm(): MEMGUARD has not been started!\n");
  } else {
    --mwInitCount;
  }
}

extern "C" VEMO_API void mwAbort(void) {
  MwGuard guard;
  mwAbortLocked();
}
