#!/usr/bin/env bash
# Installs what is missing, builds, and runs the two-process demo: a service that answers
# requests and callers making synchronous RPCs and asynchronous requests over real FIFOs.
set -euo pipefail
cd "$(dirname "$0")/.."
scripts/setup.sh
cmake -S . -B build -DCMAKE_BUILD_TYPE=RelWithDebInfo >/dev/null
cmake --build build -j"$(nproc)" --target sable_demo_service sable_demo_caller
mkdir -p /dev/shm/nux/sable_comm
count="${SABLE_DEMO_COUNT:-2000}"
tag="demo$$"

echo "== one pipe: service <-> caller, $count RPCs + $count async requests (64 B and 4000 B)"
build/examples/sable_demo_service pipe "${tag}_svc" "${tag}_caller" &
svc=$!
build/examples/sable_demo_caller pipe "${tag}_caller" "${tag}_svc" "$count"
wait "$svc"

echo
echo "== server: one service, 3 client processes of one program started at once"
build/examples/sable_demo_service server "${tag}_server" 3 &
svc=$!
for _ in $(seq 50); do [ -p "/dev/shm/nux/sable_comm/${tag}_server" ] && break; sleep 0.1; done
pids=()
for _ in 1 2 3; do
  build/examples/sable_demo_caller client "${tag}_client" "${tag}_server" "$((count / 2))" &
  pids+=($!)
done
rc=0
for p in "${pids[@]}"; do wait "$p" || rc=1; done
wait "$svc" || rc=1
rm -f "/dev/shm/nux/sable_comm/${tag}_server"
exit $rc
