#include "console.h"

#include "json.h"
#include "options.h"

namespace vemo {
namespace cloudd {

namespace {

int hex_digit(char c) {
  if (c >= '0' && c <= '9') return c - '0';
  if (c >= 'a' && c <= 'f') return c - 'a' + 10;
  if (c >= 'A' && c <= 'F') return c - 'A' + 10;
  return -1;
}

// Hex digits, spaces between bytes allowed: "a1b2 0000 0005".
bool decode_hex(const std::string &text, std::string *out) {
  std::string digits;
  for (char c : text) {
    if (c == ' ' || c == '\t') continue;
    if (hex_digit(c) < 0) return false;
    digits.push_back(c);
  }
  if (digits.empty() || digits.size() % 2 != 0) return false;
  out->clear();
  for (std::size_t i = 0; i < digits.size(); i += 2) {
    out->push_back(static_cast<char>(hex_digit(digits[i]) * 16 + hex_digit(digits[i + 1])));
  }
  return true;
}

std::string to_whom(int sent, int conn) {
  if (sent == 0) {
    return conn == kAllConnections ? "no connection to send to"
                                   : "no open connection " + std::to_string(conn);
  }
  return "to " + std::to_string(sent) + " connection(s)";
}

}  // namespace

std::string command_help() {
  return "commands ([@N] addresses connection N only):\n"
         "  cloud_request TEXT | hello_request | hello_response TEXT | notify TYPE\n"
         "  raw TEXT | bytes HEX | close | status | help | quit\n"
         "  held | respond ID TEXT | fail ID CODE | set OPTION [on|off|VALUE] | show";
}

int parse_command(const std::string &raw_line, ConsoleCommand *out, std::string *error) {
  std::string line = raw_line;
  if (!line.empty() && line.back() == '\r') line.pop_back();
  *out = ConsoleCommand();
  std::size_t pos = line.find_first_not_of(" \t");
  if (pos == std::string::npos) return 0;
  line = line.substr(pos);
  if (line[0] == '@') {
    std::size_t space = line.find(' ');
    if (!parse_int(line.substr(1, space == std::string::npos ? std::string::npos : space - 1),
                   &out->conn) ||
        out->conn <= 0 || space == std::string::npos) {
      *error = "expected @N (a connection number) and a command";
      return -1;
    }
    std::size_t next = line.find_first_not_of(' ', space);
    if (next == std::string::npos) {
      *error = "expected a command after @" + std::to_string(out->conn);
      return -1;
    }
    line = line.substr(next);
  }
  std::size_t space = line.find(' ');
  const std::string word = line.substr(0, space);
  // TEXT is the rest of the line after the one space, kept as typed.
  const std::string rest = space == std::string::npos ? std::string() : line.substr(space + 1);
  struct Entry {
    const char *name;
    ConsoleCommand::Kind kind;
    bool wants_text;
  };
  static const Entry kTable[] = {
      {"cloud_request", ConsoleCommand::kCloudRequest, true},
      {"hello_request", ConsoleCommand::kHelloRequest, false},
      {"hello_response", ConsoleCommand::kHelloResponse, true},
      {"notify", ConsoleCommand::kNotify, true},
      {"raw", ConsoleCommand::kRaw, true},
      {"bytes", ConsoleCommand::kBytes, true},
      {"close", ConsoleCommand::kClose, false},
      {"held", ConsoleCommand::kHeld, false},
      {"respond", ConsoleCommand::kRespond, true},
      {"fail", ConsoleCommand::kFail, true},
      {"set", ConsoleCommand::kSet, true},
      {"show", ConsoleCommand::kShow, false},
      {"status", ConsoleCommand::kStatus, false},
      {"help", ConsoleCommand::kHelp, false},
      {"quit", ConsoleCommand::kQuit, false},
  };
  for (const Entry &e : kTable) {
    if (word != e.name) continue;
    if (!e.wants_text && rest.find_first_not_of(" \t") != std::string::npos) {
      *error = word + " takes no argument";
      return -1;
    }
    out->kind = e.kind;
    // The first word of the rest, and what follows its one space (respond's TEXT, as typed).
    const std::size_t split = rest.find(' ');
    const std::string first = rest.substr(0, split);
    const std::string second = split == std::string::npos ? std::string() : rest.substr(split + 1);
    switch (e.kind) {
      case ConsoleCommand::kNotify:
        if (!parse_int(rest, &out->number)) {
          *error = "notify expects a type number, got '" + rest + "'";
          return -1;
        }
        return 0;
      case ConsoleCommand::kBytes:
        if (!decode_hex(rest, &out->text)) {
          *error = "bytes expects pairs of hex digits, got '" + rest + "'";
          return -1;
        }
        return 0;
      case ConsoleCommand::kRespond:
      case ConsoleCommand::kFail:
        if (!parse_int(first, &out->number) ||
            (e.kind == ConsoleCommand::kFail && (!parse_int(second, &out->code) || out->code == 0))) {
          *error = e.kind == ConsoleCommand::kRespond
                       ? "respond expects a request id and a text, got '" + rest + "'"
                       : "fail expects a request id and a non-zero code, got '" + rest + "'";
          return -1;
        }
        if (e.kind == ConsoleCommand::kRespond) out->text = second;
        return 0;
      case ConsoleCommand::kSet: {
        // A switch alone means on; the value is checked here, so that a bad line changes nothing.
        out->option = first;
        out->text = second.empty() && is_behaviour_switch(first) ? "on" : second;
        Behaviour scratch;
        return set_behaviour_option(out->option, out->text, "set " + first, &scratch, error);
      }
      default:
        out->text = rest;
        return 0;
    }
  }
  *error = "unknown command '" + word + "' (type help)";
  return -1;
}

std::string run_command(CloudDaemon &daemon, const ConsoleCommand &cmd) {
  const int conn = cmd.conn;
  switch (cmd.kind) {
    case ConsoleCommand::kNothing:
    case ConsoleCommand::kQuit:
      return std::string();
    case ConsoleCommand::kCloudRequest: {
      int id = 0;
      int sent = daemon.send_cloud_request(cmd.text, conn, &id);
      return "cloud_request " + std::to_string(id) + " " + to_whom(sent, conn);
    }
    case ConsoleCommand::kHelloRequest:
      return "hello_request " + to_whom(daemon.send_hello_request(conn), conn);
    case ConsoleCommand::kHelloResponse:
      return "hello_response " + to_whom(daemon.send_hello_response(cmd.text, conn), conn);
    case ConsoleCommand::kNotify:
      return "notify " + std::to_string(cmd.number) + " " +
             to_whom(daemon.send_server_notify(cmd.number, conn), conn);
    case ConsoleCommand::kRaw:
      return "raw " + to_whom(daemon.send_text(cmd.text, conn), conn);
    case ConsoleCommand::kBytes:
      return "bytes " + to_whom(daemon.send_bytes(cmd.text, conn), conn);
    case ConsoleCommand::kClose:
      return "closed " + std::to_string(daemon.close_connections(conn)) + " connection(s)";
    case ConsoleCommand::kHeld: {
      const std::vector<HeldRequest> held = daemon.held_requests();
      std::string out = "held: " + std::to_string(held.size()) + " request(s)";
      for (const HeldRequest &h : held) {
        out += "\n  " + std::to_string(h.request_id) + " from connection " +
               std::to_string(h.conn) + ": " + quoted(h.request);
      }
      return out;
    }
    case ConsoleCommand::kRespond:
    case ConsoleCommand::kFail: {
      const bool respond = cmd.kind == ConsoleCommand::kRespond;
      const int sent = respond ? daemon.respond_held(cmd.number, cmd.text)
                               : daemon.fail_held(cmd.number, cmd.code);
      return std::string(respond ? "respond " : "fail ") + std::to_string(cmd.number) +
             (sent != 0 ? " sent" : ": no such request held");
    }
    case ConsoleCommand::kSet: {
      // Read, change, write back: the console is the only writer while the program runs.
      Behaviour b = daemon.behaviour();
      std::string error;
      set_behaviour_option(cmd.option, cmd.text, "set " + cmd.option, &b, &error);
      daemon.set_behaviour(b);
      return "behaviour: " + describe_behaviour(b);
    }
    case ConsoleCommand::kShow:
      return "behaviour: " + describe_behaviour(daemon.behaviour());
    case ConsoleCommand::kStatus: {
      std::string ids;
      for (int id : daemon.open_connection_ids()) ids += " " + std::to_string(id);
      return "status: " + std::to_string(daemon.open_connections()) + " open (" +
             (ids.empty() ? std::string("none") : ids.substr(1)) + "), " +
             std::to_string(daemon.connections_seen()) + " seen";
    }
    case ConsoleCommand::kHelp:
      return command_help();
  }
  return std::string();
}

}  // namespace cloudd
}  // namespace vemo
