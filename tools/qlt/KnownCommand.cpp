// qlt known: the known-device store (list, add, remove, clear).

#include <fcntl.h>
#include <sys/file.h>
#include <unistd.h>

#include <CLI/CLI.hpp>
#include <cerrno>
#include <cstring>
#include <filesystem>
#include <memory>
#include <system_error>

#include "Commands.h"
#include "Errors.h"
#include "LogRouting.h"
#include "Numbers.h"
#include "QueltLibrary/QLT_Database.h"
#include "QueltLibrary/QLT_Peripheral.h"
#include "QueltLibrary/UUID.h"
#include "Session.h"
#include "Terminal.h"
#include "Waiter.h"

namespace qlt::cli {
namespace {

struct KnownOptions {
  CommonOptions common;
  std::string device;  // add
  std::string id;      // remove
  double timeoutS = 5.0;
};

// Holds an advisory lock (flock) on "<store>.lock" while a command reads, changes and
// writes the store, so that concurrent qlt processes do not lose each other's changes.
class StoreLock {
 public:
  StoreLock() {
    const std::string path = QLT_Database::storePath() + ".lock";
    std::error_code ec;
    std::filesystem::create_directories(std::filesystem::path(path).parent_path(), ec);
    fd_ = ::open(path.c_str(), O_RDWR | O_CREAT | O_CLOEXEC, 0600);
    if (fd_ < 0)
      throw Failure("cannot lock the known-device store '" + path +
                    "': " + std::generic_category().message(errno));
    while (::flock(fd_, LOCK_EX) != 0) {
      if (errno == EINTR && !interruptRequested()) continue;
      const int e = errno;
      ::close(fd_);
      throw Failure("cannot lock the known-device store '" + path +
                    "': " + std::generic_category().message(e));
    }
  }
  ~StoreLock() { ::close(fd_); }  // closing releases the lock
  StoreLock(const StoreLock&) = delete;
  StoreLock& operator=(const StoreLock&) = delete;

 private:
  int fd_ = -1;
};

// The store as it is on disk; throws Failure when the file exists but cannot be read.
std::shared_ptr<QLT_Database> openStore() {
  auto store = QLT_Database::create();
  if (const std::string error = store->lastError(); !error.empty())
    throw Failure("the known-device store: " + error);
  return store;
}

void save(QLT_Database& store) {
  if (!store.synchronize())
    throw Failure("the known-device store was not changed: " + store.lastError());
}

int runList(const KnownOptions& o) {
  routeLibraryLog(o.common.verbose, o.common.logFile);
  const auto ids = openStore()->loadAll();
  for (const auto& id : ids) printLine(id.UUIDString());
  if (ids.empty() && stdoutIsTerminal()) printError("(no known devices)");
  return kExitOk;
}

int runAdd(const KnownOptions& o) {
  Session session(o.common);
  session.powerOn(5.0);
  const auto peripheral = session.find(o.device, o.timeoutS);
  const std::string id = peripheral->basePeripheral()->identifier().UUIDString();
  const std::string name = displayText(peripheral->name().value_or(""));
  StoreLock lock;
  const auto store = openStore();
  if (!store->store(peripheral)) {
    printLine(id + " (" + name + ") is already known");
    return kExitOk;
  }
  save(*store);
  printLine("added " + id + (name.empty() ? "" : " (" + name + ")"));
  return kExitOk;
}

int runRemove(const KnownOptions& o) {
  routeLibraryLog(o.common.verbose, o.common.logFile);
  const auto uuid = UUID::fromString(o.id);
  if (!uuid) throw UsageError("'" + o.id + "' is not a device identifier (expected a UUID)");
  StoreLock lock;
  const auto store = openStore();
  // Identifiers are stored in upper case; accept any case from people.
  if (!store->removePeripheralWithUUIDString(uuid->UUIDString()))
    throw Failure(uuid->UUIDString() + " is not a known device");
  save(*store);
  printLine("removed " + uuid->UUIDString());
  return kExitOk;
}

int runClear(const KnownOptions& o) {
  routeLibraryLog(o.common.verbose, o.common.logFile);
  StoreLock lock;
  const auto store = openStore();
  const size_t count = store->loadAll().size();
  if (!store->removeAll())
    throw Failure("the known-device store was not changed: " + store->lastError());
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
  list->callback([which, o] {
    *which = 1;
    o->common.command = "known list";
  });

  auto* add =
      cmd->add_subcommand("add", "Find DEVICE (name, identifier or address) and remember it");
  add->add_option("DEVICE", o->device, kDeviceHelp)->required();
  addNumberOption(*add, "--timeout", o->timeoutS, "Seconds to find the device", 0.1, 600,
                  "a number of seconds")
      ->default_str("5");
  addCommonOptions(*add, o->common, false);
  add->callback([which, o] {
    *which = 2;
    o->common.command = "known add";
  });

  auto* remove = cmd->add_subcommand("remove", "Forget the device with identifier ID");
  remove->add_option("ID", o->id, "Device identifier (UUID, any case)")->required();
  addCommonOptions(*remove, o->common, false);
  remove->callback([which, o] {
    *which = 3;
    o->common.command = "known remove";
  });

  auto* clear = cmd->add_subcommand("clear", "Forget every known device");
  addCommonOptions(*clear, o->common, false);
  clear->callback([which, o] {
    *which = 4;
    o->common.command = "known clear";
  });

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
