#include "agent/ControlServer.h"

#include <poll.h>
#include <sys/epoll.h>
#include <sys/socket.h>
#include <sys/stat.h>
#include <sys/un.h>
#include <unistd.h>

#include <cerrno>
#include <cstring>

#include "platform/zub/Exception.h"

namespace Agent {

namespace {
constexpr size_t kMaxRequest = 4096;

sockaddr_un addressOf(const std::string& path) {
  sockaddr_un a{};
  a.sun_family = AF_UNIX;
  if (path.size() >= sizeof a.sun_path) {
    throw Zub::Exception("control socket path too long: " + path);
  }
  std::memcpy(a.sun_path, path.c_str(), path.size() + 1);
  return a;
}

std::string joinWords(const std::vector<std::string>& words) {
  std::string s;
  for (size_t i = 0; i < words.size(); ++i) s += (i ? "\t" : "") + words[i];
  return s + "\n";
}
}  // namespace

ControlServer::ControlServer(Orrin::TaskScheduler& scheduler, std::string path,
                             std::optional<gid_t> group, Handler handler)
    : scheduler_(scheduler), path_(std::move(path)), handler_(std::move(handler)) {
  const sockaddr_un addr = addressOf(path_);
  // A socket file left by a daemon that is gone is removed; a live daemon keeps it.
  std::string why;
  if (controlRequest(path_, {"ping"}, &why)) {
    throw Zub::Exception("another flowexportd answers on " + path_);
  }
  ::unlink(path_.c_str());
  listenFd_ = ::socket(AF_UNIX, SOCK_STREAM | SOCK_CLOEXEC | SOCK_NONBLOCK, 0);
  if (listenFd_ < 0) throw Zub::ErrnoException("socket", errno);
  const mode_t old = ::umask(0177);
  int rc = ::bind(listenFd_, reinterpret_cast<const sockaddr*>(&addr), sizeof addr);
  ::umask(old);
  if (rc < 0 || ::listen(listenFd_, 16) < 0) {
    int e = errno;
    ::close(listenFd_);
    throw Zub::ErrnoException("bind " + path_, e);
  }
  if (group) {
    if (::chown(path_.c_str(), static_cast<uid_t>(-1), *group) < 0 ||
        ::chmod(path_.c_str(), 0660) < 0) {
      int e = errno;
      ::close(listenFd_);
      ::unlink(path_.c_str());
      throw Zub::ErrnoException("chown/chmod " + path_, e);
    }
  }
  scheduler_.fdIs(listenFd_, EPOLLIN, [this](uint32_t) { handleAccept(); });
}

ControlServer::~ControlServer() {
  for (auto& [fd, buf] : clients_) {
    scheduler_.fdDel(fd);
    ::close(fd);
  }
  if (listenFd_ >= 0) {
    scheduler_.fdDel(listenFd_);
    ::close(listenFd_);
    ::unlink(path_.c_str());
  }
}

void ControlServer::handleAccept() {
  for (int i = 0; i < 64; ++i) {
    int fd = ::accept4(listenFd_, nullptr, nullptr, SOCK_CLOEXEC | SOCK_NONBLOCK);
    if (fd < 0) return;
    clients_[fd];
    scheduler_.fdIs(fd, EPOLLIN, [this, fd](uint32_t) { handleClient(fd); });
  }
}

void ControlServer::handleClient(int fd) {
  auto it = clients_.find(fd);
  if (it == clients_.end()) return;
  char buf[512];
  for (;;) {
    ssize_t n = ::read(fd, buf, sizeof buf);
    if (n > 0) {
      it->second.append(buf, static_cast<size_t>(n));
      if (it->second.size() > kMaxRequest) {
        closeClient(fd);
        return;
      }
      continue;
    }
    if (n < 0 && errno == EAGAIN) break;
    closeClient(fd);  // closed before a complete line
    return;
  }
  const size_t nl = it->second.find('\n');
  if (nl == std::string::npos) return;
  std::vector<std::string> words;
  std::string line = it->second.substr(0, nl);
  size_t pos = 0;
  while (pos <= line.size()) {
    size_t tab = line.find('\t', pos);
    words.push_back(line.substr(pos, tab == std::string::npos ? std::string::npos : tab - pos));
    if (tab == std::string::npos) break;
    pos = tab + 1;
  }
  std::string reply = handler_(words);
  if (reply.empty() || reply.back() != '\n') reply += "\n";
  // A short reply on a fresh socket: one write suffices; a client that stalls loses it.
  ssize_t w = ::write(fd, reply.data(), reply.size());
  (void)w;
  closeClient(fd);
}

void ControlServer::closeClient(int fd) {
  scheduler_.fdDel(fd);
  ::close(fd);
  clients_.erase(fd);
}

std::optional<std::string> controlRequest(const std::string& path,
                                          const std::vector<std::string>& words,
                                          std::string* error) {
  sockaddr_un addr;
  try {
    addr = addressOf(path);
  } catch (const Zub::Exception& e) {
    if (error) *error = e.what();
    return std::nullopt;
  }
  int fd = ::socket(AF_UNIX, SOCK_STREAM | SOCK_CLOEXEC, 0);
  if (fd < 0) {
    if (error) *error = std::strerror(errno);
    return std::nullopt;
  }
  if (::connect(fd, reinterpret_cast<const sockaddr*>(&addr), sizeof addr) < 0) {
    if (error) *error = std::strerror(errno);
    ::close(fd);
    return std::nullopt;
  }
  const std::string req = joinWords(words);
  if (::write(fd, req.data(), req.size()) != static_cast<ssize_t>(req.size())) {
    if (error) *error = std::strerror(errno);
    ::close(fd);
    return std::nullopt;
  }
  std::string reply;
  char buf[512];
  // Bounded wait: the daemon answers at once or not at all.
  for (int rounds = 0; rounds < 50; ++rounds) {
    pollfd p{fd, POLLIN, 0};
    if (::poll(&p, 1, 100) <= 0) continue;
    ssize_t n = ::read(fd, buf, sizeof buf);
    if (n <= 0) break;
    reply.append(buf, static_cast<size_t>(n));
    if (reply.find('\n') != std::string::npos) break;
  }
  ::close(fd);
  if (reply.empty()) {
    if (error) *error = "no reply";
    return std::nullopt;
  }
  if (reply.back() == '\n') reply.pop_back();
  return reply;
}

}  // namespace Agent
