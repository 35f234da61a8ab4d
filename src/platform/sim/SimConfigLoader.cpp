#include "SimConfigLoader.h"

#include <algorithm>
#include <cctype>
#include <cmath>
#include <limits>
#include <map>
#include <set>
#include <stdexcept>

#include <nlohmann/json.hpp>

namespace qlt::sim {

namespace {

using nlohmann::json;

// Thrown inside this file only, caught by parseRadioConfig.
struct ConfigError : std::runtime_error {
  using std::runtime_error::runtime_error;
};

[[noreturn]] void fail(const std::string& path, const std::string& what) {
  throw ConfigError(path + ": " + what);
}

void requireObject(const json& j, const std::string& path,
                   std::initializer_list<const char*> allowed) {
  if (!j.is_object()) fail(path, "expected an object");
  for (const auto& [key, value] : j.items()) {
    bool known = false;
    for (const char* name : allowed) known = known || key == name;
    if (!known) fail(path, "unknown key \"" + key + "\"");
  }
}

std::string join(const std::string& path, const std::string& key) {
  return path.empty() ? key : path + "." + key;
}

double number(const json& j, const std::string& path, double min, double max) {
  if (!j.is_number()) fail(path, "expected a number");
  const double v = j.get<double>();
  if (!std::isfinite(v) || v < min || v > max) {
    fail(path, "out of range (" + std::to_string(min) + " to " + std::to_string(max) + ")");
  }
  return v;
}

uint64_t unsignedInteger(const json& j, const std::string& path, uint64_t min, uint64_t max) {
  if (!j.is_number_unsigned() && !(j.is_number_integer() && j.get<int64_t>() >= 0)) {
    fail(path, "expected a non-negative whole number");
  }
  const uint64_t v = j.get<uint64_t>();
  if (v < min || v > max) {
    fail(path, "out of range (" + std::to_string(min) + " to " + std::to_string(max) + ")");
  }
  return v;
}

int integer(const json& j, const std::string& path, int min, int max) {
  if (!j.is_number_integer()) fail(path, "expected a whole number");
  const int64_t v = j.get<int64_t>();
  if (v < min || v > max) {
    fail(path, "out of range (" + std::to_string(min) + " to " + std::to_string(max) + ")");
  }
  return static_cast<int>(v);
}

std::string text(const json& j, const std::string& path) {
  if (!j.is_string()) fail(path, "expected a string");
  return j.get<std::string>();
}

UUID uuid(const json& j, const std::string& path) {
  const std::string t = text(j, path);
  auto parsed = UUID::fromString(t);
  if (!parsed) fail(path, "not a UUID: \"" + t + "\"");
  return *parsed;
}

Data hexBytes(const json& j, const std::string& path) {
  std::string t = text(j, path);
  std::string digits;
  for (char c : t) {
    if (c == ' ' || c == ':' || c == '-') continue;
    if (!std::isxdigit(static_cast<unsigned char>(c))) fail(path, "not hexadecimal: \"" + t + "\"");
    digits.push_back(c);
  }
  if (digits.size() % 2 != 0) fail(path, "odd number of hexadecimal digits: \"" + t + "\"");
  std::vector<uint8_t> bytes;
  for (size_t i = 0; i < digits.size(); i += 2) {
    bytes.push_back(static_cast<uint8_t>(std::stoul(digits.substr(i, 2), nullptr, 16)));
  }
  return Data(bytes.data(), bytes.size());
}

// A company identifier: decimal or 0x-prefixed hexadecimal text, 0 to 0xFFFF.
uint16_t companyId(const std::string& key, const std::string& path) {
  const bool hex = key.size() > 2 && key[0] == '0' && (key[1] == 'x' || key[1] == 'X');
  const std::string digits = hex ? key.substr(2) : key;
  const bool ok =
      !digits.empty() && digits.size() <= 6 &&
      std::all_of(digits.begin(), digits.end(), [&](char c) {
        return hex ? std::isxdigit(static_cast<unsigned char>(c)) != 0 : (c >= '0' && c <= '9');
      });
  const unsigned long v = ok ? std::stoul(digits, nullptr, hex ? 16 : 10) : 0x10000;
  if (v > 0xFFFF) fail(path, "not a company identifier (0 to 0xFFFF): \"" + key + "\"");
  return static_cast<uint16_t>(v);
}

// {"0x0059": "0102", ...}, or one advertisement field as hex text: the company identifier
// (little-endian) followed by its bytes.
std::map<uint16_t, Data> manufacturerData(const json& j, const std::string& path) {
  std::map<uint16_t, Data> out;
  if (j.is_string()) {
    const Data field = hexBytes(j, path);
    if (field.size() < 2) fail(path, "too short for a company identifier");
    const auto b = field.span();
    out[static_cast<uint16_t>(b[0] | b[1] << 8)] = Data(b.subspan(2));
    return out;
  }
  if (!j.is_object()) fail(path, "expected hex text or an object of company id: hex text");
  for (const auto& [key, value] : j.items()) {
    out[companyId(key, path)] = hexBytes(value, join(path, key));
  }
  return out;
}

uint32_t properties(const json& j, const std::string& path) {
  static const std::pair<const char*, uint32_t> kNames[] = {
      {"broadcast", platform::kPropertyBroadcast},
      {"read", platform::kPropertyRead},
      {"writeWithoutResponse", platform::kPropertyWriteWithoutResponse},
      {"write", platform::kPropertyWrite},
      {"notify", platform::kPropertyNotify},
      {"indicate", platform::kPropertyIndicate},
  };
  if (!j.is_array()) fail(path, "expected a list of property names");
  uint32_t bits = 0;
  for (size_t i = 0; i < j.size(); ++i) {
    const std::string itemPath = path + "[" + std::to_string(i) + "]";
    const std::string name = text(j[i], itemPath);
    bool known = false;
    for (const auto& [n, bit] : kNames) {
      if (name == n) {
        bits |= bit;
        known = true;
      }
    }
    if (!known) {
      fail(itemPath, "unknown property \"" + name +
                         "\" (broadcast, read, writeWithoutResponse, write, notify, indicate)");
    }
  }
  return bits;
}

AirFaults faults(const json& j, const std::string& path) {
  requireObject(j, path,
                {"seed", "lostWritesWithoutResponse", "lostNotifications", "connectionIntervalMs",
                 "dropAfterSeconds", "dropAfterPackets", "connectFailure", "writeRateLimit"});
  AirFaults f;
  const double kDay = 86400;
  if (j.contains("seed")) {
    f.seed =
        unsignedInteger(j["seed"], join(path, "seed"), 0, std::numeric_limits<uint64_t>::max());
  }
  if (j.contains("lostWritesWithoutResponse")) {
    f.lostWritesWithoutResponse =
        number(j["lostWritesWithoutResponse"], join(path, "lostWritesWithoutResponse"), 0, 1);
  }
  if (j.contains("lostNotifications")) {
    f.lostNotifications = number(j["lostNotifications"], join(path, "lostNotifications"), 0, 1);
  }
  if (j.contains("connectionIntervalMs")) {
    f.connectionInterval =
        number(j["connectionIntervalMs"], join(path, "connectionIntervalMs"), 0, 4000) / 1000.0;
  }
  if (j.contains("dropAfterSeconds")) {
    f.dropAfterSeconds = number(j["dropAfterSeconds"], join(path, "dropAfterSeconds"), 0, kDay);
  }
  if (j.contains("dropAfterPackets")) {
    f.dropAfterPackets = unsignedInteger(j["dropAfterPackets"], join(path, "dropAfterPackets"), 1,
                                         std::numeric_limits<uint64_t>::max());
  }
  if (j.contains("connectFailure")) {
    f.connectFailure = number(j["connectFailure"], join(path, "connectFailure"), 0, 1);
  }
  if (j.contains("writeRateLimit")) {
    f.writeRateLimit = number(j["writeRateLimit"], join(path, "writeRateLimit"), 1, 1e9);
  }
  return f;
}

// "link": {...}: each key given replaces that field of `base`; the result is checked whole,
// so an error names the key and the range allowed.
LinkParameters linkParameters(const json& j, const std::string& path, LinkParameters base) {
  requireObject(j, path,
                {"intervalMs", "phy", "dataLength", "mtu", "maxPdusPerEvent", "packetErrorRate",
                 "supervisionTimeoutMs", "notifyBuffers", "encrypted"});
  LinkParameters p = base;
  const double kAny = 1e12;
  auto count = [&](const char* key) {
    return static_cast<uint32_t>(unsignedInteger(j[key], join(path, key), 0, 0xFFFFFFFFULL));
  };
  if (j.contains("intervalMs"))
    p.intervalMs = number(j["intervalMs"], join(path, "intervalMs"), -kAny, kAny);
  if (j.contains("phy")) {
    const std::string name = text(j["phy"], join(path, "phy"));
    const auto phy = phyFromName(name);
    if (!phy) fail(join(path, "phy"), "unknown PHY \"" + name + "\" (1M or 2M)");
    p.phy = *phy;
  }
  if (j.contains("dataLength")) p.dataLength = count("dataLength");
  if (j.contains("mtu")) p.mtu = count("mtu");
  if (j.contains("maxPdusPerEvent")) p.maxPdusPerEvent = count("maxPdusPerEvent");
  if (j.contains("packetErrorRate"))
    p.packetErrorRate = number(j["packetErrorRate"], join(path, "packetErrorRate"), -kAny, kAny);
  if (j.contains("supervisionTimeoutMs"))
    p.supervisionTimeoutMs =
        number(j["supervisionTimeoutMs"], join(path, "supervisionTimeoutMs"), -kAny, kAny);
  if (j.contains("notifyBuffers")) p.notifyBuffers = count("notifyBuffers");
  if (j.contains("encrypted")) {
    if (!j["encrypted"].is_boolean()) fail(join(path, "encrypted"), "expected true or false");
    p.encrypted = j["encrypted"].get<bool>();
  }
  // problem() names the place itself: "link.dataLength: 300 is out of range (27 to 251)".
  const std::string problem = p.problem(path);
  if (!problem.empty()) throw ConfigError(problem);
  return p;
}

SimServiceConfig service(const json& j, const std::string& path) {
  if (j.is_string()) {
    if (j.get<std::string>() == "nus") return SimServiceConfig::nus();
    if (j.get<std::string>() == "heart-rate") return SimServiceConfig::heartRate();
    fail(path, "unknown service shorthand \"" + j.get<std::string>() +
                   "\" (\"nus\", \"heart-rate\", or an object)");
  }
  requireObject(j, path, {"uuid", "characteristics"});
  if (!j.contains("uuid")) fail(path, "missing \"uuid\"");
  SimServiceConfig s{uuid(j["uuid"], join(path, "uuid")), {}};
  if (j.contains("characteristics")) {
    const auto& list = j["characteristics"];
    const std::string listPath = join(path, "characteristics");
    if (!list.is_array()) fail(listPath, "expected a list");
    for (size_t i = 0; i < list.size(); ++i) {
      const std::string cPath = listPath + "[" + std::to_string(i) + "]";
      requireObject(list[i], cPath, {"uuid", "properties", "value"});
      if (!list[i].contains("uuid")) fail(cPath, "missing \"uuid\"");
      SimCharacteristicConfig c;
      c.uuid = uuid(list[i]["uuid"], join(cPath, "uuid"));
      if (list[i].contains("properties")) {
        c.properties = properties(list[i]["properties"], join(cPath, "properties"));
      }
      if (list[i].contains("value")) c.value = hexBytes(list[i]["value"], join(cPath, "value"));
      s.characteristics.push_back(c);
    }
  }
  return s;
}

SimDeviceConfig device(const json& j, const std::string& path, const LinkParameters& radioLink) {
  // (clang-format would put one key a line from 20 keys on.)
  // clang-format off
  requireObject(
      j, path,
      {"identifier", "name", "address", "manufacturerData", "serviceData", "txPower", "connectable",
       "rssi", "rssiVariation", "advertisingIntervalMs", "advertisedServices", "connectDelayMs",
       "mtu", "services", "behaviour", "sourceBytes", "command", "keepRunning", "faults", "link",
       "window"});
  // clang-format on
  if (!j.contains("identifier")) fail(path, "missing \"identifier\"");
  SimDeviceConfig d;
  d.identifier = uuid(j["identifier"], join(path, "identifier"));
  if (j.contains("name")) d.localName = text(j["name"], join(path, "name"));
  if (j.contains("address")) {
    const std::string t = text(j["address"], join(path, "address"));
    d.address = platform::canonicalAddress(t);
    if (!d.address) {
      fail(join(path, "address"),
           "not a Bluetooth address (such as C0:FF:EE:00:00:01): \"" + t + "\"");
    }
  }
  if (j.contains("manufacturerData")) {
    d.manufacturerData = manufacturerData(j["manufacturerData"], join(path, "manufacturerData"));
  }
  if (j.contains("serviceData")) {
    const std::string p = join(path, "serviceData");
    if (!j["serviceData"].is_object()) fail(p, "expected an object of service UUID: hex text");
    for (const auto& [key, value] : j["serviceData"].items()) {
      const auto u = UUID::fromString(key);
      if (!u) fail(p, "not a UUID: \"" + key + "\"");
      d.serviceData[*u] = hexBytes(value, join(p, key));
    }
  }
  if (j.contains("txPower"))
    d.txPowerLevel = integer(j["txPower"], join(path, "txPower"), -127, 20);
  if (j.contains("connectable")) {
    if (!j["connectable"].is_boolean()) fail(join(path, "connectable"), "expected true or false");
    d.connectable = j["connectable"].get<bool>();
  }
  if (j.contains("rssi")) d.rssi = integer(j["rssi"], join(path, "rssi"), -127, 20);
  if (j.contains("rssiVariation")) {
    d.rssiVariation = integer(j["rssiVariation"], join(path, "rssiVariation"), 0, 60);
  }
  if (j.contains("advertisingIntervalMs")) {
    d.advertisingInterval =
        number(j["advertisingIntervalMs"], join(path, "advertisingIntervalMs"), 1, 10240) / 1000.0;
  }
  if (j.contains("advertisedServices")) {
    const auto& list = j["advertisedServices"];
    const std::string listPath = join(path, "advertisedServices");
    if (!list.is_array()) fail(listPath, "expected a list");
    std::vector<UUID> uuids;
    for (size_t i = 0; i < list.size(); ++i) {
      uuids.push_back(uuid(list[i], listPath + "[" + std::to_string(i) + "]"));
    }
    d.advertisedServices = uuids;
  }
  if (j.contains("connectDelayMs")) {
    d.connectDelay = number(j["connectDelayMs"], join(path, "connectDelayMs"), 0, 60000) / 1000.0;
  }
  if (j.contains("mtu")) d.mtu = unsignedInteger(j["mtu"], join(path, "mtu"), 23, 517);
  if (j.contains("services")) {
    const auto& list = j["services"];
    const std::string listPath = join(path, "services");
    if (!list.is_array()) fail(listPath, "expected a list");
    d.services.clear();
    for (size_t i = 0; i < list.size(); ++i) {
      d.services.push_back(service(list[i], listPath + "[" + std::to_string(i) + "]"));
    }
  }
  if (j.contains("behaviour")) {
    const std::string name = text(j["behaviour"], join(path, "behaviour"));
    auto behaviour = behaviourFromName(name);
    if (!behaviour) {
      fail(join(path, "behaviour"),
           "unknown behaviour \"" + name +
               "\" (sw-echo, chunk-echo, sink, sw-sink, source, external, none)");
    }
    d.behaviour = *behaviour;
  }
  if (j.contains("sourceBytes")) {
    d.sourceBytes = unsignedInteger(j["sourceBytes"], join(path, "sourceBytes"), 0, 1ULL << 40);
  }
  if (j.contains("window")) {
    const std::string window = text(j["window"], join(path, "window"));
    if (window != "classic" && window != "extended")
      fail(join(path, "window"), "unknown window \"" + window + "\" (classic or extended)");
    d.classicWindow = window == "classic";
  }
  if (j.contains("command")) {
    const auto& list = j["command"];
    const std::string listPath = join(path, "command");
    if (!list.is_array() || list.empty()) fail(listPath, "expected a program and its arguments");
    for (size_t i = 0; i < list.size(); ++i) {
      d.command.push_back(text(list[i], listPath + "[" + std::to_string(i) + "]"));
    }
  }
  if ((d.behaviour == SimBehaviour::External) != !d.command.empty()) {
    fail(path, "\"command\" goes with, and only with, \"behaviour\": \"external\"");
  }
  if (j.contains("keepRunning")) {
    if (!j["keepRunning"].is_boolean()) fail(join(path, "keepRunning"), "expected true or false");
    if (d.behaviour != SimBehaviour::External) {
      fail(join(path, "keepRunning"), "goes only with \"behaviour\": \"external\"");
    }
    d.keepRunning = j["keepRunning"].get<bool>();
  }
  if (j.contains("faults")) d.faults = faults(j["faults"], join(path, "faults"));
  if (j.contains("link")) d.link = linkParameters(j["link"], join(path, "link"), radioLink);
  return d;
}

}  // namespace

bool parseRadioConfig(std::string_view text, RadioConfig& config, std::string& error) {
  try {
    const json j = json::parse(text.begin(), text.end());
    requireObject(j, "(top level)", {"powered", "faults", "link", "devices"});
    RadioConfig parsed;
    if (j.contains("powered")) {
      if (!j["powered"].is_boolean()) fail("powered", "expected true or false");
      parsed.powered = j["powered"].get<bool>();
    }
    if (j.contains("faults")) parsed.faults = faults(j["faults"], "faults");
    if (j.contains("link")) parsed.link = linkParameters(j["link"], "link", {});
    if (j.contains("devices")) {
      const auto& list = j["devices"];
      if (!list.is_array()) fail("devices", "expected a list");
      std::set<UUID> seen;
      std::set<std::string> addresses;
      for (size_t i = 0; i < list.size(); ++i) {
        const std::string path = "devices[" + std::to_string(i) + "]";
        SimDeviceConfig d = device(list[i], path, parsed.link);
        if (!seen.insert(d.identifier).second) {
          fail(path + ".identifier", "duplicate identifier " + d.identifier.UUIDString());
        }
        if (!addresses.insert(d.bluetoothAddress()).second) {
          fail(path + ".address", "duplicate address " + d.bluetoothAddress());
        }
        parsed.devices.push_back(std::move(d));
      }
    }
    config = std::move(parsed);
    return true;
  } catch (const json::exception& e) {
    error = std::string("not valid JSON: ") + e.what();
  } catch (const ConfigError& e) {
    error = e.what();
  } catch (const std::exception& e) {
    error = e.what();
  }
  return false;
}

}  // namespace qlt::sim
