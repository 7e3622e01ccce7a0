// Response-list operations used by the client's synchronous wait and teardown.
#ifndef VEMO_CLIENT_RESPONSE_INTERNAL_H
#define VEMO_CLIENT_RESPONSE_INTERNAL_H

#include <stdint.h>

#include "vemo/response.h"

namespace vemo {

// The synchronous wait: collects as response_data_get_response (same codes and log lines),
// sleeping on a condition between attempts instead of polling. The first attempt comes before
// the clock is read; then VEMO_ERR_TIMEOUT once timeout_ms have passed since start_tick, or
// VEMO_ERR_DISCONNECTED when the list has been closed. Only the response of id wakes the
// waiter; when its entry is removed meanwhile (collected elsewhere, cleared, or replaced by a
// new entry of the same id) it looks again at once and reports VEMO_ERR_NOT_FOUND, or goes on
// waiting on the replacement.
int response_data_wait_response(response_list_t *list, int id, uint32_t start_tick,
                                int32_t timeout_ms, char **response);

// response_data_set_response without calling the callback: the entry's callback (or null) is
// stored at *callback for the caller to run where it sees fit. Same results and log lines.
int response_data_deliver(response_list_t *list, int id, const char *response,
                          vemo_response_cb *callback);

// Wakes every waiter (they get VEMO_ERR_DISCONNECTED); later waits fail at once. The list stays
// valid until response_list_destroy.
void response_list_close(response_list_t *list);

}  // namespace vemo

#endif
