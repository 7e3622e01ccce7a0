// Address probes: can these bytes be read without a fault? A read under a temporary SIGSEGV
// handler that jumps back to the probe instead of ending the process.
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

}  // namespace vemo

using namespace vemo;

extern "C" VEMO_API int mwIsReadAddr(const void *p, size_t length) {
  MwGuard guard;
  return mwProbe(p, length);
}

extern "C" VEMO_API int mwIsSafeAddr(void *p, size_t length) {
  MwGuard guard;
  return mwProbe(p, length);
}
