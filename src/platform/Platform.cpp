// The backend registry: which platform backend the library runs on.
#include "QueltLibrary/platform/Platform.h"

#include <chrono>
#include <cstdlib>
#include <mutex>

#include "QueltLibrary/Log.h"
#include "QueltLibrary/sim/SimRadio.h"

// QLT_HAVE_BLUEZ is set when sdbus-c++ was found and the BlueZ backend is built.
#if defined(QLT_HAVE_BLUEZ)
#define QLT_REGISTRY_HAS_BLUEZ 1
#include "platform/bluez/BluezBackend.h"
#include "platform/bluez/BluezProbe.h"
#endif

namespace qlt::platform {

namespace {

std::mutex gMutex;
std::shared_ptr<Backend> gBackend;  // guarded by gMutex

std::string joined(const std::vector<std::string>& names) {
  std::string text;
  for (const auto& name : names) text += (text.empty() ? "" : ", ") + name;
  return text;
}

// A built-in backend by name, or null.
std::shared_ptr<Backend> makeBuiltin(const std::string& name) {
  if (name == "sim") return sim::SimRadio::shared()->backend();
#ifdef QLT_REGISTRY_HAS_BLUEZ
  if (name == "bluez") return bluez::makeBackend();
#endif
  return nullptr;
}

// With no choice made: BlueZ where a bluetoothd with an adapter answers, so that a program
// on a machine with Bluetooth talks to real devices; the simulated radio elsewhere.
std::shared_ptr<Backend> probedDefault() {
#ifdef QLT_REGISTRY_HAS_BLUEZ
  std::string why;
  if (bluez::bluetoothdWithAdapterAnswers(std::chrono::seconds(1), &why)) {
    QLTLog("Platform: bluez: %s (QLT_PLATFORM=sim for the simulated radio)", why);
    return makeBuiltin("bluez");
  }
  QLTLog("Platform: sim, the simulated radio: %s", why);
#else
  QLTLog("Platform: sim, the simulated radio (this build has no BlueZ backend)");
#endif
  return makeBuiltin("sim");
}

}  // namespace

std::vector<std::string> availableBackends() {
  std::vector<std::string> names{"sim"};
#ifdef QLT_REGISTRY_HAS_BLUEZ
  names.push_back("bluez");
#endif
  return names;
}

void setBackend(std::shared_ptr<Backend> backend) {
  std::lock_guard lock(gMutex);
  gBackend = std::move(backend);
}

bool setBackendByName(const std::string& name) {
  auto backend = makeBuiltin(name);
  if (!backend) {
    QLTLog("Unknown platform backend \"%s\" (available: %s)", name, joined(availableBackends()));
    return false;
  }
  setBackend(std::move(backend));
  return true;
}

std::shared_ptr<Backend> currentBackend() {
  {
    std::lock_guard lock(gMutex);
    if (gBackend) return gBackend;
  }
  std::shared_ptr<Backend> chosen;
  // NOLINTNEXTLINE(concurrency-mt-unsafe): the library reads the environment, never changes it
  const char* env = std::getenv("QLT_PLATFORM");
  if (env && *env) {
    chosen = makeBuiltin(env);
    if (!chosen) {
      QLTLog("Unknown platform backend \"%s\" in QLT_PLATFORM (available: %s); using \"sim\"", env,
             joined(availableBackends()));
    }
  }
  if (!chosen) chosen = env && *env ? makeBuiltin("sim") : probedDefault();
  std::lock_guard lock(gMutex);
  if (!gBackend) gBackend = std::move(chosen);  // a concurrent first choice wins once
  return gBackend;
}

}  // namespace qlt::platform
