#!/usr/bin/env python3
"""Runs the benchmark programs in rounds and writes every figure to a JSON file.

A round runs each program once, so that a disturbance of the machine meets all contestants of a
workload alike; only figures of the same round are ever compared. Within a program, Google Benchmark
runs the contestants' repetitions in random order; their median counts.
"""

import argparse
import datetime
import json
import os
import pathlib
import platform
import re
import statistics
import subprocess
import sys

PROGRAM_OPTIONS = [
    "--benchmark_repetitions=3",
    "--benchmark_enable_random_interleaving=true",
    "--benchmark_min_time=0.02",
    "--benchmark_format=json",
]
NANOSECONDS = {"ns": 1, "us": 1e3, "ms": 1e6, "s": 1e9}
# What Google Benchmark appends to the name that a benchmark was registered with.
SUFFIX = re.compile(r"(/(real_time|manual_time|process_time|threads:\d+|iterations:\d+|repeats:\d+))+$")
FIELDS_THAT_ARE_NO_COUNTERS = {
    "name", "family_index", "per_family_instance_index", "run_name", "run_type", "repetitions",
    "repetition_index", "threads", "iterations", "real_time", "cpu_time", "time_unit", "label",
}
SECONDS_A_PROGRAM_MAY_TAKE = 600


def split_name(run_name):
    """The workload and the contestant, which is the name's last part."""
    workload, _, contestant = SUFFIX.sub("", run_name).rpartition("/")
    return workload, contestant


def figures_of(entry):
    """(workload, contestant, unit, value) of each figure of one run: its counters, else its time."""
    workload, contestant = split_name(entry["run_name"])
    counters = {key: value for key, value in entry.items() if key not in FIELDS_THAT_ARE_NO_COUNTERS}
    for name, value in counters.items():
        yield f"{workload}/{name}", contestant, "", value
    if not counters:
        yield workload, contestant, "ns", entry["real_time"] * NANOSECONDS[entry["time_unit"]]


def run_program(program, only):
    """{(workload, contestant): (unit, median)} of one run of the program."""
    command = [str(program), *PROGRAM_OPTIONS]
    if only:
        command.append(f"--benchmark_filter={only}")
    done = subprocess.run(command, stdout=subprocess.PIPE, stderr=subprocess.PIPE, text=True,
                          timeout=SECONDS_A_PROGRAM_MAY_TAKE, check=False)
    if done.returncode != 0:
        sys.exit(f"{program.name} failed ({done.returncode}):\n{done.stderr}")
    if not done.stdout.strip():
        return {}
    samples = {}
    for entry in json.loads(done.stdout)["benchmarks"]:
        if entry.get("error_occurred"):
            sys.exit(f"{entry['run_name']}: {entry['error_message']}")
        if entry["run_type"] == "iteration":
            for workload, contestant, unit, value in figures_of(entry):
                samples.setdefault((workload, contestant), (unit, []))[1].append(value)
    return {key: (unit, statistics.median(values)) for key, (unit, values) in samples.items()}


def run_footprint(build, rivals):
    script = pathlib.Path(__file__).with_name("footprint.py")
    done = subprocess.run(
        [sys.executable, str(script), "--build", str(build), "--rivals", str(rivals)],
        stdout=subprocess.PIPE, text=True, timeout=SECONDS_A_PROGRAM_MAY_TAKE, check=True)
    return {split_name(row["name"]): (row["unit"], row["value"])
            for row in json.loads(done.stdout)["footprint"]}


def processor_name():
    for line in pathlib.Path("/proc/cpuinfo").read_text(encoding="ascii").splitlines():
        if line.startswith("model name"):
            return line.partition(":")[2].strip()
    return platform.machine()


def main():
    parser = argparse.ArgumentParser(description=__doc__.splitlines()[0])
    parser.add_argument("--build", type=pathlib.Path, required=True, help="the build tree")
    parser.add_argument("--rivals", type=pathlib.Path, required=True, help="where scripts/rivals put them")
    parser.add_argument("--out", type=pathlib.Path, required=True, help="the JSON file")
    parser.add_argument("--rounds", type=int, default=7)
    parser.add_argument("--only", default="", help="a regular expression that benchmarks' names must match")
    arguments = parser.parse_args()

    programs = sorted((arguments.build / "bench").glob("*Bench"))
    results = {}

    def keep(figures):
        for (workload, contestant), (unit, value) in figures.items():
            result = results.setdefault(workload, {"unit": unit, "values": {}})
            result["values"].setdefault(contestant, []).append(value)

    for number in range(arguments.rounds):
        # Whoever comes first in one round comes last in another.
        turn = number % len(programs)
        for program in programs[turn:] + programs[:turn]:
            keep(run_program(program, arguments.only))
        print(f"round {number + 1} of {arguments.rounds} done", flush=True)
    if re.search(arguments.only, "footprint/"):
        keep(run_footprint(arguments.build, arguments.rivals))

    report = {
        "date": datetime.date.today().isoformat(),
        "machine": {
            "processor": processor_name(),
            "processors": len(os.sched_getaffinity(0)),
            "kernel": platform.release(),
            "compiler": subprocess.run(["g++", "--version"], stdout=subprocess.PIPE, text=True,
                                       check=True).stdout.splitlines()[0],
        },
        "versions": dict(line.split(" ", 1) for line in
                         (arguments.rivals / "versions").read_text(encoding="ascii").splitlines()),
        "rounds": arguments.rounds,
        "workloads": results,
    }
    arguments.out.write_text(json.dumps(report, indent=1) + "\n", encoding="ascii")


if __name__ == "__main__":
    main()
