// vantor-fake-service: the example service with the misbehaviour the tests
// need, to see how vantord copes: it withholds answers, answers what the
// daemon cannot use, or exits at once when asked something; and it checks in
// several services from one connection. Every event line is the example
// service's, and so are all its options.

#include <cstdlib>
#include <exception>
#include <string>

#include "example_service.h"

namespace {

using vantor::Value;
using vantor::example::say;

struct Misbehaviour {
  std::string exitOn;
  bool silent = false, silentPurge = false, noPong = false, textAmount = false;
  long hugeReplyMiB = 0, deepReply = 0;
  std::size_t checkinIds = 1;
};

// Hands every request to the example service and spoils its answer.
class FakeService final : public vantor::kit::Service {
 public:
  FakeService(std::shared_ptr<Service> example, const Misbehaviour& bad)
      : example_(std::move(example)), bad_(bad) {}

  void purgeable(std::int32_t urgency, const Value& info, DictionaryReply reply) override {
    example_->purgeable(urgency, info, spoilt("purgeable", bad_.silent, std::move(reply)));
    exitIfAsked("purgeable");
  }
  void purge(std::int32_t urgency, const Value& info, DictionaryReply reply) override {
    example_->purge(urgency, info, spoilt("purge", bad_.silentPurge, std::move(reply)));
    exitIfAsked("purge");
  }
  void periodic(std::int32_t urgency, const Value& info, DictionaryReply reply) override {
    example_->periodic(urgency, info, spoilt("periodic", false, std::move(reply)));
    exitIfAsked("periodic");
  }
  void cancelPurge() override { example_->cancelPurge(); }
  void notify(const Value& notification) override {
    example_->notify(notification);
    exitIfAsked("notify");
  }
  void ping(std::function<void()> reply) override {
    const bool withhold = bad_.noPong || bad_.exitOn == "ping";
    example_->ping(withhold ? [] {} : std::move(reply));
    exitIfAsked("ping");
  }

 private:
  // The reply the example service answers `what` through: one that sends
  // nothing when the answer is withheld. A spoilt answer the bus binding
  // refuses to build, too deeply nested for instance, is reported instead of
  // ending the service.
  DictionaryReply spoilt(const std::string& what, bool withhold, DictionaryReply reply) const {
    if (withhold || bad_.exitOn == what)
      return [](Value) {};
    return [this, what, reply = std::move(reply)](Value answer) {
      if (Value::Dictionary* entries = answer.asDictionary())
        spoil(what, *entries);
      try {
        reply(std::move(answer));
      } catch (const std::exception& e) {
        say(std::string("reply-failed ") + e.what());
      }
    };
  }

  void spoil(const std::string& what, Value::Dictionary& answer) const {
    const auto amount = answer.find("VANTOR_AMOUNT");
    if (bad_.textAmount && amount != answer.end())
      amount->second = Value(std::to_string(amount->second.uint64Value()) + " bytes");
    if (what != "purgeable")
      return;
    // Entries of about 64 bytes each, keys and values together.
    for (long i = 0; i < bad_.hugeReplyMiB * 16384; ++i)
      answer.emplace("filler." + std::to_string(i), Value(std::string(48, 'x')));
    // N + 1 levels of "NEST" below the answer, the innermost an empty dictionary.
    Value::Dictionary* level = &answer;
    for (long i = 0; bad_.deepReply > 0 && i <= bad_.deepReply; ++i)
      level = level->emplace("NEST", Value(Value::Dictionary{})).first->second.asDictionary();
  }

  void exitIfAsked(const std::string& what) const {
    if (bad_.exitOn == what) {
      say("exiting");
      std::_Exit(0);
    }
  }

  const std::shared_ptr<Service> example_;
  const Misbehaviour bad_;
};

}  // namespace

int main(int argc, char** argv) {
  CLI::App app("The example service, misbehaving as told.", "vantor-fake-service");
  vantor::example::Options options;
  vantor::example::addOptions(app, options);
  Misbehaviour bad;
  app.add_option("--exit-on", bad.exitOn,
                 "exit at once, unanswered, when asked WHAT: purgeable, purge, periodic, ping "
                 "or notify");
  app.add_flag("--silent", bad.silent, "never answer purgeable requests");
  app.add_flag("--silent-purge", bad.silentPurge, "never answer purge requests");
  app.add_flag("--no-pong", bad.noPong, "never answer the liveness ping");
  app.add_flag("--text-amount", bad.textAmount, "answer with a string as the amount");
  app.add_option("--huge-reply", bad.hugeReplyMiB, "add MIB mebibytes to purgeable answers");
  app.add_option("--deep-reply", bad.deepReply, "nest N dictionaries in purgeable answers");
  app.add_option("--checkin-ids", bad.checkinIds, "check in as ID, ID.1, ... ID.<N-1>");
  if (int status = 0; !vantor::example::parse(app, argc, argv, status))
    return status;
  std::vector<vantor::kit::CheckinRequest> checkins(bad.checkinIds, options.request);
  for (std::size_t i = 1; i < checkins.size(); ++i)
    checkins[i].id += "." + std::to_string(i);
  return vantor::example::serve(
      options, std::make_shared<FakeService>(vantor::example::makeService(options), bad), checkins);
}
