#include "platform/hollin/CAgent.h"

#include <signal.h>
#include <sys/epoll.h>
#include <sys/signalfd.h>
#include <unistd.h>

#include <cerrno>

#include "platform/zub/Exception.h"

namespace Hollin {

CAgent::CAgent() : scheduler_(std::make_unique<Orrin::TaskScheduler>(Zub::System::clock())) {}

CAgent::~CAgent() {
  if (signalFd_ >= 0) {
    scheduler_->fdDel(signalFd_);
    ::close(signalFd_);
  }
}

void CAgent::exitIs(bool exit) {
  exit_ = exit;
  if (exit) scheduler_->stop();
}

namespace {
sigset_t agentSignals() {
  sigset_t set;
  sigemptyset(&set);
  sigaddset(&set, SIGTERM);
  sigaddset(&set, SIGINT);
  sigaddset(&set, SIGHUP);
  return set;
}
}  // namespace

void CAgent::blockSignals() {
  const sigset_t set = agentSignals();
  if (sigprocmask(SIG_BLOCK, &set, nullptr) < 0) throw Zub::ErrnoException("sigprocmask", errno);
}

void CAgent::run() {
  if (signalFd_ < 0) {
    blockSignals();
    const sigset_t set = agentSignals();
    signalFd_ = ::signalfd(-1, &set, SFD_CLOEXEC | SFD_NONBLOCK);
    if (signalFd_ < 0) throw Zub::ErrnoException("signalfd", errno);
    scheduler_->fdIs(signalFd_, EPOLLIN, [this](uint32_t) { handleSignalFd(); });
  }
  while (!exit_) scheduler_->run();
}

void CAgent::handleSignalFd() {
  signalfd_siginfo info;
  while (::read(signalFd_, &info, sizeof info) == sizeof info) {
    if (info.ssi_signo == SIGHUP) {
      handleHangup();
    } else {
      handleTerminate(static_cast<int>(info.ssi_signo));
    }
  }
}

}  // namespace Hollin
