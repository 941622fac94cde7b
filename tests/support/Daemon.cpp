#include "tests/support/Daemon.h"

#include <fcntl.h>
#include <signal.h>
#include <sys/wait.h>
#include <unistd.h>

#include <cstdio>
#include <fstream>
#include <sstream>
#include <stdexcept>
#include <thread>

namespace TestSupport {

Daemon::Daemon(std::string program, std::vector<std::string> args, std::string logPath)
    : logPath_(std::move(logPath)) {
  std::vector<char*> argv;
  argv.push_back(program.data());
  for (auto& a : args) argv.push_back(a.data());
  argv.push_back(nullptr);
  pid_ = ::fork();
  if (pid_ < 0) throw std::runtime_error("fork");
  if (pid_ == 0) {
    // Its own process group, so that helpers it forks go with it.
    ::setpgid(0, 0);
    int fd = ::open(logPath_.c_str(), O_WRONLY | O_CREAT | O_APPEND | O_CLOEXEC, 0644);
    if (fd >= 0) {
      ::dup2(fd, STDOUT_FILENO);
      ::dup2(fd, STDERR_FILENO);
    }
    // The test process may block signals; the daemon starts with a clean mask.
    sigset_t none;
    sigemptyset(&none);
    sigprocmask(SIG_SETMASK, &none, nullptr);
    ::execv(program.c_str(), argv.data());
    ::_exit(127);
  }
  ::setpgid(pid_, pid_);  // either side may run first
  group_ = pid_;
}

Daemon::~Daemon() {
  // The whole group: a collector's plugin processes outlive a killed parent otherwise.
  if (group_ > 0) ::kill(-group_, SIGKILL);
  if (pid_ > 0) ::waitpid(pid_, nullptr, 0);
}

void Daemon::signal(int sig) const {
  if (pid_ > 0) ::kill(pid_, sig);
}

int Daemon::wait(std::chrono::milliseconds timeout) {
  const auto deadline = std::chrono::steady_clock::now() + timeout;
  while (pid_ > 0 && std::chrono::steady_clock::now() < deadline) {
    int status = 0;
    if (::waitpid(pid_, &status, WNOHANG) == pid_) {
      pid_ = -1;
      return WIFEXITED(status) ? WEXITSTATUS(status) : -1;
    }
    std::this_thread::sleep_for(std::chrono::milliseconds(10));
  }
  return -1;
}

std::string Daemon::log() const {
  std::ifstream in(logPath_);
  std::stringstream ss;
  ss << in.rdbuf();
  return ss.str();
}

bool Daemon::waitForLog(const std::string& text, std::chrono::milliseconds timeout) const {
  const auto deadline = std::chrono::steady_clock::now() + timeout;
  while (std::chrono::steady_clock::now() < deadline) {
    if (log().find(text) != std::string::npos) return true;
    std::this_thread::sleep_for(std::chrono::milliseconds(20));
  }
  return false;
}

DaemonRig::DaemonRig(const std::string& tag)
    : config(dir.file("flowexport.yaml")),
      stats("/flowexport-" + tag + "-" + std::to_string(::getpid())),
      socket(dir.file("control.sock")) {}

void DaemonRig::write(const std::string& text, const std::string& path) const {
  const std::string& file = path.empty() ? config : path;
  std::ofstream(file + ".new") << text;
  std::rename((file + ".new").c_str(), file.c_str());
}

std::unique_ptr<Daemon> DaemonRig::start(std::vector<std::string> extra) const {
  // The `--name=value` form, as operators may write it.
  std::vector<std::string> args = {"--config=" + config, "--stats-name=" + stats,
                                   "--control-socket=" + socket, "--log=stderr"};
  args.insert(args.end(), extra.begin(), extra.end());
  return std::make_unique<Daemon>(FLOWEXPORTD, args, dir.file("daemon.log"));
}

CommandResult DaemonRig::ctl(const std::string& args) const {
  return runCommand(std::string(FLOWEXPORTCTL) + " --stats-name " + stats + " --control-socket " +
                    socket + " " + args);
}

}  // namespace TestSupport
