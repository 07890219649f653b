#include "support/purge_history.h"

#include <utility>

namespace vantor {

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

  Value::Dictionary entry = std::move(open.fields);
  for (const auto& [name, value] : figures)
    entry.insert_or_assign(name, value);
  entry.insert_or_assign("levels", Value(std::move(open.levels)));
  entry.insert_or_assign("cancelled", Value(open.cancelled));
  Value::Dictionary services;
  for (const auto& [identifier, share] : open.services) {
    services.emplace(identifier, Value(Value::Dictionary{
                                     {"asked", Value(share.asked)},
                                     {"reported", Value(share.reported)},
                                     {"nanoseconds", Value(share.nanoseconds)},
                                     {"requests", Value(share.requests)},
                                 }));
  }
  entry.insert_or_assign("services", Value(std::move(services)));

  filed_.emplace_front(entry);
  if (filed_.size() > kCapacity)
    filed_.pop_back();
  return entry;
}

Value::Array PurgeHistory::entries() const {
  std::lock_guard lock(mutex_);
  return Value::Array(filed_.begin(), filed_.end());
}

}  // namespace vantor
