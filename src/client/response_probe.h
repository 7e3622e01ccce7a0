// Test seams of the response list: its clock can be replaced, so that expiry and arrival at any
// tick are tested without sleeping, and a test can see that a waiter is really asleep and how
// large the index is. Nothing in the library calls these.
#ifndef VEMO_CLIENT_RESPONSE_PROBE_H
#define VEMO_CLIENT_RESPONSE_PROBE_H

#include <stdint.h>

#include "vemo/response.h"

namespace vemo {

using TickSource = uint32_t (*)(void);

// Replaces get_tick_count for every list (nullptr restores it): add and arrival stamps, expiry
// and the deadline of response_data_wait_response all read this clock.
void response_list_set_tick_source(TickSource source);

// Threads asleep in response_data_wait_response on list.
int32_t response_list_waiters(response_list_t *list);

// The number of entries the list's index holds before it must grow.
int32_t response_list_capacity(response_list_t *list);

}  // namespace vemo

#endif
