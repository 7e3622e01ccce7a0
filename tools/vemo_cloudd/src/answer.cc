// The daemon's own part of the conversation: what it answers to each message of a client.
#include "daemon_internal.h"
#include "json.h"
#include "protocol.h"
#include "vemo/codes.h"

namespace vemo {
namespace cloudd {

namespace {

int ack_code_for(const Behaviour &b, const std::string &method) {
  auto it = b.ack_codes.find(method);
  return it == b.ack_codes.end() ? 0 : it->second;
}

}  // namespace

void CloudDaemon::Loop::greet(int conn) {
  Behaviour b = st_.behaviour_snapshot();
  if (!b.greeting) return;
  send_to(conn, make_server_notify(b.greeting_type), b.greeting_delay_ms);
}

void CloudDaemon::Loop::answer(const Received &msg, const Behaviour &b) {
  const std::string who = std::to_string(msg.conn);
  if (!msg.json) {
    // Nothing to answer: a client that sends garbage gets no reply, as the client itself
    // treats garbage from the daemon.
    st_.emit("error " + who + " not a JSON object, not answered");
    return;
  }
  if (!msg.method.empty()) {
    if (msg.method == kDeviceRequest) {
      answer_device_request(msg, b);
    } else {
      answer_other_request(msg, b);
    }
    return;
  }
  if (msg.is_reply()) return;  // noted as it came in (note_reply); nothing to answer
  st_.emit("error " + who + " neither a request nor a reply, not answered");
}

void CloudDaemon::Loop::answer_device_request(const Received &msg, const Behaviour &b) {
  const int conn = msg.conn;
  if (!msg.has_id) {
    st_.emit("error " + std::to_string(conn) + " device_request without inner_id, not answered");
    return;
  }
  int code = ack_code_for(b, kDeviceRequest);
  // Without a request text there is nothing to forward to the cloud.
  if (code == 0 && !msg.has_request) code = VEMO_ERR_MISSING_KEY;
  const bool accepted = code == 0;
  const int request_id = accepted ? st_.take_request_id() : 0;
  const std::string ack = make_ack(msg.id, code, accepted ? &request_id : nullptr);
  const std::string text = b.echo_request ? msg.request : b.fixed_response;
  const int msg_id = msg.id;

  // The response is timed from the acknowledgement, so it can never overtake it.
  auto respond = [this, conn, request_id, text, b] {
    if (b.drop_response) {
      st_.emit("dropped " + std::to_string(conn) + " response to request " +
               std::to_string(request_id));
      return;
    }
    const std::string response = b.response_code != 0 ? make_failed_response(b.response_code)
                                                      : make_response(request_id, text);
    for (int i = 0; i <= b.duplicate_responses; ++i) {
      if (!send_frame(conn, response)) break;
    }
  };
  auto acknowledge = [this, conn, ack, accepted, respond, msg_id, b] {
    if (b.drop_ack) {
      st_.emit("dropped " + std::to_string(conn) + " acknowledgement of message " +
               std::to_string(msg_id));
    } else if (!send_frame(conn, ack)) {
      return;
    }
    if (accepted) after(b.response_delay_ms, respond);
  };
  if (b.ack_delay_ms > 0) {
    after(b.ack_delay_ms, acknowledge);
  } else {
    acknowledge();
  }
}

void CloudDaemon::Loop::answer_other_request(const Received &msg, const Behaviour &b) {
  const std::string who = std::to_string(msg.conn);
  int code;
  if (is_client_method(msg.method)) {
    code = ack_code_for(b, msg.method);
  } else {
    // Methods are compared exactly, letter case included; anything else is unknown, and a
    // client waiting on it learns so instead of timing out.
    code = VEMO_ERR_NO_HANDLER;
    st_.emit("error " + who + " unknown method " + quoted(msg.method));
  }
  if (!msg.has_id) {
    st_.emit("error " + who + " " + msg.method + " without inner_id, not answered");
    return;
  }
  if (b.drop_ack) {
    st_.emit("dropped " + who + " acknowledgement of message " + std::to_string(msg.id));
    return;
  }
  send_to(msg.conn, make_ack(msg.id, code, nullptr), b.ack_delay_ms);
}

void CloudDaemon::Loop::note_reply(const Received &msg) {
  std::string line = "answer " + std::to_string(msg.conn) + " ";
  if (msg.has_id) {
    line += std::string(kCloudRequest) + " " + std::to_string(msg.id);
    if (outstanding_cloud_ids_.erase(msg.id) == 0) line += " (no such request outstanding)";
  } else {
    line += kHelloRequest;
  }
  line += " code=" + std::to_string(msg.error_code);
  line += msg.has_response ? " " + quoted(msg.response) : std::string(" (no response)");
  st_.emit(line);
}

}  // namespace cloudd
}  // namespace vemo
