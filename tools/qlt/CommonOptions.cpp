#include <CLI/CLI.hpp>
#include <cstdlib>

#include "Commands.h"
#include "Errors.h"
#include "LogRouting.h"
#include "QueltLibrary/platform/Platform.h"

namespace qlt::cli {

std::string explicitPlatform(const CommonOptions& o) {
  if (!o.platform.empty()) return o.platform;  // checked by the parser
  // NOLINTNEXTLINE(concurrency-mt-unsafe): read once at start-up, before any thread runs.
  const char* env = std::getenv("QLT_PLATFORM");
  if (!env || !*env) return "";
  std::string name = env;
  if (name != "sim" && name != "bluez")
    throw UsageError("QLT_PLATFORM is '" + name + "': use sim or bluez");
  return name;
}

std::string resolvePlatform(const CommonOptions& o) {
  std::string name = explicitPlatform(o);
  if (!name.empty()) return name;
  if (!o.simConfig.empty()) return "sim";  // simulated devices ask for the simulated radio
  // The library logs its choice and why: route its log first, so that -v and --log show it.
  routeLibraryLog(o.verbose, o.logFile);
  return platform::currentBackend()->name();  // BlueZ where it answers, else sim
}

void addCommonOptions(CLI::App& command, CommonOptions& o, bool movesData) {
  command.option_defaults()->always_capture_default();
  o.command = command.get_parent() && command.get_parent()->get_parent()
                  ? command.get_parent()->get_name() + " " + command.get_name()
                  : command.get_name();
  command
      .add_option("--platform", o.platform,
                  "Bluetooth backend: sim (the simulated radio) or bluez; without it, "
                  "$QLT_PLATFORM, else bluez where bluetoothd has an adapter, else sim")
      ->check(CLI::IsMember({"sim", "bluez"}))
      ->group("Common options");
  command
      .add_option("--sim-config", o.simConfig,
                  "JSON file describing the simulated devices and air faults (format: "
                  "docs/simulated-radio.md)")
      ->check(CLI::ExistingFile)
      ->group("Common options");
  command
      .add_option("--adapter", o.adapter,
                  "BlueZ adapter by name (hci1) or address; without it, $QLT_ADAPTER, else the "
                  "first powered one ('qlt scan --adapters' lists them)")
      ->type_name("ADAPTER")
      ->group("Common options");
  command.add_flag("--verbose,-v", o.verbose, "Show the library's own log lines on stderr")
      ->group("Common options");
  command.add_option("--log", o.logFile, "Append the library's log lines to FILE")
      ->type_name("FILE")
      ->group("Common options");
  if (movesData) {
    command
        .add_flag("--trace", o.trace,
                  "Print one decoded line per frame on the air (on stderr), e.g. "
                  "'→ seg seq=1 120 B', '← ack R=2', '← rej R=1', '→ poll 0..3'")
        ->group("Common options");
    command
        .add_flag("--classic-window", o.classicWindow,
                  "Keep the sliding window classic (3 segments of 120 B): do not offer the "
                  "extended window to the device")
        ->group("Common options");
  }
}

}  // namespace qlt::cli
