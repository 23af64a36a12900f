#include "common/runner.h"

#include "common/files.h"

#include <fcntl.h>
#include <sched.h>
#include <signal.h>
#include <sys/mman.h>
#include <sys/wait.h>
#include <unistd.h>

#include <cerrno>
#include <mutex>

extern char** environ;

namespace common {

namespace {

std::mutex g_recorder_mutex;
const CommandRecorder* g_recorder = nullptr;

// What the child needs between clone and exec; it shares the memory.
struct ShellChild {
  char* const* argv;
  int out_fd;          // the pipe's write end to become stdout, or -1
  int exec_error = 0;  // errno of a failed dup2 or exec, set by the child
};

// The child of clone(CLONE_VM | CLONE_VFORK): only system calls until exec.
// posix_spawn would first reset every signal's handler in the child, some
// 130 system calls per command; the daemon installs no signal handlers, so
// there is none that could run here between clone and exec. The sanitizers
// stay out: their bookkeeping belongs to the waiting thread.
__attribute__((no_sanitize("address", "thread", "undefined"))) int exec_shell(void* arg) {
  auto* child = static_cast<ShellChild*>(arg);
  if (child->out_fd >= 0) {
    // dup2 onto itself would keep close-on-exec: clear it instead.
    const int rc = child->out_fd == STDOUT_FILENO ? ::fcntl(STDOUT_FILENO, F_SETFD, 0)
                                                  : ::dup2(child->out_fd, STDOUT_FILENO);
    if (rc < 0) {
      child->exec_error = errno;
      ::_exit(127);
    }
  }
  ::execve("/bin/sh", child->argv, environ);
  child->exec_error = errno;
  ::_exit(127);
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

// Starts /bin/sh -c command; when out_fd is given the child's stdout is the
// write end of a pipe whose read end is stored there.
pid_t spawn_shell(const std::string& command, int* out_fd) {
  int pipe_fds[2] = {-1, -1};
  if (out_fd && ::pipe2(pipe_fds, O_CLOEXEC) != 0) return -1;
  const char* argv[] = {"sh", "-c", command.c_str(), nullptr};
  ShellChild child{const_cast<char* const*>(argv), pipe_fds[1]};
  // The child runs on a stack of its own until exec while this thread waits
  // (CLONE_VFORK); the dynamic linker may resolve a symbol on it, hence the
  // margin. Mapped for this command only: on the caller's stack it would
  // push the caller's next frames deeper, pages kept dirty for good.
  constexpr std::size_t kChildStack = 16 * 1024;
  void* stack = ::mmap(nullptr, kChildStack, PROT_READ | PROT_WRITE,
                       MAP_PRIVATE | MAP_ANONYMOUS | MAP_STACK, -1, 0);
  pid_t pid = -1;
  if (stack != MAP_FAILED) {
    pid = ::clone(exec_shell, static_cast<char*>(stack) + kChildStack,
                  CLONE_VM | CLONE_VFORK | SIGCHLD, &child);
    ::munmap(stack, kChildStack);
  }
  if (out_fd) ::close(pipe_fds[1]);
  if (pid > 0 && child.exec_error != 0) {
    wait_for(pid);
    pid = -1;
  }
  if (pid < 0) {
    if (out_fd) ::close(pipe_fds[0]);
    return -1;
  }
  if (out_fd) *out_fd = pipe_fds[0];
  return pid;
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
