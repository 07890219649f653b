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
#include <utility>
#include <vector>

#include "client.h"
#include "format.h"
#include "json.h"
#include "volume.h"

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

// A purge's outcome for a person: asked, freed (measured on the volume),
// reported by the services, free space before and after, and whether services
// were still working when vantord answered.
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

// One line per service, then the total, sizes right-aligned, then the volume.
void printPurgeable(const Value::Dictionary& answer) {
  std::vector<TableRow> rows;
  for (const auto& [id, amount] : answer) {
    if (id != "VANTOR_VOLUME" && id != "VANTOR_TOTAL_AVAILABLE")
      rows.push_back({id, amountText(amount)});
  }
  if (rows.empty())
    std::printf("No service offers space on this volume.\n");
  const auto total = answer.find("VANTOR_TOTAL_AVAILABLE");
  rows.push_back({"Total", total != answer.end() ? amountText(total->second) : "?"});
  const auto volume = answer.find("VANTOR_VOLUME");
  const std::string volumeText =
      volume != answer.end() && volume->second.isString() ? volume->second.get<std::string>() : "?";

  // The volume's label counts for the width of the labels, its path for
  // none: only the sizes are aligned.
  rows.push_back({"Volume"});
  const std::vector<std::size_t> widths = columnWidths(rows);
  rows.pop_back();
  for (const auto& row : rows)
    printRow(row, widths, {Align::kLeft, Align::kRight});
  printRow({"Volume", volumeText}, widths);
}

// The urgency options, as vantord reads them from a request.
void addUrgency(const CommandLine& line, Value::Dictionary& info) {
  if (line.urgency)
    info.emplace("VANTOR_URGENCY", Value(*line.urgency));
  if (line.urgencyLimit)
    info.emplace("VANTOR_URGENCY_LIMIT", Value(*line.urgencyLimit));
}

}  // namespace

int runPurgeable(const CommandLine& line) {
  Value::Dictionary info{{"VANTOR_VOLUME", Value(volumeForPath(line.volume))}};
  addUrgency(line, info);
  DaemonClient client(line.bus);
  const Value::Dictionary answer =
      client.purgeable(line.itemized ? PurgeableView::kItemized : PurgeableView::kTotals, info);
  if (line.json) {
    printJson(Value(answer));
  } else {
    printPurgeable(answer);
  }
  return 0;
}

int runPurge(const CommandLine& line) {
  Value::Dictionary info{{"VANTOR_VOLUME", Value(volumeForPath(line.volume))},
                         {"VANTOR_AMOUNT", Value(line.size)}};
  addUrgency(line, info);
  if (line.timeout)
    info.emplace("VANTOR_PURGE_TIMEOUT", Value(*line.timeout));

  DaemonClient client(line.bus);
  Value::Dictionary result;
  {
    ProgressLine progress("purging");
    result = client.purge(info);
  }
  if (line.json) {
    printJson(Value(result));
  } else {
    printPurgeResult(line.size, result);
  }
  const auto freed = result.find("VANTOR_AMOUNT");
  const bool met = freed != result.end() && freed->second.uint64Value() >= line.size;
  return static_cast<int>(met ? ExitCode::kSuccess : ExitCode::kShortfall);
}

int runCancel(const std::optional<std::string>& bus, bool json) {
  DaemonClient(bus).cancelPurge();
  if (!json)
    std::printf("Cancel sent.\n");
  return 0;
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
