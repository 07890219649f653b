#include "trash.h"

#include <dirent.h>
#include <fcntl.h>
#include <sys/stat.h>
#include <unistd.h>

#include <algorithm>
#include <cerrno>
#include <cstring>
#include <ctime>
#include <unordered_map>

#include "index.h"
#include "log.h"

namespace vantor::cachedir {

namespace {

constexpr std::string_view kInfoSuffix = ".trashinfo";
// A record holds a percent-encoded path and a date: a few KiB at most.
constexpr std::size_t kMaxInfoBytes = 64 * 1024;

bool isDotOrDotDot(const char* name) {
  return name[0] == '.' && (name[1] == '\0' || (name[1] == '.' && name[2] == '\0'));
}

std::string_view trim(std::string_view s) {
  while (!s.empty() && (s.front() == ' ' || s.front() == '\t'))
    s.remove_prefix(1);
  while (!s.empty() && (s.back() == ' ' || s.back() == '\t' || s.back() == '\r'))
    s.remove_suffix(1);
  return s;
}

// `YYYY-MM-DDThh:mm:ss` in local time.
std::optional<std::int64_t> parseDate(std::string_view text) {
  constexpr std::string_view kShape = "dddd-dd-ddTdd:dd:dd";
  if (text.size() != kShape.size())
    return std::nullopt;
  for (std::size_t i = 0; i < kShape.size(); ++i) {
    const bool digit = text[i] >= '0' && text[i] <= '9';
    if (kShape[i] == 'd' ? !digit : text[i] != kShape[i])
      return std::nullopt;
  }
  const auto number = [&text](std::size_t at, std::size_t digits) {
    int n = 0;
    for (std::size_t i = at; i < at + digits; ++i)
      n = n * 10 + (text[i] - '0');
    return n;
  };
  struct tm tm {};
  tm.tm_year = number(0, 4) - 1900;
  tm.tm_mon = number(5, 2) - 1;
  tm.tm_mday = number(8, 2);
  tm.tm_hour = number(11, 2);
  tm.tm_min = number(14, 2);
  tm.tm_sec = number(17, 2);
  tm.tm_isdst = -1;
  if (tm.tm_mon > 11 || tm.tm_mday < 1 || tm.tm_mday > 31 || tm.tm_hour > 23 || tm.tm_min > 59 ||
      tm.tm_sec > 60)
    return std::nullopt;
  return static_cast<std::int64_t>(::mktime(&tm));
}

// Reads the record of item `name` from `infofd`: its deletion date and
// allocated bytes. False when it is missing, not a regular file or invalid.
bool readInfo(int infofd, const std::string& name, std::int64_t* deleted, std::uint64_t* bytes) {
  const std::string file = name + std::string(kInfoSuffix);
  Fd fd(::openat(infofd, file.c_str(), O_RDONLY | O_NOFOLLOW | O_NONBLOCK | O_NOCTTY | O_CLOEXEC));
  struct stat st;
  if (!fd.valid() || ::fstat(fd.get(), &st) != 0 || !S_ISREG(st.st_mode) ||
      static_cast<std::uint64_t>(st.st_size) > kMaxInfoBytes)
    return false;
  std::string text(static_cast<std::size_t>(st.st_size), '\0');
  std::size_t got = 0;
  while (got < text.size()) {
    const ssize_t n = ::read(fd.get(), text.data() + got, text.size() - got);
    if (n < 0 && errno == EINTR)
      continue;
    if (n <= 0)
      break;
    got += static_cast<std::size_t>(n);
  }
  text.resize(got);
  const auto date = parseTrashInfo(text);
  if (!date)
    return false;
  *deleted = *date;
  *bytes = static_cast<std::uint64_t>(st.st_blocks) * 512;
  return true;
}

// Allocated bytes below the directory `top`, by the rules removeTree deletes
// with: nothing on another device or mount, no symbolic link followed, no
// deeper than Scanner::kMaxDepth. A file with several links counts once all
// of them were seen, since only then would removing the tree free it.
std::uint64_t directoryBytes(Fd top, dev_t dev, std::optional<std::uint64_t> mount,
                             const std::atomic<bool>& stop, bool* complete) {
  std::uint64_t bytes = 0;
  std::unordered_map<ino_t, nlink_t> linksLeft;
  std::vector<std::pair<DIR*, int>> stack;  // open directories and their depths
  const auto push = [&stack](Fd fd, int depth) {
    if (DIR* dir = ::fdopendir(fd.get()); dir != nullptr) {
      fd.release();
      stack.emplace_back(dir, depth);
    }
  };
  push(std::move(top), 0);
  while (!stack.empty() && !stop.load(std::memory_order_relaxed)) {
    const auto [dir, depth] = stack.back();
    errno = 0;
    const struct dirent* entry = ::readdir(dir);
    if (entry == nullptr) {
      if (errno != 0)
        *complete = false;
      ::closedir(dir);
      stack.pop_back();
      continue;
    }
    const int dirfd = ::dirfd(dir);
    struct stat st;
    if (isDotOrDotDot(entry->d_name) ||
        !statOnMount(dirfd, entry->d_name, mount, entry->d_ino, &st) || st.st_dev != dev)
      continue;
    if (S_ISDIR(st.st_mode)) {
      Fd sub = depth < Scanner::kMaxDepth ? openDirectoryBelow(dirfd, entry->d_name, dev) : Fd();
      if (sub.valid()) {
        bytes += static_cast<std::uint64_t>(st.st_blocks) * 512;
        push(std::move(sub), depth + 1);
      }
      continue;
    }
    if (st.st_nlink > 1) {
      auto [it, fresh] = linksLeft.try_emplace(st.st_ino, st.st_nlink);
      if (--it->second != 0)
        continue;
    }
    bytes += static_cast<std::uint64_t>(st.st_blocks) * 512;
  }
  for (const auto& [dir, depth] : stack)
    ::closedir(dir);
  return bytes;
}

}  // namespace

std::optional<std::int64_t> parseTrashInfo(std::string_view text) {
  bool inGroup = false;
  bool sawGroup = false;
  bool hasPath = false;
  std::optional<std::int64_t> date;
  while (!text.empty()) {
    const std::size_t end = std::min(text.find('\n'), text.size());
    const std::string_view line = trim(text.substr(0, end));
    text.remove_prefix(std::min(end + 1, text.size()));
    if (line.empty() || line.front() == '#')
      continue;
    if (line.front() == '[') {
      // The record's group comes first; other groups are not ours.
      if (!sawGroup && line != "[Trash Info]")
        return std::nullopt;
      inGroup = !sawGroup;
      sawGroup = true;
      continue;
    }
    if (!sawGroup)
      return std::nullopt;
    if (!inGroup)
      continue;
    const std::size_t equals = line.find('=');
    if (equals == std::string_view::npos)
      continue;
    const std::string_view key = trim(line.substr(0, equals));
    const std::string_view value = trim(line.substr(equals + 1));
    if (key == "Path")
      hasPath = !value.empty();
    else if (key == "DeletionDate")
      date = parseDate(value);
  }
  if (!hasPath)
    return std::nullopt;
  return date;
}

std::uint64_t TrashIndex::bytesDeletedBefore(std::int64_t cutoff) const {
  const auto end =
      std::upper_bound(items.begin(), items.end(), cutoff,
                       [](std::int64_t t, const TrashItem& item) { return t < item.deleted; });
  const auto count = static_cast<std::size_t>(end - items.begin());
  return count < prefix_.size() ? prefix_[count] : 0;
}

std::shared_ptr<const TrashIndex> scanTrash(Fd trash, const std::atomic<bool>& stop) {
  auto index = std::make_shared<TrashIndex>();
  index->trash = std::move(trash);
  struct stat st;
  if (!index->trash.valid() || ::fstat(index->trash.get(), &st) != 0)
    return nullptr;
  index->dev = st.st_dev;
  index->mount = mountOf(index->trash.get());
  index->files = openDirectoryBelow(index->trash.get(), "files", index->dev);
  if (!index->files.valid() && errno != ENOENT)
    index->complete = false;
  index->info = openDirectoryBelow(index->trash.get(), "info", index->dev);
  if (!index->info.valid() && errno != ENOENT)
    index->complete = false;

  if (index->files.valid() && index->info.valid()) {
    Fd listing(::fcntl(index->files.get(), F_DUPFD_CLOEXEC, 0));
    DIR* dir = listing.valid() ? ::fdopendir(listing.get()) : nullptr;
    if (dir == nullptr)
      return nullptr;
    listing.release();
    for (;;) {
      if (stop.load(std::memory_order_relaxed)) {
        ::closedir(dir);
        return nullptr;
      }
      errno = 0;
      const struct dirent* entry = ::readdir(dir);
      if (entry == nullptr) {
        if (errno != 0)
          index->complete = false;
        break;
      }
      const char* name = entry->d_name;
      // Ours under an aside name: being removed this moment.
      if (isDotOrDotDot(name) || asideKind(name) == AsideKind::kOurs)
        continue;
      TrashItem item{name, 0, 0};
      if (!readInfo(index->info.get(), item.name, &item.deleted, &item.bytes)) {
        if (asideKind(name) != AsideKind::kLeftover)
          continue;
        item.leftover = true;
      }
      // Something mounted on the item is not the Trash's.
      if (!statOnMount(index->files.get(), name, index->mount, entry->d_ino, &st) ||
          st.st_dev != index->dev)
        continue;
      if (S_ISDIR(st.st_mode)) {
        Fd sub = openDirectoryBelow(index->files.get(), name, index->dev);
        if (!sub.valid())
          continue;
        item.bytes +=
            static_cast<std::uint64_t>(st.st_blocks) * 512 +
            directoryBytes(std::move(sub), index->dev, index->mount, stop, &index->complete);
      } else if (st.st_nlink == 1) {
        item.bytes += static_cast<std::uint64_t>(st.st_blocks) * 512;
      }
      index->items.push_back(std::move(item));
    }
    ::closedir(dir);
  }
  if (stop.load(std::memory_order_relaxed))
    return nullptr;

  std::sort(index->items.begin(), index->items.end(), [](const TrashItem& a, const TrashItem& b) {
    return a.deleted != b.deleted ? a.deleted < b.deleted : a.name < b.name;
  });
  index->prefix_.reserve(index->items.size() + 1);
  index->prefix_.push_back(0);
  for (const TrashItem& item : index->items) {
    index->totalBytes += item.bytes;
    index->prefix_.push_back(index->totalBytes);
  }
  return index;
}

TrashPurgeOutcome purgeTrash(const TrashIndex& index, std::int64_t deletedBefore,
                             std::uint64_t amount, const std::function<bool()>& cancelled) {
  TrashPurgeOutcome outcome;
  for (const TrashItem& item : index.items) {
    if (item.deleted > deletedBefore || outcome.freed >= amount)
      break;
    if (cancelled()) {
      outcome.cancelled = true;
      break;
    }
    std::int64_t deleted = item.deleted;
    std::uint64_t infoBytes = 0;
    if (!item.leftover &&
        (!readInfo(index.info.get(), item.name, &deleted, &infoBytes) || deleted > deletedBefore)) {
      ++outcome.kept;
      continue;
    }
    std::uint64_t freed = 0;
    std::string keptAs;
    const TreeRemoval removal = removeTree(index.files.get(), item.name.c_str(), index.dev,
                                           index.mount, cancelled, &freed, &keptAs);
    outcome.freed += freed;
    if (!keptAs.empty()) {
      log(Priority::kWarning, "trashed \"" + item.name +
                                  "\" could not be given its name back; it is kept as \"" + keptAs +
                                  "\"");
    }
    if (removal == TreeRemoval::kCancelled) {
      outcome.cancelled = true;
      break;
    }
    if (removal == TreeRemoval::kGone)
      continue;  // restored or emptied meanwhile: its record is not ours to judge
    if (removal != TreeRemoval::kRemoved) {
      ++outcome.kept;
      continue;
    }
    ++outcome.items;
    const std::string info = item.name + std::string(kInfoSuffix);
    if (!item.leftover && ::unlinkat(index.info.get(), info.c_str(), 0) == 0)
      outcome.freed += infoBytes;
  }
  return outcome;
}

}  // namespace vantor::cachedir
