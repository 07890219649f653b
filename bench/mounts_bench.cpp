// Reading the mount table: our own mountinfo parser against libmount's, each
// reading the file and producing every entry's device, root, mount point,
// file system type and source. Two tables: this process's
// /proc/self/mountinfo, and a synthetic one of 500 mounts written to a
// temporary file. Prints p50 and p99 of one parse, in microseconds, over RUNS
// parses each (default 2000).
// Usage: mounts_bench [RUNS]

#include <fcntl.h>
#include <libmount.h>
#include <sys/sysmacros.h>
#include <unistd.h>

#include <cerrno>
#include <chrono>
#include <cstdio>
#include <cstdlib>
#include <filesystem>
#include <fstream>
#include <functional>
#include <string>
#include <vector>

#include "figures.h"
#include "support/volumes.h"

namespace {

using Clock = std::chrono::steady_clock;

std::string readAll(const std::string& path) {
  std::string text;
  const int fd = ::open(path.c_str(), O_RDONLY | O_CLOEXEC);
  if (fd < 0)
    return text;
  char buf[16384];
  for (;;) {
    const ssize_t n = ::read(fd, buf, sizeof buf);
    if (n < 0 && errno == EINTR)
      continue;
    if (n <= 0)
      break;
    text.append(buf, static_cast<std::size_t>(n));
  }
  ::close(fd);
  return text;
}

std::vector<vantor::MountEntry> ours(const std::string& path) {
  return vantor::parseMountInfo(readAll(path));
}

std::vector<vantor::MountEntry> theirs(const std::string& path) {
  std::vector<vantor::MountEntry> entries;
  libmnt_table* table = mnt_new_table();
  if (table == nullptr || mnt_table_parse_file(table, path.c_str()) != 0) {
    mnt_unref_table(table);
    return entries;
  }
  libmnt_iter* iter = mnt_new_iter(MNT_ITER_FORWARD);
  libmnt_fs* fs = nullptr;
  const auto text = [](const char* s) { return s != nullptr ? std::string(s) : std::string(); };
  while (mnt_table_next_fs(table, iter, &fs) == 0) {
    vantor::MountEntry entry;
    const dev_t device = mnt_fs_get_devno(fs);
    entry.major = major(device);
    entry.minor = minor(device);
    entry.root = text(mnt_fs_get_root(fs));
    entry.mountPoint = text(mnt_fs_get_target(fs));
    entry.fsType = text(mnt_fs_get_fstype(fs));
    entry.source = text(mnt_fs_get_source(fs));
    entries.push_back(std::move(entry));
  }
  mnt_free_iter(iter);
  mnt_unref_table(table);
  return entries;
}

// 500 mounts: ext4 volumes, bind mounts, tmpfs and overlays, some with
// escaped blanks and optional fields, as a busy container host has them.
std::string syntheticTable() {
  std::string text = "21 1 8:1 / / rw,relatime shared:1 - ext4 /dev/sda1 rw\n";
  for (int i = 0; i < 499; ++i) {
    const int id = 22 + i;
    const std::string n = std::to_string(i);
    switch (i % 4) {
      case 0:
        text += std::to_string(id) + " 21 8:" + std::to_string(16 + i) + " / /srv/vol" + n +
                " rw,relatime shared:" + n + " - ext4 /dev/sdb" + n + " rw,errors=remount-ro\n";
        break;
      case 1:
        text += std::to_string(id) + " 21 8:1 /home/user\\040" + n + " /mnt/bind\\040" + n +
                " rw,relatime master:1 - ext4 /dev/sda1 rw\n";
        break;
      case 2:
        text += std::to_string(id) + " 21 0:" + std::to_string(40 + i) + " / /run/user/" + n +
                " rw,nosuid,nodev,relatime - tmpfs tmpfs rw,size=814428k,mode=700\n";
        break;
      default:
        text += std::to_string(id) + " 21 0:" + std::to_string(40 + i) +
                " / /var/lib/containers/overlay/" + n +
                "/merged rw,relatime - overlay overlay rw,lowerdir=/l/" + n + ",upperdir=/u/" + n +
                ",workdir=/w/" + n + "\n";
        break;
    }
  }
  return text;
}

void measure(const char* table, const std::string& path, int runs) {
  const auto a = ours(path);
  const auto b = theirs(path);
  bool same = a.size() == b.size();
  for (std::size_t i = 0; same && i < a.size(); ++i) {
    same = a[i].major == b[i].major && a[i].minor == b[i].minor && a[i].root == b[i].root &&
           a[i].mountPoint == b[i].mountPoint && a[i].fsType == b[i].fsType &&
           a[i].source == b[i].source;
  }
  std::printf("%s: %zu mounts, entries %s\n", table, a.size(), same ? "agree" : "DIFFER");
  const std::pair<const char*, std::function<std::size_t()>> parsers[] = {
      {"ours    ", [&] { return ours(path).size(); }},
      {"libmount", [&] { return theirs(path).size(); }},
  };
  for (const auto& [name, parse] : parsers) {
    std::vector<double> samples;
    samples.reserve(static_cast<std::size_t>(runs));
    std::size_t sink = 0;
    for (int i = 0; i < runs; ++i) {
      const auto start = Clock::now();
      sink += parse();
      samples.push_back(std::chrono::duration<double, std::micro>(Clock::now() - start).count());
    }
    std::printf("  %s p50 %8.1f us  p99 %8.1f us  (%zu)\n", name,
                vantor::bench::percentile(samples, 0.5), vantor::bench::percentile(samples, 0.99),
                sink / static_cast<std::size_t>(runs));
  }
}

}  // namespace

int main(int argc, char** argv) {
  const int runs = argc > 1 ? std::atoi(argv[1]) : 2000;
  if (runs <= 0) {
    std::fprintf(stderr, "usage: mounts_bench [RUNS]\n");
    return 2;
  }
  mnt_init_debug(0);
  measure("/proc/self/mountinfo", "/proc/self/mountinfo", runs);

  const auto dir =
      std::filesystem::temp_directory_path() / ("mounts_bench." + std::to_string(::getpid()));
  std::filesystem::create_directories(dir);
  const auto path = (dir / "mountinfo").string();
  std::ofstream(path) << syntheticTable();
  measure("synthetic", path, runs);
  std::filesystem::remove_all(dir);
  return 0;
}
