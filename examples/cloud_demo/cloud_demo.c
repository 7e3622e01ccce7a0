/*
 * A tour of the vemo client API against the reference daemon (tools/vemo_cloudd).
 *
 * usage: cloud_demo [DAEMON_COMMAND_FIFO]
 *
 * With the path of the daemon's command input, the demo also asks the simulated cloud to send
 * requests to the device and to order a teardown, so that every handler runs. Lines starting
 * with "demo:" are the demo's own narration; the rest is the library's log.
 */
#define _POSIX_C_SOURCE 200809L
#include <errno.h>
#include <stdarg.h>
#include <pthread.h>
#include <stdio.h>
#include <stdlib.h>
#include <string.h>
#include <time.h>
#include <vemo/vemo.h>

static pthread_mutex_t g_mu = PTHREAD_MUTEX_INITIALIZER;
static pthread_cond_t g_cv = PTHREAD_COND_INITIALIZER;
static int g_events; /* handler calls seen so far, guarded by g_mu */
static const char *g_fifo;
static int g_failures;

static void say(const char *format, ...) __attribute__((format(printf, 1, 2)));
static void say(const char *format, ...) {
  va_list args;
  va_start(args, format);
  flockfile(stdout);
  fputs("demo: ", stdout);
  vprintf(format, args);
  putchar('\n');
  fflush(stdout);
  funlockfile(stdout);
  va_end(args);
}

static void note_event(void) {
  pthread_mutex_lock(&g_mu);
  g_events++;
  pthread_cond_broadcast(&g_cv);
  pthread_mutex_unlock(&g_mu);
}

/* Waits until at least `count` handler calls have been seen, for at most 5 s. */
static int wait_events(int count) {
  struct timespec deadline;
  int ok;
  clock_gettime(CLOCK_REALTIME, &deadline);
  deadline.tv_sec += 5;
  pthread_mutex_lock(&g_mu);
  while (g_events < count) {
    if (pthread_cond_timedwait(&g_cv, &g_mu, &deadline) == ETIMEDOUT) break;
  }
  ok = g_events >= count;
  pthread_mutex_unlock(&g_mu);
  return ok;
}

static void check(int ok, const char *what) {
  if (!ok) {
    g_failures++;
    say("UNEXPECTED: %s", what);
  }
}

/* Asks the simulated cloud to do something (one command line to the daemon). */
static int cloud_command(const char *line) {
  FILE *f;
  if (g_fifo == NULL) return 0;
  f = fopen(g_fifo, "w");
  if (f == NULL) {
    say("cannot open the daemon's command input %s: %s", g_fifo, strerror(errno));
    return 0;
  }
  fprintf(f, "%s\n", line);
  fclose(f);
  return 1;
}

static void on_response(int id, const char *response) {
  say("response callback: request %d answered with \"%s\"", id, response);
  note_event();
}

static void on_cloud_request(const char *request, char **response) {
  const char *prefix = "device handled: ";
  char *answer = malloc(strlen(prefix) + strlen(request) + 1);
  say("cloud request handler: the cloud asks \"%s\"", request);
  if (answer != NULL) {
    strcpy(answer, prefix);
    strcat(answer, request);
  }
  *response = answer; /* the library sends it and frees it */
  note_event();
}

static void on_hello_request(char **response) {
  const char *hello = "hello from the demo device";
  say("hello handler: the daemon asks for our hello text");
  *response = malloc(strlen(hello) + 1);
  if (*response != NULL) strcpy(*response, hello);
  note_event();
}

static void on_hello_response(const char *response) {
  say("hello handler: the cloud answered our hello with \"%s\"", response);
  note_event();
}

int main(int argc, char **argv) {
  vemo_hello_cloud_cb_t hello = {on_hello_request, on_hello_response};
  char *text = NULL;
  int id, rc, seen;
  g_fifo = argc > 1 ? argv[1] : NULL;

  say("1. asynchronous request: returns at once with the daemon's request id");
  id = vemo_send_request_async("what is the temperature?", 3000, 0, on_response);
  check(id >= 0, "async request accepted");
  say("   vemo_send_request_async -> %d (%s)", id, id >= 0 ? "request id" : vemo_strerror(id));
  check(wait_events(1), "response callback called");
  rc = vemo_get_response(id, &text);
  say("   vemo_get_response(%d) -> %d, \"%s\"", id, rc, text != NULL ? text : "");
  check(rc == 0, "response collected");
  free(text);
  text = NULL;
  rc = vemo_get_response(id, &text);
  say("   collecting it again -> %d (%s)", rc, vemo_strerror(rc));

  say("2. synchronous request: waits for the response");
  rc = vemo_send_request_sync("what is the firmware version?", 3000, 0, &text);
  say("   vemo_send_request_sync -> %d, \"%s\"", rc, text != NULL ? text : "");
  check(rc == 0, "sync request answered");
  free(text);
  text = NULL;

  say("3. registering a handler for cloud requests, with hello handlers");
  rc = vemo_register_callback(on_cloud_request, &hello);
  say("   vemo_register_callback -> %d", rc);
  check(rc == 0, "registered");
  seen = 1;
  if (cloud_command("cloud_request switch the light on")) check(wait_events(++seen), "cloud request handled");
  if (cloud_command("hello_request")) check(wait_events(++seen), "hello request handled");
  if (cloud_command("hello_response welcome, device")) check(wait_events(++seen), "hello response handled");

  say("4. unregistering");
  rc = vemo_unregister_callback();
  say("   vemo_unregister_callback -> %d", rc);
  check(rc == 0, "unregistered");

  say("5. asking the daemon to reconnect to the cloud");
  rc = vemo_reconnect_cloud();
  say("   vemo_reconnect_cloud -> %d", rc);
  check(rc == 0, "reconnect accepted");

  if (cloud_command("notify 1")) {
    say("6. the daemon orders a teardown (server_notify type 1); the next call connects afresh");
    /* The teardown runs on a library thread; give it a moment to finish before calling again. */
    struct timespec pause = {0, 300 * 1000 * 1000};
    nanosleep(&pause, NULL);
    rc = vemo_send_request_sync("are we connected again?", 3000, 0, &text);
    say("   vemo_send_request_sync on a fresh connection -> %d, \"%s\"", rc, text != NULL ? text : "");
    check(rc == 0, "request after the teardown answered");
    free(text);
    text = NULL;
  }

  say("done: %s", g_failures == 0 ? "every step behaved as expected" : "some steps failed");
  return g_failures == 0 ? 0 : 1;
}
