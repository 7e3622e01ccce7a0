/* A program as an application developer writes it against an installed vemo: only the public
 * headers, the installed library and its declared dependency (the JSON API comes through vemo's
 * interface). It talks to the daemon on /tmp/cloud_svr and exits 0 when every step answered as
 * documented, 1 otherwise; each failed step is said on standard error.
 *
 * Run it in a scratch directory: the allocator writes its memguard.log there. */
#define _POSIX_C_SOURCE 200809L

#include <pthread.h>
#include <stdio.h>
#include <stdlib.h>
#include <string.h>
#include <time.h>

#include <cjson/cJSON.h>
#include <vemo/codes.h>
#include <vemo/mw.h>
#include <vemo/util.h>
#include <vemo/vemo.h>

static int failures = 0;

static void check(int ok, const char *step) {
  if (!ok) {
    fprintf(stderr, "consumer: FAILED: %s\n", step);
    ++failures;
  }
}

/* The request is a JSON document built with the JSON API that vemo exports with its own. */
static char *make_request(const char *name) {
  cJSON *doc = cJSON_CreateObject();
  char *text = NULL;
  if (doc == NULL) return NULL;
  cJSON_AddItemToObject(doc, "consumer", cJSON_CreateString(name));
  cJSON_AddItemToObject(doc, "bits", cJSON_CreateNumber((double)(sizeof(void *) * 8)));
  text = cJSON_PrintUnformatted(doc);
  cJSON_Delete(doc);
  return text;
}

/* The daemon echoes the request text as the response. */
static int echoes(const char *response, const char *name) {
  cJSON *doc = cJSON_Parse(response);
  cJSON *item = doc != NULL ? cJSON_GetObjectItem(doc, "consumer") : NULL;
  int ok = item != NULL && item->valuestring != NULL && strcmp(item->valuestring, name) == 0;
  cJSON_Delete(doc);
  return ok;
}

static void sync_request(void) {
  char *request = make_request("sync");
  char *response = NULL;
  int rc;
  check(request != NULL, "build the request with the JSON API");
  if (request == NULL) return;
  rc = vemo_send_request_sync(request, 3000, 0, &response);
  check(rc == 0, "synchronous request answered");
  if (rc != 0) fprintf(stderr, "consumer:   code %d (%s)\n", rc, vemo_strerror(rc));
  check(response != NULL && echoes(response, "sync"), "synchronous response echoes the request");
  free(response);
  free(request);
}

/* The response callback runs on a library thread; the main thread waits for it on a condition
 * variable, bounded. */
static pthread_mutex_t arrived_lock = PTHREAD_MUTEX_INITIALIZER;
static pthread_cond_t arrived_cond;
static int arrived_id = -1;

static void on_response(int id, const char *response) {
  (void)response;
  pthread_mutex_lock(&arrived_lock);
  arrived_id = id;
  pthread_cond_broadcast(&arrived_cond);
  pthread_mutex_unlock(&arrived_lock);
}

static int wait_arrival(int id, int timeout_ms) {
  struct timespec until;
  int rc = 0;
  clock_gettime(CLOCK_MONOTONIC, &until);
  until.tv_sec += timeout_ms / 1000;
  pthread_mutex_lock(&arrived_lock);
  while (arrived_id != id && rc == 0) rc = pthread_cond_timedwait(&arrived_cond, &arrived_lock, &until);
  rc = arrived_id == id;
  pthread_mutex_unlock(&arrived_lock);
  return rc;
}

static void async_request(void) {
  char *request = make_request("async");
  char *response = NULL;
  pthread_condattr_t attr;
  int id;
  int rc;
  if (request == NULL) return;
  pthread_condattr_init(&attr);
  pthread_condattr_setclock(&attr, CLOCK_MONOTONIC);
  pthread_cond_init(&arrived_cond, &attr);
  pthread_condattr_destroy(&attr);
  id = vemo_send_request_async(request, 3000, 0, on_response);
  check(id >= 0, "asynchronous request acknowledged with a request id");
  /* The response follows its acknowledgement within milliseconds; seconds are plenty even under
   * emulation. */
  check(id >= 0 && wait_arrival(id, 5000), "response callback called with the request id");
  rc = vemo_get_response(id, &response);
  check(rc == 0, "asynchronous response collected");
  check(response != NULL && echoes(response, "async"), "asynchronous response echoes the request");
  free(response);
  response = NULL;
  check(vemo_get_response(id, &response) == VEMO_ERR_NOT_FOUND, "a collected response is gone");
  free(request);
}

static void allocator(void) {
  char *copy;
  void *block;
  mwInit();
  block = mwMalloc(24, __FILE__, __LINE__);
  check(block != NULL, "tracked allocation");
  copy = copy_string("vemo");
  check(copy != NULL && strcmp(copy, "vemo") == 0, "copy_string");
  free(copy);
  mwFree(block, __FILE__, __LINE__);
  mwTerm();
}

int main(void) {
  sync_request();
  async_request();
  check(vemo_reconnect_cloud() == 0, "reconnect acknowledged");
  allocator();
  printf("consumer: %s\n", failures == 0 ? "all steps passed" : "some steps failed");
  return failures == 0 ? 0 : 1;
}
