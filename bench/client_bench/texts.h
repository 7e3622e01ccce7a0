// The texts of one request's three frames, exactly as the client and the daemon write them, so
// that the raw-socket floor moves frames of the same sizes.
#ifndef VEMO_BENCH_TEXTS_H
#define VEMO_BENCH_TEXTS_H

#include <string>

namespace bench {

constexpr int kRequestTimeoutMs = 5000;

// The application's request text: `size` printable characters.
std::string request_text(int size);

// The device_request as the client prints it (built by the client's own builder).
std::string device_request_frame(const std::string &request, int inner_id);
// The daemon's acknowledgement and response notification for it.
std::string ack_frame(int inner_id, int request_id);
std::string response_frame(int request_id, const std::string &response);

}  // namespace bench

#endif
