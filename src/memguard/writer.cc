// The allocator's writer: formatted text through the output hook into the log file, the
// self-checking log handle and flush level, flushing and the anomaly counter.
#include <limits.h>
#include <stdarg.h>

#include "memguard/mw_internal.h"

namespace vemo {

FILE *mwLogStream2 = nullptr;
int mwFlushLevel2 = 0;

size_t mwFormat(bool *cut, const char *format, va_list args) {
  *cut = false;
  if (format == nullptr) return 0;
  // vsnprintf is bounded by the buffer and tells the full length, so an over-long text is
  // detected without ever writing past mwLineBuffer.
  int n = vsnprintf(mwLineBuffer, kLineChars + 1, format, args);
  if (n < 0) return 0;
  if (n >= kLineChars) {
    *cut = true;
    return kLineChars;
  }
  return (size_t)n;
}

void mwWrite(const char *format, ...) {
  // The report must not start the allocator again once it has terminated it.
  if (!mwInReport) mwEnsureInit();
  if (mwOutHook == nullptr) mwOutHook = mwLogPutc;
  // Settle a damaged log handle before formatting: its recovery message uses the line
  // buffer too, and must not overwrite this text while it is passed on.
  if (mwOutHook == mwLogPutc) mwCheckedLog();
  va_list args;
  va_start(args, format);
  bool cut = false;
  size_t length = mwFormat(&cut, format, args);
  va_end(args);
  void (*hook)(int) = mwOutHook;
  for (size_t i = 0; i < length; ++i) hook((unsigned char)mwLineBuffer[i]);
  if (cut) {
    mwWrite("\ninternal: mwWrite(): WARNING! OUTPUT EXCEEDED %u CHARS: SYSTEM UNSTABLE\n",
            (unsigned)(kLineChars - 1));
    mwFlushLog();
  }
}

// Lines that must reach the log file whatever hook is installed. When no log file could be
// opened at all they go to standard error rather than nowhere: they are the trap prompts and
// trap ends, whose reader would otherwise wait on a question nobody sees. Before the first
// start (and after a report closed the log) there is simply no log yet, and they are skipped.
FILE *mwDirectStream() {
  if (mwLogStream1 != nullptr) return mwLogStream1;
  return mwLogUnavailable ? stderr : nullptr;
}

void mwDirect(const char *format, ...) {
  FILE *stream = mwDirectStream();
  if (stream == nullptr) return;
  va_list args;
  va_start(args, format);
  vfprintf(stream, format, args);
  va_end(args);
}

void mwLogPutc(int c) {
  FILE *stream = mwCheckedLog();
  if (stream != nullptr) putc(c, stream);
}

FILE *mwCheckedLog() {
  FILE *a = mwLogStream1;
  FILE *b = mwLogStream2;
  FILE *c = mwLogStream3;
  if (a == b && b == c) return a;
  if (a == b || a == c || b == c) {
    FILE *majority = (a == b || a == c) ? a : b;
    mwLogStream1 = majority;
    mwLogStream2 = majority;
    mwLogStream3 = majority;
    mwWrite("internal: log file handle damaged and recovered\n");
    mwFlushLog();
    return majority;
  }
  mwDirect("\nMEMGUARD: log file handle destroyed, using mwSTDERR\n");
  mwLogStream2 = a;
  mwLogStream3 = a;
  return a;
}

void mwSetFlushLevel(int level) {
  mwFlushLevel1 = level;
  mwFlushLevel2 = level;
  mwFlushLevel3 = level;
}

int mwCheckedFlushLevel() {
  int a = mwFlushLevel1;
  int b = mwFlushLevel2;
  int c = mwFlushLevel3;
  if (a == b && b == c) return a;
  // The copies are repaired before anything is written: the write flushes, and the flush
  // asks for the level again.
  if (a == b || a == c || b == c) {
    int majority = (a == b || a == c) ? a : b;
    mwSetFlushLevel(majority);
    mwWrite("internal: flushing flag damaged and recovered\n");
    mwFlushLog();
    return majority;
  }
  mwSetFlushLevel(1);
  mwWrite("internal: flushing flag destroyed, so set to true\n");
  return 1;
}

void mwFlushLog() {
  FILE *stream = mwCheckedLog();
  if (stream != nullptr && mwCheckedFlushLevel() != 0) fflush(stream);
}

void mwCountAnomaly() {
  mwAnomalies += 1;
  int level = mwCheckedFlushLevel();
  mwSetFlushLevel(level < INT_MAX ? level + 1 : level);
  mwFlushLog();
}

void mwOpenLog(const char *name) {
  FILE *stream = mwCheckedLog();
  if (stream != nullptr) {
    fclose(stream);
    mwLogStream1 = nullptr;
    mwLogStream2 = nullptr;
    mwLogStream3 = nullptr;
  }
  if (name == nullptr) return;
  stream = fopen(name, "a");
  mwLogStream1 = stream;
  mwLogStream2 = stream;
  mwLogStream3 = stream;
  if (mwCheckedLog() == nullptr) mwWrite("logfile: failed to open/create file '%s'\n", name);
}

}  // namespace vemo

using namespace vemo;

extern "C" VEMO_API void mwSetOutFunc(void (*func)(int character)) {
  MwGuard guard;
  mwEnsureInit();
  mwOutHook = func;
}

extern "C" VEMO_API void mwFlushNow(void) {
  MwGuard guard;
  FILE *stream = mwCheckedLog();
  if (stream != nullptr) fflush(stream);
}

extern "C" VEMO_API void mwDoFlush(int on) {
  MwGuard guard;
  mwSetFlushLevel(on < 0 ? 0 : on);
  if (on != 0) {
    FILE *stream = mwCheckedLog();
    if (stream != nullptr) fflush(stream);
  }
}
