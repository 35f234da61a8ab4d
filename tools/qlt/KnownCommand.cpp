// qlt known: the known-device store (list, add, remove, clear).

#include <CLI/CLI.hpp>
#include <memory>

#include "Commands.h"
#include "Errors.h"
#include "LogRouting.h"
#include "QueltLibrary/QLT_Database.h"
#include "QueltLibrary/QLT_Peripheral.h"
#include "QueltLibrary/UUID.h"
#include "Session.h"
#include "Terminal.h"

namespace qlt::cli {
namespace {

struct KnownOptions {
  CommonOptions common;
  std::string device;  // add
  std::string id;      // remove
  double timeoutS = 5.0;
};

int runList(const KnownOptions& o) {
  routeLibraryLog(o.common.verbose, o.common.logFile);
  const auto store = QLT_Database::create();
  const auto ids = store->loadAll();
  for (const auto& id : ids) printLine(id.UUIDString());
  if (ids.empty() && stdoutIsTerminal()) printLine("(no known devices)");
  return kExitOk;
}

int runAdd(const KnownOptions& o) {
  Session session(o.common);
  session.powerOn(5.0);
  const auto peripheral = session.find(o.device, o.timeoutS);
  const auto store = QLT_Database::create();
  const std::string id = peripheral->basePeripheral()->identifier().UUIDString();
  const std::string name = peripheral->name().value_or("");
  if (!store->store(peripheral)) {
    printLine(id + " (" + name + ") is already known");
    return kExitOk;
  }
  store->synchronize();
  printLine("added " + id + (name.empty() ? "" : " (" + name + ")"));
  return kExitOk;
}

int runRemove(const KnownOptions& o) {
  routeLibraryLog(o.common.verbose, o.common.logFile);
  const auto uuid = UUID::fromString(o.id);
  if (!uuid) throw UsageError("'" + o.id + "' is not a device identifier (expected a UUID)");
  const auto store = QLT_Database::create();
  // Identifiers are stored in upper case; accept any case from people.
  if (!store->removePeripheralWithUUIDString(uuid->UUIDString()))
    throw Failure(uuid->UUIDString() + " is not a known device");
  store->synchronize();
  printLine("removed " + uuid->UUIDString());
  return kExitOk;
}

int runClear(const KnownOptions& o) {
  routeLibraryLog(o.common.verbose, o.common.logFile);
  const auto store = QLT_Database::create();
  const size_t count = store->loadAll().size();
  store->removeAll();
  printLine("forgot " + std::to_string(count) + " device(s)");
  return kExitOk;
}

}  // namespace

CommandAction addKnownCommand(CLI::App& app) {
  auto o = std::make_shared<KnownOptions>();
  auto* cmd = app.add_subcommand(
      "known",
      "The known-device store: identifiers remembered across runs, for reconnecting "
      "without a scan (the store is the file $QLT_STORE_PATH, else "
      "~/.config/QueltLibrary/known-peripherals.json)");
  cmd->require_subcommand(1, 1);
  cmd->footer(
      "Examples:\n"
      "  qlt known add QLT-Echo       remember the device named QLT-Echo\n"
      "  qlt known list               one identifier per line\n"
      "  qlt known remove 51D0E001-0000-4000-8000-0000000000E1\n"
      "  qlt known clear");

  auto which = std::make_shared<int>(0);
  auto* list =
      cmd->add_subcommand("list", "Print the known identifiers, one per line, oldest first");
  addCommonOptions(*list, o->common, false);
  list->callback([which] { *which = 1; });

  auto* add = cmd->add_subcommand("add", "Find DEVICE (identifier or name) and remember it");
  add->add_option("DEVICE", o->device, "Device identifier (UUID) or name")->required();
  add->add_option("--timeout", o->timeoutS, "Seconds to find the device")->capture_default_str();
  addCommonOptions(*add, o->common, false);
  add->callback([which] { *which = 2; });

  auto* remove = cmd->add_subcommand("remove", "Forget the device with identifier ID");
  remove->add_option("ID", o->id, "Device identifier (UUID, any case)")->required();
  addCommonOptions(*remove, o->common, false);
  remove->callback([which] { *which = 3; });

  auto* clear = cmd->add_subcommand("clear", "Forget every known device");
  addCommonOptions(*clear, o->common, false);
  clear->callback([which] { *which = 4; });

  return [o, which] {
    switch (*which) {
      case 1:
        return runList(*o);
      case 2:
        return runAdd(*o);
      case 3:
        return runRemove(*o);
      case 4:
        return runClear(*o);
    }
    return static_cast<int>(kExitUsage);
  };
}

}  // namespace qlt::cli
