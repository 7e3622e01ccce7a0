// The reference cloud-service daemon: serves one Unix socket with the framed JSON protocol that
// the vemo client speaks, and plays the cloud's part of every conversation.
//
// The same class runs inside the `vemo_cloudd` executable and inside test processes (the "twin"):
// a test starts one on a path of its own, scripts its behaviour with the setters, drives it with
// the commands and waits on what it received.
//
// Threads: start() runs one event-loop thread that owns every socket and answers every
// connection without blocking on any of them. All public methods may be
// called from any thread. Commands are carried out on the loop thread; the calling thread waits
// until that is done (a command called from the loop thread itself, for example from a handler,
// runs at once). Setters take effect for the next message handled.
#ifndef VEMO_CLOUDD_CLOUD_DAEMON_H
#define VEMO_CLOUDD_CLOUD_DAEMON_H

#include <cstddef>
#include <functional>
#include <map>
#include <memory>
#include <optional>
#include <string>
#include <vector>

namespace vemo {
namespace cloudd {

constexpr const char *kDefaultSocketPath = "/tmp/cloud_svr";
// Passed as `conn` to a command: every open connection.
constexpr int kAllConnections = 0;

// How the daemon answers. Every field can be changed while the daemon runs.
struct Behaviour {
  // The first message on every new connection: a server_notify of greeting_type, sent
  // greeting_delay_ms after the accept; none at all when greeting is false.
  bool greeting = true;
  int greeting_type = 0;
  int greeting_delay_ms = 0;

  // inner_error_code of the acknowledgement, by method (device_request, register_callback,
  // unregister_callback, reconnect_cloud); methods not listed get 0. A device_request whose
  // acknowledgement carries a non-zero code is refused: it gets no request id and no response.
  std::map<std::string, int> ack_codes;
  int ack_delay_ms = 0;
  bool drop_ack = false;

  // The response notification of an accepted device_request, sent response_delay_ms after its
  // acknowledgement (or after the moment the acknowledgement would have gone, when it is
  // dropped), so that the acknowledgement always arrives first.
  int response_delay_ms = 10;
  bool echo_request = true;    // the response text is the request text ...
  std::string fixed_response;  // ... or this text when echo_request is false
  int response_code = 0;       // non-zero: the notification is {"inner_error_code":code} alone
  bool drop_response = false;
  int duplicate_responses = 0;  // extra copies sent right after the response
  // The response of an accepted device_request is held, whatever the settings above, until it
  // is answered by hand (respond_held, fail_held).
  bool hold_responses = false;
};

// A device_request whose response the daemon holds.
struct HeldRequest {
  int request_id = 0;
  int conn = 0;         // the connection that asked, which the response goes to
  std::string request;  // the request text
};

// One message that a client sent, as the daemon classified it.
struct Received {
  std::size_t index = 0;  // position in the log, from 0 (with the log off: its size then)
  int conn = 0;           // connection id: 1 for the first connection accepted, then 2, ...
  std::string text;       // the payload exactly as received
  bool json = false;      // the text is a JSON object
  std::string method;     // inner_method (empty when absent or not a string)
  bool has_id = false;    // inner_id present
  int id = 0;
  bool has_error_code = false;  // inner_error_code present
  int error_code = 0;
  bool has_request = false;  // inner_params.request present (device_request)
  std::string request;
  bool has_response = false;  // inner_result.response present (a reply)
  std::string response;
  int timeout_ms = 0;   // inner_params.timeout_ms (device_request)
  int flag = 0;         // inner_params.flag (device_request)
  int hello_cloud = 0;  // inner_params.hello_cloud (register_callback)

  // A reply to a cloud_request (has_id) or to a request_of_hello_cloud (!has_id).
  bool is_reply() const { return json && method.empty() && has_error_code; }
};

// One frame or byte string that the daemon wrote.
struct Sent {
  std::size_t index = 0;
  int conn = 0;
  std::string text;  // the payload (for raw bytes: the bytes)
  bool raw_bytes = false;
};

class CloudDaemon {
 public:
  // Called on the loop thread for every message received, after it is logged and before the
  // daemon's own answer. Return true to skip the daemon's own answer. The handler may call any
  // command or setter (commands run at once) and stop() (the loop ends after this message);
  // it must not call the wait_for_* methods, which would hold up the very loop they wait on.
  using Handler = std::function<bool(CloudDaemon &, const Received &)>;
  // Receives one human-readable line (no newline) per event: connections, every message
  // received and sent, answers to the daemon's requests, errors. Called on the loop thread.
  using LogSink = std::function<void(const std::string &line)>;

  explicit CloudDaemon(std::string socket_path = kDefaultSocketPath);
  ~CloudDaemon();  // stops
  CloudDaemon(const CloudDaemon &) = delete;
  CloudDaemon &operator=(const CloudDaemon &) = delete;

  // Binds the socket path and starts the loop thread. A stale socket file at the path is
  // removed first; a file that is not a socket, or a socket on which another daemon answers,
  // is left alone and start fails. 0, or a negative code with last_error() saying why.
  int start();
  // Stops the loop, closes every connection and removes the socket file (only if it is still
  // the one this daemon bound). Idempotent. From the loop thread it only asks the loop to end.
  void stop();
  bool running() const;
  const std::string &socket_path() const { return path_; }
  std::string last_error() const;

  // Behaviour.
  Behaviour behaviour() const;
  void set_behaviour(const Behaviour &b);
  void set_greeting(int type, int delay_ms = 0);
  void disable_greeting();
  void set_ack_code(const std::string &method, int code);
  void set_ack_delay_ms(int ms);
  void set_drop_ack(bool drop);
  void set_response_delay_ms(int ms);
  void set_response_echo();
  void set_response_fixed(const std::string &text);
  void set_response_code(int code);
  void set_drop_response(bool drop);
  void set_duplicate_responses(int count);
  void set_next_request_id(int id);        // request id of the next device_request (default 1000)
  void set_next_cloud_request_id(int id);  // inner_id of the next cloud_request (default 1)
  void set_handler(Handler handler);       // an empty function removes it
  void set_log_sink(LogSink sink);
  // Keeps every message received and sent for received(), sent() and the waits (the default).
  // A daemon that serves a load test turns it off, or the log grows without bound; the waits
  // then see nothing new.
  void set_keep_log(bool keep);

  // Commands. conn is a connection id or kAllConnections. Each returns the number of
  // connections written to (0 when none is open or the daemon is not running); delay_ms > 0
  // schedules the write on the loop's timer instead (the result then counts the target
  // connections open now).
  int send_cloud_request(const std::string &text, int conn = kAllConnections, int *id = nullptr);
  int send_hello_request(int conn = kAllConnections);
  int send_hello_response(const std::string &text, int conn = kAllConnections);
  int send_server_notify(int type, int conn = kAllConnections);
  // Any text (without zero bytes), JSON or not, as one frame.
  int send_text(const std::string &text, int conn = kAllConnections, int delay_ms = 0);
  // Bytes written as they are, with no frame around them (for malformed frames).
  int send_bytes(const std::string &bytes, int conn = kAllConnections);
  int close_connections(int conn = kAllConnections);

  // Held responses (Behaviour::hold_responses), oldest first. A request is forgotten once it
  // has been answered or its connection has closed.
  std::vector<HeldRequest> held_requests();
  // Sends the held request's response with text, or a failed response of code that names the
  // request ({"inner_error_code":code,"inner_result":{"id":request_id}}). 1 when sent, 0 when
  // no such request is held.
  int respond_held(int request_id, const std::string &text);
  int fail_held(int request_id, int code);

  // Observation. Waits return early when the condition holds, and never block longer than
  // timeout_ms.
  int connections_seen() const;  // accepted since start
  int open_connections() const;
  std::vector<int> open_connection_ids() const;
  bool wait_for_connections(int seen, int timeout_ms);
  bool wait_for_open_connections(int open, int timeout_ms);
  std::vector<Received> received() const;
  std::vector<Sent> sent() const;
  // The first message in the log (from index `from` on) that satisfies pred.
  std::optional<Received> wait_for_message(const std::function<bool(const Received &)> &pred,
                                           int timeout_ms, std::size_t from = 0);
  std::optional<Received> wait_for_method(const std::string &method, int timeout_ms,
                                          std::size_t from = 0);
  // The client's reply to the cloud_request with inner_id `id`.
  std::optional<Received> wait_for_reply(int id, int timeout_ms);
  // The client's reply without inner_id (the answer to a request_of_hello_cloud).
  std::optional<Received> wait_for_hello_reply(int timeout_ms, std::size_t from = 0);
  std::optional<Sent> wait_for_sent(const std::function<bool(const Sent &)> &pred, int timeout_ms,
                                    std::size_t from = 0);

 private:
  struct State;
  class Loop;
  const std::string path_;
  std::unique_ptr<State> state_;
};

}  // namespace cloudd
}  // namespace vemo

#endif
