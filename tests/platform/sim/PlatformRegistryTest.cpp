// Choosing the platform backend: an installed one, else the environment's, else the simulated
// radio.
#include <gtest/gtest.h>

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

TEST(ThePlatformRegistry, PrefersAnInstalledBackendThenTheEnvironmentThenTheSimulatedRadio) {
  setenv("QLT_PLATFORM", "carrier-pigeon", 1);
  setBackend(nullptr);
  test::LogCapture log;
  ASSERT_TRUE(currentBackend());
  EXPECT_EQ(currentBackend()->name(), "sim") << "an unknown name in the environment";
  EXPECT_EQ(log.lines().size(), 1u) << "is logged";
  auto fake = std::make_shared<FakeBackend>();
  setBackend(fake);
  EXPECT_EQ(currentBackend(), fake);
  EXPECT_FALSE(setBackendByName("carrier-pigeon"));
  EXPECT_EQ(currentBackend(), fake) << "an unknown name leaves the choice as it was";
  EXPECT_EQ(log.lines().size(), 2u);
  EXPECT_TRUE(setBackendByName("sim"));
  EXPECT_EQ(currentBackend()->name(), "sim");
  setBackend(nullptr);
  unsetenv("QLT_PLATFORM");
}

}  // namespace
}  // namespace qlt::platform
