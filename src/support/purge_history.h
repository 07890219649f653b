#pragma once

#include <cstddef>
#include <cstdint>
#include <deque>
#include <map>
#include <mutex>
#include <string>
#include <utility>
#include <vector>

#include "platform/values/value.h"

namespace vantor {

// The record of the last purges, newest first, for administrators.
//
// A purge is opened under a key (any address that stays unique while the
// purge runs, such as its working dictionary), gathers what its levels and
// service requests did while it runs, and is filed when it finishes. Notes
// for a key that is not open (a reply arriving after its purge was filed)
// are dropped. Safe from any thread: one lock guards everything.
class PurgeHistory {
 public:
  static constexpr std::size_t kCapacity = 64;

  // Opens a purge with its first fields (who asked, volume, date...).
  void begin(const void* key, Value::Dictionary fields);
  void noteLevel(const void* key, std::int32_t level);
  // One service request: the share asked, the bytes the service reported and
  // how long it took. Requests of one service add up.
  void noteService(const void* key, const std::string& identifier, std::uint64_t asked,
                   std::uint64_t reported, std::uint64_t nanoseconds);
  void noteCancelled(const void* key);

  // Closes the purge with its final `figures`, files it and returns the entry
  // as filed; an empty dictionary when `key` was not open.
  Value::Dictionary finish(const void* key, const Value::Dictionary& figures);

  // Forgets an open purge without filing it (one that never ran).
  void discard(const void* key);

  // The filed entries, newest first.
  Value::Array entries() const;

 private:
  struct Share {
    std::uint64_t asked = 0;
    std::uint64_t reported = 0;
    std::uint64_t nanoseconds = 0;
    std::uint64_t requests = 0;
  };
  struct Open {
    Value::Dictionary fields;
    Value::Array levels;
    std::map<std::string, Share> services;
    bool cancelled = false;
  };
  // A filed purge, kept compact: as values, the figures of a purge that
  // asked a hundred services would take ten times the room.
  struct Filed {
    Value::Dictionary head;  // every field but the services'
    std::vector<std::pair<std::string, Share>> services;
    Value::Dictionary entry() const;
  };

  mutable std::mutex mutex_;
  std::map<const void*, Open> open_;
  std::deque<Filed> filed_;
};

}  // namespace vantor
