// The allocation limit, reserve memory in 1 KB chunks (taken by the application, or kept as
// no-man's-land so that freed memory is not handed out again) and the statistics level.
#include <stdlib.h>
#include <string.h>

#include "memguard/mw_internal.h"

namespace vemo {

namespace {

const char *type_name(int type) {
  switch (type) {
    case kTypeGrabbed:
      return "grabbed";
    case kTypeNoMansLand:
      return "no-mans-land";
    default:
      return "<unknown type>";
  }
}

// The first filler byte that no longer holds the chunk's type, or NULL.
const unsigned char *first_hit(const mwGrabChunk *chunk, int type) {
  for (const unsigned char &byte : chunk->filler) {
    if (byte != (unsigned char)type) return &byte;
  }
  return nullptr;
}

}  // namespace

unsigned mwGrabChunks(unsigned kilobytes, int type) {
  unsigned wanted = kilobytes != 0 ? kilobytes : 65000;
  unsigned taken = 0;
  for (;;) {
    if (mwLimitOn != 0 && mwLiveBytes + mwReserveBytes + (long)kChunkSize > mwLimitBytes) {
      mwWrite("grabbed: all allowed memory to %s (%u kb)\n", type_name(type), taken);
      mwFlushLog();
      return taken;
    }
    auto *chunk = static_cast<mwGrabChunk *>(mwSysMalloc(kChunkSize));
    if (chunk == nullptr) {
      mwWrite("grabbed: all available memory to %s (%u kb)\n", type_name(type), taken);
      mwFlushLog();
      return taken;
    }
    chunk->next = mwReserveChunks;
    chunk->type = type;
    memset(chunk->filler, (unsigned char)type, sizeof chunk->filler);
    mwReserveChunks = chunk;
    mwReserveBytes += (long)kChunkSize;
    if (++taken == wanted) {
      mwWrite("grabbed: %u kilobytes of %s memory\n", wanted, type_name(type));
      mwFlushLog();
      return wanted;
    }
  }
}

unsigned mwDropChunks(unsigned kilobytes, int type, bool silent) {
  if (mwReserveChunks == nullptr) return 0;
  unsigned wanted = kilobytes != 0 ? kilobytes : 60000;
  unsigned released = 0;
  mwGrabChunk *previous = nullptr;
  mwGrabChunk *chunk = mwReserveChunks;
  while (chunk != nullptr && released < wanted) {
    mwGrabChunk *next = chunk->next;
    if (chunk->type != type) {
      previous = chunk;
      chunk = next;
      continue;
    }
    if (previous != nullptr) {
      previous->next = next;
    } else {
      mwReserveChunks = next;
    }
    const unsigned char *hit = first_hit(chunk, type);
    if (hit != nullptr) {
      mwWrite("wild pointer: <%ld> %s memory hit at %p\n", mwEventCount, type_name(type),
              (const void *)hit);
      mwFlushLog();
    }
    free(chunk);
    mwReserveBytes -= (long)kChunkSize;
    released += 1;
    chunk = next;
  }
  if (released == wanted) {
    if (!silent) {
      mwWrite("dropped: %u kilobytes of %s memory\n", wanted, type_name(type));
      mwFlushLog();
    }
    return wanted;
  }
  if (!silent && released != 0) {
    mwWrite("dropped: all %s memory (%u kb)\n", type_name(type), released);
    mwFlushLog();
  }
  return released;
}

}  // namespace vemo

using namespace vemo;

extern "C" VEMO_API void mwLimit(long bytes) {
  MwGuard guard;
  mwRunAutoCheck(nullptr, 0);
  mwWrite("limit: old limit = ");
  if (mwLimitBytes == 0) {
    mwWrite("none");
  } else {
    mwWrite("%ld bytes", mwLimitBytes);
  }
  mwWrite(", new limit = ");
  if (bytes == 0) {
    mwWrite("none\n");
  } else {
    mwWrite("%ld bytes\n", bytes);
  }
  mwLimitOn = bytes != 0 ? 1 : 0;
  mwLimitBytes = bytes;
  mwFlushLog();
}

extern "C" VEMO_API unsigned mwGrab(unsigned kilobytes) {
  MwGuard guard;
  mwRunAutoCheck(nullptr, 0);
  return mwGrabChunks(kilobytes, kTypeGrabbed);
}

extern "C" VEMO_API unsigned mwDrop(unsigned kilobytes) {
  MwGuard guard;
  mwRunAutoCheck(nullptr, 0);
  return mwDropChunks(kilobytes, kTypeGrabbed, false);
}

extern "C" VEMO_API void mwNoMansLand(int level) {
  MwGuard guard;
  mwEnsureInit();
  mwRunAutoCheck(nullptr, 0);
  switch (level) {
    case MW_NML_NONE:
      // One give-back stops at 60000 KB; the whole reserve goes back.
      while (mwDropChunks(0, kTypeNoMansLand, false) > 0) {
      }
      mwRetainMode = 0;
      break;
    case MW_NML_FREE:
      mwRetainMode = 1;
      break;
    case MW_NML_ALL:
      mwGrabChunks(0, kTypeNoMansLand);
      mwRetainMode = 2;
      break;
    default:
      break;
  }
}

extern "C" VEMO_API void mwStatistics(int level) {
  MwGuard guard;
  mwEnsureInit();
  if (level < 0) level = 0;
  if (level == mwStatMode) return;
  mwWrite("statistics: now collecting on a %s basis\n",
          level == 0 ? "global" : (level == 1 ? "module" : "line"));
  mwStatMode = level;
}
