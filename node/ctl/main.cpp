// snanodectl: shows what a running node does and switches its trace.
//
//   snanodectl [--socket PATH] [--json] COMMAND
//
// The command line is checked here and sent to the daemon as words; the
// daemon answers with text (or JSON) that is printed as it comes.
#include <CLI/CLI.hpp>
#include <iostream>
#include <string>
#include <vector>

#include "client/socket_path.h"
#include "config/node_config.h"
#include "control_client.h"

namespace {

constexpr std::chrono::seconds kAnswerTimeout{10};

// The socket the node library of this user would use: the configuration it
// finds ($SNANODE_CONFIG, ./snanode.toml), $SNANODE_SOCKET, the defaults.
std::string default_socket() {
  try {
    return snanode::client::daemon_socket_path(snanode::config::current_config());
  } catch (const snanode::config::ConfigError &) {
    return snanode::client::daemon_socket_path(snanode::config::NodeConfig{});
  }
}

// `on|off`, `start|stop`: the word and the subcommand that takes it.
CLI::App *switch_command(CLI::App &app, const std::string &name, const std::string &help,
                         std::vector<std::string> choices, std::string &value) {
  CLI::App *command = app.add_subcommand(name, help);
  command->add_option("action", value, choices[0] + " or " + choices[1])
      ->required()
      ->check(CLI::IsMember(choices));
  return command;
}

}  // namespace

int main(int argc, char **argv) {
  CLI::App app{"snanodectl: watch and steer a running SNA node (snanoded)"};
  app.require_subcommand(1);
  app.fallthrough();
  std::string socket_path;
  bool json = false;
  app.add_option("--socket", socket_path,
                 "The daemon's socket; default: as the node library finds it");
  app.add_flag("--json", json, "Answer in JSON (field names: docs/snanodectl.md)");

  app.add_subcommand("status", "Node, LUs, modes, processes, TPs, conversations, queues");
  CLI::App *tp = app.add_subcommand("tp", "TPs of the connected processes");
  tp->add_subcommand("list", "List them")->required();
  tp->require_subcommand(1);
  CLI::App *conversation = app.add_subcommand("conversation", "Conversations");
  conversation->add_subcommand("list", "List them");
  conversation->require_subcommand(1);
  CLI::App *session = app.add_subcommand("session", "Sessions in use");
  session->add_subcommand("list", "List them");
  session->require_subcommand(1);
  app.add_subcommand("log", "The last daemon, problem and audit records");

  std::string trace_action, capture_action, link_action, file, tp_name, link_name;
  int pid = 0;
  CLI::App *trace = switch_command(app, "trace", "Turn the API trace on or off at run time",
                                   {"on", "off"}, trace_action);
  trace->add_option("--file", file, "Trace into this file");
  CLI::App *capture = switch_command(app, "capture", "Turn the capture of network units on or off",
                                     {"on", "off"}, capture_action);
  for (CLI::App *command : {trace, capture}) {
    auto *by_tp = command->add_option("--tp", tp_name, "Only the processes serving this TP");
    command->add_option("--pid", pid, "Only this process")->excludes(by_tp);
  }
  CLI::App *link =
      switch_command(app, "link", "Start or stop a link", {"start", "stop"}, link_action);
  link->add_option("name", link_name,
                   "The link: its partner CP name (cp_name of its [[link]]) or partner address");
  CLI11_PARSE(app, argc, argv);

  std::vector<std::string> words;
  CLI::App *command = app.get_subcommands().front();
  words.push_back(command->get_name());
  for (CLI::App *sub : command->get_subcommands()) words.push_back(sub->get_name());
  if (command == trace) words.push_back(trace_action);
  if (command == capture) words.push_back(capture_action);
  if (command == link) words.push_back(link_action);
  if (command == link && !link_name.empty()) words.push_back(link_name);
  if (!file.empty()) words.insert(words.end(), {"--file", file});
  if (!tp_name.empty()) words.insert(words.end(), {"--tp", tp_name});
  if (pid != 0) words.insert(words.end(), {"--pid", std::to_string(pid)});
  if (json) words.push_back("--json");

  if (socket_path.empty()) socket_path = default_socket();
  const snanode::ctl::ControlAnswer answer =
      snanode::ctl::run_control_request(socket_path, words, kAnswerTimeout);
  if (answer.status == 0) {
    std::cout << answer.text << std::flush;
  } else {
    std::cerr << "snanodectl: " << answer.text << (answer.text.ends_with('\n') ? "" : "\n");
  }
  return answer.status;
}
