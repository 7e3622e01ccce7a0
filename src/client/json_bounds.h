// Placeholder until the bound check lands.
#ifndef VEMO_CLIENT_JSON_BOUNDS_H
#define VEMO_CLIENT_JSON_BOUNDS_H
#include <stdint.h>
namespace vemo {
inline bool json_within_bounds(const char *, uint32_t) { return true; }
}
#endif
