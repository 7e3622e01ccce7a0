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

  Behaviour behaviour GUARDED_BY(mu);
  int next_request_id GUARDED_BY(mu) = 1000;
  int next_cloud_id GUARDED_BY(mu) = 1;
  Handler handler GUARDED_BY(mu);
  LogSink sink GUARDED_BY(mu);

  std::vector<Received> received GUARDED_BY(mu);
  std::vector<Sent> sent GUARDED_BY(mu);
  int seen GUARDED_BY(mu) = 0;
  std::vector<int> open_ids GUARDED_BY(mu);

  // Runs fn on the loop thread (at once when called there) and returns its result; 0 when
  // the loop is not running.
  int run_on_loop(std::function<int(Loop &)> fn) EXCLUDES(mu);
  // Hands one line to the log sink, outside the lock.
  void emit(const std::string &line) EXCLUDES(mu);
  Received record_received(Received r) EXCLUDES(mu);
  void record_sent(int conn, const std::string &text, bool raw_bytes) EXCLUDES(mu);
  Behaviour behaviour_snapshot() const EXCLUDES(mu);
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

  // For commands, handlers and timers; loop thread only.
  std::vector<int> targets(int conn) const;
  bool send_frame(int conn, const std::string &text);
  bool send_raw(int conn, const std::string &bytes);
  void close_connection(int conn, const std::string &why);
  void after(int delay_ms, std::function<void()> fn);
  // Sends now, or after delay_ms when it is positive; the number of target connections.
  int send_to(int conn, const std::string &text, int delay_ms);
  void note_cloud_request(int id) { outstanding_cloud_ids_.insert(id); }

 private:
  void accept_all();
  void receive(int conn);
  void run_commands();
  void fire_due_timers();
  int poll_timeout_ms() const;

  // The daemon's own part of the conversation (answer.cc).
  void answer(const Received &msg, const Behaviour &b);
  void answer_device_request(const Received &msg, const Behaviour &b);
  void answer_other_request(const Received &msg, const Behaviour &b);
  void note_reply(const Received &msg);  // logs a client's answer to a request of ours
  void greet(int conn);

  static thread_local Loop *current_;

  State &st_;
  const int listen_fd_;
  const int wake_fd_;
  const std::string path_;
  const FileId bound_;
  bool ran_ = false;
  std::map<int, int> conns_;                                        // connection id -> descriptor
  std::multimap<Clock::time_point, std::function<void()>> timers_;  // equal times keep order
  bool accept_paused_ = false;
  std::set<int> outstanding_cloud_ids_;
};

}  // namespace cloudd
}  // namespace vemo

#endif
