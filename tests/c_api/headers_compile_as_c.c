/* Every public header compiles as C99 (-pedantic -Werror) and links against libvemo.so. */
#include <stdlib.h>
#include <string.h>
#include <vemo/codes.h>
#include <vemo/ipc_socket.h>
#include <vemo/msg_id_pool.h>
#include <vemo/mw.h>
#include <vemo/response.h>
#include <vemo/task_pool.h>
#include <vemo/util.h>
#include <vemo/vemo.h>
#include <vemo/vemo_ext.h>

int main(void) {
  char *copy = copy_string("vemo");
  char *stamp = get_current_time();
  int ok = copy != NULL && strcmp(copy, "vemo") == 0 && stamp != NULL && strlen(stamp) == 23;
  LOG_PRINT("INFO", "plain C caller, tick=%u", (unsigned)get_tick_count());
  cjson_hook_init();
  ok = ok && vemo_set_socket_path("") == VEMO_ERR_INVALID_ARG && vemo_set_socket_path(NULL) == 0;
  free(copy);
  free(stamp);
  return ok ? 0 : 1;
}
