// Tracked blocks: allocation, release, the chain and the freed ring.
//
// Block layout: header (mwDataSize) | front guard (8) | user area (size) | back guard (8).
#include <stdlib.h>
#include <string.h>

#include "memguard/mw_internal.h"

namespace vemo {

FILE *mwLogStream3 = nullptr;
int mwFlushLevel3 = 0;

namespace {

void stat_add(const char *file, int line, size_t size) REQUIRES(mwLock) {
  if (mwStatMode == 0) return;
  mwStatEntry *entries[2] = {mwStatFind(file, -1, 1), nullptr};
  if (line != -1 && mwStatMode >= 2 && file != nullptr) entries[1] = mwStatFind(file, line, 1);
  for (mwStatEntry *entry : entries) {
    if (entry == nullptr) continue;
    entry->number += 1;
    entry->total += (long)size;
    entry->unfreed += (long)size;
    if (entry->unfreed > entry->largest) entry->largest = entry->unfreed;
  }
}

void stat_sub(const mwData *mw) REQUIRES(mwLock) {
  if (mwStatMode == 0) return;
  mwStatEntry *entry = mwStatFind(mw->file, -1, 1);
  if (entry != nullptr) entry->unfreed -= (long)mw->size;
  if (mw->line != -1 && mwStatMode >= 2 && mw->file != nullptr) {
    entry = mwStatFind(mw->file, mw->line, 1);
    if (entry != nullptr) entry->unfreed -= (long)mw->size;
  }
}

void write_fail(long event, const char *file, int line, long wanted) REQUIRES(mwLock) {
  mwWrite("fail: <%ld> %s(%d), %ld wanted %ld allocated\n", event, mwName(file), line, wanted,
          mwLiveBytes);
  mwCountAnomaly();
  mwFlushLog();
}

// The slot of the most recent free of p still remembered, or NULL.
const mwFreedSlot *freed_slot(const void *p) REQUIRES(mwLock) {
  for (const mwFreedSlot &slot : mwFreedRing) {
    if (slot.p == p) return &slot;
  }
  return nullptr;
}

void remember_free(const void *p, const char *file, int line) REQUIRES(mwLock) {
  mwFreedRing[mwFreedPos] = mwFreedSlot{p, file, line};
  mwFreedPos = (mwFreedPos + 1) % kFreedRingSlots;
}

// A free or reallocation of a pointer that is not a live tracked block.
void report_bad_release(const char *what, long event, const void *p, const char *file, int line)
    REQUIRES(mwLock) {
  const mwFreedSlot *slot = freed_slot(p);
  mwCountAnomaly();
  if (slot != nullptr) {
    mwWrite("%s: <%ld> %s(%d), %p was freed from %s(%d)\n", what, event, mwName(file), line, p,
            mwName(slot->file), slot->line);
  } else if (strcmp(what, "double-free") == 0) {
    mwWrite("WILD free: <%ld> %s(%d), unknown pointer %p\n", event, mwName(file), line, p);
  } else {
    mwWrite("%s: <%ld> %s(%d), unknown pointer %p\n", what, event, mwName(file), line, p);
  }
  mwFlushLog();
}

}  // namespace

bool mwRetainedIntact(mwData *mw) {
  const unsigned char *user = mwUserArea(mw);
  for (size_t i = 0; i < mw->size; ++i) {
    if (user[i] != kFillRetained) return false;
  }
  return true;
}

void *mwMallocLocked(size_t size, const char *file, int line) {
  mwEnsureInit();
  mwRunAutoCheck(file, line);
  long event = ++mwEventCount;
  size_t length;
  if (__builtin_add_overflow(size, mwDataSize + 2 * kGuardLen, &length)) return nullptr;
  if (mwLimitOn != 0 && (long)(size + (size_t)mwLiveBytes) > mwLimitBytes) {
    mwWrite("limit fail: <%ld> %s(%d), %ld wanted %ld available\n", event, mwName(file), line,
            (long)size, mwLimitBytes - mwLiveBytes);
    mwCountAnomaly();
    mwFlushLog();
    return nullptr;
  }
  auto *mw = static_cast<mwData *>(mwSysMalloc(length));
  if (mw == nullptr) {
    if (mwFreeUp(length) < length) {
      write_fail(event, file, line, (long)size);
      return nullptr;
    }
    mw = static_cast<mwData *>(mwSysMalloc(length));
    if (mw == nullptr) {
      mwWrite("internal: mwFreeUp(%u) reported success, but malloc() fails\n", (unsigned)length);
      mwCountAnomaly();
      mwFlushLog();
      write_fail(event, file, line, (long)size);
      return nullptr;
    }
  }
  mw->prev = nullptr;
  mw->next = mwHead;
  mw->file = file;
  mw->count = event;
  mw->size = size;
  mw->line = line;
  mw->flags = 0;
  mw->check = mwCheckValue(mw);
  if (mwHead != nullptr) mwHead->prev = mw;
  mwHead = mw;
  if (mwTail == nullptr) mwTail = mw;

  unsigned char *user = mwUserArea(mw);
  // A text handed out at this address was released with the system's free meanwhile.
  mwTakeHandedOutText(user);
  if (!mwTrackedEver.load(std::memory_order_relaxed)) {
    mwTrackedEver.store(true, std::memory_order_release);
  }
  memcpy(user - kGuardLen, mwGuard, kGuardLen);
  memset(user, kFillNew, size);
  memcpy(user + size, mwGuard, kGuardLen);

  mwLiveBytes += (long)size;
  if (mwLiveBytes > mwPeakBytes) mwPeakBytes = mwLiveBytes;
  mwLiveBlocks += 1;
  mwTotalBytes += (long)size;
  mwAllocCount += 1;
  stat_add(file, line, size);
  return user;
}

void mwFreeLocked(void *p, const char *file, int line) {
  if (file == nullptr) {
    // Memory that never came from the tracked functions: exactly what mwFree_ does.
    mwRunAutoCheck(nullptr, 0);
    free(p);
    return;
  }
  mwEnsureInit();
  mwRunAutoCheck(file, line);
  long event = ++mwEventCount;
  if (p == nullptr) {
    mwWrite("NULL free: <%ld> %s(%d), NULL pointer free'd\n", event, file, line);
    mwFlushLog();
    return;
  }
  if (mwTakeHandedOutText(p)) {
    // A response of the client library: system memory, released as such and remembered so
    // that a second free is told as a double free.
    remember_free(p, file, line);
    free(p);
    return;
  }
  mwData *mw = mwHeaderOf(p);
  if (mwIsOwned(mw, file, line) != 0) {
    mwCheckBlock(mw, file, line);
    if ((mw->flags & kFlagRetained) != 0) {
      if (mwUserArea(mw)[0] != kFillRetained) {
        mwWrite("internal: <%ld> %s(%d), no-mans-land MW-%p is corrupted\n", event, file, line,
                (void *)mw);
      }
    } else {
      mwLiveBlocks -= 1;
      mwLiveBytes -= (long)mw->size;
      stat_sub(mw);
      if (mwRetainMode != 0) {
        mw->flags |= kFlagRetained;
        mwRetainedBlocks += 1;
        mwRetainedBytes += (long)mw->size;
        memset(mwUserArea(mw), kFillRetained, mw->size);
      } else {
        size_t length = mw->size + mwDataSize + 2 * kGuardLen;
        mwUnlinkBlock(mw, file, line);
        mwFillReleased(mw, kFillReleased, length);
        free(mw);
      }
      remember_free(p, file, line);
      return;
    }
  }
  report_bad_release("double-free", event, p, file, line);
}

void mwUnlinkBlock(mwData *mw, const char *file, int line) {
  const char *where = mwName(file);
  if (mw->prev != nullptr) {
    if (mw->prev->next != mw) {
      mwWrite("internal: <%ld> %s(%d), MW-%p: link1 failure\n", mwEventCount, where, line,
              (void *)mw);
    } else {
      mw->prev->next = mw->next;
    }
  } else {
    if (mwHead != mw) {
      mwWrite("internal: <%ld> %s(%d), MW-%p: link1 NULL, but not head\n", mwEventCount, where,
              line, (void *)mw);
    }
    mwHead = mw->next;
  }
  if (mw->next != nullptr) {
    if (mw->next->prev != mw) {
      mwWrite("internal: <%ld> %s(%d), MW-%p: link2 failure\n", mwEventCount, where, line,
              (void *)mw);
    } else {
      mw->next->prev = mw->prev;
    }
  } else {
    if (mwTail != mw) {
      mwWrite("internal: <%ld> %s(%d), MW-%p: link2 NULL, but not tail\n", mwEventCount, where,
              line, (void *)mw);
    }
    mwTail = mw->prev;
  }
}

size_t mwFreeUp(size_t needed) {
  while (mwDropChunks(1, kTypeNoMansLand, true) > 0) {
    void *trial = mwSysMalloc(needed);
    if (trial != nullptr) {
      free(trial);
      return needed;
    }
  }
  long steps = mwWalkLimit();
  for (mwData *mw = mwHead; mw != nullptr && steps-- > 0;) {
    mwData *next = mw->next;
    if ((mw->flags & kFlagRetained) != 0) {
      if (mw->size != 0 && !mwRetainedIntact(mw)) {
        mwCountAnomaly();
        mwWrite("wild pointer: <%ld> NoMansLand %p alloc'd at %s(%d)\n", mw->count,
                (void *)(mwUserArea(mw) + 8), mwName(mw->file), mw->line);
      }
      mwUnlinkBlock(mw, "mwFreeUp", 0);
      mwRetainedBlocks -= 1;
      mwRetainedBytes -= (long)mw->size;
      free(mw);
      void *trial = mwSysMalloc(needed);
      if (trial != nullptr) {
        free(trial);
        return needed;
      }
    }
    mw = next;
  }
  return 0;
}

}  // namespace vemo

using namespace vemo;

extern "C" VEMO_API void *mwMalloc(size_t size, const char *file, int line) {
  MwGuard guard;
  return mwMallocLocked(size, file, line);
}

extern "C" VEMO_API void *mwCalloc(size_t count, size_t size, const char *file, int line) {
  MwGuard guard;
  size_t n;
  // A product that wraps would hand out a smaller block than the caller believes it has: such
  // a request fails like any allocation the system cannot satisfy, with the "fail:" line and
  // -1 ("more than can be addressed") as the amount wanted.
  if (__builtin_mul_overflow(count, size, &n)) {
    mwEnsureInit();
    mwRunAutoCheck(file, line);
    write_fail(++mwEventCount, file, line, -1L);
    return nullptr;
  }
  void *p = mwMallocLocked(n, file, line);
  if (p != nullptr) memset(p, 0, n);
  return p;
}

extern "C" VEMO_API char *mwStrdup(const char *s, const char *file, int line) {
  MwGuard guard;
  if (s == nullptr) {
    mwCountAnomaly();
    mwWrite("strdup: <%ld> %s(%d), strdup(NULL) called\n", mwEventCount, mwName(file), line);
    mwFlushLog();
    return nullptr;
  }
  size_t n = strlen(s) + 1;
  auto *p = static_cast<char *>(mwMallocLocked(n, file, line));
  if (p != nullptr) memcpy(p, s, n);
  return p;
}

extern "C" VEMO_API void mwFree(void *p, const char *file, int line) {
  MwGuard guard;
  mwFreeLocked(p, file, line);
}

extern "C" VEMO_API void *mwRealloc(void *p, size_t size, const char *file, int line) {
  MwGuard guard;
  mwEnsureInit();
  if (p == nullptr) return mwMallocLocked(size, file, line);
  if (size == 0) {
    mwFreeLocked(p, file, line);
    return nullptr;
  }
  if (mwTakeHandedOutText(p)) {
    // A response of the client library stays system memory, and stays known as such.
    void *q = realloc(p, size);
    mwNoteHandedOutText(q != nullptr ? q : p);
    return q;
  }
  mwData *mw = mwHeaderOf(p);
  if (mwIsOwned(mw, file, line) != 0) {
    if ((mw->flags & kFlagRetained) != 0) {
      mwCountAnomaly();
      if (mwUserArea(mw)[0] != kFillRetained) {
        mwWrite("internal: <%ld> %s(%d), no-mans-land MW-%p is corrupted\n", mwEventCount,
                mwName(file), line, (void *)mw);
      }
    } else {
      size_t old_size = mw->size;
      if (mwLimitOn != 0 && (long)(size + (size_t)mwLiveBytes - old_size) > mwLimitBytes) {
        mwRunAutoCheck(file, line);
        long event = ++mwEventCount;
        mwWrite("limit fail: <%ld> %s(%d), %ld wanted %ld available\n", event, mwName(file),
                line, (long)size - (long)old_size, mwLimitBytes - mwLiveBytes);
        mwCountAnomaly();
        mwFlushLog();
        return nullptr;
      }
      // The data always moves, so a caller that keeps the old pointer is caught by the next
      // check; the limit is suspended meanwhile because old and new block briefly coexist.
      int limit_was_on = mwLimitOn;
      mwLimitOn = 0;
      void *q = mwMallocLocked(size, file, line);
      if (q != nullptr) {
        memcpy(q, p, size < old_size ? size : old_size);
        mwFreeLocked(p, file, line);
      }
      mwLimitOn = limit_was_on;
      return q;
    }
  }
  report_bad_release("realloc", mwEventCount, p, file, line);
  return nullptr;
}

// The untracked twins never start the allocator; they only honour the automatic check.
extern "C" VEMO_API void *mwMalloc_(size_t size) {
  {
    MwGuard guard;
    mwRunAutoCheck(nullptr, 0);
  }
  return malloc(size);
}

extern "C" VEMO_API void *mwCalloc_(size_t count, size_t size) {
  {
    MwGuard guard;
    mwRunAutoCheck(nullptr, 0);
  }
  return calloc(count, size);
}

extern "C" VEMO_API void *mwRealloc_(void *p, size_t size) {
  {
    MwGuard guard;
    mwRunAutoCheck(nullptr, 0);
  }
  return realloc(p, size);
}

extern "C" VEMO_API void mwFree_(void *p) {
  {
    MwGuard guard;
    mwRunAutoCheck(nullptr, 0);
  }
  free(p);
}
