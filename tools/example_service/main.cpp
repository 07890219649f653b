// vantor-example-service: a service whose behaviour is set on its command
// line, for trying vantord out, for the demo, the tests and the benchmarks.
//
// It reports a fixed purgeable amount, purges what it is asked for up to that
// amount, and prints one line on stdout for every event, so a script can
// follow what the daemon asked. Given a directory of its own (--files), it
// really deletes files there when asked to purge, oldest first, and reports
// the bytes it deleted.

#include <signal.h>
#include <unistd.h>

#include <algorithm>
#include <atomic>
#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <filesystem>
#include <iostream>
#include <mutex>
#include <string>
#include <thread>
#include <vector>

#include <sdbus-c++/Error.h>

#include "platform/dispatch/global_pool.h"
#include "platform/dispatch/time.h"
#include "vantor_service_kit.h"

namespace {

constexpr char kUsage[] =
    "usage: vantor-example-service --id ID [options]\n"
    "\n"
    "Offers throw-away data to vantord under the identifier ID.\n"
    "\n"
    "  --id ID            the service identifier (required)\n"
    "  --own-name         take ID as bus name: how vantord reaches a service\n"
    "                     named by a descriptor file\n"
    "  --checkin          check in with vantord at start\n"
    "  --no-purge         check in as a service that does not purge\n"
    "  --periodic         check in as a service that takes daily maintenance\n"
    "  --notify NAME      ask for notifications of NAME (repeatable)\n"
    "  --amount BYTES     purgeable amount to report (default 1 GiB)\n"
    "  --delay-ms MS      answer every request after MS milliseconds\n"
    "  --opt-out          add VANTOR_OPT_OUT to purgeable answers\n"
    "  --silent           never answer purgeable requests\n"
    "  --silent-purge     never answer purge requests\n"
    "  --files DIR        purge by deleting files in DIR, oldest first; the\n"
    "                     purgeable amount is then what DIR holds\n"
    "  --purge-step-ms MS wait MS milliseconds before each file a purge deletes\n"
    "                     (a slow purge, for trying cancel)\n"
    "  --no-pong          never answer the liveness ping\n"
    "  --checkin-timeout-ms MS  give up on the check-in after MS milliseconds\n"
    "  --checkin-ids N    check in N services from one connection: ID, ID.1, ...\n"
    "\n"
    "Misbehaviour, for trying how vantord copes:\n"
    "  --exit-on WHAT     exit at once, unanswered, when asked WHAT: purgeable,\n"
    "                     purge, periodic, ping or notify\n"
    "  --text-amount      answer purgeable and purge with a string as the amount\n"
    "  --huge-reply MIB   add MIB mebibytes of small entries to purgeable answers\n"
    "  --deep-reply N     add N levels of nested dictionaries to purgeable answers\n"
    "  --help             this text\n";

struct Options {
  std::string id;
  bool ownName = false;
  bool checkin = false;
  vantor::kit::CheckinRequest request;
  std::uint64_t amount = 1ULL << 30;
  long delayMs = 0;
  bool optOut = false;
  bool silent = false;
  bool silentPurge = false;
  std::string files;
  long purgeStepMs = 0;
  bool noPong = false;
  long checkinTimeoutMs = 25000;
  long checkinIds = 1;
  std::string exitOn;
  bool textAmount = false;
  long hugeReplyMiB = 0;
  long deepReply = 0;
};

std::mutex gOutput;

// One line per event, flushed at once so a reader sees it immediately.
void say(const std::string& line) {
  std::lock_guard lock(gOutput);
  std::cout << line << std::endl;
}

class ExampleService final : public vantor::kit::Service {
 public:
  explicit ExampleService(const Options& options) : options_(options) {}

  void purgeable(std::int32_t urgency, const vantor::Value& info, DictionaryReply reply) override {
    say("purgeable " + std::to_string(urgency) + " " + info.description());
    exitIfAsked("purgeable");
    if (options_.silent)
      return;
    const std::uint64_t amount = options_.files.empty() ? options_.amount : bytesHeld();
    vantor::Value::Dictionary answer{{"VANTOR_AMOUNT", amountValue(amount)}};
    if (options_.optOut)
      answer.emplace("VANTOR_OPT_OUT", vantor::Value(true));
    if (options_.hugeReplyMiB > 0) {
      // Entries of about 64 bytes each, keys and values together.
      const long entries = options_.hugeReplyMiB * 16384;
      for (long i = 0; i < entries; ++i)
        answer.emplace("filler." + std::to_string(i), vantor::Value(std::string(48, 'x')));
    }
    if (options_.deepReply > 0) {
      vantor::Value nested{vantor::Value::Dictionary{}};
      for (long i = 0; i < options_.deepReply; ++i)
        nested = vantor::Value(vantor::Value::Dictionary{{"NEST", std::move(nested)}});
      answer.emplace("NEST", std::move(nested));
    }
    later([this, reply, answer = vantor::Value(std::move(answer))] { send(reply, answer); });
  }

  void purge(std::int32_t urgency, const vantor::Value& info, DictionaryReply reply) override {
    say("purge " + std::to_string(urgency) + " " + info.description());
    exitIfAsked("purge");
    if (options_.silentPurge)
      return;
    const vantor::Value* asked = info.find("VANTOR_AMOUNT");
    const std::uint64_t amount = asked != nullptr ? asked->uint64Value() : 0;
    if (options_.files.empty()) {
      const std::uint64_t purged = std::min(amount, options_.amount);
      later([this, reply, purged] { answerPurged(reply, purged); });
      return;
    }
    cancelled_.store(false);
    vantor::dispatch::globalAsync([this, reply, amount] {
      const std::uint64_t purged = deleteOldest(amount);
      say("purged " + std::to_string(purged));
      answerPurged(reply, purged);
    });
  }

  void periodic(std::int32_t urgency, const vantor::Value& info, DictionaryReply reply) override {
    say("periodic " + std::to_string(urgency) + " " + info.description());
    exitIfAsked("periodic");
    later([reply] { reply(vantor::Value()); });
  }

  void cancelPurge() override {
    cancelled_.store(true);
    say("cancel");
  }
  void notify(const vantor::Value& notification) override {
    say("notify " + notification.description());
    exitIfAsked("notify");
  }
  void ping(std::function<void()> reply) override {
    say("ping");
    exitIfAsked("ping");
    if (!options_.noPong)
      reply();
  }

 private:
  // Answers after the configured delay without holding the bus thread.
  void later(std::function<void()> answer) {
    if (options_.delayMs <= 0) {
      answer();
      return;
    }
    const long delay = options_.delayMs;
    vantor::dispatch::globalAsync([answer = std::move(answer), delay] {
      std::this_thread::sleep_for(std::chrono::milliseconds(delay));
      answer();
    });
  }

  void answerPurged(const DictionaryReply& reply, std::uint64_t purged) const {
    send(reply, vantor::Value(vantor::Value::Dictionary{{"VANTOR_AMOUNT", amountValue(purged)}}));
  }

  vantor::Value amountValue(std::uint64_t amount) const {
    return options_.textAmount ? vantor::Value(std::to_string(amount) + " bytes")
                               : vantor::Value(amount);
  }

  // Sends `answer`. A reply the bus binding refuses to build, too deeply
  // nested for instance, is reported instead of ending the service.
  void send(const DictionaryReply& reply, const vantor::Value& answer) const {
    try {
      reply(answer);
    } catch (const std::exception& e) {
      say(std::string("reply-failed ") + e.what());
    }
  }

  void exitIfAsked(const std::string& what) const {
    if (options_.exitOn == what) {
      say("exiting");
      std::_Exit(0);
    }
  }

  struct File {
    std::filesystem::file_time_type modified;
    std::filesystem::path path;
    std::uint64_t size;
  };

  std::vector<File> filesOldestFirst() const {
    std::vector<File> files;
    std::error_code ec;
    for (const auto& entry : std::filesystem::directory_iterator(options_.files, ec)) {
      std::error_code entryError;
      if (!entry.is_regular_file(entryError))
        continue;
      const auto size = entry.file_size(entryError);
      const auto modified = entry.last_write_time(entryError);
      if (!entryError)
        files.push_back({modified, entry.path(), size});
    }
    std::sort(files.begin(), files.end(), [](const File& a, const File& b) {
      return a.modified != b.modified ? a.modified < b.modified : a.path < b.path;
    });
    return files;
  }

  std::uint64_t bytesHeld() const {
    std::uint64_t total = 0;
    for (const auto& file : filesOldestFirst())
      total += file.size;
    return total;
  }

  // Deletes files, oldest first, until `amount` bytes are gone, a cancel
  // comes, or nothing is left; answers the bytes deleted.
  std::uint64_t deleteOldest(std::uint64_t amount) {
    std::lock_guard lock(purging_);  // one purge at a time deletes
    std::uint64_t purged = 0;
    for (const auto& file : filesOldestFirst()) {
      if (purged >= amount || cancelled_.load())
        break;
      if (options_.purgeStepMs > 0)
        std::this_thread::sleep_for(std::chrono::milliseconds(options_.purgeStepMs));
      if (cancelled_.load())
        break;
      std::error_code ec;
      if (std::filesystem::remove(file.path, ec))
        purged += file.size;
    }
    return purged;
  }

  const Options options_;
  std::atomic<bool> cancelled_{false};
  std::mutex purging_;
};

bool parse(int argc, char** argv, Options* options) {
  for (int i = 1; i < argc; ++i) {
    const std::string arg = argv[i];
    auto value = [&]() -> const char* { return i + 1 < argc ? argv[++i] : nullptr; };
    if (arg == "--id") {
      const char* v = value();
      if (v == nullptr)
        return false;
      options->id = v;
    } else if (arg == "--own-name") {
      options->ownName = true;
    } else if (arg == "--checkin") {
      options->checkin = true;
    } else if (arg == "--no-purge") {
      options->request.purge = false;
    } else if (arg == "--periodic") {
      options->request.periodic = true;
    } else if (arg == "--notify") {
      const char* v = value();
      if (v == nullptr)
        return false;
      options->request.notifications.emplace_back(v);
    } else if (arg == "--amount") {
      const char* v = value();
      if (v == nullptr)
        return false;
      options->amount = std::strtoull(v, nullptr, 10);
    } else if (arg == "--delay-ms") {
      const char* v = value();
      if (v == nullptr)
        return false;
      options->delayMs = std::strtol(v, nullptr, 10);
    } else if (arg == "--opt-out") {
      options->optOut = true;
    } else if (arg == "--silent") {
      options->silent = true;
    } else if (arg == "--silent-purge") {
      options->silentPurge = true;
    } else if (arg == "--files") {
      const char* v = value();
      if (v == nullptr)
        return false;
      options->files = v;
    } else if (arg == "--purge-step-ms") {
      const char* v = value();
      if (v == nullptr)
        return false;
      options->purgeStepMs = std::strtol(v, nullptr, 10);
    } else if (arg == "--checkin-timeout-ms") {
      const char* v = value();
      if (v == nullptr)
        return false;
      options->checkinTimeoutMs = std::strtol(v, nullptr, 10);
    } else if (arg == "--no-pong") {
      options->noPong = true;
    } else if (arg == "--checkin-ids") {
      const char* v = value();
      if (v == nullptr)
        return false;
      options->checkinIds = std::strtol(v, nullptr, 10);
    } else if (arg == "--exit-on") {
      const char* v = value();
      if (v == nullptr)
        return false;
      options->exitOn = v;
    } else if (arg == "--text-amount") {
      options->textAmount = true;
    } else if (arg == "--huge-reply") {
      const char* v = value();
      if (v == nullptr)
        return false;
      options->hugeReplyMiB = std::strtol(v, nullptr, 10);
    } else if (arg == "--deep-reply") {
      const char* v = value();
      if (v == nullptr)
        return false;
      options->deepReply = std::strtol(v, nullptr, 10);
    } else {
      return false;
    }
  }
  return !options->id.empty();
}

}  // namespace

int main(int argc, char** argv) {
  if (argc == 2 && std::strcmp(argv[1], "--help") == 0) {
    std::fputs(kUsage, stdout);
    return 0;
  }
  Options options;
  if (!parse(argc, argv, &options)) {
    std::fputs(kUsage, stderr);
    return 2;
  }
  options.request.id = options.id;

  // SIGTERM and SIGINT end the service; they are taken by a thread of ours.
  sigset_t stopSignals;
  sigemptyset(&stopSignals);
  sigaddset(&stopSignals, SIGTERM);
  sigaddset(&stopSignals, SIGINT);
  pthread_sigmask(SIG_BLOCK, &stopSignals, nullptr);

  try {
    auto service = std::make_shared<ExampleService>(options);
    vantor::kit::ServiceHost host(
        service, options.ownName ? std::optional<std::string>(options.id) : std::nullopt);
    say("ready " + host.uniqueName());
    for (long i = 0; options.checkin && i < options.checkinIds; ++i) {
      vantor::kit::CheckinRequest request = options.request;
      if (i > 0)
        request.id += "." + std::to_string(i);
      try {
        say("checked-in " +
            host.checkIn(request, std::chrono::milliseconds(options.checkinTimeoutMs))
                .description());
      } catch (const sdbus::Error& e) {
        say("checkin-failed " + e.getName());
      }
    }
    std::thread([&host, stopSignals] {
      int signal = 0;
      sigwait(&stopSignals, &signal);
      host.stop();
    }).detach();
    host.run();
  } catch (const sdbus::Error& e) {
    std::fprintf(stderr, "vantor-example-service: %s: %s\n", e.getName().c_str(),
                 e.getMessage().c_str());
    return 1;
  }
  return 0;
}
