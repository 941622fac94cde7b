// The control socket against clients that misbehave: half-closed requests, idle and
// too many clients, running out of descriptors, a path that is not a socket, another
// daemon's socket at the path. The loop is driven step by step on a manual clock.

#include <fcntl.h>
#include <grp.h>
#include <gtest/gtest.h>
#include <sys/resource.h>
#include <sys/socket.h>
#include <sys/stat.h>
#include <sys/un.h>
#include <unistd.h>

#include <sys/wait.h>

#include <cstring>
#include <filesystem>
#include <fstream>
#include <thread>

#include "agent/ControlServer.h"
#include "platform/zub/Exception.h"
#include "tests/support/Decoders.h"

namespace {

using namespace std::chrono_literals;
using Agent::ControlServer;

class ControlServerTest : public ::testing::Test {
 protected:
  Zub::ManualClock clock;
  Zub::ScopedClock scoped{clock};
  Orrin::TaskScheduler sched{clock};
  TestSupport::TempDir dir;
  std::string path = dir.file("ctl.sock");

  std::unique_ptr<ControlServer> makeServer() {
    return std::make_unique<ControlServer>(sched, path, std::nullopt,
                                           [](const std::vector<std::string>& words) {
                                             std::string s = "ok";
                                             for (const auto& w : words) s += " " + w;
                                             return s;
                                           });
  }
  // A connected client socket (the connection completes in the listen backlog).
  int connectClient() const {
    int fd = ::socket(AF_UNIX, SOCK_STREAM | SOCK_CLOEXEC, 0);
    sockaddr_un a{};
    a.sun_family = AF_UNIX;
    std::strncpy(a.sun_path, path.c_str(), sizeof a.sun_path - 1);
    EXPECT_EQ(::connect(fd, reinterpret_cast<sockaddr*>(&a), sizeof a), 0) << std::strerror(errno);
    return fd;
  }
  void pump(int rounds = 5) {
    for (int i = 0; i < rounds; ++i) sched.pollFds(10ms);
  }
  // What the server sent before closing (the client's end is non-blocking by then).
  static std::string readAll(int fd) {
    std::string s;
    char buf[256];
    ssize_t n;
    while ((n = ::recv(fd, buf, sizeof buf, MSG_DONTWAIT)) > 0) s.append(buf, n);
    return s;
  }
  // One request on a fresh connection, the loop run, the reply read.
  std::string ask(const std::string& request) {
    int fd = connectClient();
    EXPECT_EQ(::write(fd, request.data(), request.size()), static_cast<ssize_t>(request.size()));
    pump();
    std::string reply = readAll(fd);
    ::close(fd);
    return reply;
  }
  static bool closedByServer(int fd) {
    char c;
    return ::recv(fd, &c, 1, MSG_DONTWAIT) == 0;
  }
};

TEST_F(ControlServerTest, HalfClosedAndOversizedRequestsAreAnswered) {
  auto server = makeServer();
  // What `echo ... | nc -U` and socat do: the request, then end of input.
  int fd = connectClient();
  ASSERT_EQ(::write(fd, "clear-counters\tt1\n", 18), 18);
  ::shutdown(fd, SHUT_WR);
  pump();
  EXPECT_EQ(readAll(fd), "ok clear-counters t1\n");
  ::close(fd);

  EXPECT_EQ(ask(std::string(ControlServer::kMaxRequest + 1, 'x')),
            "error: request longer than 4096 bytes\n");

  // Closing before a complete line gets nothing and frees the slot.
  fd = connectClient();
  ASSERT_EQ(::write(fd, "ping", 4), 4);
  ::shutdown(fd, SHUT_WR);
  pump();
  EXPECT_TRUE(closedByServer(fd));
  EXPECT_EQ(server->clients(), 0u);
  ::close(fd);
}

TEST_F(ControlServerTest, IdleClientsAreTimedOutAndTheirNumberCapped) {
  auto server = makeServer();
  std::vector<int> idle;
  for (size_t i = 0; i < ControlServer::kMaxClients; ++i) {
    idle.push_back(connectClient());
    sched.pollFds(0ms);  // accepted before the listen backlog fills
  }
  pump();
  EXPECT_EQ(server->clients(), ControlServer::kMaxClients);
  int extra = connectClient();
  pump();
  EXPECT_EQ(readAll(extra), "error: busy\n");
  ::close(extra);

  sched.advance(1900ms);
  pump();
  EXPECT_EQ(server->clients(), ControlServer::kMaxClients);
  sched.advance(100ms);
  pump();
  EXPECT_EQ(server->clients(), 0u);
  EXPECT_EQ(readAll(idle[0]), "error: no request within 2 s\n");
  for (int fd : idle) ::close(fd);

  // Room again for a client that asks.
  EXPECT_EQ(ask("ping\n"), "ok ping\n");
}

TEST_F(ControlServerTest, RunningOutOfDescriptorsRefusesClientsWithoutSpinning) {
#if defined(__SANITIZE_ADDRESS__) || defined(__SANITIZE_UNDEFINED__)
  // The sanitizers' runtime opens files of its own (/proc/self/maps) to check a pointer;
  // with no descriptor left it reports a false error.
  GTEST_SKIP() << "not under the sanitizers: their runtime needs descriptors too";
#endif
  auto server = makeServer();
  std::vector<int> waiting;
  for (int i = 0; i < 3; ++i) waiting.push_back(connectClient());
  rlimit old{};
  ASSERT_EQ(::getrlimit(RLIMIT_NOFILE, &old), 0);
  // No descriptor left: the lowest free one is the limit.
  const int probe = ::open("/dev/null", O_RDONLY | O_CLOEXEC);
  ASSERT_GE(probe, 0);
  ::close(probe);
  rlimit tight = old;
  tight.rlim_cur = static_cast<rlim_t>(probe);
  ASSERT_EQ(::setrlimit(RLIMIT_NOFILE, &tight), 0);
  const size_t first = sched.pollFds(10ms);
  const size_t second = sched.pollFds(10ms);
  ASSERT_EQ(::setrlimit(RLIMIT_NOFILE, &old), 0);
  EXPECT_EQ(first, 1u);   // the listening socket, once
  EXPECT_EQ(second, 0u);  // and not again: every waiting client was taken and closed
  for (int fd : waiting) {
    EXPECT_TRUE(closedByServer(fd));
    ::close(fd);
  }
  EXPECT_EQ(ask("ping\n"), "ok ping\n");
}

// The path is someone else's: a file that is not a socket is refused and kept; another
// daemon's socket, put there meanwhile, outlives this server.
TEST_F(ControlServerTest, OnlyItsOwnSocketIsEverRemoved) {
  std::ofstream(path) << "flow-tracking: {enabled: true}\n";
  try {
    makeServer();
    ADD_FAILURE() << "accepted";
  } catch (const Zub::Exception& e) {
    EXPECT_EQ(std::string(e.what()), path + " exists and is not a socket");
  }
  std::ifstream in(path);
  EXPECT_EQ(std::string(std::istreambuf_iterator<char>(in), {}),
            "flow-tracking: {enabled: true}\n");
  ASSERT_EQ(::unlink(path.c_str()), 0);
  auto server = makeServer();
  ASSERT_EQ(::unlink(path.c_str()), 0);  // another daemon takes the path meanwhile
  ControlServer other(sched, path, std::nullopt, [](const auto&) { return "ok"; });
  struct stat before {
  }, after{};
  ASSERT_EQ(::lstat(path.c_str(), &before), 0);
  server.reset();
  ASSERT_EQ(::lstat(path.c_str(), &after), 0) << "the other daemon's socket was removed";
  EXPECT_EQ(after.st_ino, before.st_ino);
  EXPECT_EQ(ask("ping\n"), "ok\n");
}

TEST_F(ControlServerTest, TheClientTalksOnlyToItsOwnUsersOrRootsDaemon) {
  if (::geteuid() != 0) GTEST_SKIP() << "needs root to run a squatter as another user";
  std::filesystem::permissions(dir.path(), std::filesystem::perms::all);
  // A squatter of another user listens on the path.
  const pid_t child = ::fork();
  if (child == 0) {
    if (::setgid(65534) != 0 || ::setuid(65534) != 0) ::_exit(2);
    int fd = ::socket(AF_UNIX, SOCK_STREAM, 0);
    sockaddr_un a{};
    a.sun_family = AF_UNIX;
    std::strncpy(a.sun_path, path.c_str(), sizeof a.sun_path - 1);
    if (::bind(fd, reinterpret_cast<sockaddr*>(&a), sizeof a) != 0 || ::listen(fd, 4) != 0) {
      ::_exit(3);
    }
    ::alarm(10);  // bounded whatever the parent does
    const int c = ::accept(fd, nullptr, nullptr);
    char buf[64];
    ::_exit(c >= 0 && ::read(c, buf, sizeof buf) > 0 ? 4 : 0);  // 4: it was told something
  }
  for (int i = 0; i < 500 && !std::filesystem::exists(path); ++i) std::this_thread::sleep_for(2ms);
  std::string error;
  EXPECT_FALSE(Agent::controlRequest(path, {"clear-counters"}, &error));
  EXPECT_EQ(error, "the process on " + path +
                       " runs as uid 65534, neither this user, root nor the flowexport "
                       "service");
  int status = 0;
  ASSERT_EQ(::waitpid(child, &status, 0), child);
  EXPECT_TRUE(WIFEXITED(status) && WEXITSTATUS(status) == 0) << "squatter status " << status;
}

}  // namespace

// What a client is told when it cannot connect: a user outside the socket's group which
// group to join, a missing socket whether the daemon runs.
TEST(ControlClient, ConnectErrorsSayWhatToDo) {
  TestSupport::TempDir dir;
  const struct group* gr = ::getgrgid(::getegid());
  ASSERT_NE(gr, nullptr);
  const std::string name = gr->gr_name;
  EXPECT_EQ(Agent::connectError(dir.file("control.sock"), EACCES),
            "permission denied: only root and the members of the group " + name +
                " may use it; add yourself (sudo adduser $USER " + name + ") and log in again");
  EXPECT_EQ(Agent::connectError(dir.file("control.sock"), ENOENT),
            "No such file or directory (is flowexportd running?)");
}
