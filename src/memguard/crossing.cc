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
// tracked block) or from the system (a plain file, another library). The library releases it
// with release_handed_in_text, which asks the chain which of the two it is.
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

}  // namespace

void mwNoteHandedOutText(void *p) {
  if (p == nullptr) return;
  unsigned home = home_slot(p);
  for (unsigned i = 0; i < kProbes; ++i) {
    void *expected = nullptr;
    if (g_texts[(home + i) % kSlots].compare_exchange_strong(expected, p)) return;
  }
  g_texts[home].store(p);
}

bool mwTakeHandedOutText(const void *p) {
  if (p == nullptr) return false;
  bool found = false;
  unsigned home = home_slot(p);
  for (unsigned i = 0; i < kProbes; ++i) {
    void *expected = const_cast<void *>(p);
    // Every copy goes: the same address may have been noted again after a system free.
    if (g_texts[(home + i) % kSlots].compare_exchange_strong(expected, nullptr)) found = true;
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
  if (!mwTakeHandedOutText(p) && mwHead != nullptr &&
      mwIsOwned(mwHeaderOf(p), kLibraryPlace, 0) != 0) {
    // Retained (already freed) blocks are reported as double frees here, as for any free.
    mwFreeLocked(p, kLibraryPlace, 0);
    return;
  }
  free(p);
}

}  // namespace vemo
