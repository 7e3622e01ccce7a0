// Texts that cross between an application that includes the override header and the client
// library: responses the library hands out (system memory) released with the mapped free, and
// answers made with the mapped strdup released by the library.
#include <string.h>

#include <functional>
#include <string>

#include "client/texts.h"
#include "mw_test_support.h"
#include "vemo/util.h"
// Last, as an application includes it: malloc, realloc, strdup and free below are the tracked
// ones.
#include "vemo/mw_override.h"

using namespace mw_test;

namespace {

class Crossing : public MwTest {};

// A response as vemo_get_response hands it out.
char *Response(const char *text) { return vemo::text_hand_out(copy_string(text)); }

std::string Here(int line) { return std::string(__FILE__) + "(" + std::to_string(line) + ")"; }

TEST_F(Crossing, ResponsesFreedWithTheMappedFreeAreReleasedQuietly) {
  Start();
  Mark();
  char *response = Response("{\"temp\":21}");
  char *grown = static_cast<char *>(realloc(Response("ab"), 64));
  ASSERT_NE(grown, nullptr);
  EXPECT_STREQ(grown, "ab");
  free(grown);
  int first_free = __LINE__ + 1;
  free(response);
  EXPECT_TRUE(NewLines().empty());
  EXPECT_EQ(vemo::mwAnomalies, 0);

  int second_free = __LINE__ + 1;
  free(response);
  ExpectLines(NewLines(), {"double-free: <{N}> " + Here(second_free) + ", {ADDR} was freed from " +
                           Here(first_free)});
}

TEST_F(Crossing, TheLibraryReleasesAnswersWhoeverMadeThem) {
  const struct {
    const char *what;
    std::function<char *()> make;
  } answers[] = {
      {"the mapped strdup", [] { return strdup("done"); }},
      {"the system allocator", [] { return copy_string("done"); }},
      {"a response passed back", [] { return Response("echo"); }},
  };
  char *held = strdup("keeps the chain non-empty");
  Mark();
  for (const auto &answer : answers) {
    SCOPED_TRACE(answer.what);
    long live_blocks = vemo::mwLiveBlocks;
    vemo::text_free_answer(answer.make());
    EXPECT_EQ(vemo::mwLiveBlocks, live_blocks);
  }
  EXPECT_TRUE(NewLines().empty());
  EXPECT_EQ(vemo::mwAnomalies, 0);
  free(held);
}

// What the application does wrong with its own memory is reported as before, also where a
// stale note of a handed-out text meets a tracked block at the same address.
TEST_F(Crossing, TheApplicationsOwnBadFreesAreStillReported) {
  Start();
  Mark();
  char *foreign = copy_string("not handed out");
  int wild_free = __LINE__ + 1;
  free(foreign);
  mwFree_(foreign);  // the WILD free released nothing

  // A text handed out at an address, released with the system's free, whose address then
  // becomes a tracked block's.
  size_t block_bytes = vemo::kDataSize + 2 * vemo::kGuardLen + 8;
  static void *s_next_block;
  s_next_block = mwMalloc_(block_bytes);
  char *user = static_cast<char *>(s_next_block) + vemo::kDataSize + vemo::kGuardLen;
  vemo::text_hand_out(user);
  vemo::mwSysMalloc = [](size_t) { return s_next_block; };
  char *tracked = static_cast<char *>(malloc(8));
  vemo::mwSysMalloc = ::malloc;
  ASSERT_EQ(tracked, user);
  int first_free = __LINE__ + 1;
  free(tracked);
  int second_free = __LINE__ + 1;
  free(tracked);
  ExpectLines(NewLines(), {"WILD free: <{N}> " + Here(wild_free) + ", unknown pointer {ADDR}",
                           "double-free: <{N}> " + Here(second_free) + ", {ADDR} was freed from " +
                               Here(first_free)});
}

}  // namespace
