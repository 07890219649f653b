#include "testkit/child_process.h"

#include <fcntl.h>
#include <poll.h>
#include <signal.h>
#include <sys/syscall.h>
#include <sys/wait.h>
#include <unistd.h>

#include <cstdlib>
#include <stdexcept>
#include <utility>

namespace vantor::testkit {

namespace {

int pidfdOpen(pid_t pid) {
  return static_cast<int>(::syscall(SYS_pidfd_open, pid, 0));
}

}  // namespace

ChildProcess::ChildProcess(const std::vector<std::string>& argv,
                           const std::map<std::string, std::string>& env,
                           const std::filesystem::path& logFile, bool captureStdout) {
  int out[2] = {-1, -1};
  if (captureStdout && ::pipe2(out, O_CLOEXEC) != 0)
    throw std::runtime_error("pipe failed");
  Fd readEnd(out[0]);
  const Fd writeEnd(out[1]);
  pid_ = ::fork();
  if (pid_ < 0)
    throw std::runtime_error("fork failed");
  if (pid_ == 0) {
    int fd = ::open(logFile.c_str(), O_WRONLY | O_CREAT | O_APPEND | O_CLOEXEC, 0644);
    if (fd >= 0) {
      ::dup2(fd, STDERR_FILENO);
      ::dup2(fd, STDOUT_FILENO);
    }
    if (captureStdout)
      ::dup2(writeEnd.get(), STDOUT_FILENO);
    for (const auto& [name, value] : env)
      ::setenv(name.c_str(), value.c_str(), 1);
    std::vector<char*> args;
    for (const auto& a : argv)
      args.push_back(const_cast<char*>(a.c_str()));
    args.push_back(nullptr);
    ::execv(args[0], args.data());
    ::_exit(127);
  }
  pidfd_ = Fd(pidfdOpen(pid_));
  stdout_ = std::move(readEnd);
}

bool ChildProcess::sawLineStartingWith(const std::string& prefix) const {
  for (const auto& line : lines_) {
    if (line.rfind(prefix, 0) == 0)
      return true;
  }
  return false;
}

std::optional<std::string> ChildProcess::waitForLine(const std::string& prefix,
                                                     std::chrono::milliseconds timeout) {
  const auto deadline = std::chrono::steady_clock::now() + timeout;
  for (;;) {
    for (; scanned_ < lines_.size(); ++scanned_) {
      if (lines_[scanned_].rfind(prefix, 0) == 0)
        return lines_[scanned_++];
    }
    if (!stdout_.valid())
      return std::nullopt;
    auto left = std::chrono::duration_cast<std::chrono::milliseconds>(
        deadline - std::chrono::steady_clock::now());
    if (left.count() <= 0)
      return std::nullopt;
    struct pollfd pfd {
      stdout_.get(), POLLIN, 0
    };
    if (::poll(&pfd, 1, static_cast<int>(left.count())) <= 0)
      return std::nullopt;
    char buffer[4096];
    ssize_t n = ::read(stdout_.get(), buffer, sizeof buffer);
    if (n <= 0) {
      stdout_ = Fd();
      continue;
    }
    pending_.append(buffer, static_cast<std::size_t>(n));
    for (auto nl = pending_.find('\n'); nl != std::string::npos; nl = pending_.find('\n')) {
      lines_.push_back(pending_.substr(0, nl));
      pending_.erase(0, nl + 1);
    }
  }
}

ChildProcess::~ChildProcess() {
  if (!status_) {
    ::kill(pid_, SIGKILL);
    int status = 0;
    ::waitpid(pid_, &status, 0);
  }
}

void ChildProcess::signal(int sig) {
  if (!status_)
    ::kill(pid_, sig);
}

std::optional<int> ChildProcess::waitExit(std::chrono::milliseconds timeout) {
  if (status_)
    return status_;
  struct pollfd pfd {
    pidfd_.get(), POLLIN, 0
  };
  if (::poll(&pfd, 1, static_cast<int>(timeout.count())) <= 0)
    return std::nullopt;
  int status = 0;
  if (::waitpid(pid_, &status, 0) != pid_)
    return std::nullopt;
  status_ = status;
  return status_;
}

}  // namespace vantor::testkit
