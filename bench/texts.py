"""The parts that only work on text, see text_benchmark.cpp: bytes a second, compared with
a pass of memchr(3)."""

import json
import subprocess

from rounds import NotMeasured, emit


def inner(programs, quick):
    program = programs / "text_benchmark"
    if not program.exists():
        raise NotMeasured("text_benchmark is not built: libbenchmark-dev is missing")
    run = subprocess.run(
        [program, "--benchmark_format=json", f"--benchmark_min_time={0.1 if quick else 0.5}",
         "--benchmark_repetitions=3", "--benchmark_enable_random_interleaving=true"],
        stdin=subprocess.DEVNULL, stdout=subprocess.PIPE, stderr=subprocess.PIPE, text=True)
    if run.returncode != 0:
        raise NotMeasured(f"text_benchmark: {run.stderr.strip()[-200:]}")
    speeds = {found["run_name"]: found["bytes_per_second"] / 1e6
              for found in json.loads(run.stdout)["benchmarks"] if found.get("aggregate_name") == "median"}
    for name, speed in sorted(speeds.items()):
        if not name.endswith("/floor"):
            floor = speeds[name + "/floor"]
            emit(name, f"{speed:.0f} MB/s", "memchr over the same bytes", f"{floor:.0f} MB/s", floor / speed)
