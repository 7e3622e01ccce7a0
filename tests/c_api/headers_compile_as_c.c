/* A plain C program calls the library through its public headers and links against libvemo.so
 * (that every header compiles alone as C99 and C++ is checked by the c_api_headers target). */
#include <stdlib.h>
#include <string.h>
#include <vemo/util.h>
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
