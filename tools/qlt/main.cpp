// qlt: the QueltLibrary command-line tool. See `qlt --help` and docs/qlt.md.
//
// main() parses the command line (CLI11), runs the chosen command and turns its outcome
// into an exit code: 0 success, 1 failure (message on stderr in plain words), 2 bad usage,
// 130 interrupted (Ctrl-C, SIGTERM, SIGHUP; after the command's summary).

#include <CLI/CLI.hpp>
#include <cerrno>
#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <iostream>
#include <map>
#include <system_error>

#include "Commands.h"
#include "Errors.h"
#include "QueltLibrary/QueltLibrary_vers.h"
#include "Terminal.h"
#include "Waiter.h"

using namespace qlt::cli;

namespace {

// "known add": the subcommands named on the command line, for the prefix of messages.
std::string commandPath(CLI::App& app, int argc, char** argv) {
  std::string path;
  CLI::App* at = &app;
  for (int i = 1; i < argc; ++i) {
    CLI::App* next = nullptr;
    try {
      next = at->get_subcommand(argv[i]);
    } catch (const CLI::OptionNotFound&) {
      continue;
    }
    path += (path.empty() ? "" : " ") + next->get_name();
    at = next;
  }
  return path;
}

}  // namespace

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
      "  qlt bridge QLT-Echo --pty       a serial port onto the device, for screen or minicom\n"
      "\nRun 'qlt COMMAND --help' for a command's options.\n"
      "Exit codes: 0 success, 1 failure, 2 bad usage, 130 interrupted.");

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
  add(addBridgeCommand(app));

  try {
    app.parse(argc, argv);
  } catch (const CLI::CallForHelp& e) {
    return app.exit(e);  // prints the help, 0
  } catch (const CLI::CallForAllHelp& e) {
    return app.exit(e);
  } catch (const CLI::CallForVersion& e) {
    return app.exit(e);
  } catch (const CLI::ParseError& e) {
    const std::string path = commandPath(app, argc, argv);
    std::fprintf(stderr, "qlt%s%s: %s\nRun 'qlt%s%s --help' for the options.\n",
                 path.empty() ? "" : " ", path.c_str(), e.what(), path.empty() ? "" : " ",
                 path.c_str());
    return kExitUsage;
  }

  installInterruptHandler();
  const std::string path = commandPath(app, argc, argv);
  for (auto& [command, action] : actions) {
    if (!command->parsed()) continue;
    int code = kExitUsage;
    try {
      code = action();
    } catch (const UsageError& e) {
      printError("qlt " + path + ": " + e.what());
      return kExitUsage;
    } catch (const std::exception& e) {
      printError("qlt " + path + ": " + e.what());
      code = kExitFailure;
    }
    if (const int error = stdoutWriteError()) {
      printError("qlt " + path +
                 ": cannot write to standard output: " + std::generic_category().message(error));
      code = kExitFailure;
    }
    // Leave without running static destructors: library threads may still log (a late
    // state change), and the log sink is a static that would fall back to printing on
    // stderr once destroyed. Everything the tool prints has been flushed.
    std::fflush(stderr);
    std::_Exit(wasInterrupted() ? kExitInterrupted : code);
  }
  return kExitUsage;
}
