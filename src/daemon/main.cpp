// Entry point of the client-manager daemon. The start-up sequence and the
// loop are being wired; until then the binary only reports that.
#include <cstdio>

int main() {
  std::fputs("clientmgr: main loop not wired yet\n", stderr);
  return 1;
}
