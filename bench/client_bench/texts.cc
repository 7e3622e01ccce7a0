#include "texts.h"

#include "client/messages.h"
#include "measure.h"

namespace bench {

std::string request_text(int size) {
  std::string text;
  for (int i = 0; i < size; ++i) text += static_cast<char>('a' + i % 26);
  return text;
}

std::string device_request_frame(const std::string &request, int inner_id) {
  vemo::MessageText message = vemo::device_request_text(request.c_str(), kRequestTimeoutMs, 0);
  message.close_with_id(inner_id);
  return message.ok() ? std::string(message.c_str()) : std::string();
}

// The daemon's own wording (tools/vemo_cloudd), with the request text needing no escapes.
std::string ack_frame(int inner_id, int request_id) {
  return format("{\"inner_id\":%d,\"inner_error_code\":0,\"inner_result\":{\"id\":%d}}", inner_id,
                request_id);
}

std::string response_frame(int request_id, const std::string &response) {
  return format("{\"inner_error_code\":0,\"inner_result\":{\"id\":%d,\"response\":\"%s\"}}",
                request_id, response.c_str());
}

}  // namespace bench
