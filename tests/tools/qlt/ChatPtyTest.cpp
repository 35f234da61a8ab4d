// qlt chat on a terminal: type a line, see the echo, leave cleanly however it is left.

#include <gtest/gtest.h>

#include <csignal>

#include "RunTool.h"

namespace qlt::test {
namespace {

// Ctrl-D leaves cleanly (exit 0); Ctrl-C, a closed terminal (SIGHUP) and SIGTERM
// disconnect as cleanly, then exit 130.
TEST(AChatOnATerminal, EchoesTypedLinesAndDisconnectsHoweverItIsLeft) {
  TempDir store;
  const std::pair<std::string, int> leaves[] = {
      {"\x04", 0}, {"\x03", 0}, {"", SIGHUP}, {"", SIGTERM}};
  for (const auto& [keys, signal] : leaves) {
    SCOPED_TRACE(signal ? signal : keys[0]);
    const auto run =
        runTool({"chat", "QLT-Chunk", "--transport", "nus", "--trace"}, store.path(), 30,
                onATerminal({{"Ctrl-D to leave", "ping\n"}, {"< ping", keys, signal}}));
    EXPECT_EQ(run.exitCode, keys == "\x04" ? 0 : 130) << run.out;
    EXPECT_NE(run.out.find("< ping"), std::string::npos) << run.out;
    EXPECT_NE(run.out.find("→ chunk 5 B"), std::string::npos) << run.out;  // with "\n"
    EXPECT_NE(run.out.find("[disconnected]"), std::string::npos) << run.out;
  }
}

}  // namespace
}  // namespace qlt::test
