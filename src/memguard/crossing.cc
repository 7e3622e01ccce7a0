// Texts that cross between the application and the client library, whether or not the
// application routes its allocations through the allocator (<vemo/mw_override.h>).
//
// Out: the responses the library hands out are system memory, so that a plain free() releases
// them. An application file that includes the override header frees them with mwFree, which
// must then release them too rather than report a wild free. The library notes every text it
// hands out in a table; mwFree and mwRealloc take a pointer that is in the table as such a text.
// The system allocator cannot hand out an address that a tracked block holds, so a pointer in
// the table is never a tracked block; a stale entry (a text the application released with the
// system's free) is dropped when its address becomes a tracked block's. The table is bounded:
// when the few slots an address may use are all taken, the oldest guess is overwritten and
// that text, if still held, is reported as a wild free when mwFree gets it.
//
// In: an answer the application's handler stores may come from the mapped malloc or strdup (a
// tracked block) or from the system (a plain file, cJSON's printer, another library). The
// library releases it with mwReleaseHandedInText, which tells the two apart by the header in
// front of the pointer and leaves whatever may be tracked to mwFree.
#include <stdint.h>
#include <stdlib.h>

#include <atomic>

#include "memguard/mw_internal.h"

namespace vemo {

std::atomic<bool> mwTrackedEver{false};

namespace {

// 256 slots (1 KB on the 32-bit target); an address may use the 8 slots from its hash on.
constexpr unsigned kSlots = 256;
constexpr unsigned kProbes = 8;
std::atomic<void *> g_texts[kSlots];

unsigned home_slot(const void *p) {
  // Fibonacci hashing of the address without its alignment bits.
  uint32_t key = static_cast<uint32_t>(reinterpret_cast<uintptr_t>(p) >> 3);
  return (key * 2654435769u) >> 24;
}

// The library's name for itself where the allocator records a free it made.
constexpr char kLibraryPlace[] = "libvemo";

// Pages are 4 KB or larger on every system we run on: two addresses in one 4 KB piece share a
// page.
constexpr uintptr_t kMinPageBytes = 4096;

// Whether p may be a tracked block: its header's check value or its front guard fits. In a
// system block the bytes in front of p are the system allocator's bookkeeping, which matches
// neither. Only the header is read, with a probe only when it lies on another page than p
// (p itself is readable: the library has just sent the text); no walk of the chain, which
// would cost a probe per block on every answer.
MW_UNCHECKED_ACCESS bool looks_tracked(void *p) REQUIRES(mwLock) {
  mwData *mw = mwHeaderOf(p);
  uintptr_t header = reinterpret_cast<uintptr_t>(mw);
  uintptr_t user = reinterpret_cast<uintptr_t>(p);
  if (!mwAligned(mw) || header > user) return false;
  if (header / kMinPageBytes != user / kMinPageBytes && mwProbe(mw, mwDataSize + kGuardLen) == 0) {
    return false;
  }
  if (mwCheckRight(mw)) return true;
  // A loop rather than memcmp, which the address sanitizer would check: in front of a system
  // block lie the sanitizer's own guard bytes.
  const unsigned char *guard = static_cast<unsigned char *>(p) - kGuardLen;
  for (size_t i = 0; i < kGuardLen; ++i) {
    if (guard[i] != static_cast<unsigned char>(mwGuard[i])) return false;
  }
  return true;
}

}  // namespace

void mwNoteHandedOutText(void *p) {
  if (p == nullptr) return;
  unsigned home = home_slot(p);
  for (unsigned i = 0; i < kProbes; ++i) {
    std::atomic<void *> &slot = g_texts[(home + i) % kSlots];
    void *expected = nullptr;
    if (slot.load(std::memory_order_relaxed) == nullptr &&
        slot.compare_exchange_strong(expected, p)) {
      return;
    }
  }
  g_texts[home].store(p);
}

bool mwTakeHandedOutText(const void *p) {
  if (p == nullptr) return false;
  bool found = false;
  unsigned home = home_slot(p);
  for (unsigned i = 0; i < kProbes; ++i) {
    std::atomic<void *> &slot = g_texts[(home + i) % kSlots];
    void *expected = const_cast<void *>(p);
    // Every copy goes: the same address may have been noted again after a system free.
    if (slot.load(std::memory_order_relaxed) == p &&
        slot.compare_exchange_strong(expected, nullptr)) {
      found = true;
    }
  }
  return found;
}

void mwReleaseHandedInText(void *p) {
  if (p == nullptr) return;
  // Without a tracked allocation ever made, the text is the system's: no lock, no probe.
  if (!mwTrackedEver.load(std::memory_order_acquire)) {
    mwTakeHandedOutText(p);
    free(p);
    return;
  }
  MwGuard guard;
  if (!mwTakeHandedOutText(p) && looks_tracked(p)) {
    // All checks and reports of an application's free apply, double frees included.
    mwFreeLocked(p, kLibraryPlace, 0);
    return;
  }
  free(p);
}

}  // namespace vemo
