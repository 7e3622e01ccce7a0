#include "options.h"

#include <errno.h>
#include <limits.h>
#include <stdlib.h>

#include <vector>

namespace vemo_cli {
namespace {

enum class Opt {
  kHelp, kVersion, kQuiet, kVerbose, kJson, kSocket,
  kTimeout, kFlag, kAsync, kWait,
  kHello, kAnswer, kExec, kExecTimeout, kCount, kFor,
};

struct OptionSpec {
  const char *long_name;
  char short_name;  // 0: none
  bool takes_value;
  Opt id;
};

// Accepted everywhere: before the command and among its options.
const OptionSpec kCommon[] = {
    {"help", 'h', false, Opt::kHelp},
    {"version", 0, false, Opt::kVersion},
    {"quiet", 'q', false, Opt::kQuiet},
    {"verbose", 'v', false, Opt::kVerbose},
    {"json", 0, false, Opt::kJson},
    {"socket", 0, true, Opt::kSocket},
};

const OptionSpec kRequestOptions[] = {
    {"timeout", 0, true, Opt::kTimeout},
    {"flag", 0, true, Opt::kFlag},
    {"async", 0, false, Opt::kAsync},
    {"wait", 0, true, Opt::kWait},
};

const OptionSpec kListenOptions[] = {
    {"hello", 0, true, Opt::kHello},
    {"answer", 0, true, Opt::kAnswer},
    {"exec", 0, true, Opt::kExec},
    {"exec-timeout", 0, true, Opt::kExecTimeout},
    {"count", 0, true, Opt::kCount},
    {"for", 0, true, Opt::kFor},
};

template <size_t N>
const OptionSpec *find_in(const OptionSpec (&table)[N], const std::string &name, char short_name) {
  for (const OptionSpec &spec : table) {
    if (short_name != 0 ? spec.short_name == short_name : name == spec.long_name) return &spec;
  }
  return nullptr;
}

const OptionSpec *find_option(Command command, const std::string &name, char short_name) {
  if (const OptionSpec *spec = find_in(kCommon, name, short_name)) return spec;
  if (command == Command::kRequest) return find_in(kRequestOptions, name, short_name);
  if (command == Command::kListen) return find_in(kListenOptions, name, short_name);
  return nullptr;
}

Command find_command(const std::string &name) {
  if (name == "request") return Command::kRequest;
  if (name == "reconnect") return Command::kReconnect;
  if (name == "listen") return Command::kListen;
  return Command::kNone;
}

struct Parser {
  Options &o;
  std::string error;
  bool seen_wait = false;
  bool seen_exec_timeout = false;

  bool fail(const std::string &message) {
    if (error.empty()) error = message;
    return false;
  }

  bool number(const std::string &option, const std::string &value, long min, long max, int *out) {
    if (parse_int(value, min, max, out)) return true;
    return fail("invalid value '" + value + "' for --" + option + " (expected an integer from " +
                std::to_string(min) + " to " + std::to_string(max) + ")");
  }

  bool apply(const OptionSpec &spec, const std::string &value) {
    switch (spec.id) {
      case Opt::kHelp: o.help = true; return true;
      case Opt::kVersion: o.version = true; return true;
      case Opt::kQuiet: o.verbose = false; return true;
      case Opt::kVerbose: o.verbose = true; return true;
      case Opt::kJson: o.json = true; return true;
      case Opt::kSocket:
        // Checked here, so that a path the library would refuse is a usage error.
        if (value.empty() || value.size() > kMaxSocketPath)
          return fail("invalid value '" + value + "' for --socket (expected a path of 1 to " +
                      std::to_string(kMaxSocketPath) + " bytes)");
        o.socket = value;
        return true;
      case Opt::kTimeout: return number(spec.long_name, value, 1, INT_MAX, &o.timeout_ms);
      case Opt::kFlag: return number(spec.long_name, value, INT_MIN, INT_MAX, &o.flag);
      case Opt::kAsync: o.async = true; return true;
      case Opt::kWait:
        seen_wait = true;
        return number(spec.long_name, value, 0, INT_MAX, &o.wait_ms);
      case Opt::kHello:
        o.hello = true;
        o.hello_text = value;
        return true;
      case Opt::kAnswer:
      case Opt::kExec: {
        AnswerMode mode = spec.id == Opt::kAnswer ? AnswerMode::kFixed : AnswerMode::kExec;
        if (o.answer_mode != AnswerMode::kNone && o.answer_mode != mode)
          return fail("--answer and --exec exclude each other");
        o.answer_mode = mode;
        o.answer = value;
        return true;
      }
      case Opt::kExecTimeout:
        seen_exec_timeout = true;
        return number(spec.long_name, value, 1, INT_MAX, &o.exec_timeout_ms);
      case Opt::kCount: return number(spec.long_name, value, 1, INT_MAX, &o.count);
      // Seconds are turned into milliseconds for the wait: keep the product within an int.
      case Opt::kFor: return number(spec.long_name, value, 1, INT_MAX / 1000, &o.for_seconds);
    }
    return fail("internal error: unhandled option");
  }

  // One argument that starts with '-'. May consume the next argument as its value.
  bool option(int argc, const char *const *argv, int *i) {
    std::string arg = argv[*i];
    std::string name;
    char short_name = 0;
    bool has_inline = false;
    std::string inline_value;
    if (arg.compare(0, 2, "--") == 0) {
      size_t eq = arg.find('=');
      name = arg.substr(2, eq == std::string::npos ? std::string::npos : eq - 2);
      if (eq != std::string::npos) {
        has_inline = true;
        inline_value = arg.substr(eq + 1);
      }
    } else if (arg.size() == 2) {
      short_name = arg[1];
    } else {
      return fail("unknown option '" + arg + "'");
    }
    const OptionSpec *spec = find_option(o.command, name, short_name);
    if (spec == nullptr) return fail("unknown option '" + arg + "'");
    if (!spec->takes_value) {
      if (has_inline) return fail("option --" + std::string(spec->long_name) + " takes no value");
      return apply(*spec, "");
    }
    if (has_inline) return apply(*spec, inline_value);
    if (*i + 1 >= argc) return fail("option --" + std::string(spec->long_name) + " needs a value");
    ++*i;
    return apply(*spec, argv[*i]);
  }

  // The command's own rules, checked once everything has been read.
  bool check(const std::vector<std::string> &positional) {
    switch (o.command) {
      case Command::kRequest:
        if (positional.empty()) return fail("the request text is missing");
        if (positional.size() > 1)
          return fail("one request text expected, got " + std::to_string(positional.size()) +
                      " (quote a text with spaces)");
        o.text = positional[0];
        if (seen_wait && !o.async) return fail("--wait needs --async");
        return true;
      case Command::kReconnect:
      case Command::kListen:
        if (!positional.empty()) return fail("unexpected argument '" + positional[0] + "'");
        if (seen_exec_timeout && o.answer_mode != AnswerMode::kExec)
          return fail("--exec-timeout needs --exec");
        return true;
      case Command::kNone:
        return fail("a command is missing");
    }
    return fail("internal error: unhandled command");
  }
};

}  // namespace

bool parse_int(const std::string &text, long min, long max, int *out) {
  if (text.empty() || text.find_first_not_of("+-0123456789") != std::string::npos) return false;
  errno = 0;
  char *end = nullptr;
  long long value = strtoll(text.c_str(), &end, 10);
  if (errno != 0 || end == text.c_str() || *end != '\0') return false;
  if (value < min || value > max) return false;
  *out = static_cast<int>(value);
  return true;
}

const char *command_name(Command command) {
  switch (command) {
    case Command::kRequest: return "request";
    case Command::kReconnect: return "reconnect";
    case Command::kListen: return "listen";
    case Command::kNone: break;
  }
  return "";
}

ParseResult parse_arguments(int argc, const char *const *argv) {
  ParseResult result;
  Parser p{result.options, {}};
  std::vector<std::string> positional;
  bool options_done = false;
  for (int i = 1; i < argc && p.error.empty(); ++i) {
    const std::string arg = argv[i];
    if (!options_done && arg == "--") {
      options_done = true;
    } else if (!options_done && arg.size() > 1 && arg[0] == '-') {
      p.option(argc, argv, &i);
    } else if (result.options.command == Command::kNone) {
      result.options.command = find_command(arg);
      if (result.options.command == Command::kNone) p.fail("unknown command '" + arg + "'");
    } else {
      positional.push_back(arg);
    }
  }
  if (p.error.empty() && !result.options.help && !result.options.version) p.check(positional);
  result.ok = p.error.empty();
  result.error = p.error;
  return result;
}

}  // namespace vemo_cli
