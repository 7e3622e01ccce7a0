// An application that routes malloc and free through the debugging allocator's override header
// and exchanges texts with the client over the real socket: its strdup'd answer is released by
// the library, and the response it frees with the mapped free() is released quietly (before, the
// first crashed with "free(): invalid size" and the second was reported as a wild free).
#include <fstream>
#include <sstream>

#include "support/e2e_fixture.h"
#include "vemo/mw.h"
// Last, as an application includes it: strdup and free below are the tracked ones.
#include "vemo/mw_override.h"

namespace vemo_e2e {
namespace {

class Override : public E2ETest {};

void tracked_answer(const char *request, char **response) { *response = strdup(request); }

TEST_F(Override, TextsCrossBetweenTheTrackedApplicationAndTheLibrary) {
  ASSERT_EQ(0, vemo_register_callback(tracked_answer, nullptr));
  EXPECT_EQ("a tracked answer", Ask(6, "a tracked answer"));
  char *text = nullptr;
  ASSERT_EQ(0, vemo_send_request_sync("freed with the mapped free", 3000, 0, &text));
  free(text);
  mwTerm();
  std::stringstream report;
  report << std::ifstream("memguard.log").rdbuf();
  EXPECT_EQ(std::string::npos, report.str().find("WILD")) << report.str();
}

}  // namespace
}  // namespace vemo_e2e
