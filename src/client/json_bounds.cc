#include "client/json_bounds.h"

#include <cjson/cJSON.h>

#include <string.h>

#include <algorithm>

#include "ipc/frame_codec.h"

namespace vemo {
namespace {

constexpr uint64_t kValueCost = sizeof(cJSON) + kJsonAllocOverhead;
static_assert(kJsonMaxDepth <= 32, "the kinds of the open containers are kept as bits of a word");

bool ends_scalar(char c) {
  switch (c) {
    case ',': case ':': case '[': case ']': case '{': case '}': case '"':
    case ' ': case '\t': case '\n': case '\r':
      return true;
    default:
      return false;
  }
}

// The index of the quote that ends a string whose characters start at i; length when none does.
// memchr rather than a loop by hand: the long request and response texts are nearly all of a
// frame, and this keeps the pass over them at memory speed.
size_t string_end(const char *text, size_t i, size_t length) {
  for (;;) {
    const void *quote = memchr(text + i, '"', length - i);
    if (quote == nullptr) return length;
    const size_t at = static_cast<size_t>(static_cast<const char *>(quote) - text);
    // Escaped by an odd run of backslashes before it (each run is walked once).
    size_t run = 0;
    while (at - run > i && text[at - run - 1] == '\\') ++run;
    if (run % 2 == 0) return at;
    i = at + 1;
  }
}

}  // namespace

bool json_within_bounds(const char *text, uint32_t length) {
  const uint64_t limit = std::min(
      std::max(kJsonCostFactor * frame::frame_size(length), kJsonSmallTreeBytes), kJsonMaxTreeBytes);
  uint64_t cost = length;
  int depth = 0;
  uint32_t objects = 0;     // bit d - 1: the open container at depth d is an object
  bool expect_key = false;  // a string here is a member's key, not a value
  for (size_t i = 0; i < length; ++i) {
    const char c = text[i];
    switch (c) {
      case '{':
      case '[':
        if (++depth > kJsonMaxDepth) return false;
        if (c == '{') {
          objects |= 1u << (depth - 1);
        } else {
          objects &= ~(1u << (depth - 1));
        }
        expect_key = c == '{';
        cost += kValueCost;
        break;
      case '}':
      case ']':
        if (depth > 0) --depth;
        expect_key = false;
        break;
      case ',':
        expect_key = depth > 0 && (objects & (1u << (depth - 1))) != 0;
        break;
      case ':':
        expect_key = false;
        break;
      case ' ':
      case '\t':
      case '\n':
      case '\r':
        break;
      case '"':
        i = string_end(text, i + 1, length);
        // A key is a copy on its member's node; a string value is a node and a copy.
        cost += expect_key ? kJsonAllocOverhead : kValueCost + kJsonAllocOverhead;
        expect_key = false;
        break;
      default:
        // A number or a literal: one value for its whole run of characters.
        while (i + 1 < length && !ends_scalar(text[i + 1])) ++i;
        cost += kValueCost;
        break;
    }
    if (cost > limit) return false;
  }
  return true;
}

}  // namespace vemo
