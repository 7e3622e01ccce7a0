// The executable's command line and console commands, parsed in-process.
#include <gtest/gtest.h>

#include <sstream>
#include <string>
#include <vector>

#include "console.h"
#include "options.h"

namespace {

using vemo::cloudd::Behaviour;
using vemo::cloudd::CliOptions;
using vemo::cloudd::ConsoleCommand;

int parse(std::vector<std::string> args, CliOptions *out, std::string *error) {
  args.insert(args.begin(), "vemo_cloudd");
  std::vector<const char *> argv;
  for (const std::string &a : args) argv.push_back(a.c_str());
  return vemo::cloudd::parse_options(static_cast<int>(argv.size()), argv.data(), out, error);
}

TEST(CliOptions, EveryOptionSetsItsField) {
  CliOptions opts;
  std::string error;
  ASSERT_EQ(0, parse({"--socket", "/tmp/x.sock", "--delay=25", "--ack-delay", "5",
                      "--response-mode", "fixed:a b:c", "--response-code", "-9", "--ack-code",
                      "device_request=-1", "--ack-code=reconnect_cloud=-2", "--drop-ack",
                      "--drop-response", "--duplicates", "2", "--hold", "--greeting-type", "3",
                      "--greeting-delay", "40", "--first-request-id", "-5", "--first-cloud-id",
                      "9", "--control", "/tmp/ctl", "--quiet", "--version"},
                     &opts, &error))
      << error;
  const Behaviour &b = opts.behaviour;
  EXPECT_EQ("/tmp/x.sock", opts.socket);
  EXPECT_EQ(25, b.response_delay_ms);
  EXPECT_EQ(5, b.ack_delay_ms);
  EXPECT_FALSE(b.echo_request);
  EXPECT_EQ("a b:c", b.fixed_response);
  EXPECT_EQ(-9, b.response_code);
  EXPECT_EQ(-1, b.ack_codes.at("device_request"));
  EXPECT_EQ(-2, b.ack_codes.at("reconnect_cloud"));
  EXPECT_TRUE(b.drop_ack && b.drop_response && b.hold_responses);
  EXPECT_EQ(2, b.duplicate_responses);
  EXPECT_EQ(3, b.greeting_type);
  EXPECT_EQ(40, b.greeting_delay_ms);
  EXPECT_EQ(-5, opts.first_request_id);
  EXPECT_EQ(9, opts.first_cloud_id);
  EXPECT_EQ("/tmp/ctl", opts.control);
  EXPECT_TRUE(opts.quiet && opts.version);
  EXPECT_EQ(0u, vemo::cloudd::version_text().find("vemo_cloudd 1."));

  CliOptions other;
  ASSERT_EQ(0, parse({"--no-greeting", "--response-mode", "fixed:", "-h"}, &other, &error));
  EXPECT_FALSE(other.behaviour.greeting);
  EXPECT_EQ("", other.behaviour.fixed_response);
  EXPECT_TRUE(other.help);
}

TEST(CliOptions, BadOptionsNameTheirFault) {
  const std::vector<std::pair<std::vector<std::string>, std::string>> cases = {
      {{"--bogus"}, "unknown option '--bogus'"},
      {{"--bogus=1"}, "unknown option '--bogus=1'"},
      {{"stray"}, "unknown option 'stray'"},
      {{"--delay"}, "option --delay needs a value"},
      {{"--delay", "-1"}, "option --delay expects milliseconds (0 or more), got '-1'"},
      {{"--delay", "10ms"}, "option --delay expects milliseconds (0 or more), got '10ms'"},
      {{"--response-code", "99999999999"},
       "option --response-code expects an integer, got '99999999999'"},
      {{"--response-mode", "loud"}, "option --response-mode expects echo or fixed:TEXT, got 'loud'"},
      {{"--ack-code", "device_request"},
       "option --ack-code expects METHOD=CODE, got 'device_request'"},
      {{"--ack-code", "cloud_request=1"},
       "option --ack-code: unknown method 'cloud_request' (device_request, register_callback, "
       "unregister_callback, reconnect_cloud)"},
      {{"--quiet=yes"}, "option --quiet takes no value"},
      {{"--hold=on"}, "option --hold takes no value"},
      {{"--socket="}, "option --socket expects a path, got ''"},
      {{"--first-cloud-id", "x"}, "option --first-cloud-id expects an integer, got 'x'"},
  };
  for (const auto &c : cases) {
    CliOptions opts;
    std::string error;
    EXPECT_EQ(-1, parse(c.first, &opts, &error)) << c.second;
    EXPECT_EQ(c.second, error);
  }
}

// What `show` prints is a command line that sets the same behaviour up again.
TEST(CliOptions, DescribedBehaviourParsesBackToItself) {
  CliOptions opts;
  std::string error;
  ASSERT_EQ(0, parse({"--delay", "7", "--response-mode", "fixed:x", "--ack-code",
                      "register_callback=-4", "--drop-response", "--hold", "--no-greeting",
                      "--greeting-type", "2"},
                     &opts, &error));
  const std::string text = vemo::cloudd::describe_behaviour(opts.behaviour);
  std::istringstream words(text);
  std::vector<std::string> args;
  for (std::string w; words >> w;) args.push_back(w);
  CliOptions again;
  ASSERT_EQ(0, parse(args, &again, &error)) << text << ": " << error;
  EXPECT_EQ(text, vemo::cloudd::describe_behaviour(again.behaviour));
  EXPECT_NE(std::string::npos, text.find("--ack-code register_callback=-4")) << text;
  EXPECT_EQ(std::string::npos, text.find("--drop-ack")) << text;
}

TEST(CliOptions, UsageNamesEveryOptionAndCommand) {
  const std::string usage = vemo::cloudd::usage_text();
  for (const char *word :
       {"--socket", "--delay", "--ack-delay", "--response-mode", "--response-code", "--ack-code",
        "--drop-ack", "--drop-response", "--duplicates", "--hold", "--greeting-type",
        "--greeting-delay", "--no-greeting", "--first-request-id", "--first-cloud-id",
        "--control", "--quiet", "--help", "--version", "cloud_request TEXT", "hello_request",
        "hello_response TEXT", "notify TYPE", "raw TEXT", "bytes HEX", "close", "held",
        "respond ID TEXT", "fail ID CODE", "set OPTION", "show", "status", "quit"}) {
    EXPECT_NE(std::string::npos, usage.find(word)) << word;
  }
}

TEST(ConsoleCommands, LinesAndWhatTheyCarry) {
  struct Case {
    std::string line;
    ConsoleCommand::Kind kind;
    std::string text;
    int number, code, conn;
  };
  const int all = vemo::cloudd::kAllConnections;
  const Case cases[] = {
      {"cloud_request {\"op\": \"get\"}  ", ConsoleCommand::kCloudRequest, "{\"op\": \"get\"}  ", 0,
       0, all},
      {"raw", ConsoleCommand::kRaw, "", 0, 0, all},
      {"hello_response hi there\r", ConsoleCommand::kHelloResponse, "hi there", 0, 0, all},
      {"   ", ConsoleCommand::kNothing, "", 0, 0, all},
      {"  hello_request", ConsoleCommand::kHelloRequest, "", 0, 0, all},
      {"@3 notify -1", ConsoleCommand::kNotify, "", -1, 0, 3},
      {"bytes a1 B2 0000", ConsoleCommand::kBytes, std::string("\xA1\xB2\x00\x00", 4), 0, 0, all},
      {"respond 1000 two  words", ConsoleCommand::kRespond, "two  words", 1000, 0, all},
      {"respond 7", ConsoleCommand::kRespond, "", 7, 0, all},
      {"fail 1001 -5", ConsoleCommand::kFail, "", 1001, -5, all},
      {"set delay 250", ConsoleCommand::kSet, "250", 0, 0, all},
      {"set drop-ack", ConsoleCommand::kSet, "on", 0, 0, all},
      {"set response-mode fixed:a b", ConsoleCommand::kSet, "fixed:a b", 0, 0, all},
      {"held", ConsoleCommand::kHeld, "", 0, 0, all},
      {"show", ConsoleCommand::kShow, "", 0, 0, all},
      {"quit", ConsoleCommand::kQuit, "", 0, 0, all},
  };
  for (const Case &c : cases) {
    ConsoleCommand cmd;
    std::string error;
    ASSERT_EQ(0, vemo::cloudd::parse_command(c.line, &cmd, &error)) << c.line << ": " << error;
    EXPECT_EQ(c.kind, cmd.kind) << c.line;
    EXPECT_EQ(c.text, cmd.text) << c.line;
    EXPECT_EQ(c.number, cmd.number) << c.line;
    EXPECT_EQ(c.code, cmd.code) << c.line;
    EXPECT_EQ(c.conn, cmd.conn) << c.line;
  }
}

TEST(ConsoleCommands, BadLinesSayWhatIsWrong) {
  const std::pair<std::string, std::string> cases[] = {
      {"frobnicate now", "unknown command 'frobnicate' (type help)"},
      {"notify one", "notify expects a type number, got 'one'"},
      {"notify", "notify expects a type number, got ''"},
      {"bytes abc", "bytes expects pairs of hex digits, got 'abc'"},
      {"bytes zz", "bytes expects pairs of hex digits, got 'zz'"},
      {"quit now", "quit takes no argument"},
      {"@x notify 1", "expected @N (a connection number) and a command"},
      {"@0 notify 1", "expected @N (a connection number) and a command"},
      {"@2", "expected @N (a connection number) and a command"},
      {"@2   ", "expected a command after @2"},
      {"respond x hi", "respond expects a request id and a text, got 'x hi'"},
      {"fail 1000 0", "fail expects a request id and a non-zero code, got '1000 0'"},
      {"fail 1000", "fail expects a request id and a non-zero code, got '1000'"},
      {"set delay", "set delay expects milliseconds (0 or more), got ''"},
      {"set drop-ack maybe", "set drop-ack expects on or off, got 'maybe'"},
      {"set socket /tmp/x", "set socket: no such behaviour option"},
  };
  for (const auto &c : cases) {
    ConsoleCommand cmd;
    std::string error;
    EXPECT_EQ(-1, vemo::cloudd::parse_command(c.first, &cmd, &error)) << c.first;
    EXPECT_EQ(c.second, error);
  }
}

}  // namespace
