// With no choice made, the library runs on BlueZ where a bluetoothd with an adapter answers on
// the system bus, and on the simulated radio elsewhere; a choice made always wins.
#include <gtest/gtest.h>

#include <chrono>
#include <cstdlib>

#include "Backends.h"
#include "QueltLibrary/platform/Platform.h"

namespace qlt::platform {
namespace {

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
    setBackendByName("sim");
    EXPECT_EQ(currentBackend()->name(), "sim") << "the application's choice wins";
    setBackend(nullptr);
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
