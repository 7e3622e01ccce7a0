// Texts that cross between an application that includes the override header and the client
// library: responses the library hands out (system memory) released with the mapped free, and
// answers made with the mapped strdup released by the library.
#include <string.h>

#include "client/texts.h"
#include "mw_test_support.h"
#include "vemo/util.h"
// Last, as an application includes it: malloc, realloc, strdup and free below are tracked.
#include "vemo/mw_override.h"

using namespace mw_test;

namespace {

char *Response(const char *text) { return vemo::text_hand_out(copy_string(text)); }
std::string Here(int line) { return std::string(__FILE__) + "(" + std::to_string(line) + ")"; }

TEST(Crossing, Scenarios) {
  RunScenarios({
      {"responses freed with the mapped free are released quietly, once", [](Vars &v) {
         char *response = Response("{\"temp\":21}");
         auto *grown = static_cast<char *>(realloc(Response("ab"), 64)); EXPECT_STREQ(grown, "ab");
         free(grown), v["first"] = Here(__LINE__), free(response); EXPECT_EQ(vemo::mwAnomalies, 0);
         v["second"] = Here(__LINE__), free(response);
       }, {"double-free: <{N}> {second}, {ADDR} was freed from {first}"}, 1},
      {"the library releases answers whoever made them", [](Vars &) {
         char *held = strdup("keeps the chain non-empty");
         char *(*makers[])() = {[]() -> char * { return strdup("done"); },
                                [] { return copy_string("done"); }, [] { return Response("echo"); }};
         for (auto make : makers) vemo::text_free_answer(make());
         EXPECT_EQ(vemo::mwLiveBlocks, 1); free(held);
       }, {}, 0},
      {"the application's own bad frees are still reported, also where a stale note of a "
       "handed-out text meets a tracked block at its address", [](Vars &v) {
         char *foreign = copy_string("not handed out"); v["wild"] = Here(__LINE__), free(foreign);
         mwFree_(foreign);  // the WILD free released nothing
         static void *s_next_block;  // released with the system's free, then a tracked block
         s_next_block = mwMalloc_(vemo::kDataSize + 2 * vemo::kGuardLen + 8);
         char *user = static_cast<char *>(s_next_block) + vemo::kDataSize + vemo::kGuardLen;
         vemo::text_hand_out(user), vemo::mwSysMalloc = [](size_t) { return s_next_block; };
         auto *tracked = static_cast<char *>(malloc(8)); vemo::mwSysMalloc = ::malloc;
         ASSERT_EQ(tracked, user); v["first"] = Here(__LINE__), free(tracked);
         v["second"] = Here(__LINE__), free(tracked);
       }, {"WILD free: <{N}> {wild}, unknown pointer {ADDR}",
           "double-free: <{N}> {second}, {ADDR} was freed from {first}"}, 2},
  });
}

}  // namespace
