// The executable's command line and console commands, parsed in-process.
#include <gtest/gtest.h>

#include <string>
#include <vector>

#include "console.h"
#include "options.h"

namespace {

using vemo::cloudd::CliOptions;
using vemo::cloudd::ConsoleCommand;

int parse(std::vector<const char *> args, CliOptions *out, std::string *error) {
  args.insert(args.begin(), "vemo_cloudd");
  return vemo::cloudd::parse_options(static_cast<int>(args.size()), args.data(), out, error);
}

std::string parse_error(std::vector<const char *> args) {
  CliOptions opts;
  std::string error;
  EXPECT_EQ(-1, parse(args, &opts, &error));
  return error;
}

TEST(CliOptions, DefaultsMatchTheDaemonsDefaults) {
  CliOptions opts;
  std::string error;
  ASSERT_EQ(0, parse({}, &opts, &error));
  EXPECT_EQ("/tmp/cloud_svr", opts.socket);
  EXPECT_TRUE(opts.behaviour.greeting);
  EXPECT_EQ(0, opts.behaviour.greeting_type);
  EXPECT_EQ(10, opts.behaviour.response_delay_ms);
  EXPECT_TRUE(opts.behaviour.echo_request);
  EXPECT_EQ(1000, opts.first_request_id);
  EXPECT_FALSE(opts.quiet);
  EXPECT_FALSE(opts.help);
}

TEST(CliOptions, EveryOptionSetsItsField) {
  CliOptions opts;
  std::string error;
  ASSERT_EQ(0, parse({"--socket",
                      "/tmp/x.sock",
                      "--delay=25",
                      "--ack-delay",
                      "5",
                      "--response-mode",
                      "fixed:a b:c",
                      "--response-code",
                      "-9",
                      "--ack-code",
                      "device_request=-1",
                      "--ack-code=reconnect_cloud=-2",
                      "--drop-ack",
                      "--drop-response",
                      "--duplicates",
                      "2",
                      "--greeting-type",
                      "3",
                      "--greeting-delay",
                      "40",
                      "--first-request-id",
                      "-5",
                      "--first-cloud-id",
                      "9",
                      "--control",
                      "/tmp/ctl",
                      "--quiet"},
                     &opts, &error))
      << error;
  const auto &b = opts.behaviour;
  EXPECT_EQ("/tmp/x.sock", opts.socket);
  EXPECT_EQ(25, b.response_delay_ms);
  EXPECT_EQ(5, b.ack_delay_ms);
  EXPECT_FALSE(b.echo_request);
  EXPECT_EQ("a b:c", b.fixed_response);
  EXPECT_EQ(-9, b.response_code);
  EXPECT_EQ(-1, b.ack_codes.at("device_request"));
  EXPECT_EQ(-2, b.ack_codes.at("reconnect_cloud"));
  EXPECT_TRUE(b.drop_ack);
  EXPECT_TRUE(b.drop_response);
  EXPECT_EQ(2, b.duplicate_responses);
  EXPECT_EQ(3, b.greeting_type);
  EXPECT_EQ(40, b.greeting_delay_ms);
  EXPECT_EQ(-5, opts.first_request_id);
  EXPECT_EQ(9, opts.first_cloud_id);
  EXPECT_EQ("/tmp/ctl", opts.control);
  EXPECT_TRUE(opts.quiet);

  CliOptions other;
  ASSERT_EQ(0, parse({"--no-greeting", "--response-mode", "fixed:", "-h"}, &other, &error));
  EXPECT_FALSE(other.behaviour.greeting);
  EXPECT_EQ("", other.behaviour.fixed_response);
  EXPECT_TRUE(other.help);
}

TEST(CliOptions, BadOptionsNameTheirFault) {
  EXPECT_EQ("unknown option '--bogus'", parse_error({"--bogus"}));
  EXPECT_EQ("unknown option '--bogus=1'", parse_error({"--bogus=1"}));
  EXPECT_EQ("unknown option 'stray'", parse_error({"stray"}));
  EXPECT_EQ("option --delay needs a value", parse_error({"--delay"}));
  EXPECT_EQ("option --delay expects milliseconds (0 or more), got '-1'",
            parse_error({"--delay", "-1"}));
  EXPECT_EQ("option --delay expects milliseconds (0 or more), got '10ms'",
            parse_error({"--delay", "10ms"}));
  EXPECT_EQ("option --response-code expects an integer, got '99999999999'",
            parse_error({"--response-code", "99999999999"}));
  EXPECT_EQ("option --response-mode expects echo or fixed:TEXT, got 'loud'",
            parse_error({"--response-mode", "loud"}));
  EXPECT_EQ("--ack-code expects METHOD=CODE, got 'device_request'",
            parse_error({"--ack-code", "device_request"}));
  EXPECT_EQ(
      "--ack-code: unknown method 'cloud_request' (device_request, register_callback, "
      "unregister_callback, reconnect_cloud)",
      parse_error({"--ack-code", "cloud_request=1"}));
  EXPECT_EQ("option --quiet takes no value", parse_error({"--quiet=yes"}));
  EXPECT_EQ("option --socket expects a path, got ''", parse_error({"--socket="}));
}

TEST(CliOptions, UsageNamesEveryOptionAndCommand) {
  const std::string usage = vemo::cloudd::usage_text();
  for (const char *word : {"--socket",
                           "--delay",
                           "--ack-delay",
                           "--response-mode",
                           "--response-code",
                           "--ack-code",
                           "--drop-ack",
                           "--drop-response",
                           "--duplicates",
                           "--greeting-type",
                           "--greeting-delay",
                           "--no-greeting",
                           "--first-request-id",
                           "--first-cloud-id",
                           "--control",
                           "--quiet",
                           "--help",
                           "cloud_request TEXT",
                           "hello_request",
                           "hello_response TEXT",
                           "notify TYPE",
                           "raw TEXT",
                           "bytes HEX",
                           "close",
                           "status",
                           "quit"}) {
    EXPECT_NE(std::string::npos, usage.find(word)) << word;
  }
}

ConsoleCommand command(const std::string &line) {
  ConsoleCommand cmd;
  std::string error;
  EXPECT_EQ(0, vemo::cloudd::parse_command(line, &cmd, &error)) << line << ": " << error;
  return cmd;
}

std::string command_error(const std::string &line) {
  ConsoleCommand cmd;
  std::string error;
  EXPECT_EQ(-1, vemo::cloudd::parse_command(line, &cmd, &error)) << line;
  return error;
}

TEST(ConsoleCommands, TextIsTheRestOfTheLineAsTyped) {
  ConsoleCommand c = command("cloud_request {\"op\": \"get\"}  ");
  EXPECT_EQ(ConsoleCommand::kCloudRequest, c.kind);
  EXPECT_EQ("{\"op\": \"get\"}  ", c.text);
  EXPECT_EQ(vemo::cloudd::kAllConnections, c.conn);
  EXPECT_EQ("", command("raw").text);
  EXPECT_EQ(ConsoleCommand::kRaw, command("raw").kind);
  EXPECT_EQ("hi there", command("hello_response hi there\r").text);
  EXPECT_EQ(ConsoleCommand::kNothing, command("   ").kind);
  EXPECT_EQ(ConsoleCommand::kHelloRequest, command("  hello_request").kind);
  EXPECT_EQ(ConsoleCommand::kQuit, command("quit").kind);
}

TEST(ConsoleCommands, NumbersBytesAndConnectionPrefix) {
  ConsoleCommand n = command("@3 notify -1");
  EXPECT_EQ(ConsoleCommand::kNotify, n.kind);
  EXPECT_EQ(-1, n.number);
  EXPECT_EQ(3, n.conn);
  ConsoleCommand b = command("bytes a1 B2 0000");
  EXPECT_EQ(ConsoleCommand::kBytes, b.kind);
  EXPECT_EQ(std::string("\xA1\xB2\x00\x00", 4), b.text);
}

TEST(ConsoleCommands, BadLinesSayWhatIsWrong) {
  EXPECT_EQ("unknown command 'frobnicate' (type help)", command_error("frobnicate now"));
  EXPECT_EQ("notify expects a type number, got 'one'", command_error("notify one"));
  EXPECT_EQ("notify expects a type number, got ''", command_error("notify"));
  EXPECT_EQ("bytes expects pairs of hex digits, got 'abc'", command_error("bytes abc"));
  EXPECT_EQ("bytes expects pairs of hex digits, got 'zz'", command_error("bytes zz"));
  EXPECT_EQ("quit takes no argument", command_error("quit now"));
  EXPECT_EQ("expected @N (a connection number) and a command", command_error("@x notify 1"));
  EXPECT_EQ("expected @N (a connection number) and a command", command_error("@0 notify 1"));
  EXPECT_EQ("expected @N (a connection number) and a command", command_error("@2"));
  EXPECT_EQ("expected a command after @2", command_error("@2   "));
}

}  // namespace
