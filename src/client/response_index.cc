#include "client/response_index.h"

#include <stdint.h>
#include <string.h>

#include "util/clock.h"

namespace vemo {
namespace {

constexpr int kPending = 0;
constexpr int kArrived = 1;

// Schedules the time of entry counted from base: its first leg ends at due. A negative timeout
// runs out at once, as "elapsed >= timeout_ms" holds for it at the first look.
void schedule(ResponseEntry *entry, uint32_t base) {
  uint32_t timeout = static_cast<uint32_t>(entry->timeout_ms > 0 ? entry->timeout_ms : 0);
  uint32_t leg = timeout < ResponseIndex::kLegMs ? timeout : ResponseIndex::kLegMs;
  entry->due = base + leg;
  entry->due_later_ms = timeout - leg;
}

// Wrap-safe order of due ticks: every due tick in the index lies within 2^31 ms of every other,
// as no leg is longer than kLegMs and the sweep removes what is due every 50 ms.
bool due_before(const ResponseEntry *a, const ResponseEntry *b) {
  return tick_elapsed(a->due, b->due) < 0;
}

bool newer_than(const ResponseEntry *a, const ResponseEntry *b) {
  return tick_elapsed(a->seq, b->seq) > 0;
}

int32_t log2_of(int32_t power_of_two) {
  int32_t bits = 0;
  while ((1 << bits) < power_of_two) ++bits;
  return bits;
}

}  // namespace

size_t ResponseIndex::block_bytes(int32_t capacity) {
  // The hash chains and the two heaps, each capacity pointers long.
  uint64_t bytes = static_cast<uint64_t>(capacity) * 3u * sizeof(ResponseEntry *);
  return bytes <= SIZE_MAX / 2 ? static_cast<size_t>(bytes) : 0;
}

void ResponseIndex::start(void *block, int32_t capacity) {
  block_ = block;
  capacity_ = capacity;
  shift_ = 32 - log2_of(capacity);
  auto *slots = static_cast<ResponseEntry **>(block);
  memset(slots, 0, static_cast<size_t>(capacity) * sizeof(ResponseEntry *));
  buckets_ = slots;
  heaps_[kPending] = {slots + capacity, 0};
  heaps_[kArrived] = {slots + 2 * static_cast<size_t>(capacity), 0};
}

void *ResponseIndex::adopt(void *block, int32_t capacity) {
  void *old = block_;
  Heap pending = heaps_[kPending];
  Heap arrived = heaps_[kArrived];
  start(block, capacity);
  // A heap slot is an array index: copied as it is, every entry keeps its heap_slot.
  memcpy(heaps_[kPending].slots, pending.slots, static_cast<size_t>(pending.size) * sizeof(ResponseEntry *));
  memcpy(heaps_[kArrived].slots, arrived.slots, static_cast<size_t>(arrived.size) * sizeof(ResponseEntry *));
  heaps_[kPending].size = pending.size;
  heaps_[kArrived].size = arrived.size;
  for (ResponseEntry *entry = newest_; entry != nullptr; entry = entry->older) {
    ResponseEntry **chain = bucket(entry->id);
    entry->hash_next = *chain;
    *chain = entry;
  }
  return old;
}

void *ResponseIndex::stop() {
  void *block = block_;
  *this = ResponseIndex();
  return block;
}

ResponseEntry **ResponseIndex::bucket(int id) const {
  // Multiplicative hashing: request ids are mostly consecutive, and the top bits of the product
  // spread them over the whole table.
  uint32_t hash = static_cast<uint32_t>(id) * 2654435769u;
  return &buckets_[shift_ >= 32 ? 0 : hash >> shift_];
}

ResponseEntry *ResponseIndex::find(int id) const {
  for (ResponseEntry *entry = *bucket(id); entry != nullptr; entry = entry->hash_next) {
    if (entry->id == id) return entry;
  }
  return nullptr;
}

ResponseEntry *ResponseIndex::first_due(bool arrived) const {
  const Heap &heap = heaps_[arrived ? kArrived : kPending];
  return heap.size > 0 ? heap.slots[0] : nullptr;
}

bool ResponseIndex::postpone(ResponseEntry *entry) {
  if (entry->due_later_ms == 0) return false;
  uint32_t leg = entry->due_later_ms < kLegMs ? entry->due_later_ms : kLegMs;
  entry->due += leg;
  entry->due_later_ms -= leg;
  sift_down(heap_of(entry), entry->heap_slot);
  return true;
}

void ResponseIndex::insert(ResponseEntry *entry) {
  entry->seq = next_seq_++;
  entry->arrived = false;
  schedule(entry, entry->added_tick);
  entry->newer = nullptr;
  entry->older = newest_;
  if (newest_ != nullptr) newest_->newer = entry;
  newest_ = entry;
  ResponseEntry **chain = bucket(entry->id);
  entry->hash_next = *chain;
  *chain = entry;
  heap_push(heaps_[kPending], entry);
  count_ += 1;
}

void ResponseIndex::arrive(ResponseEntry *entry, uint32_t now) {
  heap_erase(heap_of(entry), entry);
  entry->arrived = true;
  entry->recv_tick = now;
  schedule(entry, now);
  heap_push(heaps_[kArrived], entry);
}

void ResponseIndex::remove(ResponseEntry *entry) {
  heap_erase(heap_of(entry), entry);
  for (ResponseEntry **link = bucket(entry->id); *link != nullptr; link = &(*link)->hash_next) {
    if (*link == entry) {
      *link = entry->hash_next;
      break;
    }
  }
  if (entry->newer != nullptr) entry->newer->older = entry->older;
  if (entry->older != nullptr) entry->older->newer = entry->newer;
  if (newest_ == entry) newest_ = entry->older;
  entry->newer = entry->older = entry->hash_next = nullptr;
  count_ -= 1;
}

void ResponseIndex::place(Heap &heap, int32_t slot, ResponseEntry *entry) {
  heap.slots[slot] = entry;
  entry->heap_slot = slot;
}

void ResponseIndex::heap_push(Heap &heap, ResponseEntry *entry) {
  place(heap, heap.size, entry);
  heap.size += 1;
  sift_up(heap, entry->heap_slot);
}

void ResponseIndex::heap_erase(Heap &heap, ResponseEntry *entry) {
  int32_t slot = entry->heap_slot;
  heap.size -= 1;
  if (slot == heap.size) return;
  ResponseEntry *moved = heap.slots[heap.size];
  place(heap, slot, moved);
  // The last entry, moved into the hole, may belong above it or below it.
  sift_up(heap, slot);
  sift_down(heap, moved->heap_slot);
}

void ResponseIndex::sift_up(Heap &heap, int32_t slot) {
  ResponseEntry *entry = heap.slots[slot];
  while (slot > 0) {
    int32_t parent = (slot - 1) / 2;
    if (!due_before(entry, heap.slots[parent])) break;
    place(heap, slot, heap.slots[parent]);
    slot = parent;
  }
  place(heap, slot, entry);
}

void ResponseIndex::sift_down(Heap &heap, int32_t slot) {
  ResponseEntry *entry = heap.slots[slot];
  for (;;) {
    int32_t child = 2 * slot + 1;
    if (child >= heap.size) break;
    if (child + 1 < heap.size && due_before(heap.slots[child + 1], heap.slots[child])) child += 1;
    if (!due_before(heap.slots[child], entry)) break;
    place(heap, slot, heap.slots[child]);
    slot = child;
  }
  place(heap, slot, entry);
}

ResponseEntry *ResponseIndex::sort_newest_first(ResponseEntry *chain) {
  if (chain == nullptr || chain->older == nullptr) return chain;
  // Merge sort of a linked chain: split in halves by a slow and a fast pointer.
  ResponseEntry *slow = chain;
  for (ResponseEntry *fast = chain->older; fast != nullptr && fast->older != nullptr;
       fast = fast->older->older) {
    slow = slow->older;
  }
  ResponseEntry *second = slow->older;
  slow->older = nullptr;
  ResponseEntry *a = sort_newest_first(chain);
  ResponseEntry *b = sort_newest_first(second);
  ResponseEntry *head = nullptr;
  ResponseEntry **tail = &head;
  while (a != nullptr && b != nullptr) {
    ResponseEntry **first = newer_than(a, b) ? &a : &b;
    *tail = *first;
    tail = &(*first)->older;
    *first = (*first)->older;
  }
  *tail = a != nullptr ? a : b;
  return head;
}

}  // namespace vemo
