// Whole-file helpers.
#pragma once

#include <cstdio>
#include <memory>
#include <string>
#include <string_view>

namespace common {

// An open stdio stream that is closed when it goes out of scope.
struct FileCloser {
  void operator()(std::FILE* f) const {
    if (f) std::fclose(f);
  }
};
using FilePtr = std::unique_ptr<std::FILE, FileCloser>;

// Writes all of data to the descriptor; false when a write fails.
bool write_all(int fd, std::string_view data);

// Writes the buffer to the path (truncating). 0 when all of it was written,
// -1 when the file cannot be opened or the write fell short.
int common_write_file(const std::string& path, std::string_view data);

// The first line of the file, at most 1023 characters, with its line break
// kept. "" when the file cannot be opened.
std::string common_readfile_firstline(const std::string& path);

// Opens a fixed name (typically under /tmp) for writing without following a
// symbolic link planted there: O_NOFOLLOW, created with mode 0644 when
// missing. flags adds O_APPEND or O_TRUNC. -1 on failure.
int open_nofollow_for_write(const std::string& path, int flags);

// Replaces the destination whole with the given content: a temporary file
// is written beside it (or under tmp_dir when that shares its file system)
// and renamed onto it, mode 0600. 0 on success, -1 on failure (the old file
// stays).
int replace_file_atomically(const std::string& destination, std::string_view content);

}  // namespace common
