#pragma once

#include <memory>
#include <mutex>
#include <string>

#include "platform/values/value.h"

namespace vantor {

// A purge's working dictionary: the request as the caller gave it, with the
// figures the purge writes into it as it goes. The caller's thread, the
// purge's body and the services' reply handlers all read and write it, each
// without a queue, so every access takes the dictionary's own lock and works
// on a whole value: readers get a copy, writers set one key at a time.
class WorkingInfo {
 public:
  explicit WorkingInfo(Value::Dictionary initial) : dict_(std::move(initial)) {}

  // A copy of the whole dictionary as it stands now.
  Value snapshot() const {
    std::lock_guard lock(mutex_);
    return Value(dict_);
  }
  // The value under `key`, or null.
  Value get(const std::string& key) const {
    std::lock_guard lock(mutex_);
    auto it = dict_.find(key);
    return it != dict_.end() ? it->second : Value();
  }
  void set(const std::string& key, Value value) {
    std::lock_guard lock(mutex_);
    dict_.insert_or_assign(key, std::move(value));
  }

 private:
  mutable std::mutex mutex_;
  Value::Dictionary dict_;
};

}  // namespace vantor
