// quelt.sim: the simulated radio from Python. Devices, faults and power of the radio that the
// "sim" backend runs on, so that a program's own code can be tested without hardware.
#include <pybind11/pybind11.h>
#include <pybind11/stl.h>

#include <QueltLibrary/sim/SimRadio.h>
#include <random>

#include "bindings.h"

namespace py = pybind11;
using qlt::sim::AirFaults;
using qlt::sim::SimDeviceConfig;
using qlt::sim::SimRadio;

namespace quelt {
namespace {

qlt::UUID identifierOf(const std::string& text) {
  auto uuid = qlt::UUID::fromString(text);
  if (!uuid) throw py::value_error("'" + text + "' is not a device identifier (UUID text)");
  return *uuid;
}

qlt::UUID randomIdentifier() {
  static std::mutex mutex;
  static std::mt19937_64 random{std::random_device{}()};
  std::lock_guard lock(mutex);
  qlt::UUID::Bytes bytes;
  for (auto& b : bytes) b = static_cast<uint8_t>(random());
  bytes[6] = static_cast<uint8_t>((bytes[6] & 0x0f) | 0x40);  // version 4
  bytes[8] = static_cast<uint8_t>((bytes[8] & 0x3f) | 0x80);
  return qlt::UUID(bytes);
}

qlt::Data dataOf(const py::bytes& bytes) {
  const std::string text = bytes;
  return qlt::Data::fromString(text);
}

SimDeviceConfig makeDevice(const std::optional<std::string>& name,
                           const std::optional<std::string>& identifier,
                           const std::string& behaviour, int rssi,
                           const std::map<uint16_t, py::bytes>& manufacturerData,
                           const std::map<std::string, py::bytes>& serviceData,
                           std::optional<int> txPower, bool connectable,
                           const std::optional<std::string>& address, size_t mtu,
                           std::optional<AirFaults> faults, uint64_t sourceBytes, bool heartRate) {
  SimDeviceConfig d;
  d.identifier = identifier ? identifierOf(*identifier) : randomIdentifier();
  d.localName = name;
  const auto b = qlt::sim::behaviourFromName(behaviour);
  if (!b) {
    throw py::value_error("no behaviour '" + behaviour +
                          "' (none, sw-echo, chunk-echo, sink, sw-sink, source)");
  }
  d.behaviour = *b;
  d.rssi = rssi;
  for (const auto& [company, bytes] : manufacturerData) d.manufacturerData[company] = dataOf(bytes);
  for (const auto& [uuid, bytes] : serviceData) {
    const auto u = parseUUID(uuid);
    if (!u) throw py::value_error("'" + uuid + "' is not a service UUID");
    d.serviceData[*u] = dataOf(bytes);
  }
  d.txPowerLevel = txPower;
  d.connectable = connectable;
  if (address) {
    const auto canonical = qlt::platform::canonicalAddress(*address);
    if (!canonical) throw py::value_error("'" + *address + "' is not a Bluetooth address");
    d.address = canonical;
  }
  d.mtu = mtu;
  d.faults = faults;
  d.sourceBytes = sourceBytes;
  if (heartRate) d.services.push_back(qlt::sim::SimServiceConfig::heartRate());
  return d;
}

}  // namespace

void bindSim(py::module_ sim) {
  py::class_<AirFaults>(sim, "Faults", R"(What goes wrong on the simulated air, seeded so that
a run can be repeated. Probabilities are 0..1, times in seconds.)")
      .def(py::init([](uint64_t seed, double lostWrites, double lostNotifications,
                       double connectionInterval, std::optional<double> dropAfterSeconds,
                       std::optional<uint64_t> dropAfterPackets, double connectFailure,
                       std::optional<double> writeRateLimit) {
             AirFaults f;
             f.seed = seed;
             f.lostWritesWithoutResponse = lostWrites;
             f.lostNotifications = lostNotifications;
             f.connectionInterval = connectionInterval;
             f.dropAfterSeconds = dropAfterSeconds;
             f.dropAfterPackets = dropAfterPackets;
             f.connectFailure = connectFailure;
             f.writeRateLimit = writeRateLimit;
             return f;
           }),
           py::kw_only(), py::arg("seed") = 1, py::arg("lost_writes") = 0.0,
           py::arg("lost_notifications") = 0.0, py::arg("connection_interval") = 0.0,
           py::arg("drop_after_seconds") = py::none(), py::arg("drop_after_packets") = py::none(),
           py::arg("connect_failure") = 0.0, py::arg("write_rate_limit") = py::none())
      .def_readwrite("seed", &AirFaults::seed)
      .def_readwrite("lost_writes", &AirFaults::lostWritesWithoutResponse)
      .def_readwrite("lost_notifications", &AirFaults::lostNotifications)
      .def_readwrite("connection_interval", &AirFaults::connectionInterval)
      .def_readwrite("drop_after_seconds", &AirFaults::dropAfterSeconds)
      .def_readwrite("drop_after_packets", &AirFaults::dropAfterPackets)
      .def_readwrite("connect_failure", &AirFaults::connectFailure)
      .def_readwrite("write_rate_limit", &AirFaults::writeRateLimit)
      .def("__repr__", [](const AirFaults& f) { return "Faults(" + f.description() + ")"; });

  py::class_<SimDeviceConfig>(sim, "Device", R"(A simulated device: how it advertises and what
it does with the data written to it. behaviour: "sw-echo" (echoes over the sliding window),
"chunk-echo" (echoes each write), "sink", "source" (streams bytes i % 251), "none".)")
      .def(py::init(&makeDevice), py::arg("name") = py::none(), py::kw_only(),
           py::arg("identifier") = py::none(), py::arg("behaviour") = "sw-echo",
           py::arg("rssi") = -60, py::arg("manufacturer_data") = std::map<uint16_t, py::bytes>{},
           py::arg("service_data") = std::map<std::string, py::bytes>{},
           py::arg("tx_power") = py::none(), py::arg("connectable") = true,
           py::arg("address") = py::none(), py::arg("mtu") = 185, py::arg("faults") = py::none(),
           py::arg("source_bytes") = 0, py::arg("heart_rate") = false)
      .def_property_readonly("identifier",
                             [](const SimDeviceConfig& d) { return d.identifier.UUIDString(); })
      .def_property_readonly("name", [](const SimDeviceConfig& d) { return d.localName; })
      .def_property_readonly("address", &SimDeviceConfig::bluetoothAddress)
      .def("__repr__", [](const SimDeviceConfig& d) { return "Device(" + d.description() + ")"; });

  py::class_<SimRadio, std::shared_ptr<SimRadio>>(sim, "Radio", R"(The simulated air.
Radio.shared() is the one the "sim" backend uses (and UartLink and scan() with it).
Changes affect new connections; removing a device or powering off ends its links.)")
      .def_static("shared", &SimRadio::shared, "The process-wide radio.")
      .def(
          "load_config",
          [](SimRadio& r, const std::string& path) {
            std::string error;
            if (!r.loadConfig(path, &error)) throw py::value_error(error);
          },
          py::arg("path"),
          "Replaces devices, faults and power with a JSON file's; raises ValueError (changing "
          "nothing) on any error.")
      .def(
          "load_config_string",
          [](SimRadio& r, const std::string& json) {
            std::string error;
            if (!r.loadConfigString(json, &error)) throw py::value_error(error);
          },
          py::arg("json"), "The same from JSON text.")
      .def(
          "add_device",
          [](SimRadio& r, const SimDeviceConfig& d) {
            if (!r.addDevice(d)) {
              throw py::value_error("a device with identifier " + d.identifier.UUIDString() +
                                    " is already on the radio");
            }
            return d.identifier.UUIDString();
          },
          py::arg("device"), "Adds a device; returns its identifier.")
      .def(
          "remove_device",
          [](SimRadio& r, const std::string& id) { return r.removeDevice(identifierOf(id)); },
          py::arg("identifier"))
      .def("remove_all_devices", &SimRadio::removeAllDevices)
      .def_property_readonly("devices", &SimRadio::devices)
      .def(
          "drop_link",
          [](SimRadio& r, const std::string& id) {
            py::gil_scoped_release released;
            r.dropLink(identifierOf(id));
          },
          py::arg("identifier"), "Ends the device's link now, as if it went out of range.")
      .def(
          "stats",
          [](SimRadio& r, const std::string& id) {
            const auto s = r.stats(identifierOf(id));
            py::dict out;
            out["connections"] = s.connections;
            out["writes_received"] = s.writesReceived;
            out["bytes_received"] = s.bytesReceived;
            out["writes_lost"] = s.writesLost;
            out["notifications_sent"] = s.notificationsSent;
            out["notifications_lost"] = s.notificationsLost;
            out["payload_bytes_received"] = s.payloadBytesReceived;
            out["payload_bytes_sent"] = s.payloadBytesSent;
            return out;
          },
          py::arg("identifier"), "What the device has seen and sent since it was added.")
      .def_property("faults", &SimRadio::faults, &SimRadio::setFaults,
                    "The air's faults, for devices without their own.")
      .def_property(
          "powered", &SimRadio::isPowered,
          [](SimRadio& r, bool on) {
            py::gil_scoped_release released;
            r.setPowered(on);
          },
          "The radio's power switch.");

  sim.def("radio", &SimRadio::shared, "The process-wide radio (Radio.shared()).");
  sim.def("default_devices", &SimRadio::defaultDevices,
          "QLT-Echo, QLT-Chunk, QLT-Sink, QLT-Source and HR-Sensor.");
}

}  // namespace quelt
