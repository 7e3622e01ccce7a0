// Assertion and verification traps with their Abort/Retry/Ignore answers, the ready-made
// answer function that asks on standard input, breakouts and traces.
#include <stdarg.h>
#include <stdlib.h>
#include <string.h>

#include "memguard/mw_internal.h"

namespace vemo {

namespace {

enum class TrapKind { kAssert, kVerify };

// Ends the process for a trap that was neither ignored nor retried. The exit handlers (the
// final report among them) run in this thread while it holds the lock, which is recursive.
[[noreturn]] void end_process(const char *file, int line, bool extra_flush) REQUIRES(mwLock) {
  mwFlushLog();
  mwCheckHeap(file, line, true);
  mwFlushLog();
  if (extra_flush) mwFlushLog();
  exit(255);
}

int trap(TrapKind kind, int value, const char *text, const char *file, int line) {
  if (value != 0) return 0;
  const char *name = kind == TrapKind::kAssert ? "assert" : "verify";
  file = mwName(file);
  text = mwName(text);
  MwGuard guard;
  mwEnsureInit();
  if (mwAutoCheckOn != 0) mwCheckHeap(file, line, true);
  mwCountAnomaly();
  long event = ++mwEventCount;
  mwWrite("%s trap: <%ld> %s(%d), %s\n", name, event, file, line, text);

  int (*answer_function)(const char *) = mwAriCallback;
  if (answer_function != nullptr) {
    // The answer function gets its own copy that lives for the call, and runs without the
    // lock: it may wait for a person, and other threads go on meanwhile.
    char question[kLineChars + 1];
    snprintf(question, sizeof question, "MEMGUARD: %s trap: %s(%d), %s", name, file, line, text);
    guard.release();
    int answer = answer_function(question);
    guard.reacquire();
    if (answer == MW_ARI_IGNORE) {
      mwWrite("%s trap: <%ld> IGNORED - execution continues\n", name, event);
      return 0;
    }
    if (answer == MW_ARI_RETRY) {
      mwWrite("%s trap: <%ld> RETRY - executing again\n", name, event);
      return 1;
    }
    end_process(file, line, kind == TrapKind::kAssert && (mwAriActionMask & 16) != 0);
  }
  if (kind == TrapKind::kVerify && (mwAriActionMask & 16) != 0) mwFlushLog();
  if ((mwAriActionMask & 1) != 0) {
    mwWrite("%s trap: <%ld> AUTO IGNORED - execution continues\n", name, event);
    return 0;
  }
  mwDirect("\nMEMGUARD: %s trap: %s(%d), %s\n", name, file, line, text);
  end_process(file, line, kind == TrapKind::kAssert && (mwAriActionMask & 16) != 0);
}

VEMO_PRINTF(1, 0) void trace_v(const char *format, va_list args) REQUIRES(mwLock) {
  if (mwOutHook == nullptr) mwOutHook = mwLogPutc;
  if (mwOutHook == mwLogPutc) mwCheckedLog();
  bool cut = false;
  size_t length = mwFormat(&cut, format, args);
  void (*hook)(int) = mwOutHook;
  for (size_t i = 0; i < length; ++i) hook((unsigned char)mwLineBuffer[i]);
  if (cut) {
    mwCountAnomaly();
    mwTraceText(" [WARNING: OUTPUT BUFFER OVERFLOW - SYSTEM UNSTABLE]\n");
  }
  mwFlushLog();
}

}  // namespace

void mwTraceText(const char *format, ...) {
  mwEnsureInit();
  mwRunAutoCheck(nullptr, 0);
  va_list args;
  va_start(args, format);
  trace_v(format, args);
  va_end(args);
}

}  // namespace vemo

using namespace vemo;

extern "C" VEMO_API int mwAssert(int value, const char *text, const char *file, int line) {
  return trap(TrapKind::kAssert, value, text, file, line);
}

extern "C" VEMO_API int mwVerify(int value, const char *text, const char *file, int line) {
  return trap(TrapKind::kVerify, value, text, file, line);
}

extern "C" VEMO_API void mwBreakOut(const char *cause) {
  MwGuard guard;
  cause = mwName(cause);
  mwDirect("breakout: %s\n", cause);
  mwWrite("breakout: %s\n", cause);
}

extern "C" VEMO_API int mwAriHandler(const char *text) {
  text = mwName(text);
  {
    MwGuard guard;
    mwEnsureInit();
    mwDirect("\n%s\nMEMGUARD: Abort, Retry or Ignore? ", text);
    // The question must be visible before we wait for its answer.
    FILE *stream = mwDirectStream();
    if (stream != nullptr) fflush(stream);
  }
  // Standard input is read without the lock: a person may take their time.
  char answer[82];
  if (fgets(answer, 81, stdin) == nullptr) return MW_ARI_ABORT;
  // An over-long answer line is read to its end, so that it cannot answer the next trap.
  if (strchr(answer, '\n') == nullptr) {
    int c;
    do {
      c = getchar();
    } while (c != '\n' && c != EOF);
  }
  const unsigned char *first = reinterpret_cast<const unsigned char *>(answer);
  while (*first >= 1 && *first <= 32) ++first;
  if (*first == 'R' || *first == 'r') {
    mwBreakOut(text);
    return MW_ARI_RETRY;
  }
  if (*first == 'I' || *first == 'i') return MW_ARI_IGNORE;
  return MW_ARI_ABORT;
}

extern "C" VEMO_API void mwSetAriFunc(int (*func)(const char *text)) {
  MwGuard guard;
  mwEnsureInit();
  mwAriCallback = func;
}

extern "C" VEMO_API void mwSetAriAction(int bits) {
  MwGuard guard;
  mwRunAutoCheck(nullptr, 0);
  mwAriActionMask = bits;
}

extern "C" VEMO_API void mwTrace(const char *format, ...) {
  MwGuard guard;
  if (format == nullptr) return;
  mwEnsureInit();
  mwRunAutoCheck(nullptr, 0);
  va_list args;
  va_start(args, format);
  trace_v(format, args);
  va_end(args);
}
