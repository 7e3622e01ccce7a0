// `vemo-cli reconnect`: asks the daemon to reconnect to the cloud. Silent on success, like any
// command that only does something; the exit status says how it went.
#include <vemo/vemo.h>

#include "commands.h"
#include "output.h"

namespace vemo_cli {

int run_reconnect(const Options & /*options*/) {
  int rc = vemo_reconnect_cloud();
  if (rc != 0) return report_code("reconnect", rc);
  return 0;
}

}  // namespace vemo_cli
