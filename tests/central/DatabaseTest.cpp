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
using namespace qlt::fake;
namespace fs = std::filesystem;

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
  std::shared_ptr<QLT_Peripheral> device() {
    return QLT_Peripheral::create(FakePeripheral::create(nextIdentifier()));
  }
  void writeFile(const std::string& text) {
    fs::create_directories(fs::path(path).parent_path());
    std::ofstream(path) << text;
  }
  std::vector<std::string> onDisk() {
    std::ifstream in(path);
    auto doc = nlohmann::json::parse(in);
    return doc.at("storedPeripheralIdentifiers").get<std::vector<std::string>>();
  }

  std::string dir;
  std::string path;
};

std::string id(const std::shared_ptr<QLT_Peripheral>& p) {
  return p->basePeripheral()->identifier().UUIDString();
}

}  // namespace

TEST_F(AStore, StartsEmptyAndKeepsEachPeripheralOnceInOrder) {
  auto db = QLT_Database::create();
  EXPECT_TRUE(db->loadAll().empty());
  auto a = device(), b = device();
  EXPECT_TRUE(db->store(b));
  EXPECT_TRUE(db->store(a));
  EXPECT_FALSE(db->store(b));
  EXPECT_EQ(db->storedPeripheralIdentifiers(), (std::vector<std::string>{id(b), id(a)}));
  auto all = db->loadAll();
  ASSERT_EQ(all.size(), 2u);
  EXPECT_EQ(all[0], b->basePeripheral()->identifier());
  EXPECT_EQ(all[1], a->basePeripheral()->identifier());
}

TEST_F(AStore, PersistsOnlyOnSynchronizeExceptRemoveAll) {
  auto db = QLT_Database::create();
  auto a = device();
  db->store(a);
  EXPECT_TRUE(QLT_Database::create()->loadAll().empty());
  ASSERT_TRUE(db->synchronize());
  EXPECT_EQ(QLT_Database::create()->storedPeripheralIdentifiers(), std::vector<std::string>{id(a)});
  EXPECT_EQ(onDisk(), std::vector<std::string>{id(a)});

  struct stat st {};
  ASSERT_EQ(stat(path.c_str(), &st), 0);
  EXPECT_EQ(st.st_mode & 0777, 0600u);

  db->removeAll();
  EXPECT_TRUE(QLT_Database::create()->loadAll().empty());
}

TEST_F(AStore, RemovesOnlyAnExactMatch) {
  auto db = QLT_Database::create();
  auto a = device();
  db->store(a);
  std::string lower = id(a);
  for (auto& c : lower) c = static_cast<char>(std::tolower(c));
  EXPECT_FALSE(db->removePeripheralWithUUIDString(lower));
  EXPECT_TRUE(db->removePeripheralWithUUIDString(id(a)));
  EXPECT_FALSE(db->removePeripheralWithUUIDString(id(a)));
  EXPECT_TRUE(db->storedPeripheralIdentifiers().empty());
}

TEST_F(AStore, PassesOverAMalformedStoredIdentifierAndKeepsIt) {
  writeFile(
      R"({"storedPeripheralIdentifiers": ["6E400001-B5A3-F393-E0A9-E50E24DCCA9E", "not-a-uuid", "180D"]})");
  test::LogCapture log;
  auto db = QLT_Database::create();
  auto all = db->loadAll();
  ASSERT_EQ(all.size(), 1u);
  EXPECT_EQ(all[0].UUIDString(), "6E400001-B5A3-F393-E0A9-E50E24DCCA9E");
  EXPECT_EQ(db->storedPeripheralIdentifiers().size(), 3u);
  EXPECT_TRUE(log.contains(
      "QLT_Database : passing over a stored identifier that is not a UUID : \"not-a-uuid\""));
}

TEST_F(AStore, MovesADamagedFileAsideAndStartsEmpty) {
  for (const std::string text : {"{\"storedPeripheralIdentifiers\": [\"A\",", "[1,2]",
                                 "{\"storedPeripheralIdentifiers\": 7}"}) {
    writeFile(text);
    test::LogCapture log;
    auto db = QLT_Database::create();
    EXPECT_TRUE(db->storedPeripheralIdentifiers().empty()) << text;
    EXPECT_FALSE(fs::exists(path)) << text;
    bool kept = false;
    for (const auto& e : fs::directory_iterator(fs::path(path).parent_path())) {
      if (e.path().filename().string().rfind("known-peripherals.json.damaged-", 0) == 0) {
        std::ifstream in(e.path());
        std::string content((std::istreambuf_iterator<char>(in)), {});
        if (content == text) kept = true;
        fs::remove(e.path());
      }
    }
    EXPECT_TRUE(kept) << text;
    auto lines = log.lines();
    EXPECT_TRUE(std::any_of(lines.begin(), lines.end(), [](const std::string& l) {
      return l.find("is damaged") != std::string::npos;
    })) << text;
  }
}

TEST_F(AStore, FollowsTheEnvironmentWhenNoPathIsSet) {
  QLT_Database::setStorePath(std::nullopt);
  const char* oldStore = std::getenv("QLT_STORE_PATH");
  const char* oldXdg = std::getenv("XDG_CONFIG_HOME");
  std::string savedStore = oldStore ? oldStore : "", savedXdg = oldXdg ? oldXdg : "";
  unsetenv("QLT_STORE_PATH");
  setenv("XDG_CONFIG_HOME", dir.c_str(), 1);
  EXPECT_EQ(QLT_Database::storePath(), dir + "/QueltLibrary/known-peripherals.json");
  setenv("QLT_STORE_PATH", path.c_str(), 1);
  EXPECT_EQ(QLT_Database::storePath(), path);
  if (oldStore)
    setenv("QLT_STORE_PATH", savedStore.c_str(), 1);
  else
    unsetenv("QLT_STORE_PATH");
  if (oldXdg)
    setenv("XDG_CONFIG_HOME", savedXdg.c_str(), 1);
  else
    unsetenv("XDG_CONFIG_HOME");
}

// A writer killed at any moment leaves the old list or the new one, never a broken file.
TEST_F(AStore, SurvivesAWriterKilledAtRandomMomentsDuringSynchronize) {
  auto db = QLT_Database::create();
  std::vector<std::shared_ptr<QLT_Peripheral>> devices;
  for (int i = 0; i < 40; ++i) devices.push_back(device());
  for (auto& d : devices) db->store(d);
  ASSERT_TRUE(db->synchronize());
  const std::vector<std::string> full = db->storedPeripheralIdentifiers();
  const std::vector<std::string> shorter(full.begin(), full.begin() + 7);

  std::mt19937 rng(20240611);
  std::uniform_int_distribution<int> delayUs(0, 4000);
  int sawFull = 0, sawShort = 0;
  for (int round = 0; round < 220; ++round) {
    const pid_t child = fork();
    ASSERT_GE(child, 0);
    if (child == 0) {
      // Alternate the two lists forever; only the parent's kill ends this.
      for (unsigned i = 0;; ++i) {
        if (i % 2 == 0) {
          for (size_t k = shorter.size(); k < full.size(); ++k)
            db->removePeripheralWithUUIDString(full[k]);
        } else {
          for (size_t k = shorter.size(); k < full.size(); ++k) db->store(devices[k]);
        }
        db->synchronize();
      }
    }
    usleep(static_cast<useconds_t>(delayUs(rng)));
    kill(child, SIGKILL);
    int status = 0;
    waitpid(child, &status, 0);
    ASSERT_TRUE(WIFSIGNALED(status));

    std::vector<std::string> now;
    ASSERT_NO_THROW(now = onDisk()) << "round " << round;
    ASSERT_TRUE(now == full || now == shorter) << "round " << round << ": " << now.size();
    (now == full ? sawFull : sawShort)++;
  }
  EXPECT_GT(sawFull + sawShort, 0);
  // Leftover temporary files of killed writers never replace the store.
  for (const auto& e : fs::directory_iterator(fs::path(path).parent_path())) {
    EXPECT_EQ(e.path().filename().string().find(".damaged-"), std::string::npos);
  }
}
