#include "RunTool.h"

#include <fcntl.h>
#include <poll.h>
#include <signal.h>
#include <stdlib.h>
#include <sys/wait.h>
#include <unistd.h>

#include <filesystem>

extern char** environ;
#include <sstream>
#include <stdexcept>

namespace qlt::test {

TempDir::TempDir() {
  char tmpl[] = "/tmp/qlt-tool-test-XXXXXX";
  if (!::mkdtemp(tmpl)) throw std::runtime_error("mkdtemp failed");
  path_ = tmpl;
}

TempDir::~TempDir() {
  std::error_code ec;
  std::filesystem::remove_all(path_, ec);
}

std::string storeFile(const std::string& storeDir) { return storeDir + "/known.json"; }

std::vector<std::string> toolEnvironment(const std::string& storeDir,
                                         const std::vector<std::string>& extra) {
  std::vector<std::string> env;
  for (char** e = environ; *e; ++e) {
    const std::string entry = *e;
    if (entry.rfind("QLT_STORE_PATH=", 0) && entry.rfind("QLT_PLATFORM=", 0) &&
        entry.rfind("TERM=", 0))
      env.push_back(entry);
  }
  env.insert(env.end(), extra.begin(), extra.end());  // these win over the store path
  env.push_back("QLT_STORE_PATH=" + storeFile(storeDir));
  env.push_back("QLT_PLATFORM=sim");  // unless a test names one: not the machine's Bluetooth
  return env;
}

ToolRun runTool(const std::vector<std::string>& args, const std::string& storeDir, double limitS,
                const ToolInput& input) {
  int outPipe[2], errPipe[2], inPipe[2];
  if (::pipe2(outPipe, O_CLOEXEC) != 0 || ::pipe2(errPipe, O_CLOEXEC) != 0 ||
      ::pipe2(inPipe, O_CLOEXEC) != 0)
    throw std::runtime_error("pipe failed");
  // Small inputs fit the pipe's buffer: written at once, then end of input.
  if (::write(inPipe[1], input.stdinText.data(), input.stdinText.size()) !=
      static_cast<ssize_t>(input.stdinText.size()))
    throw std::runtime_error("stdin write failed");
  ::close(inPipe[1]);
  // Everything the child needs is prepared before fork(): after it, only exec.
  std::vector<std::string> env = toolEnvironment(storeDir, input.env);
  std::vector<char*> envp;
  for (auto& e : env) envp.push_back(e.data());
  envp.push_back(nullptr);
  std::vector<char*> argv{const_cast<char*>(QLT_TOOL_PATH)};
  for (const auto& a : args) argv.push_back(const_cast<char*>(a.c_str()));
  argv.push_back(nullptr);

  const auto start = std::chrono::steady_clock::now();
  const pid_t pid = ::fork();
  if (pid < 0) throw std::runtime_error("fork failed");
  if (pid == 0) {
    ::dup2(inPipe[0], STDIN_FILENO);
    ::dup2(outPipe[1], STDOUT_FILENO);
    ::dup2(errPipe[1], STDERR_FILENO);
    ::close(outPipe[0]);
    ::close(errPipe[0]);
    ::execve(QLT_TOOL_PATH, argv.data(), envp.data());
    ::_exit(127);
  }
  ::close(outPipe[1]);
  ::close(errPipe[1]);
  ::close(inPipe[0]);

  ToolRun run;
  pollfd fds[2] = {{outPipe[0], POLLIN, 0}, {errPipe[0], POLLIN, 0}};
  std::string* sinks[2] = {&run.out, &run.err};
  int open = 2;
  bool killed = false, signalled = input.signal == 0;
  while (open > 0) {
    const double elapsed =
        std::chrono::duration<double>(std::chrono::steady_clock::now() - start).count();
    if (!signalled && elapsed > input.signalAfterS) signalled = ::kill(pid, input.signal) == 0;
    if (!killed && elapsed > limitS) {
      ::kill(pid, SIGKILL);
      killed = true;
    }
    if (::poll(fds, 2, 100) <= 0) continue;
    for (int i = 0; i < 2; ++i) {
      if (fds[i].fd < 0 || !(fds[i].revents & (POLLIN | POLLHUP | POLLERR))) continue;
      char buf[4096];
      const ssize_t n = ::read(fds[i].fd, buf, sizeof buf);
      if (n > 0) {
        sinks[i]->append(buf, static_cast<size_t>(n));
      } else {
        ::close(fds[i].fd);
        fds[i].fd = -1;
        --open;
      }
    }
  }
  int status = 0;
  ::waitpid(pid, &status, 0);
  run.seconds = std::chrono::duration<double>(std::chrono::steady_clock::now() - start).count();
  run.exitCode = (!killed && WIFEXITED(status)) ? WEXITSTATUS(status) : -1;
  return run;
}

std::vector<std::string> splitLines(const std::string& text) {
  std::vector<std::string> lines;
  std::istringstream in(text);
  for (std::string line; std::getline(in, line);) lines.push_back(line);
  return lines;
}

}  // namespace qlt::test
