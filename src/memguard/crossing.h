// What the client library asks of the allocator for the texts that cross between it and the
// application (crossing.cc). Hidden: the application sees only the effects, through free().
#ifndef VEMO_MEMGUARD_CROSSING_H
#define VEMO_MEMGUARD_CROSSING_H

namespace vemo {

// Notes a system-memory text that the library hands to the application (lock-free).
void mwNoteHandedOutText(void *p);
// Forgets p as a handed-out text; true when it was one (lock-free).
bool mwTakeHandedOutText(const void *p);
// Releases a text the application handed to the library: a tracked block with mwFree, anything
// else with the system's free. Takes the allocator's lock only once tracked allocations exist.
void mwReleaseHandedInText(void *p);

}  // namespace vemo

#endif
