// The Debian package as a packager builds it and an operator installs it: cpack in the
// build directory, its files and its conffile; then, where the test runs as root on
// Debian and the package is not installed already, dpkg -i, the daemon from /usr/sbin
// run the way its unit runs it (its system user, its directories, systemd's readiness
// notification), flowexportctl against it, and dpkg --purge.

#include <gtest/gtest.h>
#include <poll.h>
#include <pwd.h>
#include <signal.h>
#include <sys/socket.h>
#include <sys/stat.h>
#include <sys/un.h>
#include <unistd.h>

#include <cstdio>
#include <cstring>

#include "tests/support/Daemon.h"
#include "tests/support/Decoders.h"

namespace {

using TestSupport::runCommand;

std::string lines(const std::string& text, const std::string& prefix) {
  std::string out;
  size_t at = 0;
  while (at < text.size()) {
    const size_t end = text.find('\n', at);
    const std::string line = text.substr(at, end == std::string::npos ? end : end - at);
    if (line.rfind(prefix, 0) == 0) out += line + "\n";
    if (end == std::string::npos) break;
    at = end + 1;
  }
  return out;
}

// systemd's notification socket, as the service manager would hold it.
class NotifySocket {
 public:
  explicit NotifySocket(const std::string& path) : path_(path) {
    fd_ = ::socket(AF_UNIX, SOCK_DGRAM | SOCK_CLOEXEC, 0);
    sockaddr_un a{};
    a.sun_family = AF_UNIX;
    std::strncpy(a.sun_path, path.c_str(), sizeof a.sun_path - 1);
    bound_ = ::bind(fd_, reinterpret_cast<sockaddr*>(&a), sizeof a) == 0 &&
             ::chmod(path.c_str(), 0666) == 0;
  }
  ~NotifySocket() {
    ::close(fd_);
    ::unlink(path_.c_str());
  }
  bool bound() const { return bound_; }
  // The next notification, waiting at most `ms`.
  std::string receive(int ms) {
    pollfd p{fd_, POLLIN, 0};
    if (::poll(&p, 1, ms) <= 0) return "";
    char buf[512];
    const ssize_t n = ::recv(fd_, buf, sizeof buf, 0);
    return n > 0 ? std::string(buf, static_cast<size_t>(n)) : "";
  }

 private:
  std::string path_;
  int fd_ = -1;
  bool bound_ = false;
};

TEST(Package, BuildsInstallsAndRunsAsItsService) {
  const std::string build = BUILD_DIR;
  const std::string deb = build + "/flowexport_" + FLOWEXPORT_VERSION + "_amd64.deb";
  std::remove(deb.c_str());
  auto made = runCommand("cpack -G DEB --config " + build + "/CPackConfig.cmake -B " + build);
  ASSERT_EQ(made.status, 0) << made.out << made.err;

  auto contents = runCommand("dpkg-deb -c " + deb + " | awk '{print $1, $6}'");
  ASSERT_EQ(contents.status, 0) << contents.err;
  for (const char* file :
       {"-rwxr-xr-x ./usr/sbin/flowexportd", "-rwxr-xr-x ./usr/bin/flowexportctl",
        "-rw-r--r-- ./lib/systemd/system/flowexport.service",
        "-rw-r--r-- ./etc/flowexport/flowexport.yaml",
        "-rw-r--r-- ./usr/share/doc/flowexport/examples/flowexport.example.yaml",
        "-rw-r--r-- ./usr/share/doc/flowexport/examples/flowexport.yaml"}) {
    EXPECT_NE(contents.out.find(std::string(file) + "\n"), std::string::npos)
        << file << " missing from\n"
        << contents.out;
  }
  auto control = runCommand("dpkg-deb -f " + deb + " Package Version Depends");
  EXPECT_EQ(lines(control.out, "Package"), "Package: flowexport\n");
  EXPECT_EQ(lines(control.out, "Version"), std::string("Version: ") + FLOWEXPORT_VERSION + "\n");
  // Dependencies computed from the binaries, not written by hand.
  EXPECT_NE(control.out.find("libyaml-cpp"), std::string::npos) << control.out;
  EXPECT_NE(control.out.find("libsystemd0"), std::string::npos) << control.out;
  auto conffiles = runCommand("dpkg-deb --ctrl-tarfile " + deb + " | tar -xO ./conffiles");
  EXPECT_EQ(conffiles.out, "/etc/flowexport/flowexport.yaml\n");
  // The configuration it installs is the daemon's built-in default.
  auto etc =
      runCommand("dpkg-deb --fsys-tarfile " + deb + " | tar -xO ./etc/flowexport/flowexport.yaml");
  auto builtIn = runCommand(std::string(FLOWEXPORTD) + " --default-config");
  EXPECT_EQ(etc.out, builtIn.out);

  if (::geteuid() != 0) GTEST_SKIP() << "not root: the package is not installed";
  if (runCommand("dpkg-query -W flowexport").status == 0) {
    GTEST_SKIP() << "flowexport is installed on this machine: not replacing it";
  }
  struct Purge {
    ~Purge() { runCommand("dpkg --purge flowexport; rm -rf /run/flowexport"); }
  } purge;
  auto installed = runCommand("dpkg -i " + deb);
  ASSERT_EQ(installed.status, 0) << installed.out << installed.err;
  auto version = runCommand("/usr/sbin/flowexportd --version");
  EXPECT_EQ(version.out, std::string("flowexportd ") + FLOWEXPORT_VERSION + "\n");
  passwd* user = ::getpwnam("flowexport");
  ASSERT_NE(user, nullptr) << "no system user flowexport";
  EXPECT_LT(user->pw_uid, 1000u);
  auto conffile = runCommand("dpkg-query -W -f='${Conffiles}' flowexport");
  EXPECT_NE(conffile.out.find("/etc/flowexport/flowexport.yaml"), std::string::npos);
  auto mode = runCommand("stat -c '%a %G' /etc/flowexport/flowexport.yaml");
  EXPECT_EQ(mode.out, "640 flowexport\n");

  // As the unit runs it: its user, the directories systemd makes for it, and readiness
  // told on the notification socket once the configuration is applied.
  TestSupport::TempDir dir;
  ::chmod(dir.path().c_str(), 0755);
  ASSERT_EQ(runCommand("install -d -o flowexport -g flowexport -m 0750 /run/flowexport "
                       "/var/lib/flowexport")
                .status,
            0);
  NotifySocket notify(dir.file("notify"));
  ASSERT_TRUE(notify.bound());
  const std::string stats = "/flowexport-package-test-" + std::to_string(::getpid());
  TestSupport::Daemon daemon(
      "/usr/bin/setpriv",
      {"--reuid=flowexport", "--regid=flowexport", "--init-groups", "--", "env",
       "RUNTIME_DIRECTORY=/run/flowexport", "STATE_DIRECTORY=/var/lib/flowexport",
       "NOTIFY_SOCKET=" + dir.file("notify"), "/usr/sbin/flowexportd", "--config",
       "/etc/flowexport/flowexport.yaml", "--log", "stderr", "--control-group", "flowexport",
       "--stats-name", stats},
      dir.file("daemon.log"));
  std::string ready;
  for (int i = 0; i < 50 && ready.find("READY=1") == std::string::npos; ++i) {
    ready += notify.receive(200);
  }
  EXPECT_NE(ready.find("READY=1"), std::string::npos) << daemon.log();
  EXPECT_NE(ready.find("STATUS=running /etc/flowexport/flowexport.yaml"), std::string::npos);
  // root's flowexportctl finds the service's socket and trusts the service's user.
  auto clear = runCommand("/usr/bin/flowexportctl --stats-name " + stats + " clear counters");
  EXPECT_EQ(clear.status, 0) << clear.err;
  auto show = runCommand("/usr/bin/flowexportctl --stats-name " + stats + " show collectors");
  EXPECT_EQ(show.status, 0) << show.err;
  daemon.signal(SIGTERM);
  EXPECT_EQ(daemon.wait(), 0) << daemon.log();
  struct stat st {};
  EXPECT_EQ(::stat("/var/lib/flowexport/ftids", &st), 0) << "no tracker ids kept";
}

}  // namespace
