// QLT_Database: the store of known peripheral identifiers.
//
// An ordered list of identifier strings (upper-case UUID text, as
// platform::Peripheral::identifier().UUIDString() gives them), kept under the key
// "storedPeripheralIdentifiers" in a per-user JSON file:
//
//   {"storedPeripheralIdentifiers": ["6E400001-...", ...]}
//
// The file is $QLT_STORE_PATH when set; else $XDG_CONFIG_HOME/QueltLibrary/
// known-peripherals.json; else ~/.config/QueltLibrary/known-peripherals.json.
// setStorePath() overrides all three (tests, applications with their own layout).
//
// Each instance reads the file once, when made, and works on its own copy: store() and
// removePeripheralWithUUIDString() change only the copy; synchronize() writes the whole
// list; removeAll() empties it and writes at once.
//
// Crash safety: synchronize() writes a temporary file in the same directory, flushes it
// to disk, renames it over the old file and flushes the directory, so a crash at any
// moment leaves either the old list or the new one. The file is readable and writable by
// its owner only (0600). A file that cannot be parsed gives an empty store and a log line,
// and is renamed to "<name>.damaged-<timestamp>" so that it is kept, not overwritten by
// the next synchronize(). A file that exists but cannot be read (no permission, an I/O
// error) is not damaged: the store starts empty, and synchronize() refuses to replace the
// file (false, with the reason in lastError()). Temporary files left by writers that died
// during synchronize() ("<name>.tmp-PID-N" of a process that no longer exists) are removed
// by the next synchronize().
//
// Thread safety: every member may be called from any thread (one lock per instance).
//
// Several writers: last synchronize wins. Two instances, or two processes, do not see each
// other's changes: each writes its whole list, so of two read-modify-write cycles that
// overlap, the one that synchronizes last wins and the other's change is lost. The file
// is never torn, but entries can be. Processes that change the store concurrently take a
// lock of their own around create() ... synchronize() (the qlt tool holds an advisory
// flock(2) on "<name>.lock").
#pragma once

#include <memory>
#include <mutex>
#include <optional>
#include <string>
#include <vector>

#include "QueltLibrary/Export.h"
#include "QueltLibrary/QLT_Object.h"
#include "QueltLibrary/UUID.h"

namespace qlt {

class QLT_Peripheral;

class QLT_EXPORT QLT_Database : public QLT_Object {
 public:
  static constexpr const char* kStoreKey = "storedPeripheralIdentifiers";

  // init: a store holding the persisted list.
  static std::shared_ptr<QLT_Database> create();

  // The file the store uses (see the header comment), and an override for it (empty
  // restores the default).
  static std::string storePath();
  static void setStorePath(std::optional<std::string> path);

  // Adds the peripheral's identifier at the end: true if added, false if already there
  // (or the peripheral has no platform peripheral). Not persisted until synchronize().
  bool store(const std::shared_ptr<QLT_Peripheral>& peripheral);
  // One UUID per stored identifier, in list order. A stored string that is not an
  // identifier is logged and passed over; the list itself is left unchanged.
  std::vector<UUID> loadAll() const;
  // Removes the first entry equal to `uuidString` (exact, case-sensitive): true if one was
  // removed. Not persisted until synchronize().
  bool removePeripheralWithUUIDString(const std::string& uuidString);
  // Empties the list and persists at once; false as synchronize().
  bool removeAll();
  // Writes the whole list to the file (crash-safe); false on failure, with a log line and
  // the reason in lastError().
  bool synchronize();
  // Why the last synchronize() failed, in words ("cannot save /x/y.json (No space left on
  // device)"); empty after a success. Before any synchronize(), why the file could not be
  // read when the store was made (empty when it was read, or did not exist).
  std::string lastError() const;

  // The stored strings, in order.
  std::vector<std::string> storedPeripheralIdentifiers() const;

 private:
  QLT_Database();
  bool fail(std::string why);  // logs, records lastError(), returns false

  mutable std::mutex mutex_;
  std::vector<std::string> storedPeripheralIdentifiers_;  // guarded by mutex_
  std::string unreadable_;  // guarded by mutex_: why the file could not be read, if so
  std::string lastError_;   // guarded by mutex_
};

}  // namespace qlt
