// The known-device store when its file cannot be read or written, and what dead writers
// leave behind: nothing already stored is lost, and no failure is reported as success.
#include <gtest/gtest.h>

#include <sys/wait.h>
#include <unistd.h>

#include <filesystem>
#include <fstream>

#include "QueltLibrary/QLT_Database.h"
#include "QueltLibrary/QLT_Peripheral.h"
#include "support/FakePlatform.h"
#include "support/TestSupport.h"

using namespace qlt;
namespace fs = std::filesystem;

namespace {

class AStoreThatFails : public ::testing::Test {
 protected:
  void SetUp() override {
    char tmpl[] = "/tmp/qlt-store-failure-XXXXXX";
    dir = mkdtemp(tmpl);
  }
  void TearDown() override {
    QLT_Database::setStorePath(std::nullopt);
    fs::remove_all(dir);
  }
  std::string dir;
};

// Each way a store's file can fail; the store must refuse to write and say why, and must
// leave whatever is at the path as it was.
TEST_F(AStoreThatFails, RefusesToWriteAndSaysWhy) {
  struct Case {
    const char* what;
    std::function<std::string(const std::string&)> prepare;  // makes the path fail; returns it
    const char* reason;
  };
  const std::vector<Case> cases{
      {"a file that cannot be read (a directory in its place)",
       [](const std::string& d) {
         fs::create_directories(d + "/known.json");
         std::ofstream(d + "/known.json/keep") << "precious";
         return d + "/known.json";
       },
       "cannot read"},
      {"a directory that cannot be made (a file in its place)",
       [](const std::string& d) {
         std::ofstream(d + "/notadir") << "precious";
         return d + "/notadir/known.json";
       },
       "cannot create"},
  };
  for (const auto& c : cases) {
    SCOPED_TRACE(c.what);
    const std::string path = c.prepare(dir);
    QLT_Database::setStorePath(path);
    const auto store = QLT_Database::create();
    ASSERT_TRUE(store->store(QLT_Peripheral::create(fake::FakePeripheral::create())));
    EXPECT_FALSE(store->synchronize());
    EXPECT_NE(store->lastError().find(c.reason), std::string::npos) << store->lastError();
    EXPECT_FALSE(store->removeAll());
    EXPECT_NE(store->lastError().find(c.reason), std::string::npos) << store->lastError();
  }
  // Nothing that was there is gone or moved aside.
  std::ifstream keep(dir + "/known.json/keep");
  std::string text;
  keep >> text;
  EXPECT_EQ(text, "precious");
  EXPECT_TRUE(fs::is_regular_file(dir + "/notadir"));
  for (const auto& e : fs::directory_iterator(dir))
    EXPECT_EQ(e.path().filename().string().find("damaged"), std::string::npos) << e.path();
}

TEST_F(AStoreThatFails, RemovesOnlyTheTemporaryFilesOfWritersThatHaveEnded) {
  const std::string path = dir + "/known.json";
  QLT_Database::setStorePath(path);
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

}  // namespace
