// The parts of CloudDaemon behind its header: the state shared between the caller threads and
// the loop thread, and the loop itself, which alone touches the sockets.
#ifndef VEMO_CLOUDD_DAEMON_INTERNAL_H
#define VEMO_CLOUDD_DAEMON_INTERNAL_H

#include <atomic>
#include <chrono>
#include <deque>
#include <functional>
#include <map>
#include <memory>
#include <set>
#include <string>
#include <thread>
#include <vector>

#include "connection.h"
#include "socket_path.h"
#include "util/sync.h"
#include "util/thread_annotations.h"
#include "vemo_cloudd/cloud_daemon.h"

namespace vemo {
namespace cloudd {

struct CloudDaemon::State {
  explicit State(CloudDaemon *owner_in) : owner(owner_in) {}

  // A unit of work that a caller thread hands to the loop thread and waits for.
  struct Command {
    std::function<int(Loop &)> fn;
    bool done = false;  // guarded by mu
    int result = 0;     // guarded by mu
  };

  CloudDaemon *const owner;

  // Serialises start() and stop(); never taken by the loop thread, always before mu.
  Mutex life_mu;
  std::thread thread GUARDED_BY(life_mu);
  std::unique_ptr<Loop> loop GUARDED_BY(life_mu);
  FileId bound GUARDED_BY(life_mu);

  std::atomic<bool> stop_requested{false};

  mutable Mutex mu ACQUIRED_AFTER(life_mu);
  CondVar cv;  // broadcast on every change below that a waiter may look for
  bool running GUARDED_BY(mu) = false;
  // Commands are taken only while the loop runs; the wake descriptor is written under mu, so
  // it cannot be closed under a writer's feet.
  bool accepting GUARDED_BY(mu) = false;
  int wake_fd GUARDED_BY(mu) = -1;
  std::deque<std::shared_ptr<Command>> commands GUARDED_BY(mu);
  std::string last_error GUARDED_BY(mu);

  // What the loop consults for every message. The setters replace it as a whole and bump
  // `version`, so that the loop takes a new snapshot only after a change, without a lock on its
  // way through a message.
  struct Settings {
    Behaviour behaviour;
    Handler handler;
    LogSink sink;
    bool keep_log = true;
  };
  std::shared_ptr<const Settings> settings GUARDED_BY(mu) = std::make_shared<Settings>();
  std::atomic<uint64_t> settings_version{0};
  int next_request_id GUARDED_BY(mu) = 1000;
  int next_cloud_id GUARDED_BY(mu) = 1;

  std::vector<Received> received GUARDED_BY(mu);
  std::vector<Sent> sent GUARDED_BY(mu);
  int seen GUARDED_BY(mu) = 0;
  std::vector<int> open_ids GUARDED_BY(mu);

  // Runs fn on the loop thread (at once when called there) and returns its result; 0 when
  // the loop is not running.
  int run_on_loop(std::function<int(Loop &)> fn) EXCLUDES(mu);
  // Hands one line to the log sink, outside the lock (for threads other than the loop's).
  void emit(const std::string &line) EXCLUDES(mu);
  // Adds to the logs (when they are kept) and wakes their waiters.
  Received record_received(Received r, bool keep) EXCLUDES(mu);
  void record_sent(int conn, const std::string &text, bool raw_bytes) EXCLUDES(mu);
  std::shared_ptr<const Settings> settings_snapshot() const EXCLUDES(mu);
  void change_settings(const std::function<void(Settings &)> &change) EXCLUDES(mu);
  int take_request_id() EXCLUDES(mu);
  int take_cloud_id() EXCLUDES(mu);
};

class CloudDaemon::Loop {
 public:
  using Clock = std::chrono::steady_clock;

  // Takes over both descriptors; run() closes them and removes the socket file `bound` at path.
  Loop(State &state, int listen_fd, int wake_fd, std::string path, FileId bound);
  ~Loop();
  Loop(const Loop &) = delete;
  Loop &operator=(const Loop &) = delete;

  // Serves until stop is requested, then closes every connection and the listening socket.
  void run();
  // The loop running on the calling thread, if any.
  static Loop *current() { return current_; }
  State &state() { return st_; }

  // For commands, handlers and timers; loop thread only. Frames are queued on their
  // connection and handed to the socket at the end of the loop's pass (send_frame is false
  // only when the connection is not open).
  std::vector<int> targets(int conn) const;
  bool send_frame(int conn, const std::string &text);
  bool send_raw(int conn, const std::string &bytes);
  void close_connection(int conn, const std::string &why);
  void after(int delay_ms, std::function<void()> fn);
  // Sends now, or after delay_ms when it is positive; the number of target connections.
  int send_to(int conn, const std::string &text, int delay_ms);
  void note_cloud_request(int id) { outstanding_cloud_ids_.insert(id); }
  std::vector<HeldRequest> held() const;
  // Sends the response of a held request (with text, or failed with code) and forgets it;
  // false when there is no such request.
  bool answer_held(int request_id, bool failed, int code, const std::string &text);

 private:
  struct Held {
    int conn;
    std::string text;
  };
  using SettingsPtr = std::shared_ptr<const State::Settings>;

  void accept_all();
  void receive(int conn);
  void handle(int conn, const std::string &payload);
  void run_commands();
  void fire_due_timers();
  void flush_all();
  void flush(int conn);
  int poll_timeout_ms() const;
  // Takes the settings anew when a setter has changed them.
  void refresh_settings();
  bool tracing() const { return static_cast<bool>(settings_->sink); }
  // One line to the log sink; callers build lines only when tracing().
  void trace(const std::string &line) const;

  // The daemon's own part of the conversation (answer.cc).
  void answer(const Received &msg);
  void answer_device_request(const Received &msg);
  void answer_other_request(const Received &msg);
  void respond(int conn, int request_id, const std::string &text, const SettingsPtr &s);
  void note_reply(const Received &msg);  // logs a client's answer to a request of ours
  void greet(int conn);

  static thread_local Loop *current_;

  State &st_;
  const int listen_fd_;
  const int wake_fd_;
  const std::string path_;
  const FileId bound_;
  bool ran_ = false;
  SettingsPtr settings_;
  uint64_t settings_version_ = 0;
  std::map<int, std::unique_ptr<Connection>> conns_;  // by connection id
  std::string payload_;  // the frame being handled, its capacity kept from frame to frame
  std::multimap<Clock::time_point, std::function<void()>> timers_;  // equal times keep order
  bool accept_paused_ = false;
  std::set<int> outstanding_cloud_ids_;
  std::map<int, Held> held_;  // by request id
};

}  // namespace cloudd
}  // namespace vemo

#endif
