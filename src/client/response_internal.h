// Response-list operations used by the client's synchronous wait, timeout task and teardown.
#ifndef VEMO_CLIENT_RESPONSE_INTERNAL_H
#define VEMO_CLIENT_RESPONSE_INTERNAL_H

#include <stdint.h>

#include "vemo/response.h"
#include "vemo/vemo_ext.h"

namespace vemo {

// How long a pending entry outlives its own timeout_ms (counted from its add, the
// acknowledgement) before response_data_expire drops it. The daemon times a request from when
// it read it, and its response then still crosses its queue, the socket and our receiving task,
// so a response may reach us a little after timeout_ms; 5 s allows a loaded daemon that much
// delay many times over, and costs only the memory of entries whose response never comes, for
// 5 s more.
constexpr int32_t kPendingGraceMs = 5000;

// The synchronous wait: collects as response_data_get_response (same codes and log lines),
// sleeping on a condition between attempts instead of polling. The first attempt comes before
// the clock is read; then VEMO_ERR_TIMEOUT once timeout_ms have passed since start_tick, or
// VEMO_ERR_DISCONNECTED when the list has been closed. Only the response of id wakes the
// waiter; when its entry is removed meanwhile (collected elsewhere, cleared, or replaced by a
// new entry of the same id) it looks again at once and reports VEMO_ERR_NOT_FOUND, or goes on
// waiting on the replacement.
int response_data_wait_response(response_list_t *list, int id, uint32_t start_tick,
                                int32_t timeout_ms, char **response);

// The callbacks of one entry: the classic one, and the extension's with its user pointer.
struct ResponseCallbacks {
  vemo_response_cb classic = nullptr;
  vemo_response_ex_cb ex = nullptr;
  void *user = nullptr;
};

// response_data_add with the extension's callback as well.
int response_data_add_with(response_list_t *list, int id, int timeout_ms,
                           const ResponseCallbacks &callbacks);

// response_data_set_response without calling the callbacks: they are stored at *callbacks for
// the caller to run where it sees fit. Same results and log lines.
int response_data_deliver(response_list_t *list, int id, const char *response,
                          ResponseCallbacks *callbacks);

// The cloud failed the request of id with the daemon's code: its entry arrives without a
// response, so that its collector gets the code at once (the classic list left the entry
// pending and the caller waited out its timeout). False, silently, when id has no entry.
// *callbacks receives the extension's callback only (the classic one has no way to hear of a
// failure).
bool response_data_fail(response_list_t *list, int id, int code, ResponseCallbacks *callbacks);

// For a synchronous request that gives up: removes the entry of id, pending or arrived, and
// wakes its waiters (they report VEMO_ERR_NOT_FOUND). Logs "clear the message id, id=%d" at
// DEBUG when there was an entry, so that the ERROR of a late response for the id has its
// explanation in the log; nothing when there was none.
void response_data_remove(response_list_t *list, int id);

// The sweep of the client's timeout task. Does what response_data_clear(list, 0) does (same
// rule and lines, which name response_data_clear) and also removes each pending entry whose
// timeout_ms and then pending_grace_ms (kPendingGraceMs) have passed since it was added, logging
// "no response has arrived, id=%d, time out=%d ms, time spend=%d ms" and "clear the message id,
// id=%d" at DEBUG. This departs from the exported clear, under which a pending entry never
// expires: a request whose response never comes would otherwise hold its entry until the
// teardown, and a response arriving long after its caller gave up would still be stored.
// Removals are logged newest first, after the list's mutex is released.
void response_data_expire(response_list_t *list, int32_t pending_grace_ms);

// Wakes every waiter (they get VEMO_ERR_DISCONNECTED); later waits fail at once. The list stays
// valid until response_list_destroy.
void response_list_close(response_list_t *list);

}  // namespace vemo

#endif
