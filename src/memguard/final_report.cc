// Statistics per module and line, and the final report: leaks, retained blocks, marks and the
// statistics tables, after which every tracked block is released and the log closed.
#include <ctype.h>
#include <stdlib.h>
#include <string.h>
#include <time.h>

#include <initializer_list>

#include "memguard/mw_internal.h"

namespace vemo {

namespace {

bool same_file(const char *a, const char *b) {
  if (a == nullptr || b == nullptr) return a == b;
  return strcmp(a, b) == 0;
}

// A line entry belongs under a module when, letter case aside, the module's name equals the
// entry's name or begins with it.
bool line_entry_matches(const char *module, const char *entry) {
  for (size_t i = 0;; ++i) {
    if (entry[i] == '\0') return true;
    if (toupper((unsigned char)module[i]) != toupper((unsigned char)entry[i])) return false;
  }
}

void write_statistics() REQUIRES(mwLock) {
  mwWrite("\nMemory usage statistics (global):\n");
  mwWrite(" N)umber of allocations made: %ld\n", mwAllocCount);
  mwWrite(" L)argest memory usage      : %ld\n", mwPeakBytes);
  mwWrite(" T)otal of all alloc() calls: %ld\n", mwTotalBytes);
  mwWrite(" U)nfreed bytes totals      : %ld\n", mwLiveBytes);
  mwFlushLog();
  if (mwStatMode <= 0) return;
  mwWrite("\nMemory usage statistics (detailed):\n");
  mwWrite(" Module/Line                                Number   Largest  Total    Unfreed \n");
  for (mwStatEntry *module = mwStatEntries; module != nullptr; module = module->next) {
    if (module->line != -1) continue;
    const char *name = "<unknown>";
    if (module->file != nullptr && mwProbe(module->file, 22) != 0) {
      name = module->file;
      size_t length = strlen(name);
      if (length > 42) name += length - 42;
    }
    mwWrite(" %-42s %-8ld %-8ld %-8ld %-8ld\n", name, module->number, module->largest,
            module->total, module->unfreed);
    if (module->file == nullptr || mwStatMode < 2) continue;
    for (mwStatEntry *entry = mwStatEntries; entry != nullptr; entry = entry->next) {
      if (entry->line == -1 || entry->file == nullptr) continue;
      if (!line_entry_matches(module->file, entry->file)) continue;
      mwWrite("  %-8d                                  %-8ld %-8ld %-8ld %-8ld\n", entry->line,
              entry->number, entry->largest, entry->total, entry->unfreed);
    }
  }
}

void write_leak(mwData *mw) REQUIRES(mwLock) {
  unsigned char *user = mwUserArea(mw);
  mwAnomalies += 1;
  mwWrite("unfreed: <%ld> %s(%d), %ld bytes at %p ", mw->count, mwName(mw->file), mw->line,
          (long)mw->size, (void *)user);
  if (memcmp(user - kGuardLen, mwGuard, kGuardLen) != 0) {
    mwWrite("[underflowed] ");
    mwFlushLog();
  }
  if (memcmp(user + mw->size, mwGuard, kGuardLen) != 0) {
    mwWrite("[overflowed] ");
    mwFlushLog();
  }
  size_t shown = mw->size < 16 ? mw->size : 16;
  char dump[16 * 3 + 16 + 8];
  size_t at = 0;
  for (size_t i = 0; i < 16; ++i) {
    if (i < shown) {
      at += (size_t)snprintf(dump + at, sizeof dump - at, "%02X ", user[i]);
    } else {
      memcpy(dump + at, ".. ", 3);
      at += 3;
    }
  }
  for (size_t i = 0; i < shown; ++i) {
    dump[at++] = (user[i] >= 0x20 && user[i] <= 0x7E) ? (char)user[i] : '.';
  }
  dump[at] = '\0';
  mwWrite(" \t{%s}\n", dump);
}

// Both kinds of reserve go back in full; a single give-back stops at 60000 KB.
void drop_all() REQUIRES(mwLock) {
  for (int type : {kTypeGrabbed, kTypeNoMansLand}) {
    while (mwDropChunks(0, type, false) > 0) {
    }
  }
  if (mwReserveChunks != nullptr) {
    mwWrite("internal: the grab list is not empty after mwDropAll()\n");
  }
}

void release_block(mwData *mw) REQUIRES(mwLock) {
  size_t length = mw->size + mwDataSize + 2 * kGuardLen;
  mwUnlinkBlock(mw, __FILE__, __LINE__);
  mwFillReleased(mw, kFillReleased, length);
  free(mw);
}

}  // namespace

mwStatEntry *mwStatFind(const char *file, int line, int create) {
  int key = mwStatMode >= 2 ? line : -1;
  for (mwStatEntry *entry = mwStatEntries; entry != nullptr; entry = entry->next) {
    if (entry->line == key && same_file(entry->file, file)) return entry;
  }
  if (create == 0) return nullptr;
  auto *entry = static_cast<mwStatEntry *>(mwSysMalloc(sizeof(mwStatEntry)));
  if (entry == nullptr && mwFreeUp(sizeof(mwStatEntry)) >= sizeof(mwStatEntry)) {
    entry = static_cast<mwStatEntry *>(mwSysMalloc(sizeof(mwStatEntry)));
  }
  if (entry == nullptr) {
    mwWrite("internal: memory low, statistics incomplete for '%s'\n", mwName(file));
    return nullptr;
  }
  *entry = mwStatEntry{mwStatEntries, file, 0, 0, 0, 0, key};
  mwStatEntries = entry;
  return entry;
}

void mwStatFreeAll() {
  while (mwStatEntries != nullptr) {
    mwStatEntry *next = mwStatEntries->next;
    free(mwStatEntries);
    mwStatEntries = next;
  }
}

void mwAbortLocked() {
  bool was_in_report = mwInReport;
  mwInReport = true;
  char when[64];
  time_t now = time(nullptr);
  if (ctime_r(&now, when) == nullptr) snprintf(when, sizeof when, "(unknown time)\n");
  mwWrite("\nStopped at %s\n", when);
  if (mwInitCount == 0) mwWrite("internal: mwAbort(): MEMGUARD not initialized!\n");
  if (mwAutoCheckOn != 0) mwCheckHeap(nullptr, 0, true);
  drop_all();

  while (mwFirstMark != nullptr) {
    mwMarkEntry *mark = mwFirstMark;
    mwWrite("mark: %p: %s\n", mark->host, mwName(mark->text));
    mwFirstMark = mark->next;
    free(mark->text);
    free(mark);
    mwAnomalies += 1;
  }

  int restarts = 0;
  while (mwHead != nullptr && restarts < 3) {
    if (mwIsOwned(mwHead, __FILE__, __LINE__) == 0) {
      ++restarts;
      mwWrite("internal: NML/unfreed scan restarting\n");
      mwFlushLog();
      continue;
    }
    mwSetFlushLevel(0);
    mwData *mw = mwHead;
    if ((mw->flags & kFlagRetained) != 0) {
      if (mw->size != 0 && !mwRetainedIntact(mw)) {
        mwAnomalies += 1;
        mwWrite("wild pointer: <%ld> NoMansLand %p alloc'd at %s(%d)\n", mw->count,
                (void *)(mwUserArea(mw) + 8), mwName(mw->file), mw->line);
        mwFlushLog();
      }
      mwRetainedBlocks -= 1;
      mwRetainedBytes -= (long)mw->size;
    } else {
      write_leak(mw);
    }
    release_block(mw);
  }

  if (mwRetainedBlocks != 0) {
    mwWrite("internal: NoMansLand block counter %ld, not zero\n", mwRetainedBlocks);
  }
  if (mwRetainedBytes != 0) {
    mwWrite("internal: NoMansLand byte counter %ld, not zero\n", mwRetainedBytes);
  }
  write_statistics();

  mwFlushLog();
  mwInitCount = 0;
  mwHead = nullptr;
  mwTail = nullptr;
  if (mwAnomalies != 0) mwDirect("MEMGUARD detected %ld anomalies\n", mwAnomalies);
  mwOpenLog(nullptr);
  mwAnomalies = 0;
  mwInReport = was_in_report;
}

}  // namespace vemo
