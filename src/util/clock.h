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

}  // namespace vemo

#endif
