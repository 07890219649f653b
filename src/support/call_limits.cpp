#include "support/call_limits.h"

#include "support/log.h"

namespace vantor {

std::unique_ptr<CallLimits::Admission> CallLimits::admit(const std::string& sender,
                                                         std::string* reason) {
  std::lock_guard lock(mutex_);
  Sender& entry = senders_[sender];
  const char* over = nullptr;
  std::size_t limit = 0;
  bool* refusing = nullptr;
  if (entry.live.size() >= caps_.perSender) {
    over = "from this sender";
    limit = caps_.perSender;
    refusing = &entry.refusing;
  } else if (total_ >= caps_.total) {
    over = "in total";
    limit = caps_.total;
    refusing = &refusingAll_;
  }
  if (over != nullptr) {
    *reason = std::string("Too many ") + kind_ + " calls in progress " + over + " (limit " +
              std::to_string(limit) + "); retry once earlier calls are answered";
    if (!*refusing) {
      *refusing = true;
      VANTOR_LOG(3, "%s refusing calls from %s: %s", "-[VantorListener dispatchCall]",
                 sender.c_str(), reason->c_str());
    }
    if (entry.live.empty())
      senders_.erase(sender);
    return nullptr;
  }
  auto admission = std::make_unique<Admission>(shared_from_this(), sender);
  entry.live.insert(admission.get());
  ++total_;
  return admission;
}

void CallLimits::senderLeft(const std::string& sender) {
  std::lock_guard lock(mutex_);
  auto it = senders_.find(sender);
  if (it == senders_.end())
    return;
  for (Admission* admission : it->second.live) {
    admission->gone_->store(true);
    if (!admission->released_.exchange(true))
      --total_;
  }
  refusingAll_ = false;
  senders_.erase(it);
}

std::pair<std::size_t, std::size_t> CallLimits::inProgress() {
  std::lock_guard lock(mutex_);
  return {total_, senders_.size()};
}

void CallLimits::leave(const std::string& sender, Admission* admission) {
  std::lock_guard lock(mutex_);
  --total_;
  refusingAll_ = false;
  auto it = senders_.find(sender);
  if (it != senders_.end() && it->second.live.erase(admission) != 0 && it->second.live.empty())
    senders_.erase(it);
}

}  // namespace vantor
