#!/usr/bin/env python3
"""Compares the instructions that operations of the library take with expected.txt.

Counts don't depend on the machine's speed or load. One that is higher than expected by more than
the tolerance is a loss to be explained; one that is lower is a gain to be kept: both fail until
expected.txt is right. `--update` makes it so.
"""
import argparse
import concurrent.futures
import os
import pathlib
import re
import shutil
import subprocess
import sys
import tempfile

EXPECTED = pathlib.Path(__file__).resolve().parent / "expected.txt"
TOLERANCE = 0.03
SKIPPED = 77
SECONDS = 120


def valgrind(*arguments):
    # The environment lies on the stack and moves what is behind it.
    return subprocess.run(["valgrind", "--quiet", *arguments], capture_output=True, text=True,
                          timeout=SECONDS, check=False, env={"PATH": os.environ["PATH"]})


def reason_to_skip(program):
    if shutil.which("valgrind") is None:
        return "valgrind is not installed"
    trial = valgrind("--tool=none", program)
    if trial.returncode != 0:
        return f"valgrind does not run the program (is libc6-dbg:i386 installed?)\n{trial.stderr}"
    return None


def count(program, scenario):
    """Instructions per operation."""
    with tempfile.TemporaryDirectory() as directory:
        profile = pathlib.Path(directory) / "profile"
        run = valgrind("--tool=callgrind", "--toggle-collect=CountedPart",
                       f"--callgrind-out-file={profile}", f"--log-file={directory}/log",
                       program, scenario)
        if run.returncode != 0:
            raise RuntimeError(f"{scenario}: exit code {run.returncode}\n{run.stderr}")
        total = re.search(r"^totals: (\d+)", profile.read_text(), re.MULTILINE)
        return int(total[1]) / int(run.stderr)


def count_all(program):
    names = subprocess.run([program], capture_output=True, text=True, check=True).stdout.split()
    with concurrent.futures.ThreadPoolExecutor(2) as pool:
        return dict(zip(names, pool.map(lambda name: count(program, name), names)))


def write_expected(compiler, counts):
    lines = ["# Instructions per operation, written by check.py --update. Taken with:", compiler]
    lines += [f"{name:40}{value:12.1f}" for name, value in counts.items()]
    EXPECTED.write_text("\n".join(lines) + "\n")


def read_expected():
    """Returns the compiler, and the counts by name."""
    compiler, *lines = EXPECTED.read_text().splitlines()[1:]
    return compiler, {name: float(value) for name, value in map(str.split, lines)}


def verdict(value, expected):
    if value is None or expected is None:
        return "names differ: update expected.txt (--update)"
    if value > expected * (1 + TOLERANCE):
        return "more than expected"
    if value < expected * (1 - TOLERANCE):
        return "fewer than expected: keep the gain, update expected.txt (--update)"
    return ""


def compare(counts, expected):
    """Prints a line for each name; returns whether all is as expected."""
    right = True
    for name in [*counts, *(expected.keys() - counts.keys())]:
        value, former = counts.get(name), expected.get(name)
        fault = verdict(value, former)
        right = right and not fault
        print(f"{name:40}{value or 0:12.1f}{former or 0:12.1f}  {fault}".rstrip())
    return right


def main():
    parser = argparse.ArgumentParser(description=__doc__.splitlines()[0])
    parser.add_argument("program", help="the built program `instructions`")
    parser.add_argument("--compiler", required=True, help="what built the library")
    parser.add_argument("--update", action="store_true", help="rewrite expected.txt")
    options = parser.parse_args()

    reason = reason_to_skip(options.program)
    if not options.update and reason is None:
        compiler = read_expected()[0]
        if compiler != options.compiler:
            reason = f"built with {options.compiler}; the counts kept are those of {compiler}"
    if reason is not None:
        print("skipped:", reason)
        return SKIPPED
    counts = count_all(options.program)
    if options.update:
        write_expected(options.compiler, counts)
        return 0
    return 0 if compare(counts, read_expected()[1]) else 1


if __name__ == "__main__":
    sys.exit(main())
