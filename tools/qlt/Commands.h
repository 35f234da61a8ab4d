// The qlt commands. Each command file adds one subcommand (options, help text with an
// example) and returns what to run once the command line has been parsed.
#pragma once

#include <functional>
#include <string>

namespace CLI {
class App;
}

namespace qlt::cli {

// Options that every command takes.
struct CommonOptions {
  std::string command;         // "scan", "known add": for messages ("qlt known add: ...")
  std::string platform;        // --platform sim|bluez; empty: see resolvePlatform
  std::string simConfig;       // --sim-config FILE: simulated devices and air faults
  bool verbose = false;        // --verbose: the library's log lines on stderr
  std::string logFile;         // --log FILE: the library's log lines appended to FILE
  bool trace = false;          // --trace: one decoded line per frame (data-moving commands)
  bool classicWindow = false;  // --classic-window: the sliding window never offers the extension
  std::string adapter;         // --adapter NAME|ADDRESS (BlueZ); empty: $QLT_ADAPTER, else default
};

// The platform named by --platform, else by $QLT_PLATFORM; "" when neither names one.
// Throws UsageError for a name that is neither "sim" nor "bluez".
std::string explicitPlatform(const CommonOptions& options);
// The platform a command uses: the explicit one, else "sim" with --sim-config, else the
// library's default (bluez where a bluetoothd with an adapter answers, else sim).
std::string resolvePlatform(const CommonOptions& options);

// The help of every DEVICE argument: what Session::find accepts.
inline constexpr const char* kDeviceHelp =
    "Device name, identifier (UUID) or address (C0:FF:EE:00:00:01)";

// A parsed command, ready to run; returns the exit code (or throws Failure / UsageError).
using CommandAction = std::function<int()>;

// Adds --platform, --sim-config, --adapter, --verbose, --log and (for commands that move
// data) --trace to `command`.
void addCommonOptions(CLI::App& command, CommonOptions& options, bool movesData);

CommandAction addDemoCommand(CLI::App& app);
CommandAction addScanCommand(CLI::App& app);
CommandAction addChatCommand(CLI::App& app);
CommandAction addSendCommand(CLI::App& app);
CommandAction addReceiveCommand(CLI::App& app);
CommandAction addBenchCommand(CLI::App& app);
CommandAction addKnownCommand(CLI::App& app);
CommandAction addBridgeCommand(CLI::App& app);

}  // namespace qlt::cli
