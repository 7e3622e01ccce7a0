// `vemo-cli reconnect`: asks the daemon to reconnect to the cloud. Silent on success, like any
// command that only does something; the exit status says how it went. With --json the success is
// a result line too, so that a reader of the stream sees every outcome.
#include <vemo/vemo.h>

#include "commands.h"
#include "format.h"
#include "output.h"

namespace vemo_cli {

int run_reconnect(const Options & /*options*/) {
  int rc = vemo_reconnect_cloud();
  if (rc != 0) return report_code("reconnect", rc);
  if (output_json() && !output_line(JsonLine("reconnected").str())) return kExitToolFailure;
  return kExitOk;
}

}  // namespace vemo_cli
