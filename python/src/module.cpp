// quelt._quelt: the native half of the Python package. scan(), UartLink, the exceptions and
// the simulated radio (sim.cpp). The package's Python half (python/quelt) adds asyncio.
//
// Waiting: every call that may block gives up the GIL and waits in short slices, checking
// for signals between them, so Ctrl-C raises KeyboardInterrupt promptly and other Python
// threads run meanwhile. Callbacks reach Python through the gate (gate.h).
#include <pybind11/functional.h>
#include <pybind11/pybind11.h>
#include <pybind11/stl.h>

#include <QueltLibrary/QLT_BLEManager.h>
#include <QueltLibrary/QLT_Peripheral.h>
#include <QueltLibrary/UartLink.h>
#include <QueltLibrary/platform/Platform.h>
#include <chrono>
#include <cstdio>
#include <map>
#include <mutex>
#include <optional>
#include <set>
#include <string>
#include <vector>

#include "bindings.h"
#include "gate.h"

namespace py = pybind11;
using namespace std::chrono_literals;

namespace quelt {

namespace {

// The exception classes, made once at import and kept for the life of the process.
PyObject* errorBase = nullptr;
std::map<qlt::UartLink::Error::Reason, PyObject*> errorByReason;

constexpr auto kSlice = 50ms;

std::chrono::milliseconds toMilliseconds(double seconds) {
  return std::chrono::ceil<std::chrono::milliseconds>(
      std::chrono::duration<double>(std::max(0.0, seconds)));
}

std::chrono::steady_clock::time_point deadlineAfter(std::optional<double> seconds) {
  if (!seconds) return std::chrono::steady_clock::time_point::max();
  return std::chrono::steady_clock::now() +
         std::chrono::duration_cast<std::chrono::steady_clock::duration>(
             std::chrono::duration<double>(std::max(0.0, *seconds)));
}

std::chrono::milliseconds sliceUntil(std::chrono::steady_clock::time_point deadline) {
  const auto left = deadline - std::chrono::steady_clock::now();
  if (left <= 0s) return 0ms;
  return std::min<std::chrono::milliseconds>(kSlice,
                                             std::chrono::ceil<std::chrono::milliseconds>(left));
}

void checkSignals() {
  if (PyErr_CheckSignals() != 0) throw py::error_already_set();
}

// A device seen by scan(), with what its last advertisement carried.
struct Device {
  std::string identifier;
  std::optional<std::string> address;
  std::optional<std::string> name;
  int rssi = 0;
  qlt::platform::AdvertisementData advertisement;
};

py::dict manufacturerDict(const std::map<uint16_t, qlt::Data>& data) {
  py::dict out;
  for (const auto& [company, bytes] : data) out[py::int_(company)] = toBytes(bytes);
  return out;
}

py::dict serviceDataDict(const std::map<qlt::UUID, qlt::Data>& data) {
  py::dict out;
  for (const auto& [uuid, bytes] : data) out[py::str(lowerUUID(uuid))] = toBytes(bytes);
  return out;
}

std::vector<Device> scan(double timeout, std::optional<std::string> name,
                         std::optional<std::string> service) {
  std::optional<qlt::UUID> serviceUUID;
  if (service) {
    serviceUUID = parseUUID(*service);
    if (!serviceUUID) throw py::value_error("'" + *service + "' is not a service UUID");
  }
  // Shared with the filter, which runs on the manager's queue and may outlive this call.
  struct Seen {
    std::mutex mutex;
    std::vector<Device> devices;  // guarded by mutex; in the order first seen
  };
  auto seen = std::make_shared<Seen>();
  const std::optional<std::string> nameLower = name ? std::optional(lower(*name)) : std::nullopt;

  const auto deadline = deadlineAfter(timeout);
  // A manager of its own: a scan does not disturb (or wait for) a link that is searching.
  std::shared_ptr<qlt::QLT_BLEManager> manager;
  {
    py::gil_scoped_release released;
    manager = qlt::QLT_BLEManager::create();
  }
  while (manager->state() != qlt::QLT_BLEManagerStateIdle) {
    if (std::chrono::steady_clock::now() >= deadline) {
      throw Unavailable("Bluetooth is not available (no adapter, or it is powered off)");
    }
    {
      py::gil_scoped_release released;
      std::this_thread::sleep_for(10ms);
    }
    checkSignals();
  }
  manager->startDiscover([seen, nameLower, serviceUUID](
                             const std::shared_ptr<qlt::platform::Peripheral>& peripheral,
                             const std::optional<std::string>& localName,
                             const qlt::platform::AdvertisementData& ad, int rssi) {
    const std::optional<std::string> shown = localName ? localName : peripheral->name();
    if (nameLower && (!shown || lower(*shown).find(*nameLower) == std::string::npos)) {
      return false;
    }
    if (serviceUUID && std::find(ad.serviceUUIDs.begin(), ad.serviceUUIDs.end(), *serviceUUID) ==
                           ad.serviceUUIDs.end()) {
      return false;
    }
    Device d{peripheral->identifier().UUIDString(), peripheral->bluetoothAddress(), shown, rssi,
             ad};
    std::lock_guard lock(seen->mutex);
    auto& devices = seen->devices;
    auto it = std::find_if(devices.begin(), devices.end(),
                           [&](const Device& s) { return s.identifier == d.identifier; });
    if (it == devices.end()) {
      devices.push_back(std::move(d));
    } else {
      *it = std::move(d);
    }
    return false;  // only collected: no QLT_Peripheral is made
  });
  const auto stop = [&] {
    py::gil_scoped_release released;
    manager->stopDiscover();
    manager.reset();
  };
  try {
    for (auto slice = sliceUntil(deadline); slice > 0ms; slice = sliceUntil(deadline)) {
      {
        py::gil_scoped_release released;
        std::this_thread::sleep_for(slice);
      }
      checkSignals();
    }
  } catch (...) {
    stop();
    throw;
  }
  stop();
  std::lock_guard lock(seen->mutex);
  return seen->devices;
}

// One link, as Python sees it. Every open link is listed, so that the atexit hook can end
// them before the interpreter goes.
class Link;
std::mutex linksMutex;
std::set<Link*>* openLinks = new std::set<Link*>;  // guarded by linksMutex; never freed

class Link {
 public:
  Link(std::string device, double timeout, bool slidingWindow, bool reconnect, int reconnectTries,
       size_t sendBuffer, std::string adapter)
      : device_(std::move(device)) {
    qlt::UartLink::Options options;
    options.timeout = toMilliseconds(timeout);
    options.slidingWindow = slidingWindow;
    options.reconnect.enabled = reconnect;
    options.reconnect.maxTries = reconnectTries;
    if (sendBuffer == 0) throw py::value_error("send_buffer must be at least 1 byte");
    options.sendBuffer = sendBuffer;
    options.adapter = std::move(adapter);
    slidingWindow_ = slidingWindow;
    py::gil_scoped_release released;
    link_ = std::make_unique<qlt::UartLink>(options);
    std::lock_guard lock(linksMutex);
    openLinks->insert(this);
  }
  Link(const Link&) = delete;
  Link& operator=(const Link&) = delete;
  ~Link() {
    {
      std::lock_guard lock(linksMutex);
      openLinks->erase(this);
    }
    // The destructor disconnects and waits for the link's queue, where a callback may be
    // waiting for the GIL.
    if (PyGILState_Check()) {
      py::gil_scoped_release released;
      link_.reset();
    } else {
      link_.reset();
    }
  }

  void startConnect() {
    py::gil_scoped_release released;
    link_->startConnect(device_);
  }
  void waitUntilConnected() {
    py::gil_scoped_release released;
    link_->waitUntilConnected();
  }

  void connect() {
    startConnect();
    try {
      // waitUntilConnected returns (or throws) at once when the attempt is over.
      while (link_->state() == qlt::UartLink::State::Connecting) {
        {
          py::gil_scoped_release released;
          std::this_thread::sleep_for(10ms);
        }
        checkSignals();
      }
    } catch (...) {
      disconnect();
      throw;
    }
    py::gil_scoped_release released;
    link_->waitUntilConnected();
  }

  void disconnect() {
    py::gil_scoped_release released;
    link_->disconnect();
  }
  void disconnectWithoutGil() { link_->disconnect(); }

  // Hands over every byte (timeout None) or what fits in time; returns the count.
  size_t send(const qlt::Data& bytes, std::optional<double> timeout) {
    const auto deadline = deadlineAfter(timeout);
    size_t sent = 0;
    while (sent < bytes.size()) {
      const qlt::Data rest = bytes.subdata(sent, bytes.size() - sent);
      {
        py::gil_scoped_release released;
        sent += link_->send(rest, std::max(sliceUntil(deadline), 1ms));
      }
      if (sent == bytes.size()) break;
      checkSignals();
      if (std::chrono::steady_clock::now() >= deadline) break;
    }
    return sent;
  }

  size_t trySend(const qlt::Data& bytes) {
    py::gil_scoped_release released;
    return link_->trySend(bytes);
  }

  bool flush(std::optional<double> timeout) {
    const auto deadline = deadlineAfter(timeout);
    for (;;) {
      bool done = false;
      {
        py::gil_scoped_release released;
        done = link_->flush(sliceUntil(deadline));
      }
      if (done) return true;
      checkSignals();
      if (std::chrono::steady_clock::now() >= deadline) return false;
    }
  }

  uint64_t unacknowledged() const { return link_->unacknowledged(); }
  int fileno() const { return link_->fd(); }

  py::bytes read(std::optional<double> timeout) {
    const auto deadline = deadlineAfter(timeout);
    for (;;) {
      qlt::Data data;
      {
        py::gil_scoped_release released;
        data = link_->read(sliceUntil(deadline));
      }
      if (!data.empty()) return toBytes(data);
      checkSignals();
      if (std::chrono::steady_clock::now() >= deadline) return py::bytes();
    }
  }

  void onReceive(const py::object& fn) {
    if (fn.is_none()) {
      py::gil_scoped_release released;
      link_->onReceive(nullptr);
      return;
    }
    auto callable = std::make_shared<Callable>(fn);
    py::gil_scoped_release released;
    link_->onReceive([callable](const qlt::Data& data) {
      (*callable)(py::bytes(reinterpret_cast<const char*>(data.bytes()), data.size()));
    });
  }

  void onStateChange(const py::object& fn) {
    if (fn.is_none()) {
      py::gil_scoped_release released;
      link_->onStateChange(nullptr);
      return;
    }
    auto callable = std::make_shared<Callable>(fn);
    py::gil_scoped_release released;
    link_->onStateChange([callable](qlt::UartLink::State state, const std::string& error) {
      (*callable)(state, error);
    });
  }

  qlt::UartLink::State state() const { return link_->state(); }
  std::string lastError() const { return link_->lastError(); }
  const std::string& device() const { return device_; }

  py::dict info() const {
    py::dict out;
    out["device"] = device_;
    out["state"] = qlt::toString(link_->state());
    out["transport"] = slidingWindow_ ? "window" : "chunker";
    out["last_error"] = link_->lastError();
    out["unacknowledged"] = link_->unacknowledged();
    const auto counters = link_->counters();
    out["drops"] = counters.drops;
    out["reconnects"] = counters.reconnects;
    out["bytes_discarded"] = counters.bytesDiscarded;
    out["sessions_resumed"] = counters.sessionsResumed;
    out["sessions_lost"] = counters.sessionsLost;
    out["bytes_in_doubt"] = counters.bytesInDoubt;
    if (link_->state() == qlt::UartLink::State::Connected) {
      try {
        const auto facts = link_->linkInfo();
        out["att_mtu"] = facts.attMtu;
        out["max_write_length"] = facts.maxWriteLength;
        out["connection_interval_ms"] = facts.connectionIntervalMs;
        out["phy"] = facts.phy;
        out["data_length"] = facts.dataLength;
      } catch (const qlt::UartLink::Error&) {
        // dropped meanwhile: the state says so
      }
    }
    return out;
  }

 private:
  std::string device_;
  bool slidingWindow_ = true;
  std::unique_ptr<qlt::UartLink> link_;
};

// atexit: shut the gate (callbacks in progress finish), then end every open link, so that
// nothing of the library calls into the interpreter while it finishes.
void atExit() {
  Gate::instance().shut();
  py::gil_scoped_release released;
  std::lock_guard lock(linksMutex);
  for (Link* link : *openLinks) link->disconnectWithoutGil();
}

qlt::Data toData(const py::object& value) {
  if (py::isinstance<py::str>(value)) return qlt::Data::fromString(value.cast<std::string>());
  if (!PyObject_CheckBuffer(value.ptr())) {
    throw py::type_error("send() takes bytes, bytearray, memoryview or str, not " +
                         std::string(py::str(value.get_type().attr("__name__"))));
  }
  const py::buffer_info info = py::reinterpret_borrow<py::buffer>(value).request();
  return {static_cast<const uint8_t*>(info.ptr), static_cast<size_t>(info.size * info.itemsize)};
}

}  // namespace

py::bytes toBytes(const qlt::Data& data) {
  return {reinterpret_cast<const char*>(data.bytes()), data.size()};
}

std::string lower(std::string text) {
  for (char& c : text) c = static_cast<char>(std::tolower(static_cast<unsigned char>(c)));
  return text;
}

std::string lowerUUID(const qlt::UUID& uuid) { return lower(uuid.UUIDString()); }

std::optional<qlt::UUID> parseUUID(const std::string& text) {
  // "180d" and "0000180d" are short forms of the Bluetooth base UUID.
  if (text.size() == 4 || text.size() == 8) {
    const std::string full =
        std::string(8 - text.size(), '0') + text + "-0000-1000-8000-00805F9B34FB";
    return qlt::UUID::fromString(full);
  }
  return qlt::UUID::fromString(text);
}

}  // namespace quelt

PYBIND11_MODULE(_quelt, m) {
  using quelt::Device;
  using quelt::Link;
  using Reason = qlt::UartLink::Error::Reason;
  m.doc() = "QueltLibrary for Python: Bluetooth LE UART devices over a reliable stream.";

  quelt::errorBase = PyErr_NewExceptionWithDoc(
      "quelt.Error", "Base of every error of this package; str(e) is the library's message.",
      PyExc_Exception, nullptr);
  m.attr("Error") = py::handle(quelt::errorBase);
  const struct {
    Reason reason;
    const char* name;
    const char* doc;
  } errors[] = {
      {Reason::NotFound, "NotFound", "No device answering to the name was seen in time."},
      {Reason::ConnectFailed, "ConnectFailed", "The device was found but connecting failed."},
      {Reason::Unusable, "Unusable", "The device cannot carry the UART transport."},
      {Reason::LinkLost, "LinkLost", "The link dropped; data received before is read first."},
      {Reason::NotConnected, "NotConnected", "The link is not up (never connected, or closed)."},
      {Reason::NoAdapter, "NoAdapter", "The Bluetooth adapter asked for is not there."},
  };
  for (const auto& e : errors) {
    PyObject* cls = PyErr_NewExceptionWithDoc((std::string("quelt.") + e.name).c_str(), e.doc,
                                              quelt::errorBase, nullptr);
    quelt::errorByReason[e.reason] = cls;
    m.attr(e.name) = py::handle(cls);
  }
  static PyObject* unavailable = PyErr_NewExceptionWithDoc(
      "quelt.Unavailable", "Bluetooth is not there or did not come up.", quelt::errorBase, nullptr);
  m.attr("Unavailable") = py::handle(unavailable);
  // Plain pointers, not pybind11's exception objects: nothing to release at process exit.
  py::register_exception_translator([](std::exception_ptr p) {
    try {
      if (p) std::rethrow_exception(p);
    } catch (const qlt::UartLink::Error& e) {
      PyErr_SetString(quelt::errorByReason.at(e.reason()), e.what());
    } catch (const quelt::Unavailable& e) {
      PyErr_SetString(unavailable, e.what());
    }
  });

  py::enum_<qlt::UartLink::State>(m, "State", "The state of a UartLink.")
      .value("DISCONNECTED", qlt::UartLink::State::Disconnected)
      .value("CONNECTING", qlt::UartLink::State::Connecting)
      .value("CONNECTED", qlt::UartLink::State::Connected)
      .value("RECONNECTING", qlt::UartLink::State::Reconnecting)
      .value("LOST", qlt::UartLink::State::Lost)
      .def("__str__", [](qlt::UartLink::State s) { return qlt::toString(s); });

  py::class_<Device>(m, "Device", "A device seen by scan(), as its last advertisement showed it.")
      .def_readonly("identifier", &Device::identifier, "The platform's identifier (UUID text).")
      .def_readonly("address", &Device::address, "The Bluetooth address, when known.")
      .def_readonly("name", &Device::name, "The advertised name, or None.")
      .def_readonly("rssi", &Device::rssi, "Signal strength of the last advertisement, dBm.")
      .def_property_readonly(
          "manufacturer_data",
          [](const Device& d) { return quelt::manufacturerDict(d.advertisement.manufacturerData); },
          "Manufacturer data: {company id: bytes}.")
      .def_property_readonly(
          "service_uuids",
          [](const Device& d) {
            std::vector<std::string> out;
            for (const auto& u : d.advertisement.serviceUUIDs) out.push_back(quelt::lowerUUID(u));
            return out;
          },
          "Advertised service UUIDs (lower-case text).")
      .def_property_readonly(
          "service_data",
          [](const Device& d) { return quelt::serviceDataDict(d.advertisement.serviceData); },
          "Service data: {service UUID: bytes}.")
      .def_property_readonly(
          "tx_power", [](const Device& d) { return d.advertisement.txPowerLevel; },
          "Advertised TX power in dBm, or None.")
      .def_property_readonly("connectable",
                             [](const Device& d) { return d.advertisement.isConnectable; })
      .def("__repr__", [](const Device& d) {
        return "Device(" + (d.address ? *d.address : d.identifier) + ", " +
               (d.name ? "'" + *d.name + "'" : std::string("None")) + ", " +
               std::to_string(d.rssi) + " dBm)";
      });

  m.def("scan", &quelt::scan, py::arg("timeout") = 5.0, py::arg("name") = py::none(),
        py::arg("service") = py::none(),
        R"(Scans for `timeout` seconds and returns the devices seen, in the order first seen.

name: keep only devices whose name contains this text (any case).
service: keep only devices advertising this service UUID ("180d" or the full text).
Raises quelt.Unavailable when Bluetooth does not come up within the timeout.)");

  py::class_<Link>(m, "UartLink", R"(One connection to one UART-service device.

    with quelt.UartLink("QLT-Echo", timeout=5) as link:
        link.send(b"hello")
        print(link.read(timeout=5))

The device is a name, an identifier or a Bluetooth address. Nothing happens until
connect() (or `with`). The sliding window gives ordered, acknowledged delivery; with
sliding_window=False the plain 20-byte chunker that stock UART firmware speaks. With
reconnect=True a dropped link comes back by itself (state RECONNECTING meanwhile; after
reconnect_tries failed tries in a row, 0 for no limit, it is LOST). send_buffer bounds the
bytes the transport holds; adapter names a BlueZ adapter ("hci1"). Every blocking call
releases the GIL, and Ctrl-C interrupts it.)")
      .def(py::init<std::string, double, bool, bool, int, size_t, std::string>(), py::arg("device"),
           py::arg("timeout") = 5.0, py::arg("sliding_window") = true, py::arg("reconnect") = false,
           py::arg("reconnect_tries") = 0, py::arg("send_buffer") = 64 * 1024,
           py::arg("adapter") = "")
      .def("connect", &Link::connect,
           "Finds the device and connects (within the timeout). Raises NotFound, "
           "ConnectFailed or Unusable.")
      .def("disconnect", &Link::disconnect, "Ends the link; waiting calls return or raise.")
      .def("close", &Link::disconnect, "The same as disconnect().")
      .def("start_connect", &Link::startConnect,
           "Starts connecting and returns at once; state (and fileno()) follow the attempt.")
      .def("wait_until_connected", &Link::waitUntilConnected,
           "Returns once connected; raises as connect() does when the attempt failed.")
      .def(
          "send",
          [](Link& l, const py::object& value, std::optional<double> timeout) {
            return l.send(quelt::toData(value), timeout);
          },
          py::arg("data"), py::arg("timeout") = py::none(),
          R"(Hands bytes (or a str, as UTF-8) to the transport, waiting while the send buffer is
full: all of them (timeout None) or what fits within `timeout` seconds. Returns the count.
Raises LinkLost or NotConnected; while reconnecting it waits for the link.)")
      .def(
          "try_send",
          [](Link& l, const py::object& value) { return l.trySend(quelt::toData(value)); },
          py::arg("data"), "Takes what fits in the send buffer now; returns the count.")
      .def("flush", &Link::flush, py::arg("timeout") = py::none(),
           "Waits until the device has acknowledged every byte (chunker: written); False when "
           "`timeout` ran out. Raises LinkLost when the link drops with bytes outstanding.")
      .def_property_readonly("unacknowledged", &Link::unacknowledged,
                             "Bytes the transport still holds (queued or not acknowledged).")
      .def("fileno", &Link::fileno,
           "A descriptor readable while received bytes, a change of state or room after a "
           "short try_send wait; state, read(0) and try_send clear it. Never read or close it.")
      .def("read", &Link::read, py::arg("timeout") = py::none(),
           R"(Waits up to `timeout` seconds (None: without end) for received bytes and returns
all that have arrived, or b"" when none came in time. Raises LinkLost once the link is
lost and nothing received is left.)")
      .def("on_receive", &Link::onReceive, py::arg("callback"),
           "callback(data: bytes) receives the bytes instead of read(); None undoes it. It is "
           "called on a library thread with the GIL held, never under a library lock.")
      .def("on_state_change", &Link::onStateChange, py::arg("callback"),
           "callback(state: State, error: str) on every change of state; None undoes it.")
      .def_property_readonly("state", &Link::state, "The link's State.")
      .def_property_readonly("last_error", &Link::lastError,
                             "Why the last attempt failed or the link was lost; '' if nothing.")
      .def_property_readonly("device", &Link::device, "The device as given.")
      .def_property_readonly(
          "info", &Link::info,
          "What the link knows: state, transport, counters (drops, reconnects, bytes "
          "discarded) and, while connected, the link's facts (ATT MTU, largest write, ...).")
      .def("__enter__",
           [](Link& l) -> Link& {
             if (l.state() != qlt::UartLink::State::Connected) l.connect();
             return l;
           })
      .def("__exit__", [](Link& l, const py::args&) {
        l.disconnect();
        return false;
      });

  m.def(
      "use_backend",
      [](const std::string& name) {
        if (!qlt::platform::setBackendByName(name)) {
          throw py::value_error("no backend named '" + name + "'");
        }
      },
      py::arg("name"),
      "Chooses the platform backend ('sim' or 'bluez') before the first scan or link.");
  m.def("backends", &qlt::platform::availableBackends, "The names of the available backends.");

  quelt::bindSim(m.def_submodule("sim", "The simulated radio: devices, faults, power."));

  py::module_::import("atexit").attr("register")(py::cpp_function(&quelt::atExit));
}
