#include "platform/dispatch/timer_source.h"

#include <poll.h>
#include <pthread.h>
#include <sys/eventfd.h>
#include <sys/timerfd.h>
#include <unistd.h>

#include <algorithm>
#include <cerrno>
#include <utility>

namespace vantor::dispatch {

namespace {

timespec toTimespec(std::chrono::nanoseconds duration) {
  const auto seconds = std::chrono::duration_cast<std::chrono::seconds>(duration);
  return timespec{static_cast<time_t>(seconds.count()),
                  static_cast<long>((duration - seconds).count())};
}

}  // namespace

TimerSource::TimerSource(clockid_t clock) {
  const auto check = [this](int fd) {
    if (fd < 0 && creationError_ == 0)
      creationError_ = errno;
    return fd;
  };
  timerFd_ = check(::timerfd_create(clock, TFD_CLOEXEC | TFD_NONBLOCK));
  wakeFd_ = check(::eventfd(0, EFD_CLOEXEC | EFD_NONBLOCK));
  stopFd_ = check(::eventfd(0, EFD_CLOEXEC | EFD_NONBLOCK));
}

TimerSource::~TimerSource() {
  stop();
  for (int fd : {timerFd_, wakeFd_, stopFd_}) {
    if (fd >= 0)
      ::close(fd);
  }
}

int TimerSource::armInterval(std::chrono::nanoseconds interval) {
  const timespec each = toTimespec(interval);
  const itimerspec timer{each, each};
  return ::timerfd_settime(timerFd_, 0, &timer, nullptr) == 0 ? 0 : errno;
}

int TimerSource::armAt(std::chrono::nanoseconds sinceEpoch, ClockSet onClockSet) {
  itimerspec timer{};
  // A zero time would disarm the timer instead.
  timer.it_value = toTimespec(std::max(sinceEpoch, std::chrono::nanoseconds(1)));
  const int flags =
      TFD_TIMER_ABSTIME | (onClockSet == ClockSet::kCancel ? TFD_TIMER_CANCEL_ON_SET : 0);
  return ::timerfd_settime(timerFd_, flags, &timer, nullptr) == 0 ? 0 : errno;
}

void TimerSource::wakeAfter(std::chrono::milliseconds delay) {
  wakeDeadline_ = after(delay);
}

int TimerSource::wake() {
  const std::uint64_t one = 1;
  // A counter at its limit wakes the thread already.
  if (wakeFd_ >= 0 && ::write(wakeFd_, &one, sizeof one) < 0 && errno != EAGAIN)
    return errno;
  return 0;
}

void TimerSource::start(Handler handler, ErrorHandler onError, Watch watch) {
  handler_ = std::move(handler);
  onError_ = std::move(onError);
  thread_ = std::thread([this, watch] { run(watch); });
}

int TimerSource::stop() {
  if (!thread_.joinable())
    return 0;
  const std::uint64_t one = 1;
  if (::write(stopFd_, &one, sizeof one) != sizeof one) {
    const int error = errno;
    thread_.detach();
    return error;
  }
  thread_.join();
  return 0;
}

std::chrono::nanoseconds TimerSource::threadCpuTime() const {
  clockid_t clock;
  timespec used{};
  if (!thread_.joinable() ||
      pthread_getcpuclockid(const_cast<std::thread&>(thread_).native_handle(), &clock) != 0 ||
      ::clock_gettime(clock, &used) != 0) {
    return {};
  }
  return std::chrono::seconds(used.tv_sec) + std::chrono::nanoseconds(used.tv_nsec);
}

int TimerSource::pollTimeout() const {
  if (!wakeDeadline_)
    return -1;
  // Rounded up, so the thread does not wake just before the deadline.
  const auto left =
      std::chrono::ceil<std::chrono::milliseconds>(*wakeDeadline_ - MonotonicClock::now());
  return static_cast<int>(std::clamp<std::int64_t>(left.count(), 0, 1 << 30));
}

bool TimerSource::readCounter(int fd, std::uint64_t* count, Wake* wake) {
  if (::read(fd, count, sizeof *count) == sizeof *count)
    return true;
  if (errno == ECANCELED) {
    wake->clockSet = true;
  } else if (errno != EAGAIN) {
    onError_(Failure::kRead, errno);
  }
  return false;
}

void TimerSource::run(Watch watch) {
  handler_(Wake{.started = true});
  // A negative descriptor (no watch) is ignored by poll().
  pollfd fds[4] = {{timerFd_, POLLIN, 0},
                   {watch.fd, watch.events, 0},
                   {wakeFd_, POLLIN, 0},
                   {stopFd_, POLLIN, 0}};
  // Clears a mark older than what the first call saw.
  ::poll(&fds[1], 1, 0);
  for (;;) {
    const int ready = ::poll(fds, 4, pollTimeout());
    if (ready < 0) {
      if (errno == EINTR)
        continue;
      onError_(Failure::kPoll, errno);
      return;
    }
    if (fds[3].revents != 0)
      return;
    Wake wake;
    wake.timedOut = ready == 0;
    wakeDeadline_.reset();
    if (fds[0].revents != 0) {
      wake.timer = true;
      if (!readCounter(timerFd_, &wake.expirations, &wake))
        wake.expirations = 0;
    }
    // Polling the watched descriptor has cleared its mark.
    wake.watched = fds[1].revents != 0;
    if (fds[2].revents != 0) {
      wake.woken = true;
      std::uint64_t count = 0;
      readCounter(wakeFd_, &count, &wake);
    }
    handler_(wake);
  }
}

}  // namespace vantor::dispatch
