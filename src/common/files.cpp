#include "common/files.h"

#include <fcntl.h>
#include <sys/stat.h>
#include <unistd.h>

#include <cstdio>
#include <cstdlib>
#include <memory>
#include <vector>

namespace common {

bool write_all(int fd, std::string_view data) {
  while (!data.empty()) {
    ssize_t n = ::write(fd, data.data(), data.size());
    if (n <= 0) return false;
    data.remove_prefix(static_cast<std::size_t>(n));
  }
  return true;
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

int open_nofollow_for_write(const std::string& path, int flags) {
  return ::open(path.c_str(), O_WRONLY | O_CREAT | O_NOFOLLOW | O_CLOEXEC | flags, 0644);
}

int replace_file_atomically(const std::string& destination, std::string_view content) {
  // The temporary file sits beside the destination so that rename() never
  // crosses a file system; readers see the old or the new file, never a part.
  std::string dir = ".";
  std::string base = destination;
  if (auto slash = destination.rfind('/'); slash != std::string::npos) {
    dir = slash == 0 ? "/" : destination.substr(0, slash);
    base = destination.substr(slash + 1);
  }
  std::string tmpl = (dir == "/" ? std::string() : dir) + "/." + base + ".XXXXXX";
  std::vector<char> name(tmpl.begin(), tmpl.end());
  name.push_back('\0');
  int fd = ::mkstemp(name.data());
  if (fd < 0) return -1;
  // mkstemp leaves the file 0600, the mode the replaced file keeps.
  bool ok = write_all(fd, content);
  if (::close(fd) != 0) ok = false;
  if (ok && ::rename(name.data(), destination.c_str()) == 0) return 0;
  ::unlink(name.data());
  return -1;
}

}  // namespace common
