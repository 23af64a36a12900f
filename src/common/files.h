// Whole-file helpers.
#pragma once

#include <cstdint>
#include <cstdio>
#include <memory>
#include <span>
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

// What stat() says about a file, enough to tell that it changed on disk:
// device, inode, size and the nanosecond modification and change times.
// A file that is missing (or cannot be examined) has exists false.
struct FileStamp {
  bool exists = false;
  unsigned long long device = 0, inode = 0;
  long long size = 0;
  long long mtime_sec = 0, mtime_nsec = 0, ctime_sec = 0, ctime_nsec = 0;
  bool operator==(const FileStamp&) const = default;
};
FileStamp file_stamp(const char* path);

// Small input files that only other programs change (interface names, the
// wireless status) are looked at (one stat) at most once per look. A look
// starts when the main loop wakes and again after every command the daemon
// runs; it ends when the loop goes back to sleep. Outside a look (start-up,
// tests, tools) current_look() is 0 and every lookup looks at the file.
std::uint32_t current_look();
void begin_look();
void end_look();
// After a command: a look in progress starts afresh (the command may have
// rewritten a file); no look stays no look.
void renew_look();

// A small input file kept in memory by its reader: whether it must be read
// (again), looking at it at most once per look. True the first time and
// whenever the stamp moved since the last read.
struct LookedAtFile {
  bool read = false;
  std::uint32_t look = 0;  // the look it was last looked at in
  FileStamp stamp;         // as it was at the last read
};
bool must_read(LookedAtFile& file, const char* path);

// Writes all of data to the descriptor; false when a write fails.
bool write_all(int fd, std::string_view data);
// The pieces in order, through writev; false when a write fails.
bool write_all(int fd, std::span<const std::string_view> pieces);

// Writes the buffer to the path (truncating). 0 when all of it was written,
// -1 when the file cannot be opened or the write fell short.
int common_write_file(const std::string& path, std::string_view data);

// The first line of the file, at most 1023 characters, with its line break
// kept. "" when the file cannot be opened.
std::string common_readfile_firstline(const std::string& path);

// Replaces the destination whole with the given content: a temporary file
// is written beside it (or under tmp_dir when that shares its file system)
// and renamed onto it, mode 0600. 0 on success, -1 on failure (the old file
// stays).
int replace_file_atomically(const std::string& destination, std::string_view content);
// The same with the content given as pieces, written in order with as few
// writev calls as it takes (one for up to 64 non-empty pieces).
int replace_file_atomically(const std::string& destination,
                            std::span<const std::string_view> pieces);

}  // namespace common

// --- Fixed names under /tmp: anyone may have put something there first.
namespace common {

// Opens the path with O_NONBLOCK | O_NOFOLLOW | O_CLOEXEC added to flags
// (O_RDONLY, or O_WRONLY with O_CREAT, O_APPEND, O_EXCL ...; created with
// mode 0644) and keeps the descriptor only when fstat says it is a regular
// file. -1 for a symbolic link, a FIFO, a directory or anything else there:
// nothing blocks and nothing is read or written through a link.
int open_regular_nonblocking(const std::string& path, int flags);

// Makes a fixed name free for the daemon's own file. A symbolic link, FIFO,
// socket, device or a regular file of another user found there is removed,
// a directory is renamed aside ("<path>.planted.<pid>.<n>"); one line on
// standard output says what was found and where it went. A regular file of
// our own (the effective user's) is left alone. true when the name is free
// or holds such a file afterwards.
bool clear_fixed_name(const std::string& path);

// Makes the path a directory of our own (owner the effective user, not
// writable by group or others) and true; whatever else is there is moved
// aside or removed as by clear_fixed_name (with its line), then the
// directory is made with mode 0700. false when that fails.
bool claim_private_dir(const std::string& path);

}  // namespace common
