#include "example_service.h"

#include <errno.h>
#include <signal.h>

#include <algorithm>
#include <atomic>
#include <cstdio>
#include <filesystem>
#include <iostream>
#include <mutex>
#include <thread>

#include <sdbus-c++/Error.h>

#include "platform/dispatch/global_pool.h"

namespace vantor::example {
namespace {

class ExampleService final : public kit::Service {
 public:
  explicit ExampleService(const Options& options) : options_(options) {}

  void purgeable(std::int32_t urgency, const Value& info, DictionaryReply reply) override {
    say("purgeable " + std::to_string(urgency) + " " + info.description());
    const std::uint64_t amount = options_.files.empty() ? options_.amount : bytesHeld();
    Value::Dictionary answer{{"VANTOR_AMOUNT", Value(amount)}};
    if (options_.optOut)
      answer.emplace("VANTOR_OPT_OUT", Value(true));
    later([reply, answer = Value(std::move(answer))] { reply(answer); });
  }

  void purge(std::int32_t urgency, const Value& info, DictionaryReply reply) override {
    say("purge " + std::to_string(urgency) + " " + info.description());
    const Value* asked = info.find("VANTOR_AMOUNT");
    const std::uint64_t amount = asked != nullptr ? asked->uint64Value() : 0;
    if (options_.files.empty()) {
      const std::uint64_t purged = std::min(amount, options_.amount);
      later([reply, purged] { answerPurged(reply, purged); });
      return;
    }
    cancelled_.store(false);
    dispatch::globalAsync([this, reply, amount] {
      const std::uint64_t purged = deleteOldest(amount);
      say("purged " + std::to_string(purged));
      answerPurged(reply, purged);
    });
  }

  void periodic(std::int32_t urgency, const Value& info, DictionaryReply reply) override {
    say("periodic " + std::to_string(urgency) + " " + info.description());
    later([reply] { reply(Value()); });
  }

  void cancelPurge() override {
    cancelled_.store(true);
    say("cancel");
  }
  void notify(const Value& notification) override { say("notify " + notification.description()); }
  void ping(std::function<void()> reply) override {
    say("ping");
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
    dispatch::globalAsync([answer = std::move(answer), delay] {
      std::this_thread::sleep_for(std::chrono::milliseconds(delay));
      answer();
    });
  }

  static void answerPurged(const DictionaryReply& reply, std::uint64_t purged) {
    reply(Value(Value::Dictionary{{"VANTOR_AMOUNT", Value(purged)}}));
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

std::mutex gOutput;

}  // namespace

void addOptions(CLI::App& app, Options& options) {
  app.add_option("--id", options.request.id, "the service identifier")
      ->required()
      ->option_text("ID");
  app.add_flag("--own-name", options.ownName,
               "take ID as bus name: how vantord reaches a service named by a descriptor file");
  app.add_flag("--checkin", options.checkin, "check in with vantord at start");
  app.add_flag_function(
      "--no-purge", [&options](std::int64_t) { options.request.purge = false; },
      "check in as a service that does not purge");
  app.add_flag("--periodic", options.request.periodic,
               "check in as a service that takes daily maintenance");
  app.add_option("--notify", options.request.notifications,
                 "ask for notifications of NAME (repeatable)")
      ->option_text("NAME");
  app.add_option("--amount", options.amount, "purgeable amount to report (default 1 GiB)")
      ->option_text("BYTES");
  app.add_option("--delay-ms", options.delayMs, "answer every request after MS milliseconds")
      ->option_text("MS");
  app.add_flag("--opt-out", options.optOut, "add VANTOR_OPT_OUT to purgeable answers");
  app.add_option("--files", options.files,
                 "purge by deleting files in DIR, oldest first; the purgeable amount is then "
                 "what DIR holds")
      ->option_text("DIR");
  app.add_option("--purge-step-ms", options.purgeStepMs,
                 "wait MS milliseconds before each file a purge deletes (a slow purge, for "
                 "trying cancel)")
      ->option_text("MS");
}

bool parse(CLI::App& app, int argc, char** argv, int& status) {
  try {
    app.parse(argc, argv);
    return true;
  } catch (const CLI::ParseError& error) {
    status = app.exit(error) == 0 ? 0 : 2;
    return false;
  }
}

void say(const std::string& line) {
  std::lock_guard lock(gOutput);
  std::cout << line << std::endl;
}

std::shared_ptr<kit::Service> makeService(const Options& options) {
  return std::make_shared<ExampleService>(options);
}

int serve(const Options& options, std::shared_ptr<kit::Service> service,
          const std::vector<kit::CheckinRequest>& checkins) {
  // SIGTERM and SIGINT end the service; they are taken by a thread of ours.
  sigset_t stopSignals;
  sigemptyset(&stopSignals);
  sigaddset(&stopSignals, SIGTERM);
  sigaddset(&stopSignals, SIGINT);
  pthread_sigmask(SIG_BLOCK, &stopSignals, nullptr);

  try {
    kit::ServiceHost host(std::move(service), options.ownName
                                                  ? std::optional<std::string>(options.request.id)
                                                  : std::nullopt);
    say("ready " + host.uniqueName());
    for (std::size_t i = 0; options.checkin && i < checkins.size(); ++i) {
      try {
        say("checked-in " + host.checkIn(checkins[i]).description());
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
    std::fprintf(stderr, "%s: %s: %s\n", program_invocation_short_name, e.getName().c_str(),
                 e.getMessage().c_str());
    return 1;
  }
  return 0;
}

}  // namespace vantor::example
