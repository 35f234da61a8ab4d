#include "RunTool.h"

#include <fcntl.h>
#include <poll.h>
#include <pty.h>
#include <signal.h>
#include <stdlib.h>
#include <sys/wait.h>
#include <unistd.h>

#include <filesystem>
#include <sstream>
#include <stdexcept>

extern char** environ;

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
  // Everything the child needs is prepared before fork(): after it, only exec.
  std::vector<std::string> env = toolEnvironment(storeDir, input.env);
  std::vector<char*> envp;
  for (auto& e : env) envp.push_back(e.data());
  envp.push_back(nullptr);
  std::vector<char*> argv{const_cast<char*>(QLT_TOOL_PATH)};
  for (const auto& a : args) argv.push_back(const_cast<char*>(a.c_str()));
  argv.push_back(nullptr);

  int out[2] = {-1, -1}, err[2] = {-1, -1}, in[2] = {-1, -1}, terminal = -1;
  if (!input.terminal) {
    if (::pipe2(out, O_CLOEXEC) || ::pipe2(err, O_CLOEXEC) || ::pipe2(in, O_CLOEXEC))
      throw std::runtime_error("pipe failed");
    // The input fits the pipe's buffer (grown if need be): written at once, then end of input.
    if (input.stdinText.size() > 65536) ::fcntl(in[1], F_SETPIPE_SZ, input.stdinText.size());
    if (::write(in[1], input.stdinText.data(), input.stdinText.size()) !=
        static_cast<ssize_t>(input.stdinText.size()))
      throw std::runtime_error("stdin write failed");
    ::close(in[1]);
  }
  const auto start = std::chrono::steady_clock::now();
  const pid_t pid = input.terminal ? ::forkpty(&terminal, nullptr, nullptr, nullptr) : ::fork();
  if (pid < 0) throw std::runtime_error("fork failed");
  if (pid == 0) {
    if (!input.terminal) {
      ::dup2(in[0], STDIN_FILENO);
      ::dup2(out[1], STDOUT_FILENO);
      ::dup2(err[1], STDERR_FILENO);
    }
    ::execve(QLT_TOOL_PATH, argv.data(), envp.data());
    ::_exit(127);
  }
  for (int fd : {out[1], err[1], in[0]})
    if (fd >= 0) ::close(fd);

  ToolRun run;
  pollfd fds[2] = {{input.terminal ? terminal : out[0], POLLIN, 0}, {err[0], POLLIN, 0}};
  std::string* sinks[2] = {&run.out, &run.err};
  int open = input.terminal ? 1 : 2;
  bool killed = false, signalled = input.signal == 0;
  size_t step = 0, seen = 0;  // the next step, and where the screen is read from for it
  while (open > 0) {
    const double elapsed =
        std::chrono::duration<double>(std::chrono::steady_clock::now() - start).count();
    if (!signalled && elapsed > input.signalAfterS) signalled = ::kill(pid, input.signal) == 0;
    if (!killed && elapsed > limitS) killed = ::kill(pid, SIGKILL) == 0;
    if (step < input.steps.size()) {
      const ToolStep& s = input.steps[step];
      if (const size_t at = run.out.find(s.expect, seen); at != std::string::npos) {
        if (input.terminal && ::write(terminal, s.keys.data(), s.keys.size()) < 0) {}
        if (s.then) s.then(run.out);
        if (s.signal) ::kill(pid, s.signal);
        seen = at + s.expect.size();
        ++step;
      }
    }
    if (::poll(fds, 2, 100) <= 0) continue;
    for (int i = 0; i < 2; ++i) {
      if (fds[i].fd < 0 || !(fds[i].revents & (POLLIN | POLLHUP | POLLERR))) continue;
      char buf[4096];
      const ssize_t n = ::read(fds[i].fd, buf, sizeof buf);
      if (n > 0) {
        sinks[i]->append(buf, static_cast<size_t>(n));
      } else {  // end of output (a terminal says EIO once the tool has gone)
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
