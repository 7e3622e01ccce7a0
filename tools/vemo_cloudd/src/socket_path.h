// The socket file's life: clearing a stale one before bind, and removing our own at the end.
#ifndef VEMO_CLOUDD_SOCKET_PATH_H
#define VEMO_CLOUDD_SOCKET_PATH_H

#include <sys/types.h>

#include <string>

namespace vemo {
namespace cloudd {

// Identity of the file at a path, so that the daemon removes only the socket it bound itself
// and never one that a newer daemon has put there since.
struct FileId {
  bool valid = false;
  dev_t dev = 0;
  ino_t ino = 0;
};

FileId file_id_of(const std::string &path);

// Makes the path ready for bind. Nothing there: fine. A socket nobody answers on (left behind
// by a daemon that died): removed. A socket with a live daemon behind it, any other kind of
// file, or a path that does not fit a socket address: refused. 0, or -1 with *error set.
int prepare_socket_path(const std::string &path, std::string *error);

// Removes the socket file if it is still the one identified by id.
void remove_socket_file(const std::string &path, const FileId &id);

}  // namespace cloudd
}  // namespace vemo

#endif
