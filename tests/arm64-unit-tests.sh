#!/bin/sh
# Runs each test of the arm64 unit-test binary in its own process under
# qemu-user, two at a time, as CTest runs the host's (gtest_discover_tests):
# the tests share process-wide state and are written for one process each.
# Prints the failures' output and the count; fails if any test failed.
#   arm64-unit-tests.sh BINARY
set -u
binary="${1?usage: arm64-unit-tests.sh BINARY}"
[ -x "$binary" ] || { echo "no $binary: make arm64 builds it" >&2; exit 1; }
# The arm64 libraries that could not be installed beside the host's
# (scripts/install-deps). No -L /usr/aarch64-linux-gnu: that folder's loader
# is the cross toolchain's glibc build (2.36-8cross1), which then loads
# multiarch's libc.so.6 (2.36-9+deb12u14); with the two mixed, the first
# pthread_create spins forever. Multiarch's own loader in /lib matches.
export QEMU_SET_ENV="LD_LIBRARY_PATH=/opt/kz-arm64/usr/lib/aarch64-linux-gnu"
out="$(mktemp -d)"
trap 'rm -rf "$out"' EXIT
qemu-aarch64 "$binary" --gtest_list_tests > "$out/list" || exit 1
awk '/^[^ ]/ {suite = $1} /^  / {print suite $1}' "$out/list" > "$out/names"
[ -s "$out/names" ] || { echo "no tests listed" >&2; exit 1; }
export binary out
xargs -P 2 -I NAME sh -c \
  'qemu-aarch64 "$binary" --gtest_filter="$1" > "$out/$1.log" 2>&1 || echo "$1" >> "$out/failed"' \
  sh NAME < "$out/names"
total=$(wc -l < "$out/names")
if [ -s "$out/failed" ]; then
  for name in $(sort "$out/failed"); do cat "$out/$name.log"; done
  echo "arm64: $(wc -l < "$out/failed") of $total tests failed:"
  sort "$out/failed"
  exit 1
fi
echo "arm64: all $total tests passed"
