// qlt: the QueltLibrary command-line tool. See `qlt --help` and docs/qlt.md.
//
// main() parses the command line (CLI11), runs the chosen command and turns its outcome
// into an exit code: 0 success, 1 failure (message on stderr in plain words), 2 bad usage.

#include <CLI/CLI.hpp>
#include <cstdio>
#include <iostream>
#include <map>

#include "Commands.h"
#include "Errors.h"
#include "QueltLibrary/QueltLibrary_vers.h"
#include "Waiter.h"

using namespace qlt::cli;

int main(int argc, char** argv) {
  CLI::App app{
      "qlt: talk to Bluetooth LE devices offering the Nordic UART Service, through "
      "QueltLibrary.\nRuns on the simulated radio by default, so every command works "
      "without hardware.",
      "qlt"};
  app.require_subcommand(1, 1);
  char version[64];
  std::snprintf(version, sizeof version, "qlt (QueltLibrary %.1f)", QueltLibraryVersionNumber);
  app.set_version_flag("--version", std::string(version));
  app.footer(
      "Examples:\n"
      "  qlt demo                        the library's main job, on the simulated radio\n"
      "  qlt demo --loss 0.05            the same with 5% of frames lost on the air\n"
      "  qlt scan --name Echo --json     devices whose name contains 'Echo', as JSON lines\n"
      "  qlt chat QLT-Echo               type lines, see them echoed; Ctrl-D to leave\n"
      "  qlt bench --json                goodput, latency and counters as one JSON object\n"
      "\nRun 'qlt COMMAND --help' for a command's options.\n"
      "Exit codes: 0 success, 1 failure, 2 bad usage.");

  std::map<CLI::App*, CommandAction> actions;
  auto add = [&](CommandAction action) {
    actions[app.get_subcommands({}).back()] = std::move(action);
  };
  add(addDemoCommand(app));
  add(addScanCommand(app));
  add(addChatCommand(app));
  add(addSendCommand(app));
  add(addReceiveCommand(app));
  add(addBenchCommand(app));
  add(addKnownCommand(app));

  try {
    app.parse(argc, argv);
  } catch (const CLI::CallForHelp& e) {
    return app.exit(e);  // prints the help, 0
  } catch (const CLI::CallForAllHelp& e) {
    return app.exit(e);
  } catch (const CLI::CallForVersion& e) {
    return app.exit(e);
  } catch (const CLI::ParseError& e) {
    app.exit(e);  // prints the parser's message and a hint on stderr
    return kExitUsage;
  }

  installInterruptHandler();
  for (auto& [command, action] : actions) {
    if (!command->parsed()) continue;
    try {
      return action();
    } catch (const UsageError& e) {
      std::fprintf(stderr, "qlt %s: %s\n", command->get_name().c_str(), e.what());
      return kExitUsage;
    } catch (const std::exception& e) {
      std::fflush(stdout);
      std::fprintf(stderr, "qlt %s: %s\n", command->get_name().c_str(), e.what());
      return kExitFailure;
    }
  }
  return kExitUsage;
}
