// Scenarios that end their process on purpose (their log is read after): traps answered with
// Abort or left unanswered (status 255), repairs that cannot save the heap, the report at exit.
#include <string.h>
#include <unistd.h>

#include <thread>

#include "mw_test_support.h"

using namespace mw_test;
using vemo::mwData;

namespace {

int g_hook_entered[2], g_never_written[2];

// An output hook that never returns: its thread keeps the allocator's lock for good.
void stuck_hook(int) {
  char c;
  if (write(g_hook_entered[1], "x", 1) == 1) while (read(g_never_written[0], &c, 1) != 0) {}
}

TEST(MwFault, Scenarios) {
  const std::string kAt = "<{N}> r.c({N})";
  RunScenarios({
      {"an unanswered assertion ends with 255 after a check and the exit report", [](Vars &) {
         mwTest("t.c", 1, MW_TEST_ALLOC); static_cast<char *>(mwMalloc(4, "t.c", 2))[4] = '!';
         mwAssert(0, "p == NULL", "t.c", 3);
       }, {"check: <0> t.c(1), checking alloc ", "check: <0> t.c(1), complete; no errors",
           "assert trap: <2> t.c(3), p == NULL", "\nMEMGUARD: assert trap: t.c(3), p == NULL",
           "overflow: <2> t.c(3), 4 bytes alloc'd at <1> t.c(2)", kStopped,
           "unfreed: <1> t.c(2), 4 bytes at {ADDR} [overflowed]  \t{FE FE FE FE .. .. .. .. .. .. "
           ".. .. .. .. .. .. ....}", Stats(1, 4, 4, 4, 3)}, 0, kExits255},
      {"a verify answered with Abort ends the process", [](Vars &) {
         mwSetAriFunc([](const char *) { return MW_ARI_ABORT; });
         mwSetAriAction(MW_ARI_ACTION_IGNORE);  // used only without an answer function
         mwVerify(0, "ok", "v.c", 4);
       }, {"verify trap: <1> v.c(4), ok", kStopped, Stats(0, 0, 0, 0, 1)}, 0, kExits255},
      {"an empty answer on standard input ends the process", [](Vars &) {
         FeedStdin("\n"), mwSetAriFunc(mwAriHandler), mwAssert(0, "x", "a.c", 5);
       }, {"assert trap: <1> a.c(5), x\n\nMEMGUARD: assert trap: a.c(5), x",
           "MEMGUARD: Abort, Retry or Ignore? " + std::string(kStopped), Stats(0, 0, 0, 0, 1)}, 0, kExits255},
      {"an explicit start without its end writes no report at exit", [](Vars &) {
         mwInit(), mwInit(), mwMalloc(3, "leak.c", 1), mwAssert(0, "nested", "leak.c", 2);
       }, {"assert trap: <2> leak.c(2), nested\n\nMEMGUARD: assert trap: leak.c(2), nested"}, 0,
       kExits255},
      {"an implicit start reports leaks at exit", [](Vars &) {
         memcpy(mwMalloc(3, "leak.c", 7), "hi", 3), exit(0);
       }, {kStopped, "unfreed: <1> leak.c(7), 3 bytes at {ADDR}  \t{68 69 00 .. .. .. .. .. .. .. "
           ".. .. .. .. .. .. hi.}", Stats(1, 3, 3, 3, 1)}, 0, kExits0},
      {"the report runs once when the end came before the exit", [](Vars &) {
         mwFree(mwMalloc(3, "a.c", 1), "a.c", 2), mwTerm(), exit(0);
       }, {kStopped, Stats(1, 3, 3, 0)}, 0, kExits0},
      {"the exit report gives up on a thread stuck inside the allocator", [](Vars &) {
         if (pipe(g_hook_entered) != 0 || pipe(g_never_written) != 0) _exit(3);
         Start(), mwSetOutFunc(stuck_hook);
         std::thread([] { mwTrace("stuck\n"); }).detach();
         char c;
         if (read(g_hook_entered[0], &c, 1) != 1) _exit(5);
         exit(0);  // the report at exit must not wait for ever
       }, {}, 0, kExits0},
      {"both chain ends destroyed", [](Vars &) {
         void *b1 = mwMalloc(1, "r.c", 1); mwMalloc(1, "r.c", 2);
         vemo::mwHead = reinterpret_cast<mwData *>(16), vemo::mwTail = reinterpret_cast<mwData *>(32);
         mwFree(b1, "r.c", 3);
       }, {FailedRepair(kAt, "{ADDR}", "head pointer destroyed"),
           "relink: mwHead (MW-0x10) is damaged, skipping forward scan",
           "relink: mwTail (0x20) is damaged, skipping reverse scan",
           "relink: both head and tail pointers damaged, aborting program"}, 0, kAborts},
      {"a chain that fails verification", [](Vars &) {
         void *b1 = mwMalloc(1, "r.c", 1), *b2 = mwMalloc(1, "r.c", 2); mwMalloc(1, "r.c", 3);
         vemo::mwTail = HeaderOf(b2), mwFree(b1, "r.c", 4);  // the tail names a middle block
       }, {"relink: " + kAt + " attempting to repair MW-{ADDR}...", "relink: MW-{ADDR} not found in reverse chain search",
           "relink: heap verification FAILS - aborting program"}, 0, kAborts},
      {"a forward chain broken while the reverse chain is whole", [](Vars &) {
         std::vector<void *> b = Blocks(4, 8, "r.c");
         // A copy of the oldest header is freed while b3 lost its link to b4: the forward chain
         // ends after b4, the reverse chain runs whole from b1 to b3, and no join fits.
         alignas(16) static unsigned char fake[256];
         memcpy(fake, HeaderOf(b[0]), vemo::kDataSize + 24), HeaderOf(b[2])->prev = nullptr;
         mwFree(fake + vemo::kDataSize + 8, "r.c", 5);
       }, {FailedRepair(kAt, "{ADDR}", "forward chain fragmented at MW-{ADDR}: 'next' is {ADDR}"),
           "relink: forward chain's last intact MW is MW-{ADDR}, 8 bytes at r.c(4)",
           "relink: forward chain's first damaged MW is MW-{ADDR}, 8 bytes at r.c(3)",
           "relink: heap totally destroyed, aborting program"}, 0, kAborts},
  });
}

}  // namespace
