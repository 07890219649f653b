#include "support/purge_history.h"

#include <utility>

namespace vantor {

void PurgeHistory::discard(const void* key) {
  std::lock_guard lock(mutex_);
  open_.erase(key);
}

void PurgeHistory::begin(const void* key, Value::Dictionary fields) {
  std::lock_guard lock(mutex_);
  open_.insert_or_assign(key, Open{std::move(fields), {}, {}, false});
}

void PurgeHistory::noteLevel(const void* key, std::int32_t level) {
  std::lock_guard lock(mutex_);
  if (auto it = open_.find(key); it != open_.end())
    it->second.levels.emplace_back(static_cast<std::int64_t>(level));
}

void PurgeHistory::noteService(const void* key, const std::string& identifier, std::uint64_t asked,
                               std::uint64_t reported, std::uint64_t nanoseconds) {
  std::lock_guard lock(mutex_);
  auto it = open_.find(key);
  if (it == open_.end())
    return;
  Share& share = it->second.services[identifier];
  share.asked += asked;
  share.reported += reported;
  share.nanoseconds += nanoseconds;
  ++share.requests;
}

void PurgeHistory::noteCancelled(const void* key) {
  std::lock_guard lock(mutex_);
  if (auto it = open_.find(key); it != open_.end())
    it->second.cancelled = true;
}

Value::Dictionary PurgeHistory::finish(const void* key, const Value::Dictionary& figures) {
  std::lock_guard lock(mutex_);
  auto it = open_.find(key);
  if (it == open_.end())
    return {};
  Open open = std::move(it->second);
  open_.erase(it);

  Filed filed{std::move(open.fields), {open.services.begin(), open.services.end()}};
  for (const auto& [name, value] : figures)
    filed.head.insert_or_assign(name, value);
  filed.head.insert_or_assign("levels", Value(std::move(open.levels)));
  filed.head.insert_or_assign("cancelled", Value(open.cancelled));
  Value::Dictionary entry = filed.entry();
  filed_.push_front(std::move(filed));
  if (filed_.size() > kCapacity)
    filed_.pop_back();
  return entry;
}

Value::Array PurgeHistory::entries() const {
  std::lock_guard lock(mutex_);
  Value::Array entries;
  entries.reserve(filed_.size());
  for (const Filed& filed : filed_)
    entries.emplace_back(filed.entry());
  return entries;
}

Value::Dictionary PurgeHistory::Filed::entry() const {
  Value::Dictionary entry = head;
  Value::Dictionary shares;
  for (const auto& [identifier, share] : services) {
    shares.emplace(identifier, Value(Value::Dictionary{
                                   {"asked", Value(share.asked)},
                                   {"reported", Value(share.reported)},
                                   {"nanoseconds", Value(share.nanoseconds)},
                                   {"requests", Value(share.requests)},
                               }));
  }
  entry.insert_or_assign("services", Value(std::move(shares)));
  return entry;
}

}  // namespace vantor
