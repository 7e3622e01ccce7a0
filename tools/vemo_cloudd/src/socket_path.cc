#include "socket_path.h"

#include <errno.h>
#include <string.h>
#include <sys/socket.h>
#include <sys/stat.h>
#include <sys/un.h>
#include <unistd.h>

namespace vemo {
namespace cloudd {

namespace {

std::string errno_text(int err) { return std::string(strerror(err)); }

// Whether some process accepts connections on the socket at path right now.
bool someone_listens(const std::string &path) {
  int fd = socket(AF_UNIX, SOCK_STREAM | SOCK_CLOEXEC, 0);
  if (fd < 0) return false;
  struct sockaddr_un addr;
  memset(&addr, 0, sizeof(addr));
  addr.sun_family = AF_UNIX;
  memcpy(addr.sun_path, path.c_str(), path.size());
  int rc;
  do {
    rc = connect(fd, reinterpret_cast<struct sockaddr *>(&addr), sizeof(addr));
  } while (rc != 0 && errno == EINTR);
  close(fd);
  return rc == 0;
}

}  // namespace

FileId file_id_of(const std::string &path) {
  FileId id;
  struct stat st;
  if (lstat(path.c_str(), &st) == 0) {
    id.valid = true;
    id.dev = st.st_dev;
    id.ino = st.st_ino;
  }
  return id;
}

int prepare_socket_path(const std::string &path, std::string *error) {
  if (path.empty()) {
    *error = "the socket path is empty";
    return -1;
  }
  if (path.size() >= sizeof(((struct sockaddr_un *)nullptr)->sun_path)) {
    *error = "the socket path " + path + " is too long (at most " +
             std::to_string(sizeof(((struct sockaddr_un *)nullptr)->sun_path) - 1) + " characters)";
    return -1;
  }
  struct stat st;
  if (lstat(path.c_str(), &st) != 0) {
    if (errno == ENOENT) return 0;
    *error = "cannot inspect " + path + ": " + errno_text(errno);
    return -1;
  }
  if (!S_ISSOCK(st.st_mode)) {
    *error = "refusing to replace " + path + ": it exists and is not a socket";
    return -1;
  }
  if (someone_listens(path)) {
    *error = "another daemon is already listening on " + path;
    return -1;
  }
  if (unlink(path.c_str()) != 0 && errno != ENOENT) {
    *error = "cannot remove the stale socket " + path + ": " + errno_text(errno);
    return -1;
  }
  return 0;
}

void remove_socket_file(const std::string &path, const FileId &id) {
  if (!id.valid) return;
  FileId now = file_id_of(path);
  if (now.valid && now.dev == id.dev && now.ino == id.ino) unlink(path.c_str());
}

}  // namespace cloudd
}  // namespace vemo
