// Where the library's log lines go with no sink installed: nowhere, unless QLT_LOG names
// standard error or a file. Each case runs in a fresh process (QLT_LOG is read once).
#include <gtest/gtest.h>

#include <cstdlib>
#include <fstream>
#include <regex>
#include <sstream>

#include "QueltLibrary/Log.h"

namespace qlt {
namespace {

[[noreturn]] void logTwiceWith(const char* destination) {
  if (destination) ::setenv("QLT_LOG", destination, 1);
  QLTLog("%s line", "first");
  QLTLog("second line");
  std::exit(0);
}

TEST(TheDefaultLogSink, IsQuietUnlessQltLogNamesStandardErrorOrAFile) {
  GTEST_FLAG_SET(death_test_style, "threadsafe");
  ::unsetenv("QLT_LOG");
  EXPECT_EXIT(logTwiceWith(nullptr), testing::ExitedWithCode(0), "^$");
  EXPECT_EXIT(logTwiceWith("stderr"), testing::ExitedWithCode(0),
              "QueltLibrary\\[[0-9]+:[0-9]+\\] first line\n.*second line\n$");
  const std::string path = testing::TempDir() + "qlt-default-sink.log";
  std::ofstream(path) << "kept\n";
  EXPECT_EXIT(logTwiceWith(path.c_str()), testing::ExitedWithCode(0), "^$");
  std::stringstream file;
  file << std::ifstream(path).rdbuf();
  EXPECT_TRUE(std::regex_match(file.str(), std::regex("kept\n.* first line\n.* second line\n")))
      << "appended: " << file.str();
  std::remove(path.c_str());
  EXPECT_EXIT(logTwiceWith("/nonexistent/qlt.log"), testing::ExitedWithCode(0),
              "^QueltLibrary: cannot open the log file \"/nonexistent/qlt.log\" named by QLT_LOG: "
              "No such file or directory; log lines are dropped\n$");
  // A full disk: the failure is said once, not once a line.
  EXPECT_EXIT(logTwiceWith("/dev/full"), testing::ExitedWithCode(0),
              "^QueltLibrary: cannot write the log file \"/dev/full\" named by QLT_LOG: No space "
              "left on device\n$");
}

}  // namespace
}  // namespace qlt
