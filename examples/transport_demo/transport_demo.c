/*
 * transport_demo: the framed socket transport end to end.
 *
 * Opens a service end on a socket file in a fresh temporary directory, connects a client end to
 * it, sends one frame each way and receives it (once with a time limit, once without), shows a
 * timed receive that finds nothing, then closes everything and removes the socket file.
 * The library's own log lines (every text sent and received) appear between the demo's lines.
 * Exits 0 when every step did what it should.
 */
#define _POSIX_C_SOURCE 200809L

#include <stdio.h>
#include <stdlib.h>
#include <string.h>
#include <sys/socket.h>
#include <unistd.h>

#include <vemo/ipc_socket.h>

static int failures = 0;

static void step(const char *what, int ok) {
  printf("[%s] %s\n", ok ? "ok" : "FAILED", what);
  fflush(stdout);
  if (!ok) failures++;
}

/* Receives one frame on fd (with a limit when timeout_ms >= 0) and checks it is expected. */
static void receive_and_check(const char *who, int fd, int timeout_ms, const char *expected) {
  char *text = NULL;
  int rc = timeout_ms >= 0 ? ipc_socket_recv_timed(fd, timeout_ms, &text) : ipc_socket_recv(fd, &text);
  char what[256];
  snprintf(what, sizeof what, "%s received %s (%s, result %d)", who, text ? text : "nothing",
           timeout_ms >= 0 ? "timed receive" : "receive without limit", rc);
  step(what, rc == 0 && text != NULL && strcmp(text, expected) == 0);
  free(text);
}

int main(void) {
  char dir[] = "/tmp/vemo-demo-XXXXXX";
  if (mkdtemp(dir) == NULL) {
    perror("mkdtemp");
    return 1;
  }
  char path[64];
  snprintf(path, sizeof path, "%s/sock", dir);
  printf("socket file: %s\n", path);

  int server = ipc_socket_init_as_server(path);
  step("service end listening", server >= 0);
  int client = server >= 0 ? ipc_socket_init_as_client(path) : -1;
  step("client end connected", client >= 0);
  /* The connection is already queued, so accepting on the non-blocking listener succeeds. */
  int service = client >= 0 ? accept(server, NULL, NULL) : -1;
  step("service end accepted the connection", service >= 0);

  if (service >= 0) {
    const char *request = "{\"inner_method\":\"device_request\",\"inner_id\":1}";
    const char *answer = "{\"inner_id\":1,\"inner_error_code\":0,\"inner_result\":7}";
    step("client sent a request", ipc_socket_send(client, request) == 0);
    receive_and_check("service end", service, 1000, request);
    step("service end sent the answer", ipc_socket_send(service, answer) == 0);
    receive_and_check("client end", client, -1, answer);

    char *text = NULL;
    int rc = ipc_socket_recv_timed(client, 20, &text);
    char what[128];
    snprintf(what, sizeof what, "nothing more to read: timed receive gave %d within 20 ms", rc);
    step(what, rc == VEMO_ERR_RECV_TIMEOUT && text == NULL);

    close(service);
    rc = ipc_socket_recv(client, &text);
    snprintf(what, sizeof what, "service end closed: client receive gave %d", rc);
    step(what, rc == VEMO_ERR_PEER_CLOSED && text == NULL);
  }

  if (client >= 0) close(client);
  if (server >= 0) close(server);
  /* The transport never removes the socket file: its owner does. */
  step("socket file removed", unlink(path) == 0 || server < 0);
  rmdir(dir);

  printf("%s\n", failures == 0 ? "transport demo finished" : "transport demo FAILED");
  return failures == 0 ? 0 : 1;
}
