#include "QueltLibrary/QLT_Database.h"

#include <fcntl.h>
#include <pwd.h>
#include <signal.h>
#include <sys/stat.h>
#include <unistd.h>

#include <algorithm>
#include <atomic>
#include <cerrno>
#include <chrono>
#include <cstdlib>
#include <cstring>
#include <ctime>
#include <filesystem>
#include <fstream>
#include <sstream>
#include <system_error>

#include <nlohmann/json.hpp>

#include "QueltLibrary/Log.h"
#include "QueltLibrary/QLT_Peripheral.h"

namespace qlt {

namespace {

std::mutex& pathMutex() {
  static std::mutex m;
  return m;
}
std::optional<std::string>& pathOverride() {  // guarded by pathMutex()
  static std::optional<std::string> p;
  return p;
}

std::string directoryOf(const std::string& path) {
  const auto slash = path.find_last_of('/');
  if (slash == std::string::npos) return ".";
  if (slash == 0) return "/";
  return path.substr(0, slash);
}

// mkdir -p with mode 0700 for the directories it creates.
bool makeDirectories(const std::string& dir) {
  if (dir.empty() || dir == "/" || dir == ".") return true;
  struct stat st {};
  if (stat(dir.c_str(), &st) == 0) return S_ISDIR(st.st_mode);
  if (!makeDirectories(directoryOf(dir))) return false;
  return mkdir(dir.c_str(), 0700) == 0 || errno == EEXIST;
}

std::string timestamp() {
  const auto now = std::chrono::system_clock::now();
  const std::time_t t = std::chrono::system_clock::to_time_t(now);
  const auto ms =
      std::chrono::duration_cast<std::chrono::milliseconds>(now.time_since_epoch()).count() % 1000;
  std::tm tm{};
  localtime_r(&t, &tm);
  char buf[32];
  std::strftime(buf, sizeof buf, "%Y%m%dT%H%M%S", &tm);
  char out[48];
  std::snprintf(out, sizeof out, "%s.%03lld", buf, static_cast<long long>(ms));
  return out;
}

void moveAside(const std::string& path, const std::string& why) {
  const std::string aside = path + ".damaged-" + timestamp();
  if (std::rename(path.c_str(), aside.c_str()) == 0) {
    QLTLog(
        "QLT_Database : %@ is damaged (%@); starting with an empty store, the file is kept as %@",
        path, why, aside);
  } else {
    QLTLog(
        "QLT_Database : %@ is damaged (%@); starting with an empty store (could not move it aside: "
        "%@)",
        path, why, std::generic_category().message(errno));
  }
}

// Reads the list. A file that exists but cannot be read (permissions, an I/O error while
// opening) sets `unreadable` to the reason: it is not damaged, and must not be replaced.
std::vector<std::string> readStore(const std::string& path, std::string& unreadable) {
  const int fd = ::open(path.c_str(), O_RDONLY | O_CLOEXEC);
  if (fd < 0 && (errno == ENOENT || errno == ENOTDIR)) return {};  // nothing there yet
  std::string text;
  int error = fd < 0 ? errno : 0;
  while (fd >= 0 && error == 0) {
    char chunk[4096];
    const ssize_t n = ::read(fd, chunk, sizeof chunk);
    if (n > 0) {
      text.append(chunk, static_cast<size_t>(n));
    } else if (n == 0) {
      break;
    } else if (errno != EINTR) {
      error = errno;
    }
  }
  if (fd >= 0) ::close(fd);
  if (error != 0) {
    unreadable = "cannot read " + path + " (" + std::generic_category().message(error) + ")";
    QLTLog("QLT_Database : %@; the store stays empty and the file will not be replaced",
           unreadable);
    return {};
  }
  nlohmann::json doc = nlohmann::json::parse(text, nullptr, /*allow_exceptions=*/false);
  if (doc.is_discarded() || !doc.is_object()) {
    moveAside(path, "not a JSON object");
    return {};
  }
  auto it = doc.find(QLT_Database::kStoreKey);
  if (it == doc.end()) return {};
  if (!it->is_array()) {
    moveAside(path, std::string("\"") + QLT_Database::kStoreKey + "\" is not an array");
    return {};
  }
  std::vector<std::string> list;
  for (const auto& e : *it) {
    if (e.is_string()) {
      list.push_back(e.get<std::string>());
    } else {
      QLTLog("QLT_Database : passing over a stored entry that is not a string : %@", e.dump());
    }
  }
  return list;
}

// Removes "<name>.tmp-PID-N" files left by writers that died during synchronize().
void removeStaleTemporaries(const std::string& path) {
  const std::string dir = directoryOf(path);
  const std::string prefix = path.substr(path.find_last_of('/') + 1) + ".tmp-";
  std::error_code ec;
  for (std::filesystem::directory_iterator it(dir, ec), last; !ec && it != last; it.increment(ec)) {
    const std::string name = it->path().filename().string();
    if (name.rfind(prefix, 0) != 0) continue;
    char* end = nullptr;
    const long pid = std::strtol(name.c_str() + prefix.size(), &end, 10);
    if (pid <= 0 || !end || *end != '-') continue;
    if (pid == getpid() || ::kill(static_cast<pid_t>(pid), 0) == 0 || errno != ESRCH) continue;
    std::string stale = dir;
    stale += '/';
    stale += name;
    if (::unlink(stale.c_str()) == 0)
      QLTLog("QLT_Database : removed %@, left by a writer that has ended", stale);
  }
}

bool writeAll(int fd, const std::string& text) {
  size_t done = 0;
  while (done < text.size()) {
    const ssize_t n = ::write(fd, text.data() + done, text.size() - done);
    if (n < 0) {
      if (errno == EINTR) continue;
      return false;
    }
    done += static_cast<size_t>(n);
  }
  return true;
}

}  // namespace

QLT_Database::QLT_Database() : QLT_Object("QLT_Database") {}

std::shared_ptr<QLT_Database> QLT_Database::create() {
  auto db = std::shared_ptr<QLT_Database>(new QLT_Database());
  std::string unreadable;
  auto list = readStore(storePath(), unreadable);
  std::lock_guard lock(db->mutex_);
  db->storedPeripheralIdentifiers_ = std::move(list);
  db->lastError_ = unreadable;
  db->unreadable_ = std::move(unreadable);
  return db;
}

std::string QLT_Database::storePath() {
  {
    std::lock_guard lock(pathMutex());
    if (pathOverride()) return *pathOverride();
  }
  // The environment is read, never changed, by the library: getenv does not race here.
  // NOLINTNEXTLINE(concurrency-mt-unsafe): see above
  if (const char* p = std::getenv("QLT_STORE_PATH"); p && *p) return p;
  const std::string tail = "/QueltLibrary/known-peripherals.json";
  // NOLINTNEXTLINE(concurrency-mt-unsafe): see above
  if (const char* xdg = std::getenv("XDG_CONFIG_HOME"); xdg && *xdg == '/') return xdg + tail;
  const char* home = std::getenv("HOME");  // NOLINT(concurrency-mt-unsafe): see above
  if (!home || !*home) {
    // NOLINTNEXTLINE(concurrency-mt-unsafe): only without HOME; nothing else here calls it
    if (const passwd* pw = getpwuid(getuid())) home = pw->pw_dir;
  }
  return std::string(home ? home : ".") + "/.config" + tail;
}

void QLT_Database::setStorePath(std::optional<std::string> path) {
  std::lock_guard lock(pathMutex());
  if (path && path->empty()) path.reset();
  pathOverride() = std::move(path);
}

bool QLT_Database::store(const std::shared_ptr<QLT_Peripheral>& peripheral) {
  if (!peripheral || !peripheral->basePeripheral()) return false;
  const std::string id = peripheral->basePeripheral()->identifier().UUIDString();
  std::lock_guard lock(mutex_);
  auto& list = storedPeripheralIdentifiers_;
  if (std::find(list.begin(), list.end(), id) != list.end()) return false;
  list.push_back(id);
  return true;
}

std::vector<UUID> QLT_Database::loadAll() const {
  const auto list = storedPeripheralIdentifiers();
  std::vector<UUID> result;
  result.reserve(list.size());
  for (const auto& s : list) {
    auto uuid = s.size() == 36 ? UUID::fromString(s) : std::nullopt;
    if (uuid) {
      result.push_back(*uuid);
    } else {
      QLTLog("QLT_Database : passing over a stored identifier that is not a UUID : \"%@\"", s);
    }
  }
  return result;
}

bool QLT_Database::removePeripheralWithUUIDString(const std::string& uuidString) {
  std::lock_guard lock(mutex_);
  auto& list = storedPeripheralIdentifiers_;
  auto it = std::find(list.begin(), list.end(), uuidString);
  if (it == list.end()) return false;
  list.erase(it);
  return true;
}

bool QLT_Database::removeAll() {
  {
    std::lock_guard lock(mutex_);
    storedPeripheralIdentifiers_.clear();
  }
  return synchronize();
}

std::string QLT_Database::lastError() const {
  std::lock_guard lock(mutex_);
  return lastError_;
}

bool QLT_Database::fail(std::string why) {
  QLTLog("QLT_Database : %@", why);
  std::lock_guard lock(mutex_);
  lastError_ = std::move(why);
  return false;
}

std::vector<std::string> QLT_Database::storedPeripheralIdentifiers() const {
  std::lock_guard lock(mutex_);
  return storedPeripheralIdentifiers_;
}

bool QLT_Database::synchronize() {
  nlohmann::json doc = nlohmann::json::object();
  std::string unreadable;
  {
    std::lock_guard lock(mutex_);
    doc[kStoreKey] = storedPeripheralIdentifiers_;
    unreadable = unreadable_;
    lastError_.clear();
  }
  if (!unreadable.empty()) return fail(unreadable + "; not replacing a file that was not read");
  const std::string text = doc.dump(2) + "\n";

  const std::string path = storePath();
  const std::string dir = directoryOf(path);
  if (!makeDirectories(dir)) {
    return fail("cannot create " + dir + " (" + std::generic_category().message(errno) + ")");
  }
  removeStaleTemporaries(path);
  static std::atomic<unsigned> counter{0};
  const std::string tmp =
      path + ".tmp-" + std::to_string(getpid()) + "-" + std::to_string(counter++);
  const int fd = ::open(tmp.c_str(), O_WRONLY | O_CREAT | O_EXCL | O_CLOEXEC, 0600);
  if (fd < 0)
    return fail("cannot write " + tmp + " (" + std::generic_category().message(errno) + ")");
  bool ok = ::fchmod(fd, 0600) == 0 && writeAll(fd, text) && ::fsync(fd) == 0;
  const int savedErrno = errno;
  ok = (::close(fd) == 0) && ok;
  if (!ok || std::rename(tmp.c_str(), path.c_str()) != 0) {
    const int why = ok ? errno : savedErrno;
    ::unlink(tmp.c_str());
    return fail("cannot save " + path + " (" + std::generic_category().message(why) + ")");
  }
  // Make the rename itself durable.
  const int dfd = ::open(dir.c_str(), O_RDONLY | O_DIRECTORY | O_CLOEXEC);
  if (dfd >= 0) {
    ::fsync(dfd);
    ::close(dfd);
  }
  return true;
}

}  // namespace qlt
