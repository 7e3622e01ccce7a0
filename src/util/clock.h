// Tick arithmetic shared by every timeout in the library.
#ifndef VEMO_UTIL_CLOCK_H
#define VEMO_UTIL_CLOCK_H

#include <stdint.h>

namespace vemo {

// Milliseconds from earlier to later, as an unsigned 32-bit difference read as signed: right
// across one wrap of the tick counter, and negative if "later" is in fact earlier.
inline int32_t tick_elapsed(uint32_t later, uint32_t earlier) {
  return static_cast<int32_t>(later - earlier);
}

// A caller's deadline: timeout_ms counted from the tick start. Every wait inside a call takes
// its bound from one of these, so the waits of one call add up to the call's own timeout.
// A timeout of 0 or less is already expired.
struct Deadline {
  uint32_t start;
  int32_t timeout_ms;

  static Deadline after_ms(int32_t timeout_ms, uint32_t now) { return Deadline{now, timeout_ms}; }
  // Milliseconds left at tick now; 0 once expired.
  int32_t remaining_ms(uint32_t now) const {
    int64_t left = static_cast<int64_t>(timeout_ms) - tick_elapsed(now, start);
    if (left <= 0) return 0;
    return left > INT32_MAX ? INT32_MAX : static_cast<int32_t>(left);
  }
  bool expired(uint32_t now) const { return tick_elapsed(now, start) >= timeout_ms; }
};

}  // namespace vemo

#endif
