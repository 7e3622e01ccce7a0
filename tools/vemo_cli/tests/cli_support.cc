#include "cli_support.h"

#include <unistd.h>

#include <regex>

namespace vemo_cli_test {

const std::string &test_socket_path() {
  static const std::string path = "/tmp/vemo_cli_test_" + std::to_string(getpid()) + ".sock";
  return path;
}

std::vector<std::string> cli_argv(const std::vector<std::string> &args) {
  std::vector<std::string> argv = {VEMO_CLI_PATH, "--socket", test_socket_path()};
  argv.insert(argv.end(), args.begin(), args.end());
  return argv;
}

bool matches(const std::string &got, const std::string &want) {
  static const std::regex stamp("\"time\":\"\\d{4}-\\d\\d-\\d\\dT\\d\\d:\\d\\d:\\d\\d\\.\\d{3}Z\"");
  const std::string text = std::regex_replace(got, stamp, "\"time\":T");
  std::size_t at = 0, from = 0;
  for (bool first = true;; first = false) {
    const std::size_t dots = want.find("...", from);
    const std::string piece = want.substr(from, dots == std::string::npos ? dots : dots - from);
    if (dots == std::string::npos) {
      // The last piece ends the text (the only piece: it is the whole text).
      if (first) return text == piece;
      return text.size() >= at + piece.size() &&
             text.compare(text.size() - piece.size(), piece.size(), piece) == 0;
    }
    const std::size_t found = text.find(piece, at);
    if (found == std::string::npos || (first && found != 0)) return false;
    at = found + piece.size();
    from = dots + 3;
  }
}

}  // namespace vemo_cli_test
