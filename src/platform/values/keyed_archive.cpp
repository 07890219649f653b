#include "platform/values/keyed_archive.h"

#include <utility>

namespace vantor {

KeyedArchiveWriter::Instance& KeyedArchiveWriter::Instance::ref(std::string_view key, Ref target) {
  keys_.push_back(out_->key(key));
  values_.push_back(out_->sharedUid(target));
  return *this;
}

KeyedArchiveWriter::Instance& KeyedArchiveWriter::Instance::number(std::string_view key,
                                                                   const Value& number) {
  BinaryPlistWriter::Ref value = 0;
  if (number.isNumber() && out_->value(number, &value)) {
    keys_.push_back(out_->key(key));
    values_.push_back(value);
  }
  return *this;
}

KeyedArchiveWriter::Instance& KeyedArchiveWriter::Instance::real(std::string_view key,
                                                                 double value) {
  keys_.push_back(out_->key(key));
  values_.push_back(out_->real(value));
  return *this;
}

KeyedArchiveWriter::Instance& KeyedArchiveWriter::Instance::unsignedInteger(std::string_view key,
                                                                            std::uint64_t value) {
  keys_.push_back(out_->key(key));
  values_.push_back(out_->unsignedInteger(value));
  return *this;
}

KeyedArchiveWriter::KeyedArchiveWriter() {
  append(out_.string("$null"));
}

KeyedArchiveWriter::Ref KeyedArchiveWriter::append(BinaryPlistWriter::Ref object) {
  objects_.push_back(object);
  return objects_.size() - 1;
}

KeyedArchiveWriter::Ref KeyedArchiveWriter::reserve() {
  return append(objects_.front());
}

void KeyedArchiveWriter::fill(Ref slot, Instance instance) {
  objects_.at(slot) = out_.dictionary(std::move(instance.keys_), std::move(instance.values_));
}

KeyedArchiveWriter::Ref KeyedArchiveWriter::string(std::string_view text) {
  return append(out_.string(text));
}

KeyedArchiveWriter::Ref KeyedArchiveWriter::object(const Value& value) {
  BinaryPlistWriter::Ref ref = 0;
  return out_.value(value, &ref) ? append(ref) : kNull;
}

KeyedArchiveWriter::Ref KeyedArchiveWriter::classRef(const std::string& className) {
  if (auto it = classes_.find(className); it != classes_.end())
    return it->second;
  const auto name = out_.string(className);
  const auto chain = out_.array({name, out_.string("NSObject")});
  const Ref ref =
      append(out_.dictionary({out_.key("$classname"), out_.key("$classes")}, {name, chain}));
  classes_.emplace(className, ref);
  return ref;
}

KeyedArchiveWriter::Instance KeyedArchiveWriter::instance(const std::string& className) {
  Instance instance(out_);
  instance.ref("$class", classRef(className));
  return instance;
}

KeyedArchiveWriter::Ref KeyedArchiveWriter::add(Instance instance) {
  return append(out_.dictionary(std::move(instance.keys_), std::move(instance.values_)));
}

KeyedArchiveWriter::Ref KeyedArchiveWriter::dictionary(const std::vector<Ref>& keys,
                                                       const std::vector<Ref>& values) {
  std::vector<BinaryPlistWriter::Ref> keyUids, valueUids;
  keyUids.reserve(keys.size());
  valueUids.reserve(values.size());
  for (const Ref key : keys)
    keyUids.push_back(out_.sharedUid(key));
  for (const Ref value : values)
    valueUids.push_back(out_.sharedUid(value));
  Instance dict = instance("NSDictionary");
  dict.keys_.push_back(out_.key("NS.keys"));
  dict.values_.push_back(out_.array(std::move(keyUids)));
  dict.keys_.push_back(out_.key("NS.objects"));
  dict.values_.push_back(out_.array(std::move(valueUids)));
  return add(std::move(dict));
}

std::vector<std::uint8_t> KeyedArchiveWriter::finish(Ref root) {
  const auto top = out_.dictionary({out_.key("root")}, {out_.sharedUid(root)});
  const auto objects = out_.array(std::move(objects_));
  const auto archive = out_.dictionary(
      {out_.key("$archiver"), out_.key("$version"), out_.key("$top"), out_.key("$objects")},
      {out_.string("NSKeyedArchiver"), out_.unsignedInteger(100000), top, objects});
  classes_.clear();
  return out_.finish(archive);
}

}  // namespace vantor
