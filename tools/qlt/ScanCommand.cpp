// qlt scan: a live table of devices, or JSON lines.

#include <CLI/CLI.hpp>
#include <cstdio>
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
  ScanFilter filter;
  double timeoutS = 5.0;
  bool json = false;
  bool adapters = false;  // --adapters: list them instead of scanning
};

std::string hex(const Data& data) {
  std::string out;
  char pair[3];
  for (uint8_t b : data.span()) {
    std::snprintf(pair, sizeof pair, "%02x", b);
    out += pair;
  }
  return out;
}

std::string companyKey(uint16_t company) {
  char text[8];
  std::snprintf(text, sizeof text, "0x%04X", company);
  return text;
}

// "180D" for a UUID of the Bluetooth base, the full text otherwise.
std::string shortUUID(const UUID& u) {
  const std::string text = u.UUIDString();
  const bool base = text.rfind("0000", 0) == 0 && text.substr(8) == "-0000-1000-8000-00805F9B34FB";
  return base ? text.substr(4, 4) : text;
}

nlohmann::json toJson(const DeviceInfo& d) {
  const auto& ad = d.advertisement;
  nlohmann::json manufacturer = nlohmann::json::object(), serviceData = nlohmann::json::object(),
                 services = nlohmann::json::array();
  for (const auto& [company, bytes] : ad.manufacturerData)
    manufacturer[companyKey(company)] = hex(bytes);
  for (const auto& [uuid, bytes] : ad.serviceData) serviceData[uuid.UUIDString()] = hex(bytes);
  for (const auto& uuid : ad.serviceUUIDs) services.push_back(uuid.UUIDString());
  return {{"identifier", d.identifier},
          {"address", d.address.empty() ? nlohmann::json() : nlohmann::json(d.address)},
          {"name", d.name},
          {"rssi", d.rssi},
          {"nus", d.nus},
          {"manufacturerData", manufacturer},
          {"serviceUUIDs", services},
          {"serviceData", serviceData},
          {"txPower", ad.txPowerLevel ? nlohmann::json(*ad.txPowerLevel) : nlohmann::json()},
          {"connectable", ad.isConnectable}};
}

// The advertisement in one short cell: "0xFFFF=514c54 180D=48 tx 4 dBm" (manufacturer data
// by company, service data by service, TX power, "not connectable").
std::string compactAdvertisement(const platform::AdvertisementData& ad) {
  std::string out;
  const auto add = [&](const std::string& part) { out += (out.empty() ? "" : " ") + part; };
  for (const auto& [company, bytes] : ad.manufacturerData) {
    add(companyKey(company) + "=" + hex(bytes).substr(0, 16));
  }
  for (const auto& [uuid, bytes] : ad.serviceData)
    add(shortUUID(uuid) + "=" + hex(bytes).substr(0, 16));
  if (ad.txPowerLevel) add("tx " + std::to_string(*ad.txPowerLevel) + " dBm");
  if (!ad.isConnectable) add("not connectable");
  return displayText(out, 60);
}

// Names come from the air: escaped and cut for the terminal (--json keeps them exact).
std::string shownName(const DeviceInfo& d) {
  return d.name.empty() ? "(no name)" : displayText(d.name);
}

std::vector<std::string> toRow(const DeviceInfo& d) {
  return {d.identifier,         d.address.empty() ? "-" : d.address,
          shownName(d),         std::to_string(d.rssi),
          d.nus ? "yes" : "no", compactAdvertisement(d.advertisement)};
}

// `qlt scan --adapters`: one line (or JSON object) per adapter bluetoothd has.
int listAdapters(const ScanOptions& o) {
  Session session(o.common);
  if (session.platform() != "bluez") {
    throw UsageError("--adapters lists BlueZ's adapters; the simulated radio has none");
  }
  const auto adapters = session.adapters(std::min(o.timeoutS, 2.0));
  if (adapters.empty()) throw Failure("bluetoothd lists no adapters");
  for (const auto& a : adapters) {
    if (o.json) {
      printLine(nlohmann::json{
          {"name", a.name}, {"address", a.address}, {"powered", a.powered}, {"inUse", a.inUse}}
                    .dump());
    } else {
      printLine(a.name + "  " + (a.address.empty() ? "-" : a.address) + "  " +
                (a.powered ? "powered" : "off") + (a.inUse ? "  (in use)" : ""));
    }
  }
  return kExitOk;
}

int runScan(const ScanOptions& o) {
  setStdoutCarriesData(o.json);
  if (o.adapters) return listAdapters(o);
  Session session(o.common);
  session.powerOn(5.0);
  const bool live = stdoutIsTerminal() && !o.json;
  LiveTable table({"identifier", "address", "name", "RSSI", "NUS", "advertisement"});
  std::vector<std::string> order;
  std::map<std::string, DeviceInfo> latest;  // only touched on the tool's queue, then here

  if (live) table.show({});
  const auto devices = session.scan(o.filter, o.timeoutS, [&](const DeviceInfo& d, bool first) {
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
      const auto row = toRow(d);
      printLine(row[0] + "  " + row[1] + "  " + row[2] + "  RSSI " + row[3] + "  NUS " + row[4] +
                (row[5].empty() ? "" : "  " + row[5]));
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
      "Scan for devices: a live table of identifier, address, name, RSSI, whether the UART "
      "service (NUS) is advertised and the advertisement data; or one JSON object per device "
      "with --json");
  cmd->add_option("--name", o->filter.nameContains,
                  "Keep only devices whose name contains TEXT (any case)")
      ->type_name("TEXT");
  cmd->add_option(
         "--manufacturer",
         [o](const CLI::results_t& values) {
           const auto id = parseCompanyId(values.at(0));
           if (!id) {
             throw CLI::ValidationError("--manufacturer", "'" + values.at(0) +
                                                              "' is not a company identifier "
                                                              "(0 to 65535, or 0x0000 to 0xFFFF)");
           }
           o->filter.manufacturer = *id;
           return true;
         },
         "Keep only devices with manufacturer data of company ID (decimal or 0x hex)")
      ->type_name("ID")
      ->expected(1);
  cmd->add_option(
         "--service",
         [o](const CLI::results_t& values) {
           const auto uuid = UUID::fromString(values.at(0));
           if (!uuid) {
             throw CLI::ValidationError(
                 "--service",
                 "'" + values.at(0) + "' is not a UUID (180D, 0000180D or the full form)");
           }
           o->filter.service = *uuid;
           return true;
         },
         "Keep only devices that advertise service UUID (in their list or with service data)")
      ->type_name("UUID")
      ->expected(1);
  addNumberOption(*cmd, "--timeout", o->timeoutS, "How long to scan, in seconds", 0.1, 3600,
                  "a number of seconds")
      ->default_str("5");
  cmd->add_flag("--json", o->json,
                "One JSON object per device, as it is first seen: {\"identifier\",\"address\","
                "\"name\",\"rssi\",\"nus\",\"manufacturerData\":{\"0x004C\":\"hex\"},"
                "\"serviceUUIDs\":[...],\"serviceData\":{\"UUID\":\"hex\"},\"txPower\","
                "\"connectable\"}");
  cmd->add_flag("--nus", o->filter.nusOnly, "Keep only devices advertising the UART service");
  cmd->add_flag("--adapters", o->adapters,
                "List BlueZ's adapters instead (name, address, power, the one in use); with "
                "--json one object each: {\"name\",\"address\",\"powered\",\"inUse\"}");
  addCommonOptions(*cmd, o->common, /*movesData=*/false);
  cmd->footer(
      "Examples:\n"
      "  qlt scan                           all devices for 5 s\n"
      "  qlt scan --name echo --timeout 2   devices whose name contains 'echo'\n"
      "  qlt scan --manufacturer 0x0059     devices with Nordic's manufacturer data\n"
      "  qlt scan --service 180D            heart-rate sensors\n"
      "  qlt scan --json | jq .address      addresses, for scripts\n"
      "  qlt scan --adapters                BlueZ's adapters; --adapter hci1 uses another");
  return [o] { return runScan(*o); };
}

}  // namespace qlt::cli
