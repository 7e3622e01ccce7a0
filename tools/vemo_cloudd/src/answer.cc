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
  const Behaviour &b = settings_->behaviour;
  if (!b.greeting) return;
  send_to(conn, make_server_notify(b.greeting_type), b.greeting_delay_ms);
}

void CloudDaemon::Loop::answer(const Received &msg) {
  if (!msg.json) {
    // Nothing to answer: a client that sends garbage gets no reply, as the client itself
    // treats garbage from the daemon.
    if (tracing()) trace("error " + std::to_string(msg.conn) + " not a JSON object, not answered");
    return;
  }
  if (!msg.method.empty()) {
    if (msg.method == kDeviceRequest) {
      answer_device_request(msg);
    } else {
      answer_other_request(msg);
    }
    return;
  }
  if (msg.is_reply()) return;  // noted as it came in (note_reply); nothing to answer
  if (tracing()) {
    trace("error " + std::to_string(msg.conn) + " neither a request nor a reply, not answered");
  }
}

void CloudDaemon::Loop::answer_device_request(const Received &msg) {
  const SettingsPtr s = settings_;
  const Behaviour &b = s->behaviour;
  const int conn = msg.conn;
  if (!msg.has_id) {
    if (tracing()) {
      trace("error " + std::to_string(conn) + " device_request without inner_id, not answered");
    }
    return;
  }
  int code = ack_code_for(b, kDeviceRequest);
  // Without a request text there is nothing to forward to the cloud.
  if (code == 0 && !msg.has_request) code = VEMO_ERR_MISSING_KEY;
  const bool accepted = code == 0;
  const int request_id = accepted ? st_.take_request_id() : 0;
  const int msg_id = msg.id;

  // The response is timed from the acknowledgement, so it can never overtake it. Without
  // delays both go out at once, in the same write.
  auto acknowledge = [this, conn, code, accepted, request_id, msg_id, s](std::string text) {
    const Behaviour &now = s->behaviour;
    if (now.drop_ack) {
      if (tracing()) {
        trace("dropped " + std::to_string(conn) + " acknowledgement of message " +
              std::to_string(msg_id));
      }
    } else if (!send_frame(conn, make_ack(msg_id, code, accepted ? &request_id : nullptr))) {
      return;
    }
    if (!accepted) return;
    if (now.hold_responses) {
      held_[request_id] = Held{conn, std::move(text)};
      if (tracing()) {
        trace("held " + std::to_string(conn) + " response to request " +
              std::to_string(request_id));
      }
    } else if (now.response_delay_ms > 0) {
      after(now.response_delay_ms,
            [this, conn, request_id, text, s] { respond(conn, request_id, text, s); });
    } else {
      respond(conn, request_id, text, s);
    }
  };
  std::string text = accepted ? (b.echo_request ? msg.request : b.fixed_response) : std::string();
  if (b.ack_delay_ms > 0) {
    after(b.ack_delay_ms, [acknowledge, text] { acknowledge(text); });
  } else {
    acknowledge(std::move(text));
  }
}

void CloudDaemon::Loop::respond(int conn, int request_id, const std::string &text,
                                const SettingsPtr &s) {
  const Behaviour &b = s->behaviour;
  if (b.drop_response) {
    if (tracing()) {
      trace("dropped " + std::to_string(conn) + " response to request " +
            std::to_string(request_id));
    }
    return;
  }
  const std::string response =
      b.response_code != 0 ? make_failed_response(b.response_code) : make_response(request_id, text);
  for (int i = 0; i <= b.duplicate_responses; ++i) {
    if (!send_frame(conn, response)) break;
  }
}

std::vector<HeldRequest> CloudDaemon::Loop::held() const {
  std::vector<HeldRequest> out;
  for (const auto &entry : held_) out.push_back({entry.first, entry.second.conn, entry.second.text});
  return out;
}

bool CloudDaemon::Loop::answer_held(int request_id, bool failed, int code,
                                    const std::string &text) {
  auto it = held_.find(request_id);
  if (it == held_.end()) return false;
  const int conn = it->second.conn;
  held_.erase(it);
  return send_frame(conn, failed ? make_failed_response(code, &request_id)
                                : make_response(request_id, text));
}

void CloudDaemon::Loop::answer_other_request(const Received &msg) {
  const Behaviour &b = settings_->behaviour;
  const std::string who = std::to_string(msg.conn);
  int code;
  if (is_client_method(msg.method)) {
    code = ack_code_for(b, msg.method);
  } else {
    // Methods are compared exactly, letter case included; anything else is unknown, and a
    // client waiting on it learns so instead of timing out.
    code = VEMO_ERR_NO_HANDLER;
    if (tracing()) trace("error " + who + " unknown method " + quoted(msg.method));
  }
  if (!msg.has_id) {
    if (tracing()) trace("error " + who + " " + msg.method + " without inner_id, not answered");
    return;
  }
  if (b.drop_ack) {
    if (tracing()) trace("dropped " + who + " acknowledgement of message " + std::to_string(msg.id));
    return;
  }
  send_to(msg.conn, make_ack(msg.id, code, nullptr), b.ack_delay_ms);
}

void CloudDaemon::Loop::note_reply(const Received &msg) {
  // Forgotten whether traced or not, so that a late duplicate reply is marked as such.
  const bool outstanding = !msg.has_id || outstanding_cloud_ids_.erase(msg.id) != 0;
  if (!tracing()) return;
  std::string line = "answer " + std::to_string(msg.conn) + " ";
  if (msg.has_id) {
    line += std::string(kCloudRequest) + " " + std::to_string(msg.id);
    if (!outstanding) line += " (no such request outstanding)";
  } else {
    line += kHelloRequest;
  }
  line += " code=" + std::to_string(msg.error_code);
  line += msg.has_response ? " " + quoted(msg.response) : std::string(" (no response)");
  trace(line);
}

}  // namespace cloudd
}  // namespace vemo
