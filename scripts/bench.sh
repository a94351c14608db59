#!/usr/bin/env bash
# Installs what is missing, builds the two-process benchmark in build-bench (Release) and runs
# it: the library (ipc_sable) against a plain program of the same architecture (ipc_plain) and
# the raw blocking FIFO pair (ipc_raw), each as a peer and a caller process pinned to CPU 0, or
# to CPUs 0 and 1. Prints the command line, date, kernel and CPU, then one Markdown table (or
# JSON with --json): RPC round-trip p50/p99/mean in microseconds and one-way requests per second
# for each program, the sable/baseline ratios, whether every stream delivered what was accepted,
# context switches per operation and system calls per operation (perf stat). Exits non-zero when
# a run failed or a stream lost, duplicated or reordered a request. Arguments go to ipc_bench:
#   scripts/bench.sh [--runs N] [--rpc-count N] [--stream-count N] [--sizes 64,4000]
#                    [--placements one,split] [--tests rpc,stream] [--programs sable,plain,raw]
#                    [--json] [--no-count]
set -euo pipefail
cd "$(dirname "$0")/.."
scripts/setup.sh
cmake -S . -B build-bench -DCMAKE_BUILD_TYPE=Release -DSABLE_BUILD_TESTS=OFF >&2
cmake --build build-bench -j"$(nproc)" --target ipc_bench ipc_sable ipc_plain ipc_raw >&2
mkdir -p /dev/shm/nux/sable_comm
exec build-bench/bench/ipc_bench "$@"
