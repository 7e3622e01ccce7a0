// Heap checks: can memory be read at all (the address probes), is a header one of ours, is one
// block intact, is the whole heap intact.
//
// Nothing here trusts a header: every pointer taken from one is probed before it is followed,
// so damage is reported rather than turned into a crash.
#include <pthread.h>
#include <setjmp.h>
#include <signal.h>
#include <string.h>

#include <atomic>
#include <type_traits>

#include "memguard/mw_internal.h"

// The jump point is declared a jmp_buf; it is used with sigsetjmp/siglongjmp so that the
// signal mask is saved and restored. Leaving the handler by a jump that does not restore the
// mask would leave SIGSEGV blocked, and the next probe's fault would kill the process.
static_assert(std::is_same<jmp_buf, sigjmp_buf>::value,
              "the probes need a jmp_buf that can hold the signal mask");

VEMO_API jmp_buf mwSIGSEGVjump;
VEMO_API void (*mwOldSIGSEGV)(int) = nullptr;

namespace vemo {

// ---- Address probes ------------------------------------------------------------------------

namespace {

// The whole previous disposition, flags included: the handler of a sanitizer or a crash
// reporter may take three arguments, which a plain signal() restore would lose.
struct sigaction g_previous;
pthread_t g_prober;
std::atomic<bool> g_probing{false};

void mwOnSIGSEGV(int signal_number, siginfo_t *info, void *context) {
  if (g_probing.load(std::memory_order_acquire) && pthread_equal(pthread_self(), g_prober)) {
    siglongjmp(mwSIGSEGVjump, 1);
  }
  // A fault of another thread while a probe runs is none of the probe's business: it goes to
  // whoever handled SIGSEGV before, or, without such a handler, ends the process as usual
  // when the faulting instruction runs again.
  if ((g_previous.sa_flags & SA_SIGINFO) != 0 && g_previous.sa_sigaction != nullptr) {
    g_previous.sa_sigaction(signal_number, info, context);
  } else if (g_previous.sa_handler != SIG_DFL && g_previous.sa_handler != SIG_IGN) {
    g_previous.sa_handler(signal_number);
  } else {
    signal(SIGSEGV, SIG_DFL);
  }
}

}  // namespace

MW_UNCHECKED_ACCESS int mwProbe(const void *p, size_t length) {
  if (p == nullptr) return 0;
  if (length == 0) return 1;
  struct sigaction action;
  memset(&action, 0, sizeof action);
  action.sa_sigaction = mwOnSIGSEGV;
  action.sa_flags = SA_SIGINFO;
  sigemptyset(&action.sa_mask);
  g_prober = pthread_self();
  g_probing.store(true, std::memory_order_release);
  // Without our handler the read could kill the process: answer "not readable" instead.
  if (sigaction(SIGSEGV, &action, &g_previous) != 0) {
    g_probing.store(false, std::memory_order_release);
    return 0;
  }
  mwOldSIGSEGV = g_previous.sa_handler;
  volatile int readable = 1;
  if (sigsetjmp(mwSIGSEGVjump, 1) == 0) {
    const volatile unsigned char *bytes = static_cast<const volatile unsigned char *>(p);
    for (size_t i = 0; i < length; ++i) (void)bytes[i];
  } else {
    readable = 0;
  }
  g_probing.store(false, std::memory_order_release);
  sigaction(SIGSEGV, &g_previous, nullptr);
  return readable;
}

// ---- Checks ------------------------------------------------------------------------------------

namespace {

MW_UNCHECKED_ACCESS bool readable(const mwData *mw) REQUIRES(mwLock) {
  return mwAligned(mw) && mwProbe(mw, mwDataSize) != 0;
}

MW_UNCHECKED_ACCESS bool prev_fits(const mwData *mw, bool probed) REQUIRES(mwLock) {
  if (mw->prev == nullptr) return mwHead == mw;
  return (probed || readable(mw->prev)) && mw->prev->next == mw;
}

MW_UNCHECKED_ACCESS bool next_fits(const mwData *mw, bool probed) REQUIRES(mwLock) {
  if (mw->next == nullptr) return mwTail == mw;
  return (probed || readable(mw->next)) && mw->next->prev == mw;
}

// The next block of a walk, or NULL when the link cannot be followed.
MW_UNCHECKED_ACCESS mwData *walk_next(const mwData *mw) REQUIRES(mwLock) {
  return (mw->next != nullptr && readable(mw->next)) ? mw->next : nullptr;
}

}  // namespace

MW_UNCHECKED_ACCESS int mwHeapIntact(mwData *block) {
  if (mwHead == nullptr) return block == nullptr ? 1 : 0;
  bool met = false;
  long steps = mwWalkLimit();
  mwData *mw = mwHead;
  for (;;) {
    if (steps-- <= 0 || !readable(mw)) return 0;
    if (mw == block) met = true;
    if (mw->prev != nullptr) {
      if (!readable(mw->prev) || mw == mwHead || mw->prev->next != mw) return 0;
    }
    if (mw->next == nullptr) break;
    if (!readable(mw->next) || mw == mwTail || mw->next->prev != mw) return 0;
    mw = mw->next;
  }
  if (mw != mwTail) return 0;
  return (block == nullptr || met) ? 1 : 0;
}

MW_UNCHECKED_ACCESS int mwIsOwned(mwData *mw, const char *file, int line) {
  if (!readable(mw)) return 0;
  if (mwHead == nullptr && mwTail == nullptr && mwLiveBytes == 0) return 0;
  if (!mwCheckRight(mw)) {
    if (mwHeapIntact(mw) == 0) return 0;
    // In an intact chain only the check value is off: the size can no longer be trusted.
    mwWrite("internal: <%ld> %s(%d), checksum for MW-%p is incorrect\n", mwEventCount,
            mwName(file), line, (void *)mw);
    mwCountAnomaly();
    if (mwProbe(mw->file, 1) == 0) {
      mw->file = "<unknown>";
    } else if (mwStatFind(mw->file, -1, 0) == nullptr) {
      mw->file = "<relinked>";
    }
    mw->size = 0;
    mw->check = mwCheckValue(mw);
    return 1;
  }
  // Links that were probed here need no second probe to be followed, unless a repair ran.
  bool links_probed = true;
  if (mw->prev != nullptr && !readable(mw->prev)) {
    mwRepairChain(mw, file, line);
    links_probed = false;
  }
  if (mw->next != nullptr && !readable(mw->next)) {
    mwRepairChain(mw, file, line);
    links_probed = false;
  }
  if (mwCheckRight(mw) && prev_fits(mw, links_probed) && next_fits(mw, links_probed)) return 1;
  if (mwHeapIntact(mw) == 0 && mwRepairChain(mw, file, line) == 1) return 1;
  mwWrite("internal: <%ld> %s(%d), mwIsOwned fails for MW-%p\n", mwEventCount, mwName(file),
          line, (void *)mw);
  mwCountAnomaly();
  return 0;
}

MW_UNCHECKED_ACCESS int mwCheckBlock(mwData *mw, const char *file, int line) {
  if (file == nullptr) file = "unknown";
  if (!mwAligned(mw) || mwProbe(mw, mwDataSize + kGuardLen) == 0) {
    mwWrite("internal: <%ld> %s(%d): pointer MW-%p is invalid\n", mwEventCount, file, line,
            (void *)mw);
    mwCountAnomaly();
    return 2;
  }
  if (!mwCheckRight(mw)) {
    mwWrite("internal: <%ld> %s(%d), info trashed; relinking\n", mwEventCount, file, line);
    mwCountAnomaly();
    if (mwRepairChain(mw, file, line) == 0) return 2;
  }
  int result = 0;
  if (mw->prev != nullptr && !(readable(mw->prev) && mw->prev->next == mw)) {
    mwWrite("internal: <%ld> %s(%d), buffer <%ld> %s(%d) link1 broken\n", mwEventCount, file,
            line, mw->count, mwName(mw->file), mw->line);
    mwCountAnomaly();
    if (mwRepairChain(mw, file, line) == 0) result = 2;
  }
  if (mw->next != nullptr && !(readable(mw->next) && mw->next->prev == mw)) {
    mwWrite("internal: <%ld> %s(%d), buffer <%ld> %s(%d) link2 broken\n", mwEventCount, file,
            line, mw->count, mwName(mw->file), mw->line);
    mwCountAnomaly();
    if (mwRepairChain(mw, file, line) == 0) result = 2;
  }
  const unsigned char *user = mwUserArea(mw);
  if (memcmp(user - kGuardLen, mwGuard, kGuardLen) != 0) {
    mwWrite("underflow: <%ld> %s(%d), %ld bytes alloc'd at <%ld> %s(%d)\n", mwEventCount, file,
            line, (long)mw->size, mw->count, mwName(mw->file), mw->line);
    mwCountAnomaly();
    result = 1;
  }
  if (mwProbe(user + mw->size, kGuardLen) == 0) return result;
  if (memcmp(user + mw->size, mwGuard, kGuardLen) != 0) {
    mwWrite("overflow: <%ld> %s(%d), %ld bytes alloc'd at <%ld> %s(%d)\n", mwEventCount, file,
            line, (long)mw->size, mw->count, mwName(mw->file), mw->line);
    mwCountAnomaly();
    result = 1;
  }
  return result;
}

MW_UNCHECKED_ACCESS int mwCheckHeap(const char *file, int line, bool automatic) {
  if (file != nullptr && !automatic) {
    mwWrite("check: <%ld> %s(%d), checking %s%s%s\n", mwEventCount, file, line,
            (mwCheckItems & MW_TEST_CHAIN) != 0 ? "chain " : "",
            (mwCheckItems & MW_TEST_ALLOC) != 0 ? "alloc " : "",
            (mwCheckItems & MW_TEST_NML) != 0 ? "nomansland " : "");
  }
  int errors = 0;
  bool prefix_pending = automatic;
  auto finding = [&](const char *text) REQUIRES(mwLock) {
    if (prefix_pending) {
      mwWrite("autocheck: <%ld> %s(%d) ", mwEventCount, mwName(file), line);
      prefix_pending = false;
    }
    mwWrite("%s", text);
    errors += 1;
    mwCountAnomaly();
  };
  const char *corrupt = "check: heap corruption detected\n";

  if ((mwCheckItems & MW_TEST_CHAIN) != 0) {
    long steps = mwWalkLimit();
    for (mwData *mw = mwHead; mw != nullptr && steps-- > 0;) {
      if (!readable(mw)) {
        finding(corrupt);
        return errors;
      }
      if (mw->prev != nullptr) {
        if (!readable(mw->prev)) {
          finding(corrupt);
          return errors;
        }
        if (mw == mwHead || mw->prev->next != mw) {
          finding("check: heap chain broken, prev link incorrect\n");
        }
      }
      if (mw->next == nullptr) {
        if (mw != mwTail) finding("check: heap chain broken, tail incorrect\n");
        break;
      }
      if (!readable(mw->next)) {
        finding(corrupt);
        return errors;
      }
      if (mw == mwTail || mw->next->prev != mw) {
        finding("check: heap chain broken, next link incorrect\n");
      }
      mw = mw->next;
    }
  }

  if ((mwCheckItems & MW_TEST_ALLOC) != 0) {
    long steps = mwWalkLimit();
    for (mwData *mw = mwHead; mw != nullptr && steps-- > 0;) {
      if (mwCheckBlock(mw, file, line) != 0) errors += 1;
      mw = readable(mw) ? walk_next(mw) : nullptr;
    }
  }

  if ((mwCheckItems & MW_TEST_NML) != 0) {
    long steps = mwWalkLimit();
    for (mwData *mw = mwHead; mw != nullptr && readable(mw) && steps-- > 0; mw = walk_next(mw)) {
      if ((mw->flags & kFlagRetained) == 0 || mw->size == 0) continue;
      if (mwProbe(mwUserArea(mw), mw->size) == 0 || mwRetainedIntact(mw)) continue;
      mwCountAnomaly();
      mwWrite("wild pointer: <%ld> NoMansLand %p alloc'd at %s(%d)\n", mw->count,
              (void *)(mwUserArea(mw) + 8), mwName(mw->file), mw->line);
    }
  }

  if (file != nullptr && !automatic && errors == 0) {
    mwWrite("check: <%ld> %s(%d), complete; no errors\n", mwEventCount, file, line);
  }
  return errors;
}

}  // namespace vemo

using namespace vemo;

extern "C" VEMO_API int mwTest(const char *file, int line, int items) {
  MwGuard guard;
  mwEnsureInit();
  mwCheckItems = items;
  return mwCheckHeap(file, line, false);
}

extern "C" VEMO_API int mwTestBuffer(const char *file, int line, void *p) {
  MwGuard guard;
  mwEnsureInit();
  mwData *mw = mwHeaderOf(p);
  if (mwIsOwned(mw, file, line) == 0) return 1;
  return mwCheckBlock(mw, file, line);
}

extern "C" VEMO_API void mwAutoCheck(int on) {
  MwGuard guard;
  mwEnsureInit();
  mwAutoCheckOn = on;
  if (on != 0) mwCheckItems = MW_TEST_ALL;
}

extern "C" VEMO_API int mwIsReadAddr(const void *p, size_t length) {
  MwGuard guard;
  return mwProbe(p, length);
}

extern "C" VEMO_API int mwIsSafeAddr(void *p, size_t length) {
  MwGuard guard;
  return mwProbe(p, length);
}
