// Running the built qlt binary from a test, as a user would: with arguments, a private
// known-device store, captured stdout and stderr, and a time limit.
#pragma once

#include <gtest/gtest.h>

#include <chrono>
#include <functional>
#include <string>
#include <vector>

namespace qlt::test {

struct ToolRun {
  int exitCode = -1;  // -1: killed at the time limit
  std::string out;
  std::string err;
  double seconds = 0;
};

// A fresh, empty directory under /tmp for the known-device store; removed on destruction.
class TempDir {
 public:
  TempDir();
  ~TempDir();
  const std::string& path() const { return path_; }

 private:
  std::string path_;
};

// Once the output (on a terminal: the screen) shows `expect` after the previous step's, the
// keys are typed (on a terminal), `then` runs with the output so far, then the signal (if any)
// is sent.
struct ToolStep {
  std::string expect{}, keys{};
  int signal = 0;
  std::function<void(const std::string& out)> then{};
};

// What a run gets beyond its arguments.
struct ToolInput {
  std::vector<std::string> env{};  // "NAME=value" added to the environment
  std::string stdinText{};         // what stdin carries (then end of input)
  int signal = 0;                  // sent once `signalAfterS` have passed
  double signalAfterS = 0;
  bool terminal = false;  // on a pseudo-terminal: `out` is the screen, keys come from `steps`
  std::vector<ToolStep> steps{};
};
inline ToolInput withEnv(std::vector<std::string> env) { return {.env = std::move(env)}; }
inline ToolInput withStdin(std::string text) { return {.stdinText = std::move(text)}; }
inline ToolInput signalAfter(int signal, double seconds) {
  return {.signal = signal, .signalAfterS = seconds};
}
inline ToolInput onATerminal(std::vector<ToolStep> steps) {
  return {.env = {"TERM=xterm"}, .terminal = true, .steps = std::move(steps)};
}

// Runs qlt with `args` in this process's environment without QLT_STORE_PATH, QLT_PLATFORM and
// TERM, then `input.env`, then QLT_STORE_PATH=storeFile(storeDir); kills it after `limitS` s.
ToolRun runTool(const std::vector<std::string>& args, const std::string& storeDir,
                double limitS = 60, const ToolInput& input = {});
// The QLT_STORE_PATH runTool gives for `storeDir`.
std::string storeFile(const std::string& storeDir);
// The environment of a run: this process's, without QLT_STORE_PATH, QLT_PLATFORM and TERM,
// then `extra`, then QLT_STORE_PATH=storeFile(storeDir) and QLT_PLATFORM=sim.
std::vector<std::string> toolEnvironment(const std::string& storeDir,
                                         const std::vector<std::string>& extra);

// A test of the tool: runs it with a store of its own.
class ToolTest : public ::testing::Test {
 protected:
  ToolRun qlt(const std::vector<std::string>& args, double limitS = 60,
              const ToolInput& input = {}) {
    return runTool(args, store_.path(), limitS, input);
  }
  TempDir store_;
};

// The lines of `text`.
std::vector<std::string> splitLines(const std::string& text);

}  // namespace qlt::test
