// Texts that cross between the application and the library: the responses handed out and the
// answers handed in. They work whether or not the application routes its malloc and free
// through the memory-debugging allocator (<vemo/mw_override.h>).
#ifndef VEMO_CLIENT_TEXTS_H
#define VEMO_CLIENT_TEXTS_H

namespace vemo {

// Call on a heap text (from the system's malloc) as it becomes the application's, for
// instance a response stored in the caller's out-parameter; returns text. The application may
// then release it with free(), also with the allocator's mapped free.
char *text_hand_out(char *text);

// Releases an answer that an application handler stored (null does nothing), whether it came
// from the system's allocator or from the allocator's mapped malloc or strdup.
void text_free_answer(char *answer);

}  // namespace vemo

#endif
