// vantor-example-service: a service whose behaviour is set on its command
// line, for trying vantord out, for the demo, the tests and the benchmarks.
//
// It reports a fixed purgeable amount, purges what it is asked for up to that
// amount, and prints one line on stdout for every event, so a script can
// follow what the daemon asked.

#include <signal.h>
#include <unistd.h>

#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <iostream>
#include <mutex>
#include <string>
#include <thread>

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
    "  --no-pong          never answer the liveness ping\n"
    "  --checkin-timeout-ms MS  give up on the check-in after MS milliseconds\n"
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
  bool noPong = false;
  long checkinTimeoutMs = 25000;
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
    if (options_.silent)
      return;
    vantor::Value::Dictionary answer{{"VANTOR_AMOUNT", vantor::Value(options_.amount)}};
    if (options_.optOut)
      answer.emplace("VANTOR_OPT_OUT", vantor::Value(true));
    later([reply, answer] { reply(vantor::Value(answer)); });
  }

  void purge(std::int32_t urgency, const vantor::Value& info, DictionaryReply reply) override {
    say("purge " + std::to_string(urgency) + " " + info.description());
    const vantor::Value* asked = info.find("VANTOR_AMOUNT");
    std::uint64_t amount = asked != nullptr ? asked->uint64Value() : 0;
    amount = std::min(amount, options_.amount);
    later([reply, amount] {
      reply(vantor::Value(vantor::Value::Dictionary{{"VANTOR_AMOUNT", vantor::Value(amount)}}));
    });
  }

  void periodic(std::int32_t urgency, const vantor::Value& info, DictionaryReply reply) override {
    say("periodic " + std::to_string(urgency) + " " + info.description());
    later([reply] { reply(vantor::Value()); });
  }

  void cancelPurge() override { say("cancel"); }
  void notify(const vantor::Value& notification) override {
    say("notify " + notification.description());
  }
  void ping(std::function<void()> reply) override {
    say("ping");
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

  const Options options_;
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
    } else if (arg == "--checkin-timeout-ms") {
      const char* v = value();
      if (v == nullptr)
        return false;
      options->checkinTimeoutMs = std::strtol(v, nullptr, 10);
    } else if (arg == "--no-pong") {
      options->noPong = true;
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
    if (options.checkin) {
      try {
        say("checked-in " +
            host.checkIn(options.request, std::chrono::milliseconds(options.checkinTimeoutMs))
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
