// How results leave vemo-cli: the exit status for a library result code, the message that names
// a failure, and the one-line form of texts that may hold line breaks.
#ifndef VEMO_CLI_FORMAT_H
#define VEMO_CLI_FORMAT_H

#include <memory>
#include <string>

struct cJSON;

namespace vemo_cli {

// Exit statuses. Scripts rely on them: never renumber.
constexpr int kExitOk = 0;
constexpr int kExitToolFailure = 1;  // the tool itself failed: a system call, writing its output
constexpr int kExitUsage = 2;
constexpr int kExitNoDaemon = 3;      // VEMO_ERR_NO_SERVER
constexpr int kExitDisconnected = 4;  // VEMO_ERR_DISCONNECTED, VEMO_ERR_PEER_CLOSED
constexpr int kExitTimeout = 5;       // VEMO_ERR_TIMEOUT, VEMO_ERR_RECV_TIMEOUT
constexpr int kExitRefused = 6;       // a code of the daemon's own
constexpr int kExitLibrary = 7;       // any other code of the library

// The table above as printed by every --help (and repeated in docs/vemo-cli.md).
extern const char kExitStatusHelp[];

// True for the codes that the library itself defines (<vemo/codes.h>), 0 excluded. Any other
// non-zero result was handed back unchanged from the daemon's acknowledgement.
bool is_library_code(int code);

// The exit status for a result: 0 for 0, else one of the statuses above.
int exit_status_for(int code);

// "error -1100: <description>" or, for the daemon's own codes,
// "refused by the daemon with code -7: <description>". description is vemo_strerror's text,
// passed in so that this stays free of the library.
std::string describe_code(int code, const char *description);

// text with backslash, line breaks, tabs and other control bytes written as \\, \n, \r, \t and
// \xNN, so that any text fits on one output line and can be told apart from the next.
std::string one_line(const std::string &text);

// The current time in UTC as RFC 3339 with milliseconds: "2024-05-01T12:00:00.123Z".
std::string utc_now();

// One line of --json output: {"time":TIME,"event":EVENT} and then the fields in the order they
// are added. Texts are JSON strings with their bytes as they are (UTF-8 stays readable).
class JsonLine {
 public:
  explicit JsonLine(const char *event, const std::string &time = utc_now());
  ~JsonLine();
  JsonLine(const JsonLine &) = delete;
  JsonLine &operator=(const JsonLine &) = delete;
  JsonLine &add(const char *key, const std::string &text);
  JsonLine &add(const char *key, int number);
  // Throws std::bad_alloc when the object could not be built or printed.
  std::string str() const;

 private:
  cJSON *object_;
};

}  // namespace vemo_cli

#endif
