/* Every public header compiles as C99 (-pedantic -Werror) and links against libvemo.so. */
#include <stdlib.h>
#include <string.h>
#include <vemo/util.h>

int main(void) {
  char *copy = copy_string("vemo");
  char *stamp = get_current_time();
  int ok = copy != NULL && strcmp(copy, "vemo") == 0 && stamp != NULL && strlen(stamp) == 23;
  LOG_PRINT("INFO", "plain C caller, tick=%u", (unsigned)get_tick_count());
  cjson_hook_init();
  free(copy);
  free(stamp);
  return ok ? 0 : 1;
}
