// Choosing the platform backend: an installed one, else the environment's, else BlueZ where a
// bluetoothd with an adapter answers on the system bus, else the simulated radio.
#include <gtest/gtest.h>

#include <chrono>
#include <cstdlib>

#include "Backends.h"
#include "QueltLibrary/platform/Platform.h"

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

std::string chosenWith(const char* qltPlatform) {
  if (qltPlatform) {
    ::setenv("QLT_PLATFORM", qltPlatform, 1);
  } else {
    ::unsetenv("QLT_PLATFORM");
  }
  setBackend(nullptr);
  const auto name = currentBackend()->name();
  setBackend(nullptr);
  ::unsetenv("QLT_PLATFORM");
  return name;
}

TEST(TheDefaultPlatform, IsBluezWhereABluetoothdWithAnAdapterAnswersAndTheSimulatedRadioElsewhere) {
#ifdef QLT_TESTS_WITHOUT_BLUEZ
  GTEST_SKIP() << "this build has no BlueZ backend";
#else
  test::LogCapture log;
  {
    test::Bluez mock;
    const auto why = mock.start();
    if (why.rfind("skip", 0) == 0) GTEST_SKIP() << why;
    ASSERT_EQ(why, "");
    EXPECT_EQ(chosenWith(nullptr), "bluez");
    EXPECT_TRUE(log.contains(
        "Platform: bluez: bluetoothd answers on " +
        std::string(std::getenv("DBUS_SYSTEM_BUS_ADDRESS")) +
        " with the adapter /org/bluez/hci0 (QLT_PLATFORM=sim for the simulated radio)"));
    EXPECT_EQ(chosenWith("sim"), "sim") << "the environment's choice wins";
  }
  ::setenv("DBUS_SYSTEM_BUS_ADDRESS", "unix:path=/nonexistent/qlt-no-bus", 1);
  const auto start = std::chrono::steady_clock::now();
  EXPECT_EQ(chosenWith(nullptr), "sim");
  EXPECT_LT(std::chrono::steady_clock::now() - start, std::chrono::seconds(3));
  EXPECT_NE(log.lines().back().find("Platform: sim, the simulated radio: no bluetoothd answers"),
            std::string::npos)
      << log.lines().back();
  EXPECT_EQ(chosenWith("bluez"), "bluez") << "the environment's choice wins";
  ::unsetenv("DBUS_SYSTEM_BUS_ADDRESS");
#endif
}

}  // namespace
}  // namespace qlt::platform
