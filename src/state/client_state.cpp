// Persistent client state: one dictionary in the settings store, written
// through on every set, with defaults filling the gaps on reads.

#include "daemon/vantor.h"
#include "support/log.h"

namespace vantor {

namespace {

constexpr char kStateKey[] = "VANTOR_USER_DEFAULTS";
constexpr char kCacheEnabledKey[] = "VANTOR_CACHE_ENABLED";

}  // namespace

void Vantor::clientSetState(const Value& value, const Value& key, EmptyReply reply) {
  auto self = shared_from_this();
  defaults_queue->async(
      [self, value, key, reply = std::move(reply)] { self->_clientSetState(value, key, reply); });
}

void Vantor::clientGetState(const Value& key, ObjectReply reply) {
  auto self = shared_from_this();
  defaults_queue->async(
      [self, key, reply = std::move(reply)] { self->_clientGetState(key, reply); });
}

void Vantor::_clientSetState(const Value& value, const Value& key, const EmptyReply& reply) {
  constexpr char kName[] = "-[Vantor _clientSetState:key:replyBlock:]";
  defaults_queue->assertCurrent(kName);
  const std::string* name = key.asString();
  if (userDefaults && name != nullptr) {
    userDefaults->synchronize();
    Value::Dictionary state;
    if (const Value* stored = userDefaults->objectForKey(kStateKey)) {
      if (const auto* dict = stored->asDictionary()) {
        state = *dict;
      } else {
        // Something else took the state's place; a fresh dictionary replaces it.
        VANTOR_LOG(3, "%s persistent_state is not a dictionary: %@", kName,
                   stored->description().c_str());
      }
    }
    if (value.isNull()) {
      state.erase(*name);
    } else {
      state[*name] = value;
    }
    std::string error;
    if (!userDefaults->setObject(kStateKey, Value(std::move(state)), &error)) {
      VANTOR_LOG(3, "%s cannot write the settings store: %@", kName, error.c_str());
    }
  } else if (name == nullptr) {
    VANTOR_LOG(3, "%s key is not an NSString: %@", kName, key.description().c_str());
  }
  if (name != nullptr && *name == kCacheEnabledKey) {
    // Removing the entry brings the default back, so that is what services hear.
    Value effective = value;
    if (effective.isNull()) {
      if (auto it = default_values.find(*name); it != default_values.end())
        effective = it->second;
    }
    notifyRecipients(*name, effective);
  }
  reply();
}

void Vantor::_clientGetState(const Value& key, const ObjectReply& reply) {
  constexpr char kName[] = "-[Vantor _clientGetState:replyBlock:]";
  defaults_queue->assertCurrent(kName);
  const std::string* name = key.asString();
  if (name == nullptr) {
    VANTOR_LOG(3, "%s key is not an NSString: %@", kName, key.description().c_str());
    reply(Value());
    return;
  }
  const Value* stored = nullptr;
  if (userDefaults) {
    userDefaults->synchronize();
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
    if (*name == kStateKey) {
      Value::Dictionary whole = state;
      for (const auto& [k, v] : default_values)
        whole.emplace(k, v);
      reply(Value(std::move(whole)));
    } else if (auto it = state.find(*name); it != state.end()) {
      reply(it->second);
    } else if (default_values.count(*name) > 0) {
      const Value& answer = defaultFor(*name);
      VANTOR_LOG(5, "%s using default value: %@ for key: %@", kName, answer.description().c_str(),
                 name->c_str());
      reply(answer);
    } else {
      reply(kNull);
    }
  } else if (stored != nullptr) {
    VANTOR_LOG(3, "%s persistent_state is not a dictionary: %@", kName,
               stored->description().c_str());
    reply(kNull);
  } else {
    // Nothing stored yet: the defaults answer, but not for the whole state.
    reply(defaultFor(*name));
  }
}

void Vantor::clientSetStateSync(const Value& value, const Value& key) {
  // The worker replies before it returns, so this never waits.
  _clientSetState(value, key, [] {});
}

Value Vantor::clientGetStateSync(const Value& key) {
  Value answer;
  _clientGetState(key, [&](const Value& v) { answer = v; });
  return answer;
}

}  // namespace vantor
