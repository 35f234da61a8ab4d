// Choosing the platform backend.
#include <gtest/gtest.h>

#include <algorithm>
#include <cstdlib>

#include "QueltLibrary/platform/Platform.h"
#include "support/TestSupport.h"

namespace qlt::platform {
namespace {

class FakeBackend final : public Backend {
 public:
  std::string name() const override { return "fake"; }
  std::shared_ptr<Central> createCentral(const std::shared_ptr<CentralDelegate>&,
                                         const std::shared_ptr<DispatchQueue>&,
                                         const CentralOptions&) override {
    return nullptr;
  }
};

class ThePlatformRegistry : public ::testing::Test {
 protected:
  void TearDown() override {
    setBackend(nullptr);
    unsetenv("QLT_PLATFORM");
  }
};

TEST_F(ThePlatformRegistry, DefaultsToTheSimulatedRadio) {
  unsetenv("QLT_PLATFORM");
  setBackend(nullptr);
  ASSERT_TRUE(currentBackend());
  EXPECT_EQ(currentBackend()->name(), "sim");
  auto names = availableBackends();
  EXPECT_NE(std::find(names.begin(), names.end(), "sim"), names.end());
}

TEST_F(ThePlatformRegistry, PrefersAnInstalledBackendToTheEnvironment) {
  setenv("QLT_PLATFORM", "sim", 1);
  auto fake = std::make_shared<FakeBackend>();
  setBackend(fake);
  EXPECT_EQ(currentBackend(), fake);
  EXPECT_TRUE(setBackendByName("sim"));
  EXPECT_EQ(currentBackend()->name(), "sim");
}

TEST_F(ThePlatformRegistry, RefusesAnUnknownNameWithALogLine) {
  auto fake = std::make_shared<FakeBackend>();
  setBackend(fake);
  test::LogCapture log;
  EXPECT_FALSE(setBackendByName("carrier-pigeon"));
  EXPECT_EQ(currentBackend(), fake) << "the choice is unchanged";
  ASSERT_EQ(log.lines().size(), 1u);
  EXPECT_NE(log.lines()[0].find("Unknown platform backend \"carrier-pigeon\" (available: sim"),
            std::string::npos)
      << log.lines()[0];
}

TEST_F(ThePlatformRegistry, FallsBackToTheSimulatedRadioForAnUnknownEnvironmentValue) {
  setBackend(nullptr);
  setenv("QLT_PLATFORM", "carrier-pigeon", 1);
  test::LogCapture log;
  ASSERT_TRUE(currentBackend());
  EXPECT_EQ(currentBackend()->name(), "sim");
  EXPECT_TRUE(
      log.contains("Unknown platform backend \"carrier-pigeon\" in QLT_PLATFORM (available: " + [] {
        std::string t;
        for (const auto& n : availableBackends()) t += (t.empty() ? "" : ", ") + n;
        return t;
      }() + "); using \"sim\""));
}

}  // namespace
}  // namespace qlt::platform
