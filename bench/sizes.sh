#!/usr/bin/env bash
# Prints the size of the stripped daemon of each target build (what ships),
# and with --top N the N largest functions and objects of each.
#
#   bench/sizes.sh [--top N] [BUILD_DIR...]    (default: build-<triple> of the
#                                               four targets that exist)
# A build directory comes from the size build, e.g.
#   cmake -S . -B build-mips-linux-gnu --toolchain cmake/mips-linux-gnu.cmake \
#         -DCMAKE_BUILD_TYPE=Release -DCLIENTMGR_SIZE=ON
#   cmake --build build-mips-linux-gnu --target clientmgr
# which leaves the stripped build-*/clientmgr and build-*/clientmgr.full.
set -u
cd "$(dirname "$0")/.."
top=0
if [ "${1:-}" = --top ]; then top=$2; shift 2; fi
dirs=("$@")
if [ ${#dirs[@]} -eq 0 ]; then
  for t in mips-linux-gnu mipsel-linux-gnu arm-linux-gnueabihf aarch64-linux-gnu; do
    [ -f "build-$t/clientmgr" ] && dirs+=("build-$t")
  done
fi
[ ${#dirs[@]} -gt 0 ] || { echo "no target builds (build-<triple>/clientmgr) found" >&2; exit 1; }
printf '%-28s %10s %8s  %s\n' build bytes KiB "largest sections"
for d in "${dirs[@]}"; do
  bin=$d/clientmgr
  [ -f "$bin" ] || { printf '%-28s %10s\n' "$d" missing; continue; }
  bytes=$(stat -c %s "$bin")
  # the target's binutils, as the build found them
  nm=$(sed -n 's/^CMAKE_NM:FILEPATH=//p' "$d/CMakeCache.txt" 2>/dev/null); nm=${nm:-nm}
  size=${nm%nm}size
  sections=$("$size" -A "$bin" | awk '$2 ~ /^[0-9]+$/ && $1 ~ /^\./ {print $2, $1}' | sort -rn | head -n 4 \
             | awk '{printf "%s %s  ", $2, $1}')
  printf '%-28s %10d %8.1f  %s\n' "$(basename "$d")" "$bytes" "$(awk "BEGIN {print $bytes / 1024}")" "$sections"
  if [ "$top" -gt 0 ] && [ -f "$bin.full" ]; then
    "$nm" --size-sort -r -C -t d "$bin.full" 2>/dev/null | head -n "$top" | sed 's/^0*/    /'
  fi
done
