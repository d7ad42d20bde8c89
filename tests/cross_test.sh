#!/usr/bin/env bash
# Databases that builds of both byte orders and widths use in turn, and a
# 32-bit and a 64-bit process in shared mode at once (see cross_driver.cc).
# Usage: cross_test.sh NATIVE M32 BE, each the command of a build's
# cross_driver (BE with its emulator; paths without spaces). Exit 77 (skipped)
# when a driver is missing.
set -u
native=$1 m32=$2 be=$3
for d in "$native" "$m32" "$be"; do
  [ -x "${d##* }" ] || { echo "skipped: ${d##* } not built"; exit 77; }
done
dir=$(mktemp -d /tmp/varlo-cross-XXXXXX)
trap 'rm -rf "$dir"' EXIT
failed=0 passed=0
run() {  # a driver command, unquoted: the emulator's words split
  if "$@"; then passed=$((passed + 1)); else echo "FAILED: $*"; failed=$((failed + 1)); return 1; fi
}

# Chains of changes, each step by another build: the file keeps the byte
# order of the build that created it.
k=0
for d in "$be" "$native" "$be" "$m32" "$be"; do run $d step "$dir/from-be.db" $k be || break; k=$((k + 1)); done
k=0
for d in "$native" "$be" "$m32" "$be" "$native"; do run $d step "$dir/from-le.db" $k le || break; k=$((k + 1)); done

# A 64-bit and a 32-bit process take turns putting records in one database.
if run $native step "$dir/shared.db" 0 le; then
  $native share "$dir/shared.db" 0 150 & p0=$!
  $m32 share "$dir/shared.db" 1 150 & p1=$!
  run wait $p0
  run wait $p1
fi
for db in from-be from-le shared; do run $native ipc "$dir/$db.db"; done
echo "$passed passed, $failed failed"
[ "$failed" = 0 ]
