// The faults of the soak, made with the in-process twin of the reference daemon, and the wait
// for the client to recover from each.
#include <string.h>

#include <algorithm>

#include "soak.h"
#include "vemo/ipc_socket.h"
#include "vemo/vemo.h"

namespace soak {
namespace {

using vemo::cloudd::CloudDaemon;
using vemo::cloudd::Received;

// A restarting daemon is away for up to this long: the client's attempts meet no socket.
constexpr int kRestartGapMaxMs = 200;
// How long one cloud request may go unanswered before the next is sent (a request written into
// a stream that is out of step is never answered; the next one also helps the client notice).
constexpr auto kAnswerRetry = std::chrono::milliseconds(250);
constexpr const char kCheckPrefix[] = "check-";

std::string header(uint32_t length) {
  const char bytes[IPC_FRAME_HEADER_SIZE] = {'\xA1', '\xB2', static_cast<char>(length >> 24),
                                             static_cast<char>(length >> 16), static_cast<char>(length >> 8),
                                             static_cast<char>(length)};
  return std::string(bytes, sizeof bytes);
}

}  // namespace

const char *Faults::name(Kind kind) {
  static const char *const kNames[kKinds] = {"restart", "teardown", "stray_byte", "oversize_header", "cut_frame",
                                             "closed_mid_frame"};
  return kNames[kind];
}

Faults::~Faults() { shutdown(); }

bool Faults::start(std::string *error) {
  rng_ = options_.seed * 2654435761u + 1;
  if (!start_daemon(error)) return false;
  if (!register_again(Clock::now() + std::chrono::milliseconds(kReanswerLimitMs))) {
    *error = "the first registration failed";
    return false;
  }
  return true;
}

void Faults::shutdown() {
  if (!daemon_) return;
  // Unregistered first, so that the client does not go on reconnecting to a daemon that is gone.
  calls_->begin(kSenders, "unregister", kControlTimeoutMs);
  calls_->end(kSenders, vemo_unregister_callback());
  daemon_->stop();
  daemon_.reset();
}

bool Faults::start_daemon(std::string *error) {
  daemon_.reset(new CloudDaemon(options_.socket));
  daemon_->set_handler([this](CloudDaemon &, const Received &r) {
    std::lock_guard<std::mutex> hold(seen_.mu);
    if (r.method == "register_callback") ++seen_.registrations;
    if (r.is_reply() && r.response.compare(0, strlen(kCheckPrefix), kCheckPrefix) == 0) seen_.last_check = r.response;
    seen_.changed.notify_all();
    return false;  // the daemon answers as usual
  });
  if (daemon_->start() != 0) {
    *error = "the daemon cannot serve " + options_.socket + ": " + daemon_->last_error();
    return false;
  }
  return true;
}

bool Faults::register_again(Clock::time_point deadline) {
  // A registration that meets the teardown it follows fails (and leaves no handler): try again.
  while (Clock::now() < deadline) {
    calls_->begin(kSenders, "register", kControlTimeoutMs);
    int rc = vemo_register_callback(on_cloud_request, nullptr);
    calls_->end(kSenders, rc);
    if (rc == 0) return true;
    std::unique_lock<std::mutex> hold(seen_.mu);
    seen_.changed.wait_for(hold, std::chrono::milliseconds(10));  // a pause, cut short by news
  }
  return false;
}

long Faults::wait_answer(Clock::time_point since, Clock::time_point deadline) {
  while (Clock::now() < deadline) {
    // Each check has a text of its own, which the handler sends back.
    const std::string text = kCheckPrefix + std::to_string(++answer_serial_);
    if (daemon_->send_cloud_request(text) == 0) {
      daemon_->wait_for_open_connections(1, 50);  // none open yet: the client is reconnecting
      continue;
    }
    std::unique_lock<std::mutex> hold(seen_.mu);
    auto until = std::min(deadline, Clock::now() + kAnswerRetry);
    if (seen_.changed.wait_until(hold, until, [&] { return seen_.last_check == text; })) return ms_since(since);
  }
  return -1;
}

long Faults::wait_registration(long before, Clock::time_point since, Clock::time_point deadline) {
  std::unique_lock<std::mutex> hold(seen_.mu);
  if (!seen_.changed.wait_until(hold, deadline, [&] { return seen_.registrations > before; })) return -1;
  return ms_since(since);
}

bool Faults::stream_fault(Kind kind) {
  rng_ = rng_ * 1103515245u + 12345u;
  const uint32_t r = rng_ >> 8;
  std::string bytes;
  if (kind == kStrayByte) {
    bytes.assign(1, static_cast<char>(r % 0xA1));  // anything but the first magic byte
  } else if (kind == kOversizeHeader) {
    bytes = header(r % 2 ? 0xFFFFFFFFu : IPC_FRAME_MAX_PAYLOAD + 1 + r % 4096);
  } else {
    // A frame that announces more than it carries; the rest never comes (the daemon goes on with
    // its next frame), or the connection closes.
    const std::string text = R"({"inner_method":"cloud_request","inner_id":7,"inner_params":{"request":")" +
                             std::string(64 + r % 448, 'x') + "\"}}";
    bytes = header(static_cast<uint32_t>(text.size())) + text.substr(0, text.size() / 2);
  }
  // The client may still be reconnecting from the event before.
  daemon_->wait_for_open_connections(1, 1000);
  if (daemon_->send_bytes(bytes, vemo::cloudd::kAllConnections) == 0) return false;
  if (kind == kClosedMidFrame) daemon_->close_connections();
  return true;
}

bool Faults::run(Kind kind, std::string *error) {
  calls_->set_event(name(kind));
  const Clock::time_point since = Clock::now();
  const Clock::time_point deadline = since + std::chrono::milliseconds(kReanswerLimitMs);
  long registrations = 0;
  {
    std::lock_guard<std::mutex> hold(seen_.mu);
    registrations = seen_.registrations;
  }
  int connections = kind == kRestart ? 0 : daemon_->connections_seen();
  bool made = true;
  if (kind == kRestart) {
    daemon_->stop();
    rng_ = rng_ * 1103515245u + 12345u;
    std::this_thread::sleep_for(std::chrono::milliseconds((rng_ >> 8) % (kRestartGapMaxMs + 1)));
    made = start_daemon(error);
  } else if (kind == kTeardown) {
    // Handlers go with an ordered teardown: the application registers again.
    made = daemon_->send_server_notify(1) > 0 && register_again(deadline);
    if (!made) *error = "no registration after the ordered teardown";
  } else {
    made = stream_fault(kind);
    if (!made) *error = "no connection to break";
  }
  if (!made) return false;
  ++done_[kind];
  const long answered = wait_answer(since, deadline);
  if (answered < 0) {
    *error = "the handler did not answer again within 6 s";
    return false;
  }
  worst_reanswer_[kind] = std::max(worst_reanswer_[kind], answered);
  // A lost connection (the client connected anew): the client itself announces the registration
  // to the daemon again. (A frame cut short may leave the stream in step, by chance, when what
  // follows makes up exactly the missing bytes; the connection then survives.)
  if (kind == kTeardown || daemon_->connections_seen() == connections) return true;
  const long announced = wait_registration(registrations, since, deadline);
  if (announced < 0) {
    *error = "the registration was not announced again within 6 s";
    return false;
  }
  worst_reregister_[kind] = std::max(worst_reregister_[kind], announced);
  return true;
}

}  // namespace soak
