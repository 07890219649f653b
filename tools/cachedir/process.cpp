#include "process.h"

#include <fcntl.h>
#include <linux/close_range.h>
#include <poll.h>
#include <signal.h>
#include <sys/resource.h>
#include <sys/syscall.h>
#include <sys/wait.h>
#include <unistd.h>

#include <algorithm>
#include <cerrno>
#include <cstring>
#include <optional>

#include "log.h"
#include "safe_fs.h"

namespace vantor::cachedir {

namespace {

using Clock = std::chrono::steady_clock;

constexpr auto kGrace = std::chrono::seconds(2);
constexpr auto kPollInterval = std::chrono::milliseconds(50);
constexpr std::size_t kMaxLine = 4096;

// One output stream of the command: its pipe and the line being gathered.
struct Stream {
  Fd fd;
  std::string line;
  bool keep = false;  // stdout: also kept for the caller
};

class Reader {
 public:
  Reader(const std::string& logName, CommandResult* result) : name_(logName), result_(result) {}

  // Reads what `stream` has; false at end of file.
  bool read(Stream& stream) {
    char buffer[8192];
    for (;;) {
      const ssize_t n = ::read(stream.fd.get(), buffer, sizeof buffer);
      if (n < 0 && errno == EINTR)
        continue;
      if (n < 0)
        return errno == EAGAIN;
      if (n == 0) {
        flush(stream);
        return false;
      }
      take(stream, std::string_view(buffer, static_cast<std::size_t>(n)));
    }
  }

  void flush(Stream& stream) {
    if (!stream.line.empty())
      emit(stream);
  }

 private:
  void take(Stream& stream, std::string_view bytes) {
    if (stream.keep) {
      const std::size_t room = kMaxCommandOutput - result_->output.size();
      result_->output.append(bytes.substr(0, room));
      result_->truncated = result_->truncated || bytes.size() > room;
    }
    for (char c : bytes) {
      if (c == '\n') {
        emit(stream);
        continue;
      }
      stream.line.push_back(c);
      if (stream.line.size() >= kMaxLine)
        emit(stream);
    }
  }

  void emit(Stream& stream) {
    if (lines_ < kMaxLoggedLines)
      log(Priority::kInfo, name_ + ": " + stream.line);
    else if (lines_ == kMaxLoggedLines)
      log(Priority::kInfo, name_ + ": (further output not logged)");
    ++lines_;
    stream.line.clear();
  }

  const std::string& name_;
  CommandResult* result_;
  int lines_ = 0;
};

// The child's side, between fork and exec: only async-signal-safe calls.
[[noreturn]] void execChild(int devNull, int out, int err, int report, char* const argv[],
                            char* const envp[]) {
  // Out of the way of 0, 1 and 2, whatever numbers the pipes were given.
  devNull = ::fcntl(devNull, F_DUPFD_CLOEXEC, 3);
  out = ::fcntl(out, F_DUPFD_CLOEXEC, 3);
  err = ::fcntl(err, F_DUPFD_CLOEXEC, 3);
  bool ok = devNull >= 0 && out >= 0 && err >= 0 && ::setsid() >= 0 && ::dup2(devNull, 0) == 0 &&
            ::dup2(out, 1) == 1 && ::dup2(err, 2) == 2 && ::chdir("/") == 0;
  if (ok) {
    struct sigaction action {};
    action.sa_handler = SIG_DFL;
    for (int sig = 1; sig < NSIG; ++sig)
      ::sigaction(sig, &action, nullptr);
    sigset_t none;
    ::sigemptyset(&none);
    ::sigprocmask(SIG_SETMASK, &none, nullptr);
    // Descriptors the rest of the process opened without O_CLOEXEC go too.
    if (::syscall(SYS_close_range, 3U, ~0U, CLOSE_RANGE_CLOEXEC) != 0) {
      struct rlimit limit {};
      const rlim_t top = ::getrlimit(RLIMIT_NOFILE, &limit) == 0 ? limit.rlim_cur : 1024;
      for (int fd = 3; fd < static_cast<int>(std::min<rlim_t>(top, 65536)); ++fd)
        ::fcntl(fd, F_SETFD, FD_CLOEXEC);
    }
    ::execve(argv[0], argv, envp);
  }
  const int error = errno;
  [[maybe_unused]] ssize_t n = ::write(report, &error, sizeof error);
  ::_exit(127);
}

bool makePipe(Fd* readEnd, Fd* writeEnd) {
  int fds[2];
  if (::pipe2(fds, O_CLOEXEC) != 0)
    return false;
  *readEnd = Fd(fds[0]);
  *writeEnd = Fd(fds[1]);
  return true;
}

// Kills and reaps the command if runCommand leaves early (an exception from
// `cancelled`, an allocation failure).
class Child {
 public:
  explicit Child(pid_t pid) : pid_(pid) {}
  ~Child() {
    if (pid_ > 0) {
      ::kill(-pid_, SIGKILL);
      wait();
    }
  }
  Child(const Child&) = delete;
  Child& operator=(const Child&) = delete;

  pid_t pid() const { return pid_; }

  // Whether the command has ended, without reaping it: while it is a zombie
  // its group ID cannot be reused, so the group can still be killed safely.
  bool ended() const {
    siginfo_t info{};
    return ::waitid(P_PID, static_cast<id_t>(pid_), &info, WEXITED | WNOHANG | WNOWAIT) == 0 &&
           info.si_pid == pid_;
  }

  int wait() {
    int status = 0;
    while (::waitpid(pid_, &status, 0) < 0 && errno == EINTR) {
    }
    pid_ = -1;
    return status;
  }

 private:
  pid_t pid_;
};

}  // namespace

std::string CommandResult::describe() const {
  switch (end) {
    case End::kExited:
      return "exited with " + std::to_string(status);
    case End::kSignaled:
      return std::string("killed by ") + ::strsignal(status);
    case End::kTimedOut:
      return "stopped after its time limit";
    case End::kCancelled:
      return "stopped on cancel";
    case End::kNotStarted:
      return "not started: " + error;
  }
  return {};
}

CommandResult runCommand(const std::vector<std::string>& argv, std::chrono::milliseconds timeout,
                         const std::function<bool()>& cancelled, const std::string& logName) {
  CommandResult result;
  if (argv.empty() || argv[0].empty() || argv[0].front() != '/') {
    result.error = "the command is not an absolute path";
    return result;
  }
  // Everything the child needs is prepared before fork: after it, only
  // async-signal-safe calls are allowed in a threaded process.
  std::vector<char*> args;
  for (const auto& a : argv)
    args.push_back(const_cast<char*>(a.c_str()));
  args.push_back(nullptr);
  char path[] = "PATH=/usr/sbin:/usr/bin:/sbin:/bin";
  char lang[] = "LANG=C.UTF-8";
  char* envp[] = {path, lang, nullptr};

  Fd devNull(::open("/dev/null", O_RDONLY | O_CLOEXEC));
  Stream out, err;
  Fd outWrite, errWrite, reportRead, reportWrite;
  out.keep = true;
  if (!devNull.valid() || !makePipe(&out.fd, &outWrite) || !makePipe(&err.fd, &errWrite) ||
      !makePipe(&reportRead, &reportWrite)) {
    result.error = std::strerror(errno);
    return result;
  }
  const pid_t pid = ::fork();
  if (pid < 0) {
    result.error = std::string("fork: ") + std::strerror(errno);
    return result;
  }
  if (pid == 0)
    execChild(devNull.get(), outWrite.get(), errWrite.get(), reportWrite.get(), args.data(), envp);
  Child child(pid);
  outWrite = Fd();
  errWrite = Fd();
  reportWrite = Fd();

  // exec closes the report pipe; a failed exec writes its errno first.
  int execError = 0;
  ssize_t n;
  while ((n = ::read(reportRead.get(), &execError, sizeof execError)) < 0 && errno == EINTR) {
  }
  if (n == sizeof execError) {
    child.wait();
    result.error = argv[0] + ": " + std::strerror(execError);
    return result;
  }
  for (Stream* s : {&out, &err})
    ::fcntl(s->fd.get(), F_SETFL, O_NONBLOCK);

  Reader reader(logName, &result);
  const auto deadline = Clock::now() + timeout;
  std::optional<Clock::time_point> killAt;
  bool outOpen = true, errOpen = true;
  // Gathers output until the command ends, stopping it when it must.
  // Waits a poll interval at most for output, and reads what came.
  const auto readOutput = [&] {
    pollfd fds[2];
    nfds_t count = 0;
    if (outOpen)
      fds[count++] = {out.fd.get(), POLLIN, 0};
    if (errOpen)
      fds[count++] = {err.fd.get(), POLLIN, 0};
    ::poll(fds, count, static_cast<int>(kPollInterval.count()));
    outOpen = outOpen && reader.read(out);
    errOpen = errOpen && reader.read(err);
  };
  while (!child.ended()) {
    const auto now = Clock::now();
    if (!killAt && (now >= deadline || (cancelled && cancelled()))) {
      result.end = now >= deadline ? CommandResult::End::kTimedOut : CommandResult::End::kCancelled;
      ::kill(-pid, SIGTERM);
      killAt = now + kGrace;
    } else if (killAt && now >= *killAt) {
      ::kill(-pid, SIGKILL);
    }
    readOutput();
  }
  // Helpers it left behind in its group go with it.
  ::kill(-pid, SIGKILL);
  const int status = child.wait();
  if (result.end == CommandResult::End::kNotStarted) {
    result.end = WIFEXITED(status) ? CommandResult::End::kExited : CommandResult::End::kSignaled;
    result.status = WIFEXITED(status) ? WEXITSTATUS(status) : WTERMSIG(status);
  }
  // What is still in the pipes. A descendant that left the group could hold
  // them open: it is not waited for beyond a moment.
  const auto drainUntil = Clock::now() + kPollInterval * 4;
  while ((outOpen || errOpen) && Clock::now() < drainUntil) {
    readOutput();
  }
  reader.flush(out);
  reader.flush(err);
  return result;
}

}  // namespace vantor::cachedir
