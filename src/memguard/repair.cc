// Chain repair: relink one block whose links are off, or, when the chain itself is broken,
// rebuild it from its two intact ends and tell what was lost. A heap that cannot be saved
// ends the process with abort(), after the log was flushed.
#include <stdlib.h>

#include "memguard/mw_internal.h"

namespace vemo {

namespace {

MW_UNCHECKED_ACCESS bool readable(const mwData *mw) REQUIRES(mwLock) {
  return mwAligned(mw) && mwProbe(mw, mwDataSize) != 0;
}

MW_UNCHECKED_ACCESS const char *retained_word(const mwData *mw) {
  return (mw->flags & kFlagRetained) != 0 ? "NoMansLand " : "";
}

// A file name from a header that may be damaged: printed only when its first bytes can be read.
const char *header_file(const char *file, size_t probe_length) REQUIRES(mwLock) {
  if (file == nullptr) return mwName(file);
  return mwProbe(file, probe_length) != 0 ? file : "<garbage-pointer>";
}

[[noreturn]] void abort_program(const char *line) REQUIRES(mwLock) {
  mwWrite("%s", line);
  mwSetFlushLevel(1);
  mwFlushLog();
  abort();
}

// refuse: the block was found in neither chain search. The chain is sound without it, and
// accepting it would let mwFree release memory that is not in the chain, so the repair
// reports failure and the caller treats the pointer as unknown.
MW_UNCHECKED_ACCESS int verify(mwData *block, bool refuse) REQUIRES(mwLock) {
  if (mwHeapIntact(nullptr) == 0) {
    abort_program("relink: heap verification FAILS - aborting program\n");
  }
  long count = 0;
  long sum = 0;
  long steps = mwWalkLimit();
  for (mwData *mw = mwHead; mw != nullptr && steps-- > 0; mw = mw->next) {
    count += 1;
    sum += (long)mw->size;
  }
  long blocks = mwLiveBlocks + mwRetainedBlocks;
  long bytes = mwLiveBytes + mwRetainedBytes;
  if (count == blocks) {
    mwWrite("relink: successful, ");
    if (sum == bytes) {
      mwWrite("no allocations lost\n");
    } else if (block != nullptr) {
      mwWrite("size information lost for MW-%p\n", (void *)block);
      if (readable(block)) block->size = 0;
    }
    mwFlushLog();
    return refuse ? 0 : 1;
  }
  mwWrite("relink: partial, %ld MW-blocks of %ld bytes lost\n", blocks - count, bytes - sum);
  mwFlushLog();
  return 0;
}

MW_UNCHECKED_ACCESS int emergency(mwData *block, const char *file, int line) REQUIRES(mwLock) {
  if (mwHead == nullptr && mwTail == nullptr) {
    if (mwLiveBytes == 0) {
      mwWrite("relink: <%ld> %s(%d) heap is empty, nothing to repair\n", mwEventCount, file, line);
    } else {
      mwWrite("relink: <%ld> %s(%d) heap damaged beyond repair\n", mwEventCount, file, line);
    }
    mwFlushLog();
    return 0;
  }
  mwWrite("relink: <%ld> %s(%d) attempting emergency repairs...\n", mwEventCount, file, line);
  if (mwHead == nullptr) {
    mwWrite("relink: mwHead is NULL, but mwTail is %p\n", (void *)mwTail);
  } else if (mwTail == nullptr) {
    mwWrite("relink: mwTail is NULL, but mwHead is %p\n", (void *)mwHead);
  }
  mwFlushLog();

  // Forward scan: F is the last intact block before the damage; forward_end is the last
  // block when the forward chain is whole.
  mwData *f = nullptr;
  mwData *forward_end = nullptr;
  if (mwHead != nullptr) {
    if (!readable(mwHead) || !mwCheckRight(mwHead)) {
      mwWrite("relink: mwHead (MW-%p) is damaged, skipping forward scan\n", (void *)mwHead);
      mwHead = nullptr;
    } else {
      if (mwHead->prev != nullptr) {
        mwWrite("relink: the mwHead pointer's 'prev' member is %p, not NULL\n",
                (void *)mwHead->prev);
      }
      mwData *x = mwHead;
      long steps = mwWalkLimit();
      while (x->next != nullptr && steps-- > 0) {
        mwData *n = x->next;
        if (readable(n) && mwCheckRight(n) && n->prev == x) {
          x = n;
          continue;
        }
        mwWrite("relink: forward chain's last intact MW is MW-%p, %ld %sbytes at %s(%d)\n",
                (void *)x, (long)x->size, retained_word(x), header_file(x->file, 1), x->line);
        if (!readable(n)) {
          mwWrite("relink: the 'next' pointer of this MW points to %p, which is out-of-legal-access\n",
                  (void *)n);
        } else {
          mwWrite("relink: forward chain's first damaged MW is MW-%p, %ld %sbytes at %s(%d)\n",
                  (void *)n, (long)n->size, retained_word(n), header_file(n->file, 16), n->line);
        }
        f = x;
        break;
      }
      if (f == nullptr) forward_end = x;
    }
    mwFlushLog();
  }

  // Reverse scan, the mirror image from the tail.
  mwData *r = nullptr;
  mwData *reverse_end = nullptr;
  if (mwTail != nullptr) {
    if (!readable(mwTail) || !mwCheckRight(mwTail)) {
      mwWrite("relink: mwTail (%p) is damaged, skipping reverse scan\n", (void *)mwTail);
      mwTail = nullptr;
    } else {
      if (mwTail->next != nullptr) {
        mwWrite("relink: the mwTail pointer's 'next' member is %p, not NULL\n",
                (void *)mwTail->next);
      }
      mwData *x = mwTail;
      long steps = mwWalkLimit();
      while (x->prev != nullptr && steps-- > 0) {
        mwData *n = x->prev;
        if (readable(n) && mwCheckRight(n) && n->next == x) {
          x = n;
          continue;
        }
        mwWrite("relink: reverse chain's last intact MW is MW-%p, %ld %sbytes at %s(%d)\n",
                (void *)x, (long)x->size, retained_word(x), header_file(x->file, 1), x->line);
        if (!readable(n)) {
          mwWrite("relink: the 'prev' pointer of this MW points to %p, which is out-of-legal-access\n",
                  (void *)n);
        } else {
          mwWrite("relink: reverse chain's first damaged MW is MW-%p, %ld %sbytes at %s(%d)\n",
                  (void *)n, (long)n->size, retained_word(n), header_file(n->file, 16), n->line);
        }
        r = x;
        break;
      }
      if (r == nullptr) reverse_end = x;
    }
    mwFlushLog();
  }

  // Join the pieces. A missing end is taken from the other scan: its last intact block, or,
  // when that chain was whole, the block where it ended (which has no neighbour on that side
  // and so is a proper end).
  if (mwHead == nullptr) {
    if (mwTail == nullptr) {
      abort_program("relink: both head and tail pointers damaged, aborting program\n");
    }
    mwData *head = r != nullptr ? r : reverse_end;
    mwHead = head;
    mwWrite("relink: heap truncated, MW-%p designated as new mwHead\n", (void *)head);
    head->prev = nullptr;
    f = nullptr;
    r = nullptr;
  }
  bool final_test = f == nullptr && r == nullptr;
  if (mwTail == nullptr) {
    mwData *tail = f != nullptr ? f : forward_end;
    mwTail = tail;
    mwWrite("relink: heap truncated, MW-%p designated as new mwTail\n", (void *)tail);
    tail->next = nullptr;
    final_test = true;
  }
  if (final_test) {
    if (mwHead->prev == nullptr && mwTail->next == nullptr) {
      mwWrite("relink: verifying heap integrity...\n");
      mwFlushLog();
      return verify(block, false);
    }
    abort_program("relink: heap totally destroyed, aborting program\n");
  }
  if (f == nullptr || r == nullptr || f == r) {
    abort_program("relink: heap totally destroyed, aborting program\n");
  }
  f->next = r;
  r->prev = f;
  mwWrite("relink: emergency repairs successful, assessing damage...\n");
  mwFlushLog();
  return verify(block, false);
}

}  // namespace

MW_UNCHECKED_ACCESS int mwRepairChain(mwData *block, const char *file, int line) {
  if (file == nullptr) file = "unknown";
  if (block == nullptr) {
    mwWrite("relink: cannot repair MW at NULL\n");
    mwFlushLog();
    return emergency(block, file, line);
  }
  if (!readable(block)) {
    mwWrite("relink: MW-%p is a garbage pointer\n", (void *)block);
    mwFlushLog();
    return emergency(block, file, line);
  }
  mwWrite("relink: <%ld> %s(%d) attempting to repair MW-%p...\n", mwEventCount, file, line,
          (void *)block);
  mwFlushLog();

  bool missing_forward = false;
  if (block == mwHead) {
    mwWrite("relink: MW-%p is the head (first) allocation\n", (void *)block);
    if (block->prev != nullptr) {
      mwWrite("relink: MW-%p prev pointer is non-NULL, you have a wild pointer\n", (void *)block);
      block->prev = nullptr;
    }
  } else if (!readable(mwHead)) {
    mwWrite("relink: failed for MW-%p; head pointer destroyed\n", (void *)block);
    mwFlushLog();
    return emergency(block, file, line);
  } else {
    long steps = mwWalkLimit();
    for (mwData *x = mwHead;;) {
      if (x->next == block) {
        block->prev = x;
        break;
      }
      if (x->next == nullptr || steps-- <= 0) {
        mwWrite("relink: MW-%p not found in forward chain search\n", (void *)block);
        missing_forward = true;
        break;
      }
      if (!readable(x->next) || x->next->prev != x) {
        mwWrite("relink: failed for MW-%p; forward chain fragmented at MW-%p: 'next' is %p\n",
                (void *)block, (void *)x, (void *)x->next);
        mwFlushLog();
        return emergency(block, file, line);
      }
      x = x->next;
    }
  }

  if (block == mwTail) {
    mwWrite("relink: MW-%p is the tail (last) allocation\n", (void *)block);
    if (block->next != nullptr) {
      mwWrite("relink: MW-%p next pointer is non-NULL, you have a wild pointer\n", (void *)block);
      block->next = nullptr;
    }
  } else if (!readable(mwTail)) {
    mwWrite("relink: failed for MW-%p; tail pointer destroyed\n", (void *)block);
    mwFlushLog();
    return emergency(block, file, line);
  } else {
    long steps = mwWalkLimit();
    for (mwData *x = mwTail;;) {
      if (x->prev == block) {
        block->next = x;
        break;
      }
      if (x->prev == nullptr || steps-- <= 0) {
        mwWrite("relink: MW-%p not found in reverse chain search\n", (void *)block);
        if (missing_forward) {
          mwWrite("relink: heap appears intact, MW-%p probably garbage pointer\n", (void *)block);
          mwFlushLog();
          return verify(block, true);
        }
        break;
      }
      if (!readable(x->prev) || x->prev->next != x) {
        mwWrite("relink: failed for MW-%p; reverse chain fragmented at MW-%p, 'prev' is %p\n",
                (void *)block, (void *)x, (void *)x->prev);
        mwFlushLog();
        return emergency(block, file, line);
      }
      x = x->prev;
    }
  }

  if (mwProbe(block->file, 1) != 0 && mwStatFind(block->file, -1, 0) == nullptr) {
    block->file = "<relinked>";
  }
  block->check = mwCheckValue(block);
  return verify(block, false);
}

}  // namespace vemo
