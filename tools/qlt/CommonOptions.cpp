#include <CLI/CLI.hpp>

#include "Commands.h"

namespace qlt::cli {

void addCommonOptions(CLI::App& command, CommonOptions& o, bool movesData) {
  command.option_defaults()->always_capture_default();
  command
      .add_option("--platform", o.platform, "Bluetooth backend: sim (the simulated radio) or bluez")
      ->check(CLI::IsMember({"sim", "bluez"}))
      ->group("Common options");
  command
      .add_option("--sim-config", o.simConfig,
                  "JSON file describing the simulated devices and air faults (see docs/qlt.md)")
      ->check(CLI::ExistingFile)
      ->group("Common options");
  command.add_flag("--verbose,-v", o.verbose, "Show the library's own log lines on stderr")
      ->group("Common options");
  command.add_option("--log", o.logFile, "Append the library's log lines to FILE")
      ->type_name("FILE")
      ->group("Common options");
  if (movesData) {
    command
        .add_flag("--trace", o.trace,
                  "Print one decoded line per frame on the air, e.g. '→ seg seq=1 120 B', "
                  "'← ack R=2', '← rej R=1', '→ poll 0..3'")
        ->group("Common options");
  }
}

}  // namespace qlt::cli
