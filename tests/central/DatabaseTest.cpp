// QLT_Database: the known-peripheral store and its file, also when that file cannot be read
// or written: nothing already stored is lost, and no failure is reported as success.
#include <gtest/gtest.h>

#include <signal.h>
#include <sys/stat.h>
#include <sys/wait.h>
#include <unistd.h>

#include <filesystem>
#include <fstream>
#include <random>

#include <nlohmann/json.hpp>

#include "QueltLibrary/QLT_Database.h"
#include "QueltLibrary/QLT_Peripheral.h"
#include "support/FakePlatform.h"
#include "support/TestSupport.h"

using namespace qlt;
namespace fs = std::filesystem;
using Ids = std::vector<std::string>;

namespace {

class AStore : public ::testing::Test {
 protected:
  void SetUp() override { QLT_Database::setStorePath(path); }
  void TearDown() override { fs::remove_all(dir); }
  static std::shared_ptr<QLT_Peripheral> device() {
    return QLT_Peripheral::create(fake::FakePeripheral::create());
  }
  static std::string id(const std::shared_ptr<QLT_Peripheral>& p) {
    return p->basePeripheral()->identifier().UUIDString();
  }
  void writeFile(const std::string& text) {
    fs::create_directories(fs::path(path).parent_path());
    std::ofstream(path) << text;
  }
  Ids onDisk() {
    return nlohmann::json::parse(std::ifstream(path)).at("storedPeripheralIdentifiers").get<Ids>();
  }
  std::string dir = [] {
    char tmpl[] = "/tmp/qlt-store-XXXXXX";
    return std::string(mkdtemp(tmpl));
  }();
  std::string path = dir + "/sub/known-peripherals.json";
};

}  // namespace

TEST_F(AStore, KeepsEachPeripheralOnceInOrderAndPersistsOnlyOnSynchronizeExceptRemoveAll) {
  auto db = QLT_Database::create();
  EXPECT_TRUE(db->loadAll().empty());
  auto a = device(), b = device();
  EXPECT_TRUE(db->store(b) && db->store(a));
  EXPECT_FALSE(db->store(b));
  EXPECT_EQ(db->loadAll(), (std::vector<UUID>{b->basePeripheral()->identifier(),
                                              a->basePeripheral()->identifier()}));
  EXPECT_TRUE(QLT_Database::create()->loadAll().empty());
  ASSERT_TRUE(db->synchronize());
  EXPECT_EQ(QLT_Database::create()->storedPeripheralIdentifiers(), (Ids{id(b), id(a)}));
  EXPECT_EQ(onDisk(), (Ids{id(b), id(a)}));
  EXPECT_EQ(fs::status(path).permissions(), fs::perms::owner_read | fs::perms::owner_write);
  db->removeAll();
  EXPECT_TRUE(QLT_Database::create()->loadAll().empty());
}

TEST_F(AStore, RemovesOnlyAnExactMatchAndPassesOverAMalformedStoredIdentifier) {
  writeFile(R"({"storedPeripheralIdentifiers": ["6E400001-B5A3-F393-E0A9-E50E24DCCA9E", "x"]})");
  auto db = QLT_Database::create();
  EXPECT_EQ(db->loadAll(), std::vector<UUID>{QLT_UUID::uartServiceUUID()});
  EXPECT_FALSE(db->removePeripheralWithUUIDString("6e400001-b5a3-f393-e0a9-e50e24dcca9e"));
  EXPECT_TRUE(db->removePeripheralWithUUIDString("x"));
  EXPECT_FALSE(db->removePeripheralWithUUIDString("x"));
  EXPECT_EQ(db->storedPeripheralIdentifiers(), Ids{"6E400001-B5A3-F393-E0A9-E50E24DCCA9E"});
}

TEST_F(AStore, MovesADamagedFileAsideStartsEmptyAndStillSaves) {
  for (const std::string text : {"{\"storedPeripheralIdentifiers\": [\"A\",", "[1,2]",
                                 "{\"storedPeripheralIdentifiers\": 7}"}) {
    writeFile(text);
    auto db = QLT_Database::create();
    EXPECT_TRUE(db->storedPeripheralIdentifiers().empty()) << text;
    Ids aside;
    for (const auto& e : fs::directory_iterator(fs::path(path).parent_path())) {
      if (e.path().filename().string().starts_with("known-peripherals.json.damaged-"))
        aside.push_back(
            std::string(std::istreambuf_iterator<char>(std::ifstream(e.path()).rdbuf()), {}));
      fs::remove(e.path());
    }
    EXPECT_EQ(aside, Ids{text});
    auto a = device();
    db->store(a);
    ASSERT_TRUE(db->synchronize()) << text;
    EXPECT_EQ(onDisk(), Ids{id(a)}) << text;
  }
}

TEST_F(AStore, FollowsTheEnvironmentWhenNoPathIsSet) {
  unsetenv("QLT_STORE_PATH");  // the test's process is its own: nothing to restore
  setenv("XDG_CONFIG_HOME", dir.c_str(), 1);
  QLT_Database::setStorePath("");  // empty: back to the default, like none
  EXPECT_EQ(QLT_Database::storePath(), dir + "/QueltLibrary/known-peripherals.json");
  setenv("QLT_STORE_PATH", path.c_str(), 1);
  EXPECT_EQ(QLT_Database::storePath(), path);
  unsetenv("QLT_STORE_PATH");
}

// A writer killed at any moment leaves the old list or the new one, never a broken file,
// and the store goes on working afterwards.
TEST_F(AStore, SurvivesAWriterKilledAtRandomMomentsDuringSynchronize) {
  auto db = QLT_Database::create();
  std::vector<std::shared_ptr<QLT_Peripheral>> devices(40);
  for (auto& d : devices) db->store(d = device());
  ASSERT_TRUE(db->synchronize());
  const Ids full = db->storedPeripheralIdentifiers(), shorter(full.begin(), full.begin() + 7);
  std::mt19937 rng(20240611);
  for (int round = 0; round < 220; ++round) {
    const pid_t child = fork();
    ASSERT_GE(child, 0);
    for (unsigned i = 0; child == 0; ++i) {  // alternate the two lists until killed
      for (size_t k = shorter.size(); k < full.size(); ++k)
        i % 2 ? (void)db->store(devices[k]) : (void)db->removePeripheralWithUUIDString(full[k]);
      db->synchronize();
    }
    usleep(std::uniform_int_distribution<useconds_t>(0, 4000)(rng));
    kill(child, SIGKILL);
    int status = 0;
    waitpid(child, &status, 0);
    ASSERT_TRUE(WIFSIGNALED(status));
    Ids now;
    ASSERT_NO_THROW(now = onDisk()) << "round " << round;
    ASSERT_TRUE(now == full || now == shorter) << "round " << round << ": " << now.size();
  }
  // Still works: a fresh store reads a whole list, and its next save is what the next reads.
  auto after = QLT_Database::create();
  EXPECT_TRUE(after->storedPeripheralIdentifiers() == full ||
              after->storedPeripheralIdentifiers() == shorter);
  auto extra = device();
  after->store(extra);
  ASSERT_TRUE(after->synchronize());
  EXPECT_EQ(QLT_Database::create()->storedPeripheralIdentifiers().back(), id(extra));
}

// Each way a store's file can fail; the store must refuse to write and say why, and must
// leave whatever is at the path as it was.
TEST_F(AStore, RefusesToWriteWhenItsFileFailsAndSaysWhy) {
  fs::create_directories(dir + "/known.json");  // a file that cannot be read: a directory
  std::ofstream(dir + "/known.json/keep") << "precious";
  std::ofstream(dir + "/notadir") << "precious";  // a directory that cannot be made: a file
  for (const auto& [at, reason] : {std::pair{"/known.json", "cannot read"},
                                   std::pair{"/notadir/known.json", "cannot create"}}) {
    SCOPED_TRACE(at);
    QLT_Database::setStorePath(dir + at);
    const auto store = QLT_Database::create();
    ASSERT_TRUE(store->store(device()));
    EXPECT_FALSE(store->synchronize());
    EXPECT_NE(store->lastError().find(reason), std::string::npos) << store->lastError();
    EXPECT_FALSE(store->removeAll());
    EXPECT_NE(store->lastError().find(reason), std::string::npos) << store->lastError();
  }
  // Nothing that was there is gone or moved aside.
  EXPECT_EQ(
      std::string(std::istreambuf_iterator<char>(std::ifstream(dir + "/known.json/keep").rdbuf()),
                  {}),
      "precious");
  EXPECT_TRUE(fs::is_regular_file(dir + "/notadir"));
  for (const auto& e : fs::directory_iterator(dir))
    EXPECT_EQ(e.path().filename().string().find("damaged"), std::string::npos) << e.path();
}

TEST_F(AStore, RemovesOnlyTheTemporaryFilesOfWritersThatHaveEnded) {
  fs::create_directories(fs::path(path).parent_path());
  const pid_t dead = fork();
  if (dead == 0) _exit(0);
  ASSERT_GT(dead, 0);
  waitpid(dead, nullptr, 0);  // reaped: that process id names nobody now
  const std::string ofDead = path + ".tmp-" + std::to_string(dead) + "-3";
  const std::string ofLiving = path + ".tmp-" + std::to_string(getppid()) + "-0";
  const std::string unrelated = path + ".tmp-notapid";
  for (const auto& f : {ofDead, ofLiving, unrelated}) std::ofstream(f) << "{";
  ASSERT_TRUE(QLT_Database::create()->synchronize());
  EXPECT_FALSE(fs::exists(ofDead));
  EXPECT_TRUE(fs::exists(ofLiving));
  EXPECT_TRUE(fs::exists(unrelated));
}
