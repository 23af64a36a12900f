/* The bench's stand-in for tavo_client: records its call in the sandbox's
 * commands.log as the Python recorder does ({"argv": [...], "stdout": "",
 * "append": false}, one write) and exits 0. The real notifier is a small C
 * program; the Python recorder spent 20-30 ms of CPU starting, beside the
 * daemon's work after the command and after the floor's timing had ended.
 * Built by bench/events.py with the machine's C compiler. */
#include <fcntl.h>
#include <stdio.h>
#include <stdlib.h>
#include <string.h>
#include <unistd.h>

static size_t put(char *out, size_t at, size_t cap, const char *text) {
  size_t n = strlen(text);
  if (at + n < cap) memcpy(out + at, text, n);
  return at + n;
}

int main(int argc, char **argv) {
  const char *sandbox = getenv("CLIENTMGR_SANDBOX");
  if (sandbox == NULL) return 0;
  static char line[65536];
  const size_t cap = sizeof line - 64;
  size_t at = put(line, 0, cap, "{\"argv\": [");
  for (int i = 0; i < argc; ++i) {
    const char *arg = i == 0 ? "tavo_client" : argv[i];
    at = put(line, at, cap, i == 0 ? "\"" : ", \"");
    for (const unsigned char *c = (const unsigned char *)arg; *c != '\0'; ++c) {
      char esc[8];
      if (*c == '"' || *c == '\\')
        snprintf(esc, sizeof esc, "\\%c", *c);
      else if (*c < 0x20 || *c >= 0x7f)
        snprintf(esc, sizeof esc, "\\u%04x", *c);
      else
        snprintf(esc, sizeof esc, "%c", *c);
      at = put(line, at, cap, esc);
    }
    at = put(line, at, cap, "\"");
  }
  at = put(line, at, cap, "], \"stdout\": \"\", \"append\": false}\n");
  if (at >= cap) return 1;
  char path[4096];
  snprintf(path, sizeof path, "%s/commands.log", sandbox);
  int fd = open(path, O_WRONLY | O_APPEND | O_CREAT | O_CLOEXEC, 0644);
  if (fd < 0) return 1;
  ssize_t written = write(fd, line, at);  /* one write: whole lines from concurrent calls */
  close(fd);
  return written == (ssize_t)at ? 0 : 1;
}
