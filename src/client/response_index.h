// The index of the response list: its entries by id in a hash table, in newest-first order in a
// doubly linked chain, and by the tick at which their time runs out in two binary min-heaps
// (pending entries in one, arrived ones in the other). Adding, finding, delivering and removing
// an entry never walk the others; only a resize and a clear of everything do.
//
// The index is not locked: its owner, the response list, guards it with its mutex.
#ifndef VEMO_CLIENT_RESPONSE_INDEX_H
#define VEMO_CLIENT_RESPONSE_INDEX_H

#include <stddef.h>
#include <stdint.h>

#include "vemo/vemo.h"
#include "vemo/vemo_ext.h"

namespace vemo {

struct ResponseWaiter;

// One request id of the list; one heap allocation, owned by the list while it is indexed and by
// the thread that removed it afterwards.
struct ResponseEntry {
  int id;
  int32_t timeout_ms;
  uint32_t added_tick;  // when the request id was entered (the acknowledgement)
  uint32_t recv_tick;   // when the response arrived; meaningful only once arrived is set
  // Kept apart from recv_tick: the tick counter does read 0 (after a wrap, or when the clock
  // cannot be read), and a response stored at that moment has arrived all the same.
  bool arrived;
  char *response;
  int code;  // the daemon's code of a failed request (arrived without a response), else 0
  vemo_response_cb callback;
  vemo_response_ex_cb callback_ex;  // the extension's callback, with its user pointer
  void *user;
  ResponseWaiter *waiters;

  // Owned by the index.
  uint32_t seq;  // order of adding, for the newest-first order of a batch removal
  uint32_t due;  // the tick at which its time runs out: from added_tick, then from recv_tick
  uint32_t due_later_ms;  // of a long timeout, the part beyond due (see ResponseIndex::kLegMs)
  int32_t heap_slot;
  ResponseEntry *newer;
  ResponseEntry *older;  // after removal, free for chaining removed entries
  ResponseEntry *hash_next;
};

class ResponseIndex {
 public:
  // The index never holds fewer slots than this, so a quiet list needs no resizing.
  static constexpr int32_t kMinCapacity = 16;
  // Due ticks are ordered by their signed 32-bit difference, which is right only while all of
  // them lie within 2^31 ms of each other. Entries that are overdue (the sweep runs every 50 ms)
  // sit just behind now, so a timeout beyond this leg (12.4 days; INT32_MAX is 24.8) is run
  // out in legs of at most this length.
  static constexpr uint32_t kLegMs = 1u << 30;
  // Bytes of the storage block for capacity entries; 0 when that is more than memory can hold.
  static size_t block_bytes(int32_t capacity);

  // Puts a storage block of block_bytes(capacity) bytes (capacity a power of two) into service
  // for an empty index.
  void start(void *block, int32_t capacity);
  // Moves every entry into block (capacity a power of two, at least count()) and returns the
  // block used so far, for the caller to free once it has released its lock.
  void *adopt(void *block, int32_t capacity);
  // Hands back the storage block of an empty index, for the caller to free.
  void *stop();

  int32_t count() const { return count_; }
  int32_t capacity() const { return capacity_; }
  bool full() const { return count_ >= capacity_; }

  ResponseEntry *find(int id) const;
  ResponseEntry *newest() const { return newest_; }
  // The entry whose time runs out first among the arrived (or the pending) ones; null if none.
  ResponseEntry *first_due(bool arrived) const;
  // For an entry that first_due returned and whose due tick has passed: true when that was
  // only a leg of a long timeout, and the entry is now due at the end of its next leg.
  bool postpone(ResponseEntry *entry);

  // Indexes entry as the newest, pending, due timeout_ms after added_tick. Requires !full().
  void insert(ResponseEntry *entry);
  // Marks entry arrived at now; its time now runs out timeout_ms after now.
  void arrive(ResponseEntry *entry, uint32_t now);
  void remove(ResponseEntry *entry);

  // Sorts a chain of removed entries (linked through older) newest first.
  static ResponseEntry *sort_newest_first(ResponseEntry *chain);

 private:
  struct Heap {
    ResponseEntry **slots;
    int32_t size;
  };

  ResponseEntry **bucket(int id) const;
  Heap &heap_of(const ResponseEntry *entry) { return heaps_[entry->arrived ? 1 : 0]; }
  static void heap_push(Heap &heap, ResponseEntry *entry);
  static void heap_erase(Heap &heap, ResponseEntry *entry);
  static void sift_up(Heap &heap, int32_t slot);
  static void sift_down(Heap &heap, int32_t slot);
  static void place(Heap &heap, int32_t slot, ResponseEntry *entry);

  void *block_ = nullptr;
  ResponseEntry **buckets_ = nullptr;  // capacity_ chains, so a chain holds one entry on average
  int32_t capacity_ = 0;
  int32_t shift_ = 0;  // 32 - log2(capacity_): the hash keeps the top bits of the product
  int32_t count_ = 0;
  uint32_t next_seq_ = 0;
  ResponseEntry *newest_ = nullptr;
  Heap heaps_[2] = {{nullptr, 0}, {nullptr, 0}};  // [0] pending, [1] arrived
};

}  // namespace vemo

#endif
