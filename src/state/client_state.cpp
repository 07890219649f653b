// Persistent client state: one dictionary in the settings store, written
// before each set is answered (the sets queued together share one write),
// with defaults filling the gaps on reads. The set worker takes any key and
// value as given and logs nothing of them, except that a client's set is held
// to the limits below.

#include <optional>
#include <string>
#include <utility>
#include <variant>
#include <vector>

#include "daemon/vantor.h"
#include "platform/dispatch/global_pool.h"
#include "support/client_connection.h"
#include "support/log.h"
#include "support/recent_info.h"

namespace vantor {

namespace {

constexpr char kStateKey[] = "VANTOR_USER_DEFAULTS";
constexpr char kCacheEnabledKey[] = "VANTOR_CACHE_ENABLED";

// What a client may make the daemon keep. Every client shares one store that
// is rewritten whole on each change, so its size bounds the cost of every
// later write; the figures leave honest use far behind.
constexpr std::size_t kMaxKeyBytes = 256;
constexpr std::size_t kMaxValueBytes = 64 * 1024;
constexpr std::size_t kMaxStateBytes = 1024 * 1024;

// About the bytes `value` takes in a binary property list: a marker, a length
// or payload and an offset per object, the bytes of strings and data, and the
// references of containers. Walks without recursion.
std::size_t storedSize(const Value& value) {
  constexpr std::size_t kObject = 9;
  constexpr std::size_t kReference = 2;
  // Strings, data and scalars, which most values are, need no walk.
  if (const auto* text = value.asString())
    return kObject + text->size();
  if (const auto* data = value.asData())
    return kObject + data->size();
  if (!value.isArray() && !value.isDictionary())
    return kObject;
  std::size_t total = 0;
  std::vector<const Value*> pending{&value};
  while (!pending.empty()) {
    const Value* v = pending.back();
    pending.pop_back();
    total += kObject;
    if (const auto* text = v->asString()) {
      total += text->size();
    } else if (const auto* data = v->asData()) {
      total += data->size();
    } else if (const auto* array = v->asArray()) {
      total += array->size() * kReference;
      for (const auto& item : *array)
        pending.push_back(&item);
    } else if (const auto* dict = v->asDictionary()) {
      for (const auto& [k, item] : *dict) {
        total += 2 * kReference + kObject + k.size();
        pending.push_back(&item);
      }
    }
  }
  return total;
}

std::size_t storedSize(const std::string& key, const Value& value) {
  return 9 + key.size() + storedSize(value);
}

// The limit a client's set of `value` under `key` would break, or nullopt.
// Removing a key is always allowed. The state before the set is `written`
// (null when there is none) with `unwritten` on top.
std::optional<std::string> limitBroken(const Value::Dictionary* written,
                                       const Value::Dictionary& unwritten, const std::string& key,
                                       const Value& value) {
  if (key.size() > kMaxKeyBytes)
    return "key of " + std::to_string(key.size()) + " bytes (limit " +
           std::to_string(kMaxKeyBytes) + ")";
  if (value.isNull())
    return std::nullopt;
  const std::size_t size = storedSize(value);
  if (size > kMaxValueBytes)
    return "value of about " + std::to_string(size) + " bytes (limit " +
           std::to_string(kMaxValueBytes) + ")";
  std::size_t total = 0;
  if (written != nullptr) {
    for (const auto& [k, v] : *written) {
      if (k != key && unwritten.count(k) == 0)
        total += storedSize(k, v);
    }
  }
  for (const auto& [k, v] : unwritten) {
    if (k != key && !v.isNull())
      total += storedSize(k, v);
  }
  total += storedSize(key, value);
  if (total > kMaxStateBytes)
    return "client state of about " + std::to_string(total) + " bytes (limit " +
           std::to_string(kMaxStateBytes) + ")";
  return std::nullopt;
}

// The stored state, when it is a dictionary.
const Value::Dictionary* writtenState(const SettingsStore& store) {
  const Value* stored = store.objectForKey(kStateKey);
  return stored != nullptr ? stored->asDictionary() : nullptr;
}

}  // namespace

void Vantor::clientSetState(const Value& value, const Value& key, StatusReply reply) {
  auto self = shared_from_this();
  // The caller is known on this thread only; the worker runs on another.
  const ClientConnection* connection = currentConnection();
  std::string sender = connection != nullptr ? connection->sender() : std::string("(in process)");
  defaults_queue->async([self, value, key, reply = std::move(reply), sender = std::move(sender)] {
    self->_clientSetState(value, key, reply, sender);
  });
}

void Vantor::clientGetState(const Value& key, ObjectReply reply) {
  auto self = shared_from_this();
  defaults_queue->async(
      [self, key, reply = std::move(reply)] { self->_clientGetState(key, reply); });
}

void Vantor::_clientSetState(const Value& value, const Value& key, const StatusReply& reply,
                             const std::string& sender) {
  constexpr char kName[] = "-[Vantor _clientSetState:key:replyBlock:]";
  defaults_queue->assertCurrent(kName);
  // Services hear the value as it was given, null included, once it is
  // stored.
  StatusReply answer = reply;
  if (key == Value(kCacheEnabledKey)) {
    answer = [self = shared_from_this(), value, reply](std::optional<ClientError> failure) {
      if (!failure)
        self->notifyRecipients(kCacheEnabledKey, value);
      reply(std::move(failure));
    };
  }
  if (!userDefaults) {
    answer(std::nullopt);
    return;
  }
  // The store's dictionaries have string keys: a key of another type names
  // no entry, and its caller is answered with the next write all the same.
  if (const std::string* name = key.asString()) {
    if (!sender.empty()) {
      if (std::string error; !userDefaults->synchronize(&error))
        VANTOR_LOG(3, "%s settings store: %s", kName, error.c_str());
      if (auto broken =
              limitBroken(writtenState(*userDefaults), unwrittenState.changes, *name, value)) {
        VANTOR_LOG(3, "%s refused a set from %s: %s", kName, sender.c_str(), broken->c_str());
        reply(ClientError{kErrorLimitsExceeded, "Refused: " + *broken});
        return;
      }
    }
    unwrittenState.changes.insert_or_assign(*name, value);
  }
  unwrittenState.waiting.push_back(std::move(answer));
  // A write on its way schedules the next one when it ends.
  if (!unwrittenState.writeScheduled && !writeInFlight) {
    unwrittenState.writeScheduled = true;
    defaults_queue->async([self = shared_from_this()] { self->_writeUnwrittenState(); });
  }
}

void Vantor::_writeUnwrittenState() {
  constexpr char kName[] = "-[Vantor _writeUnwrittenState]";
  defaults_queue->assertCurrent(kName);
  if (writeInFlight) {
    unwrittenState.writeScheduled = false;  // the write on its way schedules the next
    return;
  }
  UnwrittenState batch = std::exchange(unwrittenState, {});
  if (std::string error; !userDefaults->synchronize(&error))
    VANTOR_LOG(3, "%s settings store: %s", kName, error.c_str());
  auto staged = userDefaults->stageMerge(kStateKey, std::move(batch.changes));
  writeInFlight = WriteInFlight{staged, std::move(batch.waiting)};
  if (staged->replacedDictionary()) {
    // Clients would have no state left to read while this write is on its
    // way (it is the first, or replaces a state of the wrong type), so it
    // is written here and now.
    std::string error;
    const bool written = userDefaults->writeStaged(*staged, &error);
    _finishWrite(written, error);
    return;
  }
  dispatch::globalAsync(
      [self = shared_from_this(), staged] {
        std::string error;
        const bool written = self->userDefaults->writeStaged(*staged, &error);
        self->defaults_queue->async(
            [self, written, error = std::move(error)] { self->_finishWrite(written, error); });
      },
      dispatch::Lane::kReserve);
}

void Vantor::_finishWrite(bool written, const std::string& error) {
  constexpr char kName[] = "-[Vantor _writeUnwrittenState]";
  defaults_queue->assertCurrent(kName);
  WriteInFlight done = std::move(*writeInFlight);
  writeInFlight.reset();
  userDefaults->finishStaged(*done.staged, written);
  // Changes that cannot be written are dropped, in memory as on disk, and
  // their callers are told why.
  std::optional<ClientError> failure;
  if (!written) {
    VANTOR_LOG(3, "%s cannot write the settings store: %s", kName, error.c_str());
    failure = ClientError{kErrorIOError, "The settings store cannot be written: " + error};
  }
  for (const auto& answer : done.waiting)
    answer(failure);
  // Changes made while the write was on its way, and any queued behind
  // them, go out together.
  if (!unwrittenState.waiting.empty() && !unwrittenState.writeScheduled) {
    unwrittenState.writeScheduled = true;
    defaults_queue->async([self = shared_from_this()] { self->_writeUnwrittenState(); });
  }
}

void Vantor::_clientGetState(const Value& key, const ObjectReply& reply) {
  defaults_queue->assertCurrent("-[Vantor _clientGetState:replyBlock:]");
  _answerState(key, reply, writeInFlight ? writeInFlight->staged.get() : nullptr);
}

void Vantor::_answerState(const Value& key, const ObjectReply& reply,
                          const SettingsStore::StagedMerge* unwritten) {
  constexpr char kName[] = "-[Vantor _clientGetState:replyBlock:]";
  const std::string* name = key.asString();
  if (name == nullptr) {
    VANTOR_LOG(3, "%s key is not an NSString: %s", kName, key.description().c_str());
    reply(Value());
    return;
  }
  const Value* stored = nullptr;
  if (userDefaults) {
    if (std::string error; !userDefaults->synchronize(&error))
      VANTOR_LOG(3, "%s settings store: %s", kName, error.c_str());
    stored = userDefaults->objectForKey(kStateKey);
  }
  // Stored values are lent to the reply, not copied: the record of the
  // recent-info cache is read this way on every query.
  static const Value kNull;
  const auto defaultFor = [&](const std::string& k) -> const Value& {
    auto it = default_values.find(k);
    return it != default_values.end() ? it->second : kNull;
  };
  if (stored != nullptr && stored->isDictionary()) {
    const auto& state = stored->get<Value::Dictionary>();
    const Value* found = nullptr;
    if (const std::optional<Value>* previous =
            unwritten != nullptr ? unwritten->previous(*name) : nullptr) {
      found = *previous ? &**previous : nullptr;
    } else if (auto it = state.find(*name); it != state.end()) {
      found = &it->second;
    }
    if (*name == kStateKey) {
      Value::Dictionary whole = state;
      if (unwritten != nullptr)
        unwritten->restore(whole);
      for (const auto& [k, v] : default_values)
        whole.emplace(k, v);
      reply(Value(std::move(whole)));
    } else if (found != nullptr) {
      reply(*found);
    } else if (default_values.count(*name) > 0) {
      const Value& answer = defaultFor(*name);
      VANTOR_LOG(5, "%s using default value: %s for key: %s", kName, answer.description().c_str(),
                 name->c_str());
      reply(answer);
    } else {
      reply(kNull);
    }
  } else if (stored != nullptr) {
    VANTOR_LOG(3, "%s persistent_state is not a dictionary: %s", kName,
               stored->description().c_str());
    reply(kNull);
  } else {
    // Nothing stored yet: the defaults answer, but not for the whole state.
    reply(defaultFor(*name));
  }
}

void Vantor::clientSetStateSync(const StateObject& value, const Value& key) {
  // Nobody waits for the daemon's own writes: the next write on
  // defaults_queue takes them to the store.
  if (const auto* record = std::get_if<std::shared_ptr<VantorRecentInfo>>(&value)) {
    _clientSetState(*record ? Value(archiveRecentInfo(**record)) : Value(), key,
                    [](std::optional<ClientError>) {});
    return;
  }
  _clientSetState(std::get<Value>(value), key, [](std::optional<ClientError>) {});
}

void Vantor::_readOwnState(const Value& key, const ObjectReply& reply) {
  defaults_queue->assertCurrent("-[Vantor _readOwnState:replyBlock:]");
  if (const std::string* name = key.asString()) {
    if (auto it = unwrittenState.changes.find(*name); it != unwrittenState.changes.end()) {
      reply(it->second);
      return;
    }
  }
  _answerState(key, reply, nullptr);
}

Vantor::StateObject Vantor::clientGetStateSync(const Value& key) {
  StateObject answer;
  const auto read = [&](const Value& stored) {
    if (!stored.isData()) {
      answer = stored;
    } else if (auto record = unarchiveRecentInfo(stored.get<Value::Data>())) {
      answer = std::move(record);
    } else {
      answer = Value();  // data that is no archive of a record
    }
  };
  _readOwnState(key, read);
  return answer;
}

}  // namespace vantor
