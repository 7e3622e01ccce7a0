// The messages that the daemon writes, and the reading of the messages that clients send.
#ifndef VEMO_CLOUDD_PROTOCOL_H
#define VEMO_CLOUDD_PROTOCOL_H

#include <string>

#include "vemo_cloudd/cloud_daemon.h"

namespace vemo {
namespace cloudd {

// Method names of the conversation.
constexpr const char *kDeviceRequest = "device_request";
constexpr const char *kRegisterCallback = "register_callback";
constexpr const char *kUnregisterCallback = "unregister_callback";
constexpr const char *kReconnectCloud = "reconnect_cloud";
constexpr const char *kCloudRequest = "cloud_request";
constexpr const char *kHelloRequest = "request_of_hello_cloud";
constexpr const char *kHelloResponse = "response_of_hello_cloud";
constexpr const char *kServerNotify = "server_notify";

// True for the four methods that a client sends and the daemon acknowledges.
bool is_client_method(const std::string &method);

// {"inner_id":id,"inner_error_code":code} with ,"inner_result":{"id":request_id} when
// request_id is not null.
std::string make_ack(int id, int code, const int *request_id);
// {"inner_error_code":0,"inner_result":{"id":request_id,"response":text}}
std::string make_response(int request_id, const std::string &text);
// {"inner_error_code":code}: a failed response, nothing else; with
// ,"inner_result":{"id":request_id} when request_id is not null, naming the request it fails.
std::string make_failed_response(int code, const int *request_id = nullptr);
// {"inner_method":"cloud_request","inner_id":id,"inner_params":{"request":text}}
std::string make_cloud_request(int id, const std::string &text);
// {"inner_method":"request_of_hello_cloud"}
std::string make_hello_request();
// {"inner_method":"response_of_hello_cloud","inner_params":{"response":text}}
std::string make_hello_response(const std::string &text);
// {"inner_method":"server_notify","inner_params":{"type":type}}
std::string make_server_notify(int type);

// Classifies a received text. Keys are found regardless of letter case (the first occurrence
// counts) and numbers are read as their integer value, as the client reads the daemon's
// messages; an item of the wrong type counts as absent. `index` is left 0.
Received parse_received(int conn, const std::string &text);

// The one log line for a received or sent payload: the JSON re-printed unformatted, or the
// text quoted and marked when it is not a JSON object. json: whether the text is known to be a
// JSON object (saves parsing it again).
std::string describe_payload(const std::string &text);
std::string describe_payload(const std::string &text, bool json);

}  // namespace cloudd
}  // namespace vemo

#endif
