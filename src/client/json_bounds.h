// The memory bound of one received message, checked before the text is parsed.
//
// A parsed tree costs far more than its text: every value is a node of its own, so
// `[0,0,0,...]` costs some 40 bytes of tree per byte of text, and one 4 MiB frame of it 170 MB.
// One pass over the text (strings skipped with their escapes) counts what the parse would
// allocate, and the text is refused when
//
//   values x (sizeof(cJSON) + kJsonAllocOverhead) + strings x kJsonAllocOverhead + length
//       > min(max(kJsonCostFactor x (length + 6), kJsonSmallTreeBytes), kJsonMaxTreeBytes)
//
// where values are the objects, arrays, strings, numbers and literals, strings are the keys and
// string values (their bytes are counted by the text's length) and length + 6 is the frame's
// size; or when arrays and objects nest deeper than kJsonMaxDepth.
//
// Every message the daemon sends passes, from the smallest acknowledgement to a cloud_request
// with a request text as long as a frame can carry: such a message is a few nodes and its texts.
// The pass does not validate: a text it lets through may still fail to parse.
#ifndef VEMO_CLIENT_JSON_BOUNDS_H
#define VEMO_CLIENT_JSON_BOUNDS_H

#include <stddef.h>
#include <stdint.h>

namespace vemo {

// A tree may cost this many times its frame...
constexpr uint64_t kJsonCostFactor = 16;
// ...or this much, for a small frame: a tree of a few KiB costs nothing worth refusing, and a
// short text that is not JSON at all then reaches the parser, which reports it as such.
constexpr uint64_t kJsonSmallTreeBytes = 4096;
// ...and never more than this, whatever the frame.
constexpr uint64_t kJsonMaxTreeBytes = 32u * 1024u * 1024u;
// The daemon's messages nest three deep; the margin is for what daemons may add, while keeping
// the recursion of the parser (and of printing and freeing) shallow on small thread stacks.
constexpr int kJsonMaxDepth = 16;
// What the allocator adds to a block: glibc makes a block of n bytes n + 8 rounded up to 16, and
// at least 32; short strings (keys above all) pay the most.
constexpr size_t kJsonAllocOverhead = 32;

// True when the tree parsed from text (length bytes, not necessarily terminated) stays within
// the bound above.
bool json_within_bounds(const char *text, uint32_t length);

}  // namespace vemo

#endif
