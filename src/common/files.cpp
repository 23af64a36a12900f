#include "common/files.h"

#include <fcntl.h>
#include <limits.h>  // IOV_MAX
#include <stdio.h>   // renameat2, RENAME_NOREPLACE
#include <sys/stat.h>
#include <sys/uio.h>
#include <unistd.h>

#include <atomic>
#include <cerrno>
#include <cstdio>
#include <cstdlib>
#include <memory>

namespace common {

namespace {
// 32 bits: lock-free on every target (64-bit atomics need libatomic on MIPS).
std::atomic<std::uint32_t> g_look{0};       // 0: no look in progress
std::atomic<std::uint32_t> g_last_look{0};  // the last look number handed out

std::uint32_t next_look() {
  std::uint32_t look = ++g_last_look;
  return look != 0 ? look : ++g_last_look;  // 0 means none, also after a wrap
}
}  // namespace

std::uint32_t current_look() { return g_look.load(std::memory_order_acquire); }

void begin_look() { g_look.store(next_look(), std::memory_order_release); }

void end_look() { g_look.store(0, std::memory_order_release); }

void renew_look() {
  std::uint32_t look = g_look.load(std::memory_order_acquire);
  // A look ended meanwhile by the main loop stays ended.
  if (look != 0) g_look.compare_exchange_strong(look, next_look(), std::memory_order_acq_rel);
}

bool must_read(LookedAtFile& file, const char* path) {
  const std::uint32_t look = current_look();
  if (file.read && look != 0 && look == file.look) return false;
  file.look = look;
  const FileStamp stamp = file_stamp(path);
  if (file.read && stamp == file.stamp) return false;
  file.stamp = stamp;
  file.read = true;
  return true;
}

FileStamp file_stamp(const char* path) {
  struct stat st {};
  if (::stat(path, &st) != 0) return FileStamp{};
  return FileStamp{true,
                   static_cast<unsigned long long>(st.st_dev),
                   static_cast<unsigned long long>(st.st_ino),
                   static_cast<long long>(st.st_size),
                   static_cast<long long>(st.st_mtim.tv_sec),
                   static_cast<long long>(st.st_mtim.tv_nsec),
                   static_cast<long long>(st.st_ctim.tv_sec),
                   static_cast<long long>(st.st_ctim.tv_nsec)};
}

bool write_all(int fd, std::span<const std::string_view> pieces) {
  std::size_t next = 0;        // first piece not wholly written
  std::size_t done_in_it = 0;  // bytes of that piece already written
  // A few dozen pieces per call: the kept client lines come as runs of
  // whole lines, and a large array here would only cost stack pages.
  constexpr int kBatch = IOV_MAX < 64 ? IOV_MAX : 64;
  while (next < pieces.size()) {
    struct iovec iov[kBatch];
    int count = 0;
    for (std::size_t i = next; i < pieces.size() && count < kBatch; ++i) {
      const std::string_view piece = i == next ? pieces[i].substr(done_in_it) : pieces[i];
      if (piece.empty()) continue;
      iov[count].iov_base = const_cast<char*>(piece.data());
      iov[count].iov_len = piece.size();
      ++count;
    }
    if (count == 0) return true;
    ssize_t n = ::writev(fd, iov, count);
    if (n <= 0) return false;
    // Step past what was written.
    for (auto left = static_cast<std::size_t>(n); left > 0;) {
      const std::size_t rest = pieces[next].size() - done_in_it;
      if (left < rest) {
        done_in_it += left;
        break;
      }
      left -= rest;
      done_in_it = 0;
      ++next;
    }
  }
  return true;
}

bool write_all(int fd, std::string_view data) {
  return write_all(fd, std::span<const std::string_view>(&data, 1));
}

int common_write_file(const std::string& path, std::string_view data) {
  FilePtr f(std::fopen(path.c_str(), "w"));
  if (!f) return -1;
  std::size_t n = data.empty() ? 0 : std::fwrite(data.data(), 1, data.size(), f.get());
  return n == data.size() ? 0 : -1;
}

std::string common_readfile_firstline(const std::string& path) {
  FilePtr f(std::fopen(path.c_str(), "r"));
  if (!f) return std::string();
  char buf[1024] = {};
  if (!std::fgets(buf, sizeof buf, f.get())) return std::string();
  return std::string(buf);
}

int replace_file_atomically(const std::string& destination, std::string_view content) {
  return replace_file_atomically(destination, std::span<const std::string_view>(&content, 1));
}

int replace_file_atomically(const std::string& destination,
                            std::span<const std::string_view> pieces) {
  // The temporary file sits beside the destination so that rename() never
  // crosses a file system; readers see the old or the new file, never a part.
  // Its name is this process's own and the same every time (".<name>.<pid>"):
  // the directory cache knows it from the last rewrite, while a random name
  // costs a fresh lookup on every write (on an overlay, one in each layer).
  // Should that name be taken (left by a process that died, or put there by
  // someone else), a random one is used instead.
  const auto slash = destination.rfind('/');
  const std::string prefix = slash == std::string::npos
                                 ? "./." + destination + "."
                                 : destination.substr(0, slash + 1) + "." + destination.substr(slash + 1) + ".";
  std::string name = prefix + std::to_string(::getpid());
  // Mode 0600 (as mkstemp makes it), the mode the replaced file keeps.
  int fd = ::open(name.c_str(), O_RDWR | O_CREAT | O_EXCL | O_NOFOLLOW | O_CLOEXEC, 0600);
  if (fd < 0 && errno == EEXIST) {
    name = prefix + "XXXXXX";
    fd = ::mkostemp(name.data(), O_CLOEXEC);
  }
  if (fd < 0) return -1;
  bool ok = write_all(fd, pieces);
  if (::close(fd) != 0) ok = false;
  if (ok && ::rename(name.c_str(), destination.c_str()) == 0) return 0;
  ::unlink(name.c_str());
  return -1;
}

}  // namespace common

// --- Fixed names under /tmp.
namespace common {

namespace {

const char* kind_of(mode_t mode) {
  if (S_ISLNK(mode)) return "a symbolic link";
  if (S_ISFIFO(mode)) return "a FIFO";
  if (S_ISDIR(mode)) return "a directory";
  if (S_ISSOCK(mode)) return "a socket";
  if (S_ISREG(mode)) return "a file";
  return "a device";
}

// Removes what lstat described at path (a directory: renamed to a free name
// beside it, never replacing anything) and says so on standard output.
bool move_aside(const std::string& path, const struct stat& st) {
  const char* kind = kind_of(st.st_mode);
  const auto uid = static_cast<unsigned>(st.st_uid);
  if (!S_ISDIR(st.st_mode)) {
    if (::unlink(path.c_str()) != 0 && errno != ENOENT) return false;
    std::printf("%s held %s of uid %u: removed\n", path.c_str(), kind, uid);
    return true;
  }
  static std::atomic<unsigned> serial{0};
  for (int attempt = 0; attempt < 16; ++attempt) {
    std::string aside = path + ".planted." + std::to_string(::getpid()) + "." +
                        std::to_string(serial.fetch_add(1) + 1);
    if (::renameat2(AT_FDCWD, path.c_str(), AT_FDCWD, aside.c_str(), RENAME_NOREPLACE) == 0) {
      std::printf("%s held %s of uid %u: moved to %s\n", path.c_str(), kind, uid, aside.c_str());
      return true;
    }
    if (errno == ENOENT) return true;  // someone else moved it first
    if (errno != EEXIST) return false;
  }
  return false;
}

bool is_own_private_dir(const struct stat& st) {
  return S_ISDIR(st.st_mode) && st.st_uid == ::geteuid() && (st.st_mode & (S_IWGRP | S_IWOTH)) == 0;
}

}  // namespace

int open_regular_nonblocking(const std::string& path, int flags) {
  int fd = ::open(path.c_str(), flags | O_NONBLOCK | O_NOFOLLOW | O_CLOEXEC, 0644);
  if (fd < 0) return -1;
  struct stat st {};
  if (::fstat(fd, &st) != 0 || !S_ISREG(st.st_mode)) {
    ::close(fd);
    return -1;
  }
  return fd;
}

bool clear_fixed_name(const std::string& path) {
  struct stat st {};
  if (::lstat(path.c_str(), &st) != 0) return errno == ENOENT;
  if (S_ISREG(st.st_mode) && st.st_uid == ::geteuid()) return true;
  return move_aside(path, st);
}

bool claim_private_dir(const std::string& path) {
  // Threads may claim at once: whoever loses a race looks again.
  for (int attempt = 0; attempt < 4; ++attempt) {
    struct stat st {};
    if (::lstat(path.c_str(), &st) == 0) {
      if (is_own_private_dir(st)) return true;
      if (!move_aside(path, st)) return false;
    } else if (errno != ENOENT) {
      return false;
    }
    if (::mkdir(path.c_str(), 0700) != 0 && errno != EEXIST) return false;
  }
  struct stat st {};
  return ::lstat(path.c_str(), &st) == 0 && is_own_private_dir(st);
}

}  // namespace common
