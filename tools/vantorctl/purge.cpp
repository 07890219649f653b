#include "purge.h"

#include <unistd.h>

#include <cctype>
#include <charconv>
#include <chrono>
#include <cmath>
#include <condition_variable>
#include <cstdio>
#include <mutex>
#include <string>
#include <thread>

#include "format.h"

namespace vantor::ctl {

std::optional<std::uint64_t> parseSize(std::string_view text) {
  std::size_t digits = 0;
  while (digits < text.size() &&
         (std::isdigit(static_cast<unsigned char>(text[digits])) != 0 || text[digits] == '.')) {
    ++digits;
  }
  const std::string_view number = text.substr(0, digits);
  std::string suffix(text.substr(digits));
  for (char& c : suffix)
    c = static_cast<char>(std::toupper(static_cast<unsigned char>(c)));
  if (number.empty())
    return std::nullopt;

  int shift = 0;
  if (!suffix.empty() && suffix != "B") {
    static constexpr std::string_view kLetters = "KMGT";
    const auto at = kLetters.find(suffix[0]);
    const std::string rest = suffix.substr(1);
    if (at == std::string_view::npos || (!rest.empty() && rest != "IB" && rest != "B"))
      return std::nullopt;
    shift = 10 * static_cast<int>(at + 1);
  }

  if (number.find('.') == std::string_view::npos) {
    std::uint64_t whole = 0;
    const auto [end, error] = std::from_chars(number.data(), number.data() + number.size(), whole);
    if (error != std::errc() || end != number.data() + number.size())
      return std::nullopt;
    if (shift != 0 && whole > (UINT64_MAX >> shift))
      return std::nullopt;
    return whole << shift;
  }
  double fraction = 0;
  const auto [end, error] = std::from_chars(number.data(), number.data() + number.size(), fraction);
  if (error != std::errc() || end != number.data() + number.size())
    return std::nullopt;
  const double bytes = std::floor(std::ldexp(fraction, shift));
  if (!std::isfinite(bytes) || bytes < 0 || bytes >= 18446744073709551616.0)
    return std::nullopt;
  return static_cast<std::uint64_t>(bytes);
}

namespace {

std::uint64_t amountOf(const Value::Dictionary& result, const char* key) {
  auto it = result.find(key);
  return it != result.end() ? it->second.uint64Value() : 0;
}

}  // namespace

void printPurgeResult(std::uint64_t asked, const Value::Dictionary& result) {
  const std::uint64_t freed = amountOf(result, "VANTOR_AMOUNT");
  const std::uint64_t reported = amountOf(result, "VANTOR_AMOUNT_REPORTED");
  const std::uint64_t before = amountOf(result, "VANTOR_FREESPACE_BEGIN");
  const std::uint64_t after = amountOf(result, "VANTOR_FREESPACE_END");
  const bool complete = result.find("VANTOR_ASYNC_COMPLETE") != result.end();
  const auto volume = result.find("VANTOR_VOLUME");

  std::printf("Volume              %s\n", volume != result.end() && volume->second.isString()
                                              ? volume->second.get<std::string>().c_str()
                                              : "?");
  std::printf("Asked               %s\n", formatBytes(asked).c_str());
  std::printf("Freed               %s%s\n", formatBytes(freed).c_str(),
              freed >= asked ? "" : " (less than asked)");
  std::printf("Reported freed      %s\n", formatBytes(reported).c_str());
  std::printf("Free before         %s\n", formatBytes(before).c_str());
  std::printf("Free after          %s\n", formatBytes(after).c_str());
  std::printf("Services finished   %s\n",
              complete ? "yes" : "no, some were still working when vantord answered");
}

struct ProgressLine::State {
  std::mutex mutex;
  std::condition_variable cv;
  bool done = false;
  std::thread thread;
};

ProgressLine::ProgressLine(const char* what) {
  if (::isatty(STDERR_FILENO) == 0)
    return;
  state_ = std::make_unique<State>();
  State* state = state_.get();
  const std::string label = what;
  state->thread = std::thread([state, label] {
    static constexpr char kFrames[] = {'|', '/', '-', '\\'};
    const auto start = std::chrono::steady_clock::now();
    std::unique_lock lock(state->mutex);
    for (unsigned frame = 0; !state->done; ++frame) {
      const double elapsed =
          std::chrono::duration<double>(std::chrono::steady_clock::now() - start).count();
      std::fprintf(stderr, "\r%c %s %.1f s ", kFrames[frame % 4], label.c_str(), elapsed);
      std::fflush(stderr);
      state->cv.wait_for(lock, std::chrono::milliseconds(100), [state] { return state->done; });
    }
    std::fprintf(stderr, "\r\033[K");
    std::fflush(stderr);
  });
}

ProgressLine::~ProgressLine() {
  if (state_ == nullptr)
    return;
  {
    std::lock_guard lock(state_->mutex);
    state_->done = true;
  }
  state_->cv.notify_all();
  state_->thread.join();
}

}  // namespace vantor::ctl
