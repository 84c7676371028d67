#!/usr/bin/env python3
# Where the time of one bench_broker round trip goes, per thread of the
# benchmark process (nats-server excluded): CPU time, time spent waiting for
# a CPU on the run queue, and time slices, per request, from
# /proc/<pid>/task/*/schedstat over 8 seconds in the middle of the run.
#   bench/broker/thread-accounting.py BUILD_DIR 'BM_CabEcho64/repeats:5'
# The request count is estimated from the benchmark's mean time per request.
import glob
import os
import re
import subprocess
import sys
import time

if len(sys.argv) != 3:
    sys.exit("usage: thread-accounting.py BUILD_DIR BENCHMARK_FILTER")
build, flt = sys.argv[1], sys.argv[2]
proc = subprocess.Popen([os.path.join(build, "bench/broker/bench_broker"), "--benchmark_filter=" + flt,
                         "--benchmark_min_time=4"], stdout=subprocess.PIPE, stderr=subprocess.STDOUT, text=True)


def snapshot():
    threads = {}
    for task in glob.glob("/proc/%d/task/*" % proc.pid):
        try:
            cpu, wait, slices = map(int, open(task + "/schedstat").read().split())
            status = open(task + "/status").read()
            voluntary = int(re.search(r"^voluntary_ctxt_switches:\s+(\d+)", status, re.M).group(1))
        except (OSError, ValueError, AttributeError):
            continue  # the thread ended meanwhile
        threads[os.path.basename(task)] = (cpu, wait, slices, voluntary)
    return threads


time.sleep(4)
before = snapshot()
time.sleep(8)
after = snapshot()
output = proc.communicate()[0]
means = [line for line in output.splitlines() if "_mean" in line]
if not means:
    sys.exit("no mean time in the benchmark's output:\n" + output)
us = float(means[0].split()[1]) / 1000.0
requests = 8e6 / us
rows = []
for tid, end in after.items():
    if tid in before:
        delta = [end[i] - before[tid][i] for i in range(4)]
        if delta[2] > requests * 0.2:  # threads that take part in the round trips
            rows.append((tid, delta))
total = [sum(r[1][i] for r in rows) for i in range(4)]
print("%s: mean %.1f us, about %d requests, %d busy threads, load %s" %
      (flt, us, requests, len(rows), open("/proc/loadavg").read().split()[0]))
print("  per request: cpu %.1f us, run-queue wait %.1f us, slices %.2f, voluntary switches %.2f" %
      (total[0] / requests / 1000, total[1] / requests / 1000, total[2] / requests, total[3] / requests))
for tid, d in sorted(rows, key=lambda r: -r[1][2]):
    print("  thread %s: cpu %.1f us, wait %.1f us, slices %.2f" %
          (tid, d[0] / requests / 1000, d[1] / requests / 1000, d[2] / requests))
