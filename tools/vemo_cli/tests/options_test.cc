// The command line and the result formatting, without a daemon.
#include <gtest/gtest.h>
#include <limits.h>

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

void expect_error(const std::vector<std::string> &args, const std::string &error) {
  ParseResult r = parse(args);
  EXPECT_FALSE(r.ok) << "accepted: " << ::testing::PrintToString(args);
  EXPECT_EQ(error, r.error) << ::testing::PrintToString(args);
}

TEST(Options, RequestDefaults) {
  ParseResult r = parse({"request", "hello world"});
  ASSERT_TRUE(r.ok) << r.error;
  EXPECT_EQ(Command::kRequest, r.options.command);
  EXPECT_EQ("hello world", r.options.text);
  EXPECT_EQ(5000, r.options.timeout_ms);
  EXPECT_EQ(0, r.options.flag);
  EXPECT_FALSE(r.options.async);
  EXPECT_FALSE(r.options.verbose);  // quiet is the default
  EXPECT_FALSE(r.options.help);
}

TEST(Options, RequestValuesSeparateAndInline) {
  ParseResult r = parse({"request", "--timeout", "250", "--flag=-3", "--async", "--wait=0", "x"});
  ASSERT_TRUE(r.ok) << r.error;
  EXPECT_EQ(250, r.options.timeout_ms);
  EXPECT_EQ(-3, r.options.flag);
  EXPECT_TRUE(r.options.async);
  EXPECT_EQ(0, r.options.effective_wait_ms());
  EXPECT_EQ("x", r.options.text);
}

TEST(Options, AsyncWaitDefaultsToTheTimeout) {
  ParseResult r = parse({"request", "--async", "--timeout", "1234", "x"});
  ASSERT_TRUE(r.ok) << r.error;
  EXPECT_EQ(1234, r.options.effective_wait_ms());
}

TEST(Options, OptionsMayFollowTheText) {
  ParseResult r = parse({"request", "x", "--flag", "7"});
  ASSERT_TRUE(r.ok) << r.error;
  EXPECT_EQ(7, r.options.flag);
  EXPECT_EQ("x", r.options.text);
}

TEST(Options, DoubleDashLetsATextStartWithADash) {
  ParseResult r = parse({"request", "--", "--not-an-option"});
  ASSERT_TRUE(r.ok) << r.error;
  EXPECT_EQ("--not-an-option", r.options.text);
  r = parse({"request", "-"});  // a lone dash is a text
  ASSERT_TRUE(r.ok) << r.error;
  EXPECT_EQ("-", r.options.text);
  r = parse({"request", ""});  // so is the empty text
  ASSERT_TRUE(r.ok) << r.error;
  EXPECT_EQ("", r.options.text);
}

TEST(Options, VerbosityAnywhereLastOneWins) {
  EXPECT_TRUE(parse({"--verbose", "reconnect"}).options.verbose);
  EXPECT_TRUE(parse({"reconnect", "-v"}).options.verbose);
  EXPECT_FALSE(parse({"-v", "reconnect", "--quiet"}).options.verbose);
  EXPECT_TRUE(parse({"-q", "listen", "--verbose"}).options.verbose);
}

TEST(Options, HelpSkipsTheCommandsRequirements) {
  ParseResult r = parse({"request", "--help"});  // no text
  ASSERT_TRUE(r.ok) << r.error;
  EXPECT_TRUE(r.options.help);
  EXPECT_EQ(Command::kRequest, r.options.command);
  r = parse({"-h"});
  ASSERT_TRUE(r.ok);
  EXPECT_TRUE(r.options.help);
  EXPECT_EQ(Command::kNone, r.options.command);
  // An unknown option is still an error.
  expect_error({"request", "--help", "--bogus"}, "unknown option '--bogus'");
}

TEST(Options, ListenOptions) {
  ParseResult r = parse({"listen", "--hello", "hi there", "--exec", "tr a-z A-Z",
                         "--exec-timeout", "300", "--count", "2", "--for", "9"});
  ASSERT_TRUE(r.ok) << r.error;
  EXPECT_EQ(Command::kListen, r.options.command);
  EXPECT_TRUE(r.options.hello);
  EXPECT_EQ("hi there", r.options.hello_text);
  EXPECT_EQ(AnswerMode::kExec, r.options.answer_mode);
  EXPECT_EQ("tr a-z A-Z", r.options.answer);
  EXPECT_EQ(300, r.options.exec_timeout_ms);
  EXPECT_EQ(2, r.options.count);
  EXPECT_EQ(9, r.options.for_seconds);

  r = parse({"listen"});
  ASSERT_TRUE(r.ok) << r.error;
  EXPECT_EQ(AnswerMode::kNone, r.options.answer_mode);
  EXPECT_FALSE(r.options.hello);
  EXPECT_EQ(0, r.options.count);
  EXPECT_EQ(0, r.options.for_seconds);

  r = parse({"listen", "--hello=", "--answer="});  // empty texts are texts
  ASSERT_TRUE(r.ok) << r.error;
  EXPECT_TRUE(r.options.hello);
  EXPECT_EQ(AnswerMode::kFixed, r.options.answer_mode);
  EXPECT_EQ("", r.options.answer);
}

TEST(Options, CommandErrors) {
  expect_error({}, "a command is missing");
  expect_error({"-v"}, "a command is missing");
  expect_error({"fetch"}, "unknown command 'fetch'");
  expect_error({"--timeout", "5", "request", "x"}, "unknown option '--timeout'");
}

TEST(Options, RequestErrors) {
  expect_error({"request"}, "the request text is missing");
  expect_error({"request", "a", "b"}, "one request text expected, got 2 (quote a text with spaces)");
  expect_error({"request", "--wait", "5", "x"}, "--wait needs --async");
  expect_error({"request", "--timeout"}, "option --timeout needs a value");
  expect_error({"request", "--async=1", "x"}, "option --async takes no value");
  expect_error({"request", "-x", "x"}, "unknown option '-x'");
  expect_error({"request", "-5"}, "unknown option '-5'");
  expect_error({"request", "--count", "1", "x"}, "unknown option '--count'");  // listen's
}

TEST(Options, NumbersAreCheckedStrictly) {
  const std::string range = " (expected an integer from 1 to 2147483647)";
  expect_error({"request", "--timeout", "0", "x"}, "invalid value '0' for --timeout" + range);
  expect_error({"request", "--timeout", "-1", "x"}, "invalid value '-1' for --timeout" + range);
  expect_error({"request", "--timeout", "12ms", "x"}, "invalid value '12ms' for --timeout" + range);
  expect_error({"request", "--timeout", "", "x"}, "invalid value '' for --timeout" + range);
  expect_error({"request", "--timeout", "2147483648", "x"},
               "invalid value '2147483648' for --timeout" + range);
  expect_error({"request", "--timeout", " 5", "x"}, "invalid value ' 5' for --timeout" + range);
  expect_error({"listen", "--count", "0"}, "invalid value '0' for --count" + range);
  expect_error({"listen", "--for", "2147484"},
               "invalid value '2147484' for --for (expected an integer from 1 to 2147483)");
  EXPECT_TRUE(parse({"listen", "--for", "2147483"}).ok);
  EXPECT_TRUE(parse({"request", "--timeout", "2147483647", "x"}).ok);

  int v = 0;
  EXPECT_TRUE(parse_int("-2147483648", INT_MIN, INT_MAX, &v));
  EXPECT_EQ(INT_MIN, v);
  EXPECT_TRUE(parse_int("+12", 0, 100, &v));
  EXPECT_EQ(12, v);
  EXPECT_FALSE(parse_int("-2147483649", INT_MIN, INT_MAX, &v));
  EXPECT_FALSE(parse_int("99999999999999999999999", INT_MIN, INT_MAX, &v));
  EXPECT_FALSE(parse_int("-", INT_MIN, INT_MAX, &v));
  EXPECT_FALSE(parse_int("+-1", INT_MIN, INT_MAX, &v));
  EXPECT_FALSE(parse_int("0x10", INT_MIN, INT_MAX, &v));
}

TEST(Options, ListenErrors) {
  expect_error({"listen", "--answer", "a", "--exec", "b"}, "--answer and --exec exclude each other");
  expect_error({"listen", "--exec", "b", "--answer", "a"}, "--answer and --exec exclude each other");
  expect_error({"listen", "--exec-timeout", "5"}, "--exec-timeout needs --exec");
  expect_error({"listen", "extra"}, "unexpected argument 'extra'");
  expect_error({"listen", "--answer"}, "option --answer needs a value");
  expect_error({"listen", "--timeout", "5"}, "unknown option '--timeout'");  // request's
  expect_error({"reconnect", "now"}, "unexpected argument 'now'");
  expect_error({"reconnect", "--flag", "1"}, "unknown option '--flag'");
}

TEST(ExitStatus, MapsEveryKindOfCode) {
  EXPECT_EQ(0, exit_status_for(VEMO_OK));
  EXPECT_EQ(3, exit_status_for(VEMO_ERR_NO_SERVER));
  EXPECT_EQ(4, exit_status_for(VEMO_ERR_DISCONNECTED));
  EXPECT_EQ(4, exit_status_for(VEMO_ERR_PEER_CLOSED));
  EXPECT_EQ(5, exit_status_for(VEMO_ERR_TIMEOUT));
  EXPECT_EQ(5, exit_status_for(VEMO_ERR_RECV_TIMEOUT));
  // The daemon's own codes, negative or not.
  EXPECT_EQ(6, exit_status_for(-7));
  EXPECT_EQ(6, exit_status_for(-2));
  EXPECT_EQ(6, exit_status_for(-20105));
  EXPECT_EQ(6, exit_status_for(3));
  for (int code : {VEMO_ERR_NO_ANSWER, VEMO_ERR_NOT_FOUND, VEMO_ERR_NOT_ARRIVED,
                   VEMO_ERR_NO_RESOURCE, VEMO_ERR_BAD_FORMAT, VEMO_ERR_SHORT_READ,
                   VEMO_ERR_NO_REQUEST_ID, VEMO_ERR_NO_HANDLER, VEMO_ERR_MISSING_KEY,
                   VEMO_ERR_INVALID_ARG}) {
    EXPECT_EQ(7, exit_status_for(code)) << code;
  }
}

TEST(ExitStatus, HelpTableListsEveryStatus) {
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
  EXPECT_EQ("plain text", one_line("plain text"));
  EXPECT_EQ("a\\nb\\r\\tc", one_line("a\nb\r\tc"));
  EXPECT_EQ("back\\\\slash", one_line("back\\slash"));
  EXPECT_EQ("\\x01\\x1b\\x7f", one_line("\x01\x1b\x7f"));
  EXPECT_EQ("gr\xc3\xbc\xc3\x9f", one_line("gr\xc3\xbc\xc3\x9f"));  // UTF-8 unchanged
  EXPECT_EQ("", one_line(""));
}

TEST(HelpText, EveryTextNamesItsCommandAndTheExitStatuses) {
  for (Command c : {Command::kNone, Command::kRequest, Command::kReconnect, Command::kListen}) {
    std::string help = help_text(c);
    EXPECT_EQ(0u, help.find(usage_text(c))) << command_name(c);
    EXPECT_NE(std::string::npos, help.find(kExitStatusHelp)) << command_name(c);
    EXPECT_NE(std::string::npos, help.find("--quiet")) << command_name(c);
    EXPECT_NE(std::string::npos, help.find(std::string("vemo-cli ") + command_name(c)));
  }
  std::string program = help_text(Command::kNone);
  for (const char *name : {"request", "reconnect", "listen"})
    EXPECT_NE(std::string::npos, program.find(std::string("  ") + name + " ")) << name;
}

}  // namespace
}  // namespace vemo_cli
