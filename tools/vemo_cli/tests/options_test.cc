// The command line and the result formatting, without a daemon.
#include <gtest/gtest.h>
#include <limits.h>

#include <functional>
#include <string>
#include <vector>

#include <vemo/codes.h>

#include "format.h"
#include "options.h"

namespace vemo_cli {
namespace {

ParseResult parse(std::vector<std::string> args) {
  args.insert(args.begin(), "vemo-cli");
  std::vector<const char *> argv;
  for (const std::string &a : args) argv.push_back(a.c_str());
  argv.push_back(nullptr);
  return parse_arguments(static_cast<int>(args.size()), argv.data());
}

TEST(Options, DefaultsOfARequest) {
  ParseResult r = parse({"request", "hello world"});
  ASSERT_TRUE(r.ok) << r.error;
  EXPECT_EQ(Command::kRequest, r.options.command);
  EXPECT_EQ("hello world", r.options.text);
  EXPECT_EQ(5000, r.options.timeout_ms);
  EXPECT_EQ(5000, r.options.effective_wait_ms());
  EXPECT_EQ(0, r.options.flag);
  EXPECT_FALSE(r.options.async || r.options.verbose || r.options.help || r.options.json);
  EXPECT_EQ("", r.options.socket);  // the library's default
}

// Each accepted command line and what it must have set.
TEST(Options, AcceptedLines) {
  using Check = std::function<bool(const Options &)>;
  const std::pair<std::vector<std::string>, Check> rows[] = {
      {{"request", "--timeout", "250", "--flag=-3", "--async", "--wait=0", "x"},
       [](const Options &o) {
         return o.timeout_ms == 250 && o.flag == -3 && o.async && o.effective_wait_ms() == 0 &&
                o.text == "x";
       }},
      {{"request", "--async", "--timeout", "1234", "x"},
       [](const Options &o) { return o.effective_wait_ms() == 1234; }},
      {{"request", "x", "--flag", "7"}, [](const Options &o) { return o.flag == 7 && o.text == "x"; }},
      {{"request", "--", "--not-an-option"}, [](const Options &o) { return o.text == "--not-an-option"; }},
      {{"request", "-"}, [](const Options &o) { return o.text == "-"; }},
      {{"request", ""}, [](const Options &o) { return o.text.empty(); }},
      {{"request", "--timeout", "2147483647", "x"}, [](const Options &o) { return o.timeout_ms == INT_MAX; }},
      {{"--verbose", "reconnect"}, [](const Options &o) { return o.verbose; }},
      {{"reconnect", "-v"}, [](const Options &o) { return o.verbose; }},
      {{"-v", "reconnect", "--quiet"}, [](const Options &o) { return !o.verbose; }},
      {{"-q", "listen", "--verbose"}, [](const Options &o) { return o.verbose; }},
      {{"--json", "--socket", "/tmp/a.sock", "reconnect"},
       [](const Options &o) { return o.json && o.socket == "/tmp/a.sock"; }},
      {{"listen", "--socket=" + std::string(107, 's'), "--json"},
       [](const Options &o) { return o.json && o.socket.size() == 107; }},
      // --help and --version skip the command's requirements (here the request text).
      {{"request", "--help"}, [](const Options &o) { return o.help && o.command == Command::kRequest; }},
      {{"-h"}, [](const Options &o) { return o.help && o.command == Command::kNone; }},
      {{"--version"}, [](const Options &o) { return o.version; }},
      {{"listen", "--hello", "hi there", "--exec", "tr a-z A-Z", "--exec-timeout", "300", "--count",
        "2", "--for", "9"},
       [](const Options &o) {
         return o.command == Command::kListen && o.hello && o.hello_text == "hi there" &&
                o.answer_mode == AnswerMode::kExec && o.answer == "tr a-z A-Z" &&
                o.exec_timeout_ms == 300 && o.count == 2 && o.for_seconds == 9;
       }},
      {{"listen"},
       [](const Options &o) {
         return o.answer_mode == AnswerMode::kNone && !o.hello && o.count == 0 && o.for_seconds == 0;
       }},
      {{"listen", "--hello=", "--answer="},  // empty texts are texts
       [](const Options &o) { return o.hello && o.answer_mode == AnswerMode::kFixed && o.answer.empty(); }},
      {{"listen", "--for", "2147483"}, [](const Options &o) { return o.for_seconds == 2147483; }},
  };
  for (const auto &row : rows) {
    ParseResult r = parse(row.first);
    ASSERT_TRUE(r.ok) << ::testing::PrintToString(row.first) << ": " << r.error;
    EXPECT_TRUE(row.second(r.options)) << ::testing::PrintToString(row.first);
  }
}

TEST(Options, RefusedLinesNameTheirFault) {
  const std::string range = " (expected an integer from 1 to 2147483647)";
  const std::pair<std::vector<std::string>, std::string> rows[] = {
      {{}, "a command is missing"},
      {{"-v"}, "a command is missing"},
      {{"fetch"}, "unknown command 'fetch'"},
      {{"--timeout", "5", "request", "x"}, "unknown option '--timeout'"},
      {{"request"}, "the request text is missing"},
      {{"request", "a", "b"}, "one request text expected, got 2 (quote a text with spaces)"},
      {{"request", "--wait", "5", "x"}, "--wait needs --async"},
      {{"request", "--timeout"}, "option --timeout needs a value"},
      {{"request", "--async=1", "x"}, "option --async takes no value"},
      {{"request", "-x", "x"}, "unknown option '-x'"},
      {{"request", "-5"}, "unknown option '-5'"},
      {{"request", "--count", "1", "x"}, "unknown option '--count'"},  // listen's
      {{"request", "--help", "--bogus"}, "unknown option '--bogus'"},
      {{"request", "--timeout", "0", "x"}, "invalid value '0' for --timeout" + range},
      {{"request", "--timeout", "-1", "x"}, "invalid value '-1' for --timeout" + range},
      {{"request", "--timeout", "12ms", "x"}, "invalid value '12ms' for --timeout" + range},
      {{"request", "--timeout", "", "x"}, "invalid value '' for --timeout" + range},
      {{"request", "--timeout", "2147483648", "x"}, "invalid value '2147483648' for --timeout" + range},
      {{"request", "--timeout", " 5", "x"}, "invalid value ' 5' for --timeout" + range},
      {{"listen", "--count", "0"}, "invalid value '0' for --count" + range},
      {{"listen", "--for", "2147484"},
       "invalid value '2147484' for --for (expected an integer from 1 to 2147483)"},
      {{"listen", "--answer", "a", "--exec", "b"}, "--answer and --exec exclude each other"},
      {{"listen", "--exec", "b", "--answer", "a"}, "--answer and --exec exclude each other"},
      {{"listen", "--exec-timeout", "5"}, "--exec-timeout needs --exec"},
      {{"listen", "extra"}, "unexpected argument 'extra'"},
      {{"listen", "--answer"}, "option --answer needs a value"},
      {{"listen", "--timeout", "5"}, "unknown option '--timeout'"},  // request's
      {{"reconnect", "now"}, "unexpected argument 'now'"},
      {{"reconnect", "--flag", "1"}, "unknown option '--flag'"},
      {{"reconnect", "--json=yes"}, "option --json takes no value"},
      {{"--socket=", "reconnect"}, "invalid value '' for --socket (expected a path of 1 to 107 bytes)"},
      {{"--socket", std::string(108, 's'), "reconnect"},
       "invalid value '" + std::string(108, 's') + "' for --socket (expected a path of 1 to 107 bytes)"},
  };
  for (const auto &row : rows) {
    ParseResult r = parse(row.first);
    EXPECT_FALSE(r.ok) << "accepted: " << ::testing::PrintToString(row.first);
    EXPECT_EQ(row.second, r.error) << ::testing::PrintToString(row.first);
  }
}

TEST(Options, IntegersAreStrict) {
  int v = 0;
  EXPECT_TRUE(parse_int("-2147483648", INT_MIN, INT_MAX, &v));
  EXPECT_EQ(INT_MIN, v);
  EXPECT_TRUE(parse_int("+12", 0, 100, &v));
  EXPECT_EQ(12, v);
  for (const char *bad : {"-2147483649", "99999999999999999999999", "-", "+-1", "0x10"})
    EXPECT_FALSE(parse_int(bad, INT_MIN, INT_MAX, &v)) << bad;
}

TEST(ExitStatus, MapsEveryKindOfCode) {
  const std::pair<int, int> rows[] = {
      {VEMO_OK, 0}, {VEMO_ERR_NO_SERVER, 3}, {VEMO_ERR_DISCONNECTED, 4}, {VEMO_ERR_PEER_CLOSED, 4},
      {VEMO_ERR_TIMEOUT, 5}, {VEMO_ERR_RECV_TIMEOUT, 5},
      // The daemon's own codes, negative or not.
      {-7, 6}, {-2, 6}, {-20105, 6}, {3, 6},
      {VEMO_ERR_NO_ANSWER, 7}, {VEMO_ERR_NOT_FOUND, 7}, {VEMO_ERR_NOT_ARRIVED, 7},
      {VEMO_ERR_NO_RESOURCE, 7}, {VEMO_ERR_BAD_FORMAT, 7}, {VEMO_ERR_SHORT_READ, 7},
      {VEMO_ERR_NO_REQUEST_ID, 7}, {VEMO_ERR_NO_HANDLER, 7}, {VEMO_ERR_MISSING_KEY, 7},
      {VEMO_ERR_INVALID_ARG, 7}};
  for (const auto &row : rows) EXPECT_EQ(row.second, exit_status_for(row.first)) << row.first;
  for (int status = 0; status <= 7; ++status) {
    EXPECT_NE(std::string::npos, std::string(kExitStatusHelp).find("\n  " + std::to_string(status) + "  "))
        << status;
  }
}

TEST(Describe, NamesTheCodeAndWhoseItIs) {
  EXPECT_EQ("error -1100: no daemon", describe_code(-1100, "no daemon"));
  EXPECT_EQ("refused by the daemon with code -7: unknown code", describe_code(-7, "unknown code"));
  EXPECT_EQ("error -20002: (no description)", describe_code(-20002, nullptr));
}

TEST(OneLine, EscapesWhatWouldBreakTheLine) {
  const std::pair<const char *, const char *> rows[] = {
      {"plain text", "plain text"},
      {"a\nb\r\tc", "a\\nb\\r\\tc"},
      {"back\\slash", "back\\\\slash"},
      {"\x01\x1b\x7f", "\\x01\\x1b\\x7f"},
      {"gr\xc3\xbc\xc3\x9f", "gr\xc3\xbc\xc3\x9f"},  // UTF-8 unchanged
      {"", ""}};
  for (const auto &row : rows) EXPECT_EQ(row.second, one_line(row.first)) << row.first;
}

TEST(JsonLine, TimeAndEventFirstThenTheFieldsInOrder) {
  EXPECT_EQ("{\"time\":\"T0\",\"event\":\"e\",\"b\":\"x\\n\\u0001\\\"\",\"a\":-5}",
            JsonLine("e", "T0").add("b", "x\n\x01\"").add("a", -5).str());
}

TEST(HelpText, EveryTextNamesItsCommandAndTheExitStatuses) {
  for (Command c : {Command::kNone, Command::kRequest, Command::kReconnect, Command::kListen}) {
    std::string help = help_text(c);
    EXPECT_EQ(0u, help.find(usage_text(c))) << command_name(c);
    EXPECT_NE(std::string::npos, help.find(kExitStatusHelp)) << command_name(c);
    for (const char *common : {"--quiet", "--json", "--socket PATH", "--version"})
      EXPECT_NE(std::string::npos, help.find(common)) << command_name(c) << " " << common;
    EXPECT_NE(std::string::npos, help.find(std::string("vemo-cli ") + command_name(c)));
  }
  std::string program = help_text(Command::kNone);
  for (const char *name : {"request", "reconnect", "listen"})
    EXPECT_NE(std::string::npos, program.find(std::string("  ") + name + " ")) << name;
  EXPECT_EQ(0u, std::string(version_text()).find("vemo-cli 1."));
}

}  // namespace
}  // namespace vemo_cli
