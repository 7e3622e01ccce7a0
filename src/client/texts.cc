#include "client/texts.h"

#include "memguard/crossing.h"

namespace vemo {

char *text_hand_out(char *text) {
  mwNoteHandedOutText(text);
  return text;
}

void text_free_answer(char *answer) { mwReleaseHandedInText(answer); }

}  // namespace vemo
