// qlt scan: a live table of devices, or JSON lines.

#include <CLI/CLI.hpp>
#include <map>
#include <memory>
#include <nlohmann/json.hpp>

#include "Commands.h"
#include "Errors.h"
#include "Numbers.h"
#include "Session.h"
#include "Terminal.h"
#include "Waiter.h"

namespace qlt::cli {
namespace {

struct ScanOptions {
  CommonOptions common;
  std::string name;
  double timeoutS = 5.0;
  bool json = false;
  bool nusOnly = false;
};

nlohmann::json toJson(const DeviceInfo& d) {
  return {{"identifier", d.identifier}, {"name", d.name}, {"rssi", d.rssi}, {"nus", d.nus}};
}

// Names come from the air: escaped and cut for the terminal (--json keeps them exact).
std::string shownName(const DeviceInfo& d) {
  return d.name.empty() ? "(no name)" : displayText(d.name);
}

std::vector<std::string> toRow(const DeviceInfo& d) {
  return {d.identifier, shownName(d), std::to_string(d.rssi), d.nus ? "yes" : "no"};
}

int runScan(const ScanOptions& o) {
  setStdoutCarriesData(o.json);
  Session session(o.common);
  session.powerOn(5.0);
  const bool live = stdoutIsTerminal() && !o.json;
  LiveTable table({"identifier", "name", "RSSI", "NUS"});
  std::vector<std::string> order;
  std::map<std::string, DeviceInfo> latest;  // only touched on the tool's queue, then here

  if (live) table.show({});
  const auto devices =
      session.scan(o.name, o.nusOnly, o.timeoutS, [&](const DeviceInfo& d, bool first) {
        if (first) order.push_back(d.identifier);
        latest[d.identifier] = d;
        if (o.json) {
          if (first) printLine(toJson(d).dump());
        } else if (live) {
          std::vector<std::vector<std::string>> rows;
          rows.reserve(order.size());
          for (const auto& id : order) rows.push_back(toRow(latest[id]));
          table.show(rows);
        } else if (first) {
          printLine(d.identifier + "  " + shownName(d) + "  RSSI " + std::to_string(d.rssi) +
                    "  NUS " + (d.nus ? "yes" : "no"));
        }
      });
  if (!o.json && !live && devices.empty()) printLine("no devices found");
  if (live) printLine(std::to_string(devices.size()) + " device(s) in " + seconds(o.timeoutS));
  return kExitOk;
}

}  // namespace

CommandAction addScanCommand(CLI::App& app) {
  auto o = std::make_shared<ScanOptions>();
  auto* cmd = app.add_subcommand(
      "scan",
      "Scan for devices: a live table of identifier, name, RSSI and whether the UART "
      "service (NUS) is advertised; or one JSON object per device with --json");
  cmd->add_option("--name", o->name, "Keep only devices whose name contains TEXT (any case)")
      ->type_name("TEXT");
  addNumberOption(*cmd, "--timeout", o->timeoutS, "How long to scan, in seconds", 0.1, 3600,
                  "a number of seconds")
      ->default_str("5");
  cmd->add_flag("--json", o->json,
                "One JSON object per device, as it is first seen: "
                "{\"identifier\",\"name\",\"rssi\",\"nus\"}");
  cmd->add_flag("--nus", o->nusOnly, "Keep only devices advertising the UART service");
  addCommonOptions(*cmd, o->common, /*movesData=*/false);
  cmd->footer(
      "Examples:\n"
      "  qlt scan                           all devices for 5 s\n"
      "  qlt scan --name echo --timeout 2   devices whose name contains 'echo'\n"
      "  qlt scan --json | jq .name         names, for scripts");
  return [o] { return runScan(*o); };
}

}  // namespace qlt::cli
