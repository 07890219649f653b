#pragma once

#include <atomic>
#include <cstddef>
#include <memory>
#include <mutex>
#include <set>
#include <string>
#include <unordered_map>
#include <utility>

#include "support/client_connection.h"

namespace vantor {

// How many client calls may be in progress (admitted, not yet answered) at
// once: in total, and from one sender.
struct CallCaps {
  std::size_t total;
  std::size_t perSender;
};

// The caps of each of the listener's two kinds of call. A call may hold a pool
// thread for minutes, so these keep a flood of callers well below the pool's
// ordinary limit and leave room for every other caller.
inline constexpr CallCaps kClientCallCaps{512, 64};

// Counts the client calls in progress, in total and per sender, and refuses a
// call that would go over a cap. Thread-safe. Shared with the admissions it
// hands out, which may outlive the listener. A refusal is logged once per
// episode, not once per refused call of a flood: per sender while it is over
// its own cap, once for all while the total is reached.
class CallLimits : public std::enable_shared_from_this<CallLimits> {
 public:
  // `kind` names the calls in refusals ("operation"); it must outlive this.
  explicit CallLimits(const char* kind, CallCaps caps = kClientCallCaps)
      : kind_(kind), caps_(caps) {}

  // One admitted call's place. Released when the call is answered, when it is
  // destroyed, or when its sender leaves the bus, whichever comes first; the
  // last also raises the call's departure flag.
  class Admission {
   public:
    Admission(std::shared_ptr<CallLimits> limits, std::string sender)
        : limits_(std::move(limits)), sender_(std::move(sender)) {}
    ~Admission() { release(); }
    Admission(const Admission&) = delete;
    Admission& operator=(const Admission&) = delete;
    void release() {
      if (!released_.exchange(true))
        limits_->leave(sender_, this);
    }
    CallerGone gone() const { return gone_; }

   private:
    friend class CallLimits;
    std::shared_ptr<CallLimits> limits_;
    std::string sender_;
    std::atomic<bool> released_{false};
    std::shared_ptr<std::atomic<bool>> gone_ = std::make_shared<std::atomic<bool>>(false);
  };

  // Admits a call from `sender`, or returns null with the reason when it would
  // go over a cap.
  std::unique_ptr<Admission> admit(const std::string& sender, std::string* reason);

  // `sender` has left the bus: its calls stop counting at once, and each is
  // marked so that its work is skipped when its turn comes.
  void senderLeft(const std::string& sender);

  // Calls counted now, and the senders they come from.
  std::pair<std::size_t, std::size_t> inProgress();

 private:
  struct Sender {
    std::set<Admission*> live;
    bool refusing = false;
  };

  void leave(const std::string& sender, Admission* admission);

  const char* const kind_;
  const CallCaps caps_;
  std::mutex mutex_;
  std::size_t total_ = 0;
  bool refusingAll_ = false;
  std::unordered_map<std::string, Sender> senders_;
};

}  // namespace vantor
