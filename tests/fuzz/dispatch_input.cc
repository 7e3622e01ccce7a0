#include "dispatch_input.h"

#include <ctype.h>
#include <stdio.h>

#include <algorithm>
#include <initializer_list>
#include <utility>

namespace dispatch_fuzz {
namespace {

// Bounds that keep one run quick: the client's own limits are far above them.
constexpr int kMaxOps = 64;
constexpr size_t kMaxFramesBytes = 256 * 1024;
constexpr int kMaxDepth = 4;
constexpr int kFirstRequestId = 1000;
constexpr int kRequestIds = 8;

// The input as it is consumed; past its end every byte reads as 0.
class Reader {
 public:
  Reader(const uint8_t *data, size_t size) : data_(data), size_(size) {}
  bool empty() const { return at_ >= size_; }
  uint8_t byte() { return at_ < size_ ? data_[at_++] : 0; }
  uint32_t u32() {  // big-endian, the bytes read in order
    uint32_t v = 0;
    for (int i = 0; i < 4; ++i) v = v << 8 | byte();
    return v;
  }
  std::string take(size_t n) {
    n = std::min(n, size_ - std::min(at_, size_));
    std::string s(reinterpret_cast<const char *>(data_ + at_), n);
    at_ += n;
    return s;
  }

 private:
  const uint8_t *data_;
  size_t size_;
  size_t at_ = 0;
};

std::string quoted(const std::string &raw) {
  std::string out = "\"";
  for (unsigned char c : raw) {
    char escape[8];
    snprintf(escape, sizeof escape, c == '"' || c == '\\' ? "\\%c" : c < 0x20 ? "\\u%04x" : "%c", c);
    out += escape;
  }
  return out + "\"";
}

// Numbers that sit on the edges the client reads through: the id range, int32 overflow, values
// that cJSON stores only as doubles, fractions.
std::string number(Reader &r) {
  static const char *const kTable[] = {"0", "1", "-1", "2", "255", "256", "257", "300", "2147483647",
                                       "-2147483648", "2147483648", "-2147483649", "1e300", "-1e300",
                                       "12.9", "-0.5", "1E2", "4294967297", "1e-300"};
  constexpr uint8_t kEntries = sizeof kTable / sizeof kTable[0];
  uint8_t pick = r.byte() % (kEntries + 1);
  return pick < kEntries ? kTable[pick] : std::to_string(static_cast<int32_t>(r.u32()));
}

std::string text(Reader &r) {
  switch (r.byte() % 8) {
    case 0: return "\"\"";
    case 6: return "\"" + std::string(static_cast<size_t>(r.byte() + 1) * 64, 'x') + "\"";
    case 7: return "\"a\\u0000b\\ud800\\ud83d\\ude00\\n\"";  // a zero, a lone surrogate, a pair
    default: return quoted(r.take(r.byte()));
  }
}

std::string key_like(Reader &r) {
  static const char *const kKeys[] = {"inner_method", "inner_id", "inner_params", "inner_error_code",
                                      "inner_result", "id", "request", "response", "type", "INNER_ID"};
  uint8_t pick = r.byte() % 11;
  return pick < 10 ? quoted(kKeys[pick]) : quoted(r.take(r.byte() % 16));
}

std::string value(Reader &r, int depth) {
  uint8_t pick = r.byte() % 10;
  if (depth >= kMaxDepth && pick >= 5) pick = 3;
  switch (pick) {
    case 0: return "null";
    case 1: return "true";
    case 2: return "false";
    case 3: return number(r);
    case 4: return text(r);
    case 5:
    case 6: {
      std::string out = pick == 5 ? "[" : "{";
      for (int n = r.byte() % 5, i = 0; i < n; ++i) {
        if (i > 0) out += ",";
        if (pick == 6) out += key_like(r) + ":";
        out += value(r, depth + 1);
      }
      return out + (pick == 5 ? "]" : "}");
    }
    case 7: return "{}";
    case 8: return "[]";
    default: {  // nesting around cJSON's depth limit of 1000
      size_t levels = static_cast<size_t>(r.byte()) * 8;
      return std::string(levels, '[') + std::string(levels, ']');
    }
  }
}

std::string case_varied(const char *key, uint8_t how) {
  std::string out = key;
  for (size_t i = 0; i < out.size(); ++i) {
    bool upper = how % 3 == 0 || (how % 3 == 1 && i == 0) || (how % 3 == 2 && i % 2 == 0);
    if (upper) out[i] = static_cast<char>(toupper(static_cast<unsigned char>(out[i])));
  }
  return out;
}

using Members = std::initializer_list<std::pair<const char *, std::string>>;

// An object of the members, each kept or mutated by one byte of the input (see the header).
std::string object(Reader &r, Members members) {
  std::string out = "{";
  auto add = [&out](const std::string &quoted_key, const std::string &v) {
    out += (out.size() > 1 ? "," : "") + quoted_key + ":" + v;
  };
  for (const auto &m : members) {
    const std::string key = quoted(m.first);
    switch (r.byte() % 16) {
      case 9: break;
      case 10: add(key, value(r, 1)); break;
      case 11: add(quoted(case_varied(m.first, r.byte())), m.second); break;
      case 12: add(key, m.second), add(key, value(r, 1)); break;
      case 13: add(key, value(r, 1)), add(key, m.second); break;
      case 14: add(key, number(r)); break;
      case 15: add(key_like(r), value(r, 1)), add(key, m.second); break;
      default: add(key, m.second);
    }
  }
  return out + "}";
}

int pick_from(Reader &r, const std::vector<int> &ids, bool *found) {
  uint8_t index = r.byte();
  *found = !ids.empty();
  return ids.empty() ? 0 : ids[index % ids.size()];
}

// A daemon's error code: mostly 0 (success), else any number.
std::string error_code(Reader &r) { return r.byte() % 4 == 3 ? number(r) : "0"; }

// A request id from the few that acknowledgements hand out and notifications answer, so that a
// notification often meets the request id an acknowledgement of the same input gave (a holder's
// synchronous request then gets its response), or any number.
std::string request_id(Reader &r) {
  return r.byte() % 2 ? number(r) : std::to_string(kFirstRequestId + r.byte() % kRequestIds);
}

std::string ack(Reader &r, const std::string &id) {
  std::string code = error_code(r);
  std::string result = object(r, {{"id", request_id(r)}});
  return object(r, {{"inner_id", id}, {"inner_error_code", code}, {"inner_result", result}});
}

std::string notification(Reader &r, const std::string &id) {
  std::string code = error_code(r);
  std::string result = object(r, {{"id", id}, {"response", text(r)}});
  return object(r, {{"inner_error_code", code}, {"inner_result", result}});
}

std::string unknown_method(Reader &r) {
  static const char *const kNames[] = {"\"Cloud_Request\"", "\"CLOUD_REQUEST\"", "\"device_request\"",
                                       "\"register_callback\"", "\"\"", "5", "null", "{}", "[\"cloud_request\"]"};
  uint8_t pick = r.byte() % 10;
  std::string name = pick < 9 ? kNames[pick] : quoted(r.take(r.byte() % 32));
  std::string params = object(r, {{"request", text(r)}, {"type", "1"}});
  return object(r, {{"inner_method", name}, {"inner_id", number(r)}, {"inner_params", params}});
}

// One operation's payload.
std::string payload(Reader &r, int kind, const Known &known) {
  bool found = false;
  std::string params;
  switch (kind) {
    case 0: {
      int id = pick_from(r, known.held, &found);
      return ack(r, found ? std::to_string(id) : std::to_string(1 + r.byte()));
    }
    case 1: return ack(r, r.byte() % 2 ? std::to_string(1 + r.byte()) : number(r));
    case 2: {
      int id = pick_from(r, known.pending, &found);
      return notification(r, found ? std::to_string(id) : number(r));
    }
    case 3: return notification(r, request_id(r));
    case 4:
      params = object(r, {{"request", text(r)}});
      return object(r, {{"inner_method", quoted("cloud_request")}, {"inner_id", number(r)}, {"inner_params", params}});
    case 5: return object(r, {{"inner_method", quoted("request_of_hello_cloud")}, {"inner_id", number(r)}});
    case 6:
      params = object(r, {{"response", text(r)}});
      return object(r, {{"inner_method", quoted("response_of_hello_cloud")}, {"inner_params", params}});
    case 7:
      params = object(r, {{"type", r.byte() % 2 ? number(r) : "0"}});
      return object(r, {{"inner_method", quoted("server_notify")}, {"inner_params", params}});
    case 8: return r.take(static_cast<size_t>(r.byte()) << (r.byte() % 5));
    case 9: return value(r, 0);
    default: return unknown_method(r);
  }
}

}  // namespace

void append_frame(std::string *out, const std::string &payload) {
  const size_t n = payload.size();
  const char header[6] = {'\xA1', '\xB2', static_cast<char>(n >> 24), static_cast<char>(n >> 16),
                          static_cast<char>(n >> 8), static_cast<char>(n)};
  out->append(header, sizeof header).append(payload);
}

Script build_script(const uint8_t *data, size_t size, const Known &known) {
  Reader r(data, size);
  Script script;
  while (!r.empty() && script.ops < kMaxOps && script.frames.size() < kMaxFramesBytes) {
    int kind = r.byte() % kOpKinds;
    ++script.ops;
    append_frame(&script.frames, payload(r, kind, known));
  }
  return script;
}

}  // namespace dispatch_fuzz
