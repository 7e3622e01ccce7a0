// Connected Unix stream sockets, the frame builder and raw byte helpers for transport tests.
#ifndef VEMO_TESTS_SUPPORT_SOCKET_PAIR_H
#define VEMO_TESTS_SUPPORT_SOCKET_PAIR_H

#include <stddef.h>
#include <stdint.h>

#include <string>

namespace vemo_test {

// Two connected AF_UNIX stream sockets; the library talks on local(), the test plays the peer on
// peer(). Both ends are blocking; each is closed on destruction unless closed before.
class SocketPair {
 public:
  SocketPair();
  ~SocketPair();
  SocketPair(const SocketPair &) = delete;
  SocketPair &operator=(const SocketPair &) = delete;

  bool ok() const { return local_ >= 0 && peer_ >= 0; }
  int local() const { return local_; }
  int peer() const { return peer_; }
  void close_local();
  void close_peer();

 private:
  int local_ = -1;
  int peer_ = -1;
};

// The frame for text as the wire carries it (header with text's length, then the bytes).
std::string frame_of(const std::string &text);
// A header announcing length, then body as it stands (which may disagree with length).
std::string frame_with_length(uint32_t length, const std::string &body = "");

// Writes every byte with write(2) (not through the library's seam). False on failure.
bool write_all(int fd, const std::string &bytes);
// Reads whatever is queued on fd without waiting.
std::string read_available(int fd);
// The number of descriptors open in this process.
int open_descriptor_count();

// A fresh path for a socket file in a private temporary directory (the file does not exist
// yet); the directory and everything in it are removed on destruction.
class TempSocketPath {
 public:
  TempSocketPath();
  ~TempSocketPath();
  TempSocketPath(const TempSocketPath &) = delete;
  TempSocketPath &operator=(const TempSocketPath &) = delete;

  const std::string &path() const { return path_; }
  const char *c_str() const { return path_.c_str(); }
  const std::string &directory() const { return directory_; }

 private:
  std::string directory_;
  std::string path_;
};

}  // namespace vemo_test

#endif
