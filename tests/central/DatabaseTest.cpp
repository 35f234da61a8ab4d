// QLT_Database: the known-peripheral store and its file.
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
  void SetUp() override {
    char tmpl[] = "/tmp/qlt-store-XXXXXX";
    dir = mkdtemp(tmpl);
    path = dir + "/sub/known-peripherals.json";
    QLT_Database::setStorePath(path);
  }
  void TearDown() override {
    QLT_Database::setStorePath(std::nullopt);
    fs::remove_all(dir);
  }
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
    std::ifstream in(path);
    return nlohmann::json::parse(in).at("storedPeripheralIdentifiers").get<Ids>();
  }

  std::string dir, path;
};

}  // namespace

TEST_F(AStore, KeepsEachPeripheralOnceInOrderAndPersistsOnlyOnSynchronizeExceptRemoveAll) {
  auto db = QLT_Database::create();
  EXPECT_TRUE(db->loadAll().empty());
  auto a = device(), b = device();
  EXPECT_TRUE(db->store(b));
  EXPECT_TRUE(db->store(a));
  EXPECT_FALSE(db->store(b));
  EXPECT_EQ(db->storedPeripheralIdentifiers(), (Ids{id(b), id(a)}));
  EXPECT_EQ(db->loadAll(), (std::vector<UUID>{b->basePeripheral()->identifier(),
                                              a->basePeripheral()->identifier()}));
  EXPECT_TRUE(QLT_Database::create()->loadAll().empty());
  ASSERT_TRUE(db->synchronize());
  EXPECT_EQ(QLT_Database::create()->storedPeripheralIdentifiers(), (Ids{id(b), id(a)}));
  EXPECT_EQ(onDisk(), (Ids{id(b), id(a)}));
  struct stat st {};
  ASSERT_EQ(stat(path.c_str(), &st), 0);
  EXPECT_EQ(st.st_mode & 0777, 0600u);
  db->removeAll();
  EXPECT_TRUE(QLT_Database::create()->loadAll().empty());
}

TEST_F(AStore, RemovesOnlyAnExactMatchAndPassesOverAMalformedStoredIdentifier) {
  writeFile(R"({"storedPeripheralIdentifiers": ["6E400001-B5A3-F393-E0A9-E50E24DCCA9E", "x"]})");
  auto db = QLT_Database::create();
  EXPECT_EQ(db->loadAll(), std::vector<UUID>{QLT_UUID::uartServiceUUID()});
  EXPECT_TRUE(db->removePeripheralWithUUIDString("x"));
  auto a = device();
  db->store(a);
  std::string lower = id(a);
  for (auto& c : lower) c = static_cast<char>(std::tolower(c));
  EXPECT_FALSE(db->removePeripheralWithUUIDString(lower));
  EXPECT_TRUE(db->removePeripheralWithUUIDString(id(a)));
  EXPECT_FALSE(db->removePeripheralWithUUIDString(id(a)));
  EXPECT_EQ(db->storedPeripheralIdentifiers(), Ids{"6E400001-B5A3-F393-E0A9-E50E24DCCA9E"});
}

TEST_F(AStore, MovesADamagedFileAsideStartsEmptyAndStillSaves) {
  for (const std::string text : {"{\"storedPeripheralIdentifiers\": [\"A\",", "[1,2]",
                                 "{\"storedPeripheralIdentifiers\": 7}"}) {
    writeFile(text);
    auto db = QLT_Database::create();
    EXPECT_TRUE(db->storedPeripheralIdentifiers().empty()) << text;
    EXPECT_FALSE(fs::exists(path)) << text;
    bool kept = false;
    for (const auto& e : fs::directory_iterator(fs::path(path).parent_path())) {
      std::ifstream in(e.path());
      kept |= e.path().filename().string().starts_with("known-peripherals.json.damaged-") &&
              std::string(std::istreambuf_iterator<char>(in), {}) == text;
      fs::remove(e.path());
    }
    EXPECT_TRUE(kept) << text;
    auto a = device();
    db->store(a);
    ASSERT_TRUE(db->synchronize()) << text;
    EXPECT_EQ(onDisk(), Ids{id(a)}) << text;
  }
}

TEST_F(AStore, FollowsTheEnvironmentWhenNoPathIsSet) {
  // The test's process is made for it: the environment needs no restoring.
  unsetenv("QLT_STORE_PATH");
  setenv("XDG_CONFIG_HOME", dir.c_str(), 1);
  EXPECT_EQ(QLT_Database::storePath(), path);
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
  std::vector<std::shared_ptr<QLT_Peripheral>> devices;
  for (int i = 0; i < 40; ++i) devices.push_back(device());
  for (auto& d : devices) db->store(d);
  ASSERT_TRUE(db->synchronize());
  const Ids full = db->storedPeripheralIdentifiers();
  const Ids shorter(full.begin(), full.begin() + 7);

  std::mt19937 rng(20240611);
  std::uniform_int_distribution<int> delayUs(0, 4000);
  for (int round = 0; round < 220; ++round) {
    const pid_t child = fork();
    ASSERT_GE(child, 0);
    if (child == 0) {
      for (unsigned i = 0;; ++i) {  // alternate the two lists until killed
        for (size_t k = shorter.size(); k < full.size(); ++k)
          i % 2 ? (void)db->store(devices[k]) : (void)db->removePeripheralWithUUIDString(full[k]);
        db->synchronize();
      }
    }
    usleep(static_cast<useconds_t>(delayUs(rng)));
    kill(child, SIGKILL);
    int status = 0;
    waitpid(child, &status, 0);
    ASSERT_TRUE(WIFSIGNALED(status));
    Ids now;
    ASSERT_NO_THROW(now = onDisk()) << "round " << round;
    ASSERT_TRUE(now == full || now == shorter) << "round " << round << ": " << now.size();
  }
  // Still works: a fresh store reads the list, and its next save is what the next one reads.
  auto after = QLT_Database::create();
  const Ids read = after->storedPeripheralIdentifiers();
  EXPECT_TRUE(read == full || read == shorter);
  auto extra = device();
  EXPECT_TRUE(after->store(extra));
  ASSERT_TRUE(after->synchronize());
  EXPECT_EQ(QLT_Database::create()->storedPeripheralIdentifiers().back(), id(extra));
  for (const auto& e : fs::directory_iterator(fs::path(path).parent_path()))
    EXPECT_EQ(e.path().filename().string().find(".damaged-"), std::string::npos);
}
