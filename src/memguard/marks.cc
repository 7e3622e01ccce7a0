// Marks: descriptions attached to pointers, listed as anomalies when still set at the end.
// Entries and texts come from the system allocator, never from the tracked one.
#include <stdlib.h>
#include <string.h>

#include "memguard/mw_internal.h"

namespace vemo {

namespace {

constexpr size_t kPlaceSize = 128;

void out_of_memory(const char *file, int line, const void *p, const char *description)
    REQUIRES(mwLock) {
  mwWrite("mark: %s(%d), no mark for %p:'%s', out of memory\n", file, line, p, description);
}

}  // namespace

}  // namespace vemo

using namespace vemo;

extern "C" VEMO_API void *mwMark(void *p, const char *description, const char *file, int line) {
  MwGuard guard;
  mwEnsureInit();
  mwRunAutoCheck(nullptr, 0);
  description = mwName(description);
  file = mwName(file);

  char place[kPlaceSize];
  int wanted = snprintf(place, sizeof place, "%.48s called from %s(%d)", description, file, line);
  bool cut = wanted > (int)kPlaceSize - 1;

  if (p == nullptr) {
    mwWrite("mark: %s(%d), no mark for NULL:'%s' may be set\n", file, line, description);
    return p;
  }
  if (mwFirstMark != nullptr && (!mwAligned(mwFirstMark) || mwProbe(mwFirstMark, 16) == 0)) {
    mwWrite("mark: %s(%d), mwFirstMark (%p) is trashed, can't mark for %s\n", file, line,
            (void *)mwFirstMark, description);
    return p;
  }
  mwMarkEntry *found = nullptr;
  for (mwMarkEntry *entry = mwFirstMark; entry != nullptr; entry = entry->next) {
    if (entry->next != nullptr && (!mwAligned(entry->next) || mwProbe(entry->next, 16) == 0)) {
      mwWrite("mark: %s(%d), mark(%p)->next(%p) is trashed, can't mark for %s\n", file, line,
              (void *)entry, (void *)entry->next, description);
      return p;
    }
    if (entry->host == p) {
      found = entry;
      break;
    }
  }

  if (found != nullptr) {
    size_t old_length = strlen(found->text);
    size_t place_length = strlen(place);
    auto *text = static_cast<char *>(mwSysMalloc(old_length + place_length + 3));
    if (text == nullptr) {
      out_of_memory(file, line, p, description);
      return p;
    }
    memcpy(text, found->text, old_length);
    memcpy(text + old_length, ", ", 2);
    memcpy(text + old_length + 2, place, place_length + 1);
    free(found->text);
    found->text = text;
    found->depth += 1;
  } else {
    auto *entry = static_cast<mwMarkEntry *>(mwSysMalloc(sizeof(mwMarkEntry)));
    size_t place_length = strlen(place);
    auto *text = static_cast<char *>(mwSysMalloc(place_length + 1));
    if (entry == nullptr || text == nullptr) {
      free(entry);
      free(text);
      out_of_memory(file, line, p, description);
      return p;
    }
    memcpy(text, place, place_length + 1);
    *entry = mwMarkEntry{p, text, mwFirstMark, 1};
    mwFirstMark = entry;
  }
  if (cut) {
    mwCountAnomaly();
    mwTraceText(" [WARNING: OUTPUT BUFFER OVERFLOW - SYSTEM UNSTABLE]\n");
  }
  return p;
}

extern "C" VEMO_API void *mwUnmark(void *p, const char *file, int line) {
  MwGuard guard;
  file = mwName(file);
  mwMarkEntry *previous = nullptr;
  mwMarkEntry *entry = mwFirstMark;
  while (entry != nullptr && entry->host != p) {
    previous = entry;
    entry = entry->next;
  }
  if (entry == nullptr) {
    mwWrite("mark: %s(%d), no mark found for %p\n", file, line, p);
  } else if (entry->depth > 1) {
    entry->depth -= 1;
  } else {
    if (previous != nullptr) {
      previous->next = entry->next;
    } else {
      mwFirstMark = entry->next;
    }
    free(entry->text);
    free(entry);
  }
  return p;
}
