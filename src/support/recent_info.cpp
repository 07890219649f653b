#include "support/recent_info.h"

#include <cmath>

#include "platform/clock/clock.h"
#include "platform/values/keyed_archive.h"
#include "platform/values/plist_io.h"
#include "support/volumes.h"

namespace vantor {

std::shared_ptr<VantorRecentServiceInfo> VantorRecentServiceInfo::vantorRecentServiceInfo(
    Value amount, Date timestamp) {
  auto info = std::make_shared<VantorRecentServiceInfo>();
  info->amount = std::move(amount);
  info->timestamp = timestamp;
  return info;
}

std::shared_ptr<VantorRecentVolumeInfo> VantorRecentVolumeInfo::vantorRecentVolumeInfo(
    Services services, std::uint64_t freespace, Date timestamp, const std::string& volumeName) {
  auto info = std::make_shared<VantorRecentVolumeInfo>();
  info->services = std::move(services);
  info->freespace = freespace;
  info->timestamp = timestamp;
  info->volumeName = volumeName;
  return info;
}

std::shared_ptr<VantorRecentInfo> VantorRecentInfo::vantorRecentInfo(Volumes volumes) {
  auto info = std::make_shared<VantorRecentInfo>();
  info->volumes = std::move(volumes);
  return info;
}

std::shared_ptr<VantorRecentInfo> VantorRecentInfo::copy() const {
  auto out = std::make_shared<VantorRecentInfo>();
  for (const auto& [name, volume] : volumes) {
    if (!volume)
      continue;
    auto v = std::make_shared<VantorRecentVolumeInfo>(*volume);
    for (auto& [id, service] : v->services) {
      if (service)
        service = std::make_shared<VantorRecentServiceInfo>(*service);
    }
    out->volumes.emplace(name, std::move(v));
  }
  return out;
}

// What falls:
// - a whole volume, when its free space now differs from the free space
//   recorded with its entries by more than the tolerance, in either
//   direction: files came or went on the disk, so no cached answer for it
//   can be trusted any more;
// - a single service, when its answer is older than the threshold, or dated
//   more than a few seconds ahead (the wall clock was set back), since its
//   age is then unknown;
// - a volume left without services.
// Nothing left at all means the record is removed.
std::int32_t VantorRecentInfo::validate(std::uint64_t freespaceTolerance, double threshold) {
  constexpr double kFutureSlack = 5.0;
  const Date now = clock::now();
  bool changed = false;
  for (auto volume = volumes.begin(); volume != volumes.end();) {
    const std::uint64_t freeNow = volumeFreespace(volume->first);
    const std::uint64_t recorded = volume->second ? volume->second->freespace : 0;
    const std::uint64_t drift = freeNow > recorded ? freeNow - recorded : recorded - freeNow;
    if (!volume->second || drift > freespaceTolerance) {
      volume = volumes.erase(volume);
      changed = true;
      continue;
    }
    auto& services = volume->second->services;
    for (auto service = services.begin(); service != services.end();) {
      const double age =
          service->second ? clock::secondsBetween(service->second->timestamp, now) : threshold + 1;
      if (age > threshold || age < -kFutureSlack) {
        service = services.erase(service);
        changed = true;
      } else {
        ++service;
      }
    }
    if (services.empty()) {
      volume = volumes.erase(volume);
      changed = true;
    } else {
      ++volume;
    }
  }
  if (volumes.empty())
    return kRemoveRecord;
  return changed ? kStoreAgain : kUnchanged;
}

namespace {

// Seconds from 1970-01-01 to 2001-01-01, the epoch of archived dates.
constexpr double kArchiveEpochOffset = 978307200.0;
constexpr int kMaxDepth = 16;

// Dates are kept inline as seconds since 2001 (the time an NSDate holds):
// one object fewer per entry keeps the archive small and quick to write.
double archivedDate(Date d) {
  return static_cast<double>(d.microsecondsSinceEpoch) / 1e6 - kArchiveEpochOffset;
}

// Numbers travel inline; anything else is an object of its own.
void putAmount(KeyedArchiveWriter& a, KeyedArchiveWriter::Instance& entry, const Value& amount) {
  if (amount.isNumber()) {
    entry.number("amount", amount);
  } else {
    entry.ref("amount", a.object(amount));
  }
}

// Archives a map of records as a dictionary, each record through `encode`.
template <typename Map, typename Encode>
KeyedArchiveWriter::Ref archiveMap(KeyedArchiveWriter& a, const Map& map, Encode encode) {
  std::vector<KeyedArchiveWriter::Ref> keys, values;
  keys.reserve(map.size());
  values.reserve(map.size());
  for (const auto& [key, item] : map) {
    keys.push_back(a.string(key));
    values.push_back(item ? encode(*item) : KeyedArchiveWriter::kNull);
  }
  return a.dictionary(keys, values);
}

// Reads the object graph back, checking every reference and type.
class Unarchiver {
 public:
  explicit Unarchiver(const Value::Array& objects) : objects_(objects) {}

  // The object a UID names; null (and an error) when it is not a UID in range.
  const Value* resolve(const Value& ref) {
    const Value* index = ref.find("CF$UID");
    if (index == nullptr || !index->isNumber() || ref.get<Value::Dictionary>().size() != 1)
      return fail("a reference is not a UID");
    const std::uint64_t i = index->uint64Value();
    if (i >= objects_.size())
      return fail("a UID is out of range");
    return &objects_[i];
  }

  // The instance a UID names, checked to be of class `className`.
  const Value* instance(const Value& ref, const std::string& className) {
    const Value* object = resolve(ref);
    if (object == nullptr)
      return nullptr;
    const Value* classRef = object->find("$class");
    const Value* cls = classRef != nullptr ? resolve(*classRef) : nullptr;
    const Value* name = cls != nullptr ? cls->find("$classname") : nullptr;
    if (name == nullptr || !name->isString() || name->get<std::string>() != className)
      return fail("expected an object of class " + className);
    return object;
  }

  std::optional<std::string> string(const Value& ref) {
    const Value* object = resolve(ref);
    if (object == nullptr || !object->isString()) {
      fail("expected a string");
      return std::nullopt;
    }
    return object->get<std::string>();
  }

  std::optional<Date> date(const Value* time) {
    if (time == nullptr || !time->isNumber() || !std::isfinite(time->doubleValue()) ||
        std::fabs(time->doubleValue()) > 1e12) {
      fail("expected a date");
      return std::nullopt;
    }
    return Date{
        static_cast<std::int64_t>(std::llround((time->doubleValue() + kArchiveEpochOffset) * 1e6))};
  }

  Value amount(const Value* ref) {
    if (ref == nullptr || ref->isNumber())
      return ref != nullptr ? *ref : Value();
    const Value* object = resolve(*ref);
    if (object == nullptr)
      return Value();
    if (object->isString() && object->get<std::string>() == "$null")
      return Value();
    return *object;
  }

  // Calls `each(key, valueRef)` for every entry of the dictionary a UID names.
  template <typename Each>
  bool dictionary(const Value* ref, int depth, Each each) {
    if (depth > kMaxDepth) {
      fail("the archive nests too deeply");
      return false;
    }
    const Value* object = ref != nullptr ? instance(*ref, "NSDictionary") : nullptr;
    const Value* keys = object != nullptr ? object->find("NS.keys") : nullptr;
    const Value* values = object != nullptr ? object->find("NS.objects") : nullptr;
    if (keys == nullptr || values == nullptr || !keys->isArray() || !values->isArray() ||
        keys->get<Value::Array>().size() != values->get<Value::Array>().size()) {
      fail("expected a dictionary");
      return false;
    }
    const auto& k = keys->get<Value::Array>();
    const auto& v = values->get<Value::Array>();
    for (std::size_t i = 0; i < k.size(); ++i) {
      auto key = string(k[i]);
      if (!key || !each(*key, v[i]))
        return false;
    }
    return true;
  }

  const Value* fail(std::string reason) {
    if (error.empty())
      error = std::move(reason);
    return nullptr;
  }

  std::string error;

 private:
  const Value::Array& objects_;
};

}  // namespace

std::vector<std::uint8_t> archiveRecentInfo(const VantorRecentInfo& info) {
  KeyedArchiveWriter a;
  // The root takes index 1: it is reserved first and filled in last.
  const auto root = a.reserve();
  const auto volumes = archiveMap(a, info.volumes, [&](const VantorRecentVolumeInfo& volume) {
    const auto services =
        archiveMap(a, volume.services, [&](const VantorRecentServiceInfo& service) {
          auto entry = a.instance("VantorRecentServiceInfo");
          putAmount(a, entry, service.amount);
          entry.real("timestamp", archivedDate(service.timestamp));
          return a.add(std::move(entry));
        });
    auto entry = a.instance("VantorRecentVolumeInfo");
    entry.ref("services", services)
        .unsignedInteger("freespace", volume.freespace)
        .real("timestamp", archivedDate(volume.timestamp))
        .ref("volumeName", a.string(volume.volumeName));
    return a.add(std::move(entry));
  });
  auto top = a.instance("VantorRecentInfo");
  top.ref("volumes", volumes);
  a.fill(root, std::move(top));
  return a.finish(root);
}

std::shared_ptr<VantorRecentInfo> unarchiveRecentInfo(std::span<const std::uint8_t> bytes,
                                                      std::string* error) {
  auto failWith = [&](std::string reason) -> std::shared_ptr<VantorRecentInfo> {
    if (error != nullptr)
      *error = std::move(reason);
    return nullptr;
  };
  auto parsed = parsePlist(bytes);
  if (!parsed.value)
    return failWith("not a property list: " + parsed.error);
  const Value* archiver = parsed.value->find("$archiver");
  const Value* objects = parsed.value->find("$objects");
  const Value* top = parsed.value->find("$top");
  const Value* rootRef = top != nullptr ? top->find("root") : nullptr;
  if (archiver == nullptr || !archiver->isString() ||
      archiver->get<std::string>() != "NSKeyedArchiver" || objects == nullptr ||
      !objects->isArray() || rootRef == nullptr)
    return failWith("not a keyed archive");

  Unarchiver u(objects->get<Value::Array>());
  const Value* root = u.instance(*rootRef, "VantorRecentInfo");
  auto info = std::make_shared<VantorRecentInfo>();
  const bool ok =
      root != nullptr &&
      u.dictionary(root->find("volumes"), 1, [&](const std::string& name, const Value& volumeRef) {
        const Value* volume = u.instance(volumeRef, "VantorRecentVolumeInfo");
        if (volume == nullptr)
          return false;
        const Value* freespace = volume->find("freespace");
        const Value* volumeName = volume->find("volumeName");
        auto timestamp = u.date(volume->find("timestamp"));
        auto nameText = volumeName != nullptr ? u.string(*volumeName) : std::nullopt;
        if (freespace == nullptr || !freespace->isNumber() || !timestamp || !nameText)
          return u.fail("a volume entry is incomplete") != nullptr;
        VantorRecentVolumeInfo::Services services;
        const bool servicesOk = u.dictionary(
            volume->find("services"), 2, [&](const std::string& id, const Value& serviceRef) {
              const Value* service = u.instance(serviceRef, "VantorRecentServiceInfo");
              auto when = service != nullptr ? u.date(service->find("timestamp")) : std::nullopt;
              if (!when)
                return false;
              services.insert_or_assign(id, VantorRecentServiceInfo::vantorRecentServiceInfo(
                                                u.amount(service->find("amount")), *when));
              return true;
            });
        if (!servicesOk)
          return false;
        info->volumes.insert_or_assign(
            name, VantorRecentVolumeInfo::vantorRecentVolumeInfo(
                      std::move(services), freespace->uint64Value(), *timestamp, *nameText));
        return true;
      });
  if (!ok)
    return failWith(u.error.empty() ? "malformed archive" : u.error);
  return info;
}

}  // namespace vantor
