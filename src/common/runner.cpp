#include "common/runner.h"

#include "common/files.h"

#include <fcntl.h>
#include <spawn.h>
#include <sys/wait.h>
#include <unistd.h>

#include <cerrno>
#include <mutex>

extern char** environ;

namespace common {

namespace {

std::mutex g_recorder_mutex;
const CommandRecorder* g_recorder = nullptr;

// Starts /bin/sh -c command; when out_fd is given the child's stdout is the
// write end of a pipe whose read end is stored there.
pid_t spawn_shell(const std::string& command, int* out_fd) {
  posix_spawn_file_actions_t actions;
  posix_spawn_file_actions_init(&actions);
  int pipe_fds[2] = {-1, -1};
  if (out_fd) {
    if (::pipe2(pipe_fds, O_CLOEXEC) != 0) {
      posix_spawn_file_actions_destroy(&actions);
      return -1;
    }
    posix_spawn_file_actions_adddup2(&actions, pipe_fds[1], STDOUT_FILENO);
  }
  const char* argv[] = {"sh", "-c", command.c_str(), nullptr};
  pid_t pid = -1;
  int rc = posix_spawn(&pid, "/bin/sh", &actions, nullptr, const_cast<char**>(argv), environ);
  posix_spawn_file_actions_destroy(&actions);
  if (out_fd) {
    ::close(pipe_fds[1]);
    if (rc != 0) {
      ::close(pipe_fds[0]);
      return -1;
    }
    *out_fd = pipe_fds[0];
  }
  return rc == 0 ? pid : -1;
}

int wait_for(pid_t pid) {
  int status = 0;
  int result = 0;
  while (::waitpid(pid, &status, 0) < 0) {
    if (errno != EINTR) {
      result = -1;
      break;
    }
  }
  // The command may have rewritten a file the daemon reads.
  renew_look();
  return result == 0 ? status : -1;
}

}  // namespace

int run_command(const std::string& command) {
  {
    std::lock_guard<std::mutex> lock(g_recorder_mutex);
    if (g_recorder) {
      if (g_recorder->record) g_recorder->record(command);
      return 0;
    }
  }
  pid_t pid = spawn_shell(command, nullptr);
  if (pid < 0) return -1;
  return wait_for(pid);
}

std::optional<std::string> run_command_read(const std::string& command, std::size_t max_bytes) {
  {
    std::lock_guard<std::mutex> lock(g_recorder_mutex);
    if (g_recorder) {
      if (g_recorder->record) g_recorder->record(command);
      if (!g_recorder->reply) return std::nullopt;
      return g_recorder->reply(command);
    }
  }
  int fd = -1;
  pid_t pid = spawn_shell(command, &fd);
  if (pid < 0) return std::nullopt;
  std::string out;
  char buf[4096];
  for (;;) {
    ssize_t n = ::read(fd, buf, sizeof buf);
    if (n < 0 && errno == EINTR) continue;
    if (n <= 0) break;
    // Keep draining after the limit so the command never blocks on a full pipe.
    if (out.size() < max_bytes)
      out.append(buf, std::min<std::size_t>(static_cast<std::size_t>(n), max_bytes - out.size()));
  }
  ::close(fd);
  wait_for(pid);
  return out;
}

int run_command(const std::optional<std::string>& command) {
  return command ? run_command(*command) : -1;
}

std::optional<std::string> run_command_read(const std::optional<std::string>& command,
                                            std::size_t max_bytes) {
  if (!command) return std::nullopt;
  return run_command_read(*command, max_bytes);
}

void set_command_recorder(const CommandRecorder* recorder) {
  std::lock_guard<std::mutex> lock(g_recorder_mutex);
  g_recorder = recorder;
}

}  // namespace common
