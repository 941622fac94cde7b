#include "agent/ControlServer.h"

#include <grp.h>
#include <sys/stat.h>

#include <filesystem>

#include "agent/Paths.h"

#include <poll.h>
#include <sys/epoll.h>
#include <sys/socket.h>
#include <sys/stat.h>
#include <sys/un.h>
#include <unistd.h>

#include <fcntl.h>

#include <algorithm>
#include <cerrno>
#include <cstring>

#include "platform/zub/Exception.h"

namespace Agent {

namespace {

sockaddr_un addressOf(const std::string& path) {
  sockaddr_un a{};
  a.sun_family = AF_UNIX;
  if (path.size() >= sizeof a.sun_path) {
    throw Zub::Exception("control socket path too long: " + path);
  }
  std::memcpy(a.sun_path, path.c_str(), path.size() + 1);
  return a;
}

}  // namespace

std::string controlRequestLine(const std::vector<std::string>& words) {
  std::string s;
  for (size_t i = 0; i < words.size(); ++i) s += (i ? "\t" : "") + words[i];
  return s + "\n";
}

std::optional<std::vector<std::string>> controlRequestWords(std::string_view received) {
  const size_t nl = received.find('\n');
  if (nl == std::string_view::npos) return std::nullopt;
  const std::string_view line = received.substr(0, nl);
  std::vector<std::string> words;
  size_t pos = 0;
  for (;;) {
    const size_t tab = line.find('\t', pos);
    words.emplace_back(line.substr(pos, tab == std::string_view::npos ? line.npos : tab - pos));
    if (tab == std::string_view::npos) break;
    pos = tab + 1;
  }
  return words;
}

ControlServer::ControlServer(Orrin::TaskScheduler& scheduler, std::string path,
                             std::optional<gid_t> group, Handler handler)
    : scheduler_(scheduler), path_(std::move(path)), handler_(std::move(handler)) {
  const sockaddr_un addr = addressOf(path_);
  // A socket file left by a daemon that is gone is removed; a live daemon keeps it, and
  // anything that is not a socket (a configuration file given by mistake) is never
  // touched.
  struct stat st {};
  if (::lstat(path_.c_str(), &st) == 0) {
    if (!S_ISSOCK(st.st_mode)) throw Zub::Exception(path_ + " exists and is not a socket");
    std::string why;
    if (controlRequest(path_, {"ping"}, &why)) {
      throw Zub::Exception("another flowexportd answers on " + path_);
    }
    ::unlink(path_.c_str());
  }
  listenFd_ = ::socket(AF_UNIX, SOCK_STREAM | SOCK_CLOEXEC | SOCK_NONBLOCK, 0);
  if (listenFd_ < 0) throw Zub::ErrnoException("socket", errno);
  const mode_t old = ::umask(0177);
  int rc = ::bind(listenFd_, reinterpret_cast<const sockaddr*>(&addr), sizeof addr);
  ::umask(old);
  if (rc < 0 || ::listen(listenFd_, static_cast<int>(kMaxClients)) < 0) {
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
  if (::lstat(path_.c_str(), &st) == 0) {
    dev_ = st.st_dev;
    ino_ = st.st_ino;
  }
  spareFd_ = ::open("/dev/null", O_RDONLY | O_CLOEXEC);
  expiry_ = new Orrin::TimerTask(scheduler_, "ControlClientExpiry", 2, [this] { expireClients(); });
  scheduler_.fdIs(listenFd_, EPOLLIN, [this](uint32_t) { handleAccept(); });
}

ControlServer::~ControlServer() {
  if (expiry_) expiry_->unschedule();
  for (auto& [fd, client] : clients_) {
    scheduler_.fdDel(fd);
    ::close(fd);
  }
  if (spareFd_ >= 0) ::close(spareFd_);
  if (listenFd_ >= 0) {
    scheduler_.fdDel(listenFd_);
    ::close(listenFd_);
    // Only the socket this server made: another daemon may have taken the path since.
    struct stat st {};
    if (::lstat(path_.c_str(), &st) == 0 && st.st_dev == dev_ && st.st_ino == ino_) {
      ::unlink(path_.c_str());
    }
  }
}

void ControlServer::handleAccept() {
  for (int i = 0; i < 64; ++i) {
    int fd = ::accept4(listenFd_, nullptr, nullptr, SOCK_CLOEXEC | SOCK_NONBLOCK);
    if (fd < 0) {
      if ((errno == EMFILE || errno == ENFILE) && spareFd_ >= 0) {
        // Out of descriptors: the pending client would wake the loop forever. The spare
        // descriptor makes room to take it and close it at once.
        ::close(spareFd_);
        const int refused = ::accept4(listenFd_, nullptr, nullptr, SOCK_CLOEXEC);
        if (refused >= 0) ::close(refused);
        spareFd_ = ::open("/dev/null", O_RDONLY | O_CLOEXEC);
        continue;
      }
      return;
    }
    if (clients_.size() >= kMaxClients) {
      const char busy[] = "error: busy\n";
      ssize_t w = ::write(fd, busy, sizeof busy - 1);
      (void)w;
      ::close(fd);
      continue;
    }
    clients_[fd].since = scheduler_.now();
    scheduler_.fdIs(fd, EPOLLIN, [this, fd](uint32_t) { handleClient(fd); });
    if (!expiry_->scheduled()) expiry_->scheduleTaskLowestDelay(kClientTimeout);
  }
}

void ControlServer::expireClients() {
  const Zub::Nanoseconds now = scheduler_.now();
  const Zub::Nanoseconds limit = std::chrono::nanoseconds(kClientTimeout).count();
  Zub::Nanoseconds oldest = now;
  std::vector<int> idle;
  for (const auto& [fd, client] : clients_) {
    if (now - client.since >= limit) {
      idle.push_back(fd);
    } else {
      oldest = std::min(oldest, client.since);
    }
  }
  for (int fd : idle) {
    if (clients_[fd].answered) {
      closeClient(fd);  // it stopped reading its reply
    } else {
      answer(fd, "error: no request within " + std::to_string(kClientTimeout.count()) + " s");
    }
  }
  if (!clients_.empty()) {
    expiry_->scheduleTaskLowestDelay(std::chrono::nanoseconds(oldest + limit - now));
  }
}

void ControlServer::handleClient(int fd) {
  auto it = clients_.find(fd);
  if (it == clients_.end()) return;
  if (it->second.answered) return;
  std::string& received = it->second.received;
  char buf[512];
  bool closed = false;
  for (;;) {
    ssize_t n = ::read(fd, buf, sizeof buf);
    if (n > 0) {
      received.append(buf, static_cast<size_t>(n));
      if (received.find('\n') != std::string::npos) break;
      if (received.size() > kMaxRequest) {
        answer(fd, "error: request longer than " + std::to_string(kMaxRequest) + " bytes");
        return;
      }
      continue;
    }
    if (n < 0 && (errno == EAGAIN || errno == EINTR)) break;
    closed = true;  // the client has sent all it will (a half-close) or failed
    break;
  }
  auto words = controlRequestWords(received);
  if (!words) {
    // A client that half-closes after its request still gets its answer; one that closes
    // before a complete line is dropped.
    if (closed) closeClient(fd);
    return;
  }
  answer(fd, handler_(*words));
}

// Sends the reply and closes the client once it is all written. A reply larger than the
// socket takes at once (a list of flows) is written as the client reads it; a client that
// stops reading is closed by the same timeout as one that sends nothing.
void ControlServer::answer(int fd, const std::string& text) {
  auto it = clients_.find(fd);
  if (it == clients_.end()) return;
  Client& client = it->second;
  client.reply = text.size() > kMaxReply ? text.substr(0, kMaxReply) : text;
  if (client.reply.empty() || client.reply.back() != '\n') client.reply += "\n";
  client.answered = true;
  client.since = scheduler_.now();
  writeReply(fd);
}

void ControlServer::writeReply(int fd) {
  auto it = clients_.find(fd);
  if (it == clients_.end()) return;
  Client& client = it->second;
  while (client.sent < client.reply.size()) {
    const ssize_t w = ::send(fd, client.reply.data() + client.sent,
                             client.reply.size() - client.sent, MSG_NOSIGNAL);
    if (w > 0) {
      client.sent += static_cast<size_t>(w);
      client.since = scheduler_.now();
      continue;
    }
    if (w < 0 && (errno == EAGAIN || errno == EINTR)) {
      scheduler_.fdIs(fd, EPOLLOUT, [this, fd](uint32_t) { writeReply(fd); });
      if (!expiry_->scheduled()) expiry_->scheduleTaskLowestDelay(kClientTimeout);
      return;
    }
    break;  // the client went away
  }
  closeClient(fd);
}

void ControlServer::closeClient(int fd) {
  scheduler_.fdDel(fd);
  ::close(fd);
  clients_.erase(fd);
}

std::string connectError(const std::string& path, int e) {
  if (e == EACCES || e == EPERM) {
    // The socket, or its directory, is its group's: name the group to join.
    struct stat st {};
    std::string name;
    for (const std::string& p : {path, std::filesystem::path(path).parent_path().string()}) {
      if (::stat(p.c_str(), &st) != 0) continue;
      const struct group* gr = ::getgrgid(st.st_gid);
      name = gr ? gr->gr_name : std::to_string(st.st_gid);
      break;
    }
    return "permission denied: only root and the members of the group " +
           (name.empty() ? std::string("of the socket") : name) +
           " may use it; add yourself (sudo adduser $USER " +
           (name.empty() ? std::string("GROUP") : name) + ") and log in again";
  }
  std::string text = std::strerror(e);
  if (e == ENOENT || e == ECONNREFUSED) text += " (is flowexportd running?)";
  return text;
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
    const int e = errno;
    ::close(fd);
    if (error) *error = connectError(path, e);
    return std::nullopt;
  }
  // Only a daemon of this user, of root or the packaged service is told anything: a
  // socket another user made at the path (a squatter) gets no request.
  ucred peer{};
  socklen_t len = sizeof peer;
  if (::getsockopt(fd, SOL_SOCKET, SO_PEERCRED, &peer, &len) < 0 || !trustedDaemonUid(peer.uid)) {
    if (error) {
      *error = "the process on " + path + " runs as uid " + std::to_string(peer.uid) +
               ", neither this user, root nor the flowexport service";
    }
    ::close(fd);
    return std::nullopt;
  }
  const std::string req = controlRequestLine(words);
  if (::write(fd, req.data(), req.size()) != static_cast<ssize_t>(req.size())) {
    if (error) *error = std::strerror(errno);
    ::close(fd);
    return std::nullopt;
  }
  std::string reply;
  std::vector<char> buf(64 * 1024);
  // Bounded: the daemon answers at once and closes when its reply is written; a reply
  // stops coming when nothing arrived for 5 s.
  for (int quiet = 0; quiet < 50 && reply.size() <= ControlServer::kMaxReply;) {
    pollfd p{fd, POLLIN, 0};
    if (::poll(&p, 1, 100) <= 0) {
      ++quiet;
      continue;
    }
    const ssize_t n = ::read(fd, buf.data(), buf.size());
    if (n <= 0) break;
    reply.append(buf.data(), static_cast<size_t>(n));
    quiet = 0;
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
