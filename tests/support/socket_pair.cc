#include "support/socket_pair.h"

#include <dirent.h>
#include <errno.h>
#include <stdlib.h>
#include <sys/socket.h>
#include <unistd.h>

#include "ipc/frame_codec.h"

namespace vemo_test {

SocketPair::SocketPair() {
  int fds[2];
  if (socketpair(AF_UNIX, SOCK_STREAM | SOCK_CLOEXEC, 0, fds) == 0) {
    local_ = fds[0];
    peer_ = fds[1];
  }
}

SocketPair::~SocketPair() {
  close_local();
  close_peer();
}

void SocketPair::close_local() {
  if (local_ >= 0) close(local_);
  local_ = -1;
}

void SocketPair::close_peer() {
  if (peer_ >= 0) close(peer_);
  peer_ = -1;
}

std::string frame_with_length(uint32_t length, const std::string &body) {
  uint8_t header[vemo::frame::kHeaderSize];
  vemo::frame::write_header(length, header);
  return std::string(reinterpret_cast<char *>(header), sizeof header) + body;
}

std::string frame_of(const std::string &text) {
  return frame_with_length(static_cast<uint32_t>(text.size()), text);
}

bool write_all(int fd, const std::string &bytes) {
  size_t done = 0;
  while (done < bytes.size()) {
    ssize_t n = write(fd, bytes.data() + done, bytes.size() - done);
    if (n < 0 && errno == EINTR) continue;
    if (n <= 0) return false;
    done += static_cast<size_t>(n);
  }
  return true;
}

std::string read_available(int fd) {
  std::string out;
  char buffer[4096];
  for (;;) {
    ssize_t n = recv(fd, buffer, sizeof buffer, MSG_DONTWAIT);
    if (n <= 0) break;
    out.append(buffer, static_cast<size_t>(n));
  }
  return out;
}

std::string read_exactly(int fd, size_t count) {
  std::string out(count, '\0');
  size_t done = 0;
  while (done < count) {
    ssize_t n = read(fd, &out[done], count - done);
    if (n < 0 && errno == EINTR) continue;
    if (n <= 0) break;
    done += static_cast<size_t>(n);
  }
  out.resize(done);
  return out;
}

int open_descriptor_count() {
  DIR *dir = opendir("/proc/self/fd");
  if (dir == nullptr) return -1;
  int count = 0;
  while (readdir(dir) != nullptr) ++count;
  closedir(dir);
  return count - 3;  // ".", ".." and the directory's own descriptor
}

TempSocketPath::TempSocketPath() {
  char pattern[] = "/tmp/vemo-ipc-XXXXXX";
  if (mkdtemp(pattern) != nullptr) directory_ = pattern;
  path_ = directory_ + "/sock";
}

TempSocketPath::~TempSocketPath() {
  if (directory_.empty()) return;
  if (DIR *dir = opendir(directory_.c_str())) {
    while (struct dirent *entry = readdir(dir)) {
      std::string name = entry->d_name;
      if (name != "." && name != "..") unlink((directory_ + "/" + name).c_str());
    }
    closedir(dir);
  }
  rmdir(directory_.c_str());
}

}  // namespace vemo_test
