// The daemon's end of the dispatch fuzz target: serves a private socket path with one thread
// that owns every descriptor and never blocks (so whatever the client does, the peer keeps
// reading its answers while it writes). It greets each connection, acknowledges the client's
// requests as a daemon would (refusing some), holds back the acknowledgement of the "hold:"
// requests (so that their message ids stay taken for the fuzz input to acknowledge), writes the
// input's frames right before it acknowledges a "sync" request, and watches for replies.
#ifndef VEMO_TESTS_FUZZ_DISPATCH_PEER_H
#define VEMO_TESTS_FUZZ_DISPATCH_PEER_H

#include <stdint.h>

#include <condition_variable>
#include <mutex>
#include <string>
#include <thread>
#include <vector>

namespace dispatch_fuzz {

// A request text "hold:<n>" comes from holder n; its acknowledgement is left to the input.
constexpr int kHolders = 2;
constexpr const char *kHoldPrefix = "hold:";
// A request text "refuse:..." is acknowledged with a failure code: it leaves nothing pending.
constexpr const char *kRefusePrefix = "refuse:";
// The request text that releases the armed frames: they go out right before its acknowledgement
// (with the armed code), so the acknowledgement reaches the caller only once the client has read
// them.
constexpr const char *kSyncRequest = "sync";
constexpr int kSyncAckBase = -100000000;

// One frame (magic, big-endian length, payload) appended to out.
void append_frame(std::string *out, const std::string &payload);

class FakePeer {
 public:
  FakePeer() = default;
  ~FakePeer() { stop(); }
  FakePeer(const FakePeer &) = delete;
  FakePeer &operator=(const FakePeer &) = delete;

  // Listens on path and starts the thread; false (with *error) when the path cannot be served.
  bool start(const std::string &path, std::string *error);
  void stop();

  // Queues bytes for the current connection, if it is the conn-th accepted (any, when conn is
  // 0); false when it is not open (they are dropped).
  bool send(const std::string &bytes, int conn = 0);

  // Frames to write when the next sync request arrives, and the code to acknowledge it with
  // (replacing any armed before).
  void arm(const std::string &frames, int code);

  // The cloud_request id whose reply ends the current wait, on the conn-th connection (0: the
  // current one), and the wait itself: true when the reply came, false when that connection
  // closed (or was not the current one) or timeout_ms passed (*closed tells).
  void expect_reply(int id, int conn = 0);
  bool wait_reply(int timeout_ms, bool *closed);

  // The message ids of the hold requests now waiting for their acknowledgement (the holders
  // still inside their call). A holder between two calls has none: waiting for it would cost a
  // round trip in many runs.
  std::vector<int> held_ids() const;
  // A holder calls these around its request, so that a held id is only offered while the
  // holder still waits for it.
  void holder_enters(int holder);
  void holder_leaves(int holder);

  // Connections accepted so far; whether one is open.
  int connections() const;
  bool open() const;

 private:
  void serve();
  void accept_one();
  void read_frames();
  void handle(const char *json);
  void close_conn();
  void wake();
  void queue_locked(const std::string &payload);

  std::thread thread_;
  int listen_fd_ = -1;
  int wake_[2] = {-1, -1};
  std::string path_;

  // mu_ guards everything below; changed_ is signalled whenever a waiter may be done.
  mutable std::mutex mu_;
  std::condition_variable changed_;
  bool stop_ = false;
  int conn_fd_ = -1;  // written only by the peer's thread
  int connections_ = 0;
  std::string outbox_;
  size_t out_at_ = 0;  // how much of outbox_ is written
  std::string armed_;
  int armed_code_ = kSyncAckBase;
  int expected_reply_ = 0;
  int expected_conn_ = -1;  // the connection (by number) the reply must come on
  bool reply_seen_ = false;
  int next_request_id_ = 5000;
  int held_[kHolders] = {0};
  bool holding_[kHolders] = {false};

  std::string in_;  // only the peer's thread
};

}  // namespace dispatch_fuzz

#endif
