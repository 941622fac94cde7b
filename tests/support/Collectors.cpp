#include "tests/support/Collectors.h"

#include <arpa/inet.h>
#include <netinet/in.h>
#include <signal.h>
#include <sys/socket.h>
#include <unistd.h>

#include <chrono>
#include <filesystem>
#include <fstream>
#include <sstream>
#include <thread>

namespace TestSupport {

namespace {

// A UDP port of `addr` that is free now.
uint16_t freePort(uint32_t addr) {
  const int s = ::socket(AF_INET, SOCK_DGRAM | SOCK_CLOEXEC, 0);
  sockaddr_in a{};
  a.sin_family = AF_INET;
  a.sin_addr.s_addr = htonl(addr);
  socklen_t len = sizeof a;
  uint16_t port = 0;
  if (::bind(s, reinterpret_cast<sockaddr*>(&a), sizeof a) == 0 &&
      ::getsockname(s, reinterpret_cast<sockaddr*>(&a), &len) == 0) {
    port = ntohs(a.sin_port);
  }
  ::close(s);
  return port;
}

std::string found(const char* path) {
  return ::access(path, X_OK) == 0 ? "" : std::string(path) + " is not installed";
}

}  // namespace

std::string collectorsMissing() {
  for (const char* p : {"/usr/bin/nfcapd", "/usr/bin/nfdump", "/usr/sbin/nfacctd"}) {
    if (auto why = found(p); !why.empty()) return why;
  }
  return "";
}

Nfcapd::Nfcapd(const char* addr) : port_(freePort(ntohl(::inet_addr(addr)))) {
  daemon_ =
      std::make_unique<Daemon>("/usr/bin/nfcapd",
                               std::vector<std::string>{"-b", addr, "-p", std::to_string(port_),
                                                        "-l", dir_.path(), "-t", "3600"},
                               dir_.file("nfcapd.log"));
  std::this_thread::sleep_for(std::chrono::milliseconds(300));  // bound and listening
}

void Nfcapd::stop_() {
  if (!daemon_ || !daemon_->running()) return;
  daemon_->signal(SIGTERM);
  daemon_->wait();
}

std::string Nfcapd::flows(const std::string& format, const std::string& filter) {
  stop_();
  return runCommand("nfdump -q -N -R " + dir_.path() + " -o 'fmt:" + format + "' '" + filter +
                    "' 2>&1")
      .out;
}

std::string Nfcapd::exporters() {
  stop_();
  std::string out;
  for (const auto& f : std::filesystem::directory_iterator(dir_.path())) {
    if (f.path().filename().string().rfind("nfcapd.2", 0) == 0) {
      out += runCommand("nfdump -E " + f.path().string() + " 2>&1").out;
    }
  }
  return out;
}

Nfacctd::Nfacctd() : port_(freePort(INADDR_LOOPBACK + 1)) {
  std::ofstream(dir_.file("nfacctd.conf"))
      << "daemonize: false\nnfacctd_ip: 127.0.0.2\nnfacctd_port: " << port_
      << "\nnfacctd_renormalize: true\nplugins: print\nprint_output: csv\n"
      << "print_output_file: " << dir_.file("flows.csv") << "\nprint_refresh_time: 1\n"
      << "print_output_file_append: true\n"
      << "aggregate: in_iface, src_host, dst_host, src_port, dst_port, proto\n";
  daemon_ = std::make_unique<Daemon>("/usr/sbin/nfacctd",
                                     std::vector<std::string>{"-f", dir_.file("nfacctd.conf")},
                                     dir_.file("nfacctd.log"));
  std::this_thread::sleep_for(std::chrono::milliseconds(500));  // bound and listening
}

std::string Nfacctd::csv() const {
  std::ifstream in(dir_.file("flows.csv"));
  std::stringstream s;
  s << in.rdbuf();
  return s.str();
}

}  // namespace TestSupport
