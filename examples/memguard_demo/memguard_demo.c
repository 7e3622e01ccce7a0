/*
 * memguard_demo: leaks, overruns and frees twice on purpose, and lets the debugging
 * allocator of libvemo report it in memguard.log in the current directory.
 *
 * Every malloc, calloc, strdup and free below goes to the tracked allocator because
 * <vemo/mw_override.h> is included; the report is written when the program exits.
 */
#define _POSIX_C_SOURCE 200809L /* getcwd */

#include <stdio.h>
#include <string.h>
#include <unistd.h>

#include <vemo/mw_override.h>

int main(void) {
  char cwd[1024];
  char *kept;
  char *overrun;
  char *twice;

  mwStatistics(MW_STAT_MODULE);

  kept = strdup("never freed"); /* a leak: listed with a dump of its first bytes */

  overrun = malloc(8);
  twice = calloc(4, 4);

  memcpy(overrun, "123456789", 10); /* two bytes past the end, into the guard */
  free(overrun);                    /* the overflow is found here */

  free(twice);
  free(twice); /* a double free: named with the place of the first one */

  (void)kept;
  if (getcwd(cwd, sizeof cwd) == NULL) strcpy(cwd, ".");
  printf("memguard report: %s/memguard.log\n", cwd);
  return 0; /* the final report runs at exit */
}
