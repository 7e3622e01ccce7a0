// The daemon's socket path: VEMO_SOCKET_PATH unless the application chose another one for its
// tests (vemo_set_socket_path, an extension).
#include <string.h>
#include <sys/un.h>

#include "client/context.h"
#include "util/sync.h"
#include "vemo/vemo_ext.h"

namespace vemo {
namespace {

constexpr size_t kPathCapacity = sizeof(sockaddr_un{}.sun_path);

Mutex g_path_mutex;
// Empty while the default is in force. Guarded by g_path_mutex; start-ups copy it out.
char g_path[kPathCapacity] GUARDED_BY(g_path_mutex) = "";

}  // namespace

void client_socket_path(char out[kSocketPathCapacity]) {
  static_assert(kSocketPathCapacity == kPathCapacity, "one capacity for the path");
  MutexLock hold(g_path_mutex);
  // The default is a short literal: copy only its own bytes, zero-filled to the capacity.
  const char *path = g_path[0] != '\0' ? g_path : VEMO_SOCKET_PATH;
  memset(out, 0, kPathCapacity);
  memcpy(out, path, strlen(path));
}

}  // namespace vemo

extern "C" VEMO_API int vemo_set_socket_path(const char *path) {
  if (path != nullptr && (path[0] == '\0' || strlen(path) >= vemo::kPathCapacity)) {
    return VEMO_ERR_INVALID_ARG;
  }
  vemo::MutexLock hold(vemo::g_path_mutex);
  memset(vemo::g_path, 0, sizeof vemo::g_path);
  if (path != nullptr) memcpy(vemo::g_path, path, strlen(path));
  return VEMO_OK;
}
