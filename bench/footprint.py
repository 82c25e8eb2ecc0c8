#!/usr/bin/env python3
"""What the libraries take before they do anything: sizes, load times, memory.

Prints {"footprint": [{"name": "footprint/WHAT/CONTESTANT", "value": ..., "unit": ...}, ...]}; lower
is better everywhere. Needs the programs of the build target `footprint`.
"""
import argparse
import json
import os
import pathlib
import re
import select
import shutil
import socket
import statistics
import struct
import subprocess
import tempfile
import time

LIBRARIES = {
    "velahost": ["libvelahost.so.1"],
    "poco": ["libPocoFoundation.so.80", "libPocoNet.so.80"],
    "ace": ["libACE-7.0.8.so"],
    "zeromq": ["libzmq.so.5"],
    "libuv": ["libuv.so.1"],
    "libevent": ["libevent_core-2.1.so.7"],
}
POCO_TIMERS = ["libPocoUtil.so.80"]
PROGRAMS = {
    "floor": "Floor",
    "velahost": "Velahost",
    "poco": "Poco",
    "ace": "Ace",
    "zeromq": "ZeroMq",
}
TIMER_PROGRAMS = {
    "floor": "Floor",
    "velahost": "Velahost",
    "poco": "PocoTimers",
    "ace": "Ace",
}
TIMERS = 1_000_000
CONNECTIONS = 500
BACKLOG = 5  # as many may wait to be accepted; the next would try again after a second
LOADS = 40
WAIT_SECONDS = 30


def output_of(*command):
    return subprocess.run(command, check=True, capture_output=True, text=True).stdout


class Libraries:
    """Stripped copies of the libraries and of all that they need, in one directory."""

    def __init__(self, directory, sources):
        self.directory = pathlib.Path(directory)
        self._sources = sources
        self._needed = {}

    def add(self, name):
        """Returns what `name` is and needs, by names; of what the machine itself has, nothing."""
        if name not in self._needed:
            found = [s / name for s in self._sources if (s / name).exists()]
            self._needed[name] = set()
            if found:
                copy = self.directory / name
                shutil.copy(found[0], copy)
                subprocess.run(["strip", copy], check=True)
                dynamic = output_of("readelf", "-dW", copy)
                self._needed[name] = {name}.union(
                    *(self.add(n) for n in re.findall(r"\(NEEDED\).*\[(.*)\]", dynamic)))
        return self._needed[name]

    def size(self, names):
        return sum((self.directory / n).stat().st_size for n in names)

    def relocations(self, names):
        count = 0
        for name in names:
            listed = output_of("readelf", "-rW", self.directory / name)
            packed = re.findall(r"^ +(\d+) offsets", listed, re.MULTILINE)
            count += len(re.findall(r"\bR_386_", listed)) + sum(map(int, packed))
        return count

    def symbols(self, names):
        return sum(len(output_of("nm", "-D", "--defined-only", self.directory / n).splitlines())
                   for n in names)


class HoldingProgram:
    """A program that holds something and stops at each stage until told to go on."""

    def __init__(self, path, environment, what, count):
        self._process = subprocess.Popen(
            [path, what, str(count)], env=environment, stdin=subprocess.PIPE,
            stdout=subprocess.PIPE)

    def __enter__(self):
        return self

    def __exit__(self, *_):
        self._process.kill()
        self._process.communicate()

    def reach(self):
        """Waits for the next stage; returns the number that it told."""
        if not select.select([self._process.stdout], [], [], WAIT_SECONDS)[0]:
            raise TimeoutError(self._process.args)
        return int(self._process.stdout.readline())

    def go_on(self):
        self._process.stdin.write(b".")
        self._process.stdin.flush()

    def memory(self):
        """Kilobytes by the names of the kernel."""
        rollup = pathlib.Path(f"/proc/{self._process.pid}/smaps_rollup").read_text()
        return {name: int(kb) for name, kb in re.findall(r"^(\w+): +(\d+) kB", rollup, re.M)}

    def own_bytes(self):
        return self.memory()["Private_Dirty"] * 1024

    def descriptors(self):
        return len(os.listdir(f"/proc/{self._process.pid}/fd"))

    def wait_for_descriptors(self, count):
        deadline = time.monotonic() + WAIT_SECONDS
        while self.descriptors() < count:
            if time.monotonic() > deadline:
                raise TimeoutError(self._process.args)
            time.sleep(0.001)


FRAME = struct.pack("<iHH8s", 16, 0, 1, b"")  # as the library has them; other servers just read


def send_frame(client):
    client.sendall(FRAME)


def send_zeromq_frame(client):
    """As a client of the socket type PUSH by ZMTP 3.0, which waits for the server's greeting."""
    greeting = b"\xff" + bytes(8) + b"\x7f\x03\x00" + b"NULL".ljust(20, b"\0") + bytes(32)
    ready = b"\x05READY" + b"\x0bSocket-Type" + struct.pack(">I", 4) + b"PUSH"
    client.sendall(greeting)
    received = 0
    while received < len(greeting):
        received += len(client.recv(len(greeting) - received))
    client.sendall(b"\x04" + bytes([len(ready)]) + ready + b"\x00" + bytes([len(FRAME)]) + FRAME)


def measure_loads(programs, environment):
    """Microseconds from the start of a process to its end, of all programs in turn."""
    times = {contestant: [] for contestant in programs}
    for _ in range(LOADS):
        for contestant, path in programs.items():
            start = time.perf_counter_ns()
            child = os.posix_spawn(path, [path], environment)
            status = os.waitpid(child, 0)[1]
            times[contestant].append((time.perf_counter_ns() - start) / 1000)
            if status != 0:
                raise RuntimeError(f"{path} failed")
    return {contestant: statistics.median(each) for contestant, each in times.items()}


def measure_idle(path, environment):
    with HoldingProgram(path, environment, "idle", 0) as program:
        program.reach()
        time.sleep(0.05)  # for the threads that it has just started
        return program.memory()


def measure_timers(path, environment):
    with HoldingProgram(path, environment, "timers", TIMERS) as program:
        program.reach()
        before = program.own_bytes()
        program.go_on()
        program.reach()
        return (program.own_bytes() - before) / TIMERS


def measure_connections(path, environment, send):
    clients = []
    with HoldingProgram(path, environment, "connections", CONNECTIONS) as program:
        port = program.reach()
        before = program.own_bytes()
        descriptors = program.descriptors()
        program.go_on()
        try:
            for number in range(1, CONNECTIONS + 1):
                clients.append(socket.create_connection(("127.0.0.1", port), WAIT_SECONDS))
                send(clients[-1])
                if number % BACKLOG == 0:
                    program.wait_for_descriptors(descriptors + number)
            program.reach()
            return (program.own_bytes() - before) / CONNECTIONS
        finally:
            for client in clients:
                client.close()


def main():
    root = pathlib.Path(__file__).resolve().parent.parent
    parser = argparse.ArgumentParser(description=__doc__.splitlines()[0])
    parser.add_argument("--build", type=pathlib.Path, default=root / "build/bench")
    parser.add_argument("--rivals", type=pathlib.Path, default=root / "build/rivals")
    options = parser.parse_args()
    results = []

    def add(what, contestant, value, unit):
        results.append({"name": f"footprint/{what}/{contestant}", "value": value, "unit": unit})

    with tempfile.TemporaryDirectory() as directory:
        libraries = Libraries(directory, [
            options.build / "src", options.rivals / "usr/lib/i386-linux-gnu",
            options.rivals / "lib/i386-linux-gnu"])
        for contestant, names in LIBRARIES.items():
            needed = set().union(*map(libraries.add, names))
            add("size", contestant, libraries.size(names), "bytes")
            add("size-with-dependencies", contestant, libraries.size(needed), "bytes")
            add("relocations", contestant, libraries.relocations(names), "count")
            add("symbols", contestant, libraries.symbols(names), "count")
        for name in POCO_TIMERS:
            libraries.add(name)

        environment = {**os.environ, "LD_LIBRARY_PATH": directory}
        environment.pop("LD_BIND_NOW", None)
        built = options.build / "bench/footprint"

        def programs(kind, names):
            return {c: str(built / f"{kind}{name}") for c, name in names.items()}

        for contestant, time_taken in measure_loads(
                programs("Load", PROGRAMS), environment).items():
            add("load", contestant, time_taken, "us")
        for contestant, path in programs("Hold", PROGRAMS).items():
            memory = measure_idle(path, environment)
            add("idle-rss", contestant, memory["Rss"] * 1024, "bytes")
            add("idle-private", contestant, memory["Private_Dirty"] * 1024, "bytes")
            send = send_zeromq_frame if contestant == "zeromq" else send_frame
            add("connection", contestant,
                measure_connections(path, environment, send), "bytes")
        for contestant, path in programs("Hold", TIMER_PROGRAMS).items():
            add("timer", contestant, measure_timers(path, environment), "bytes")
    print(json.dumps({"footprint": results}, indent=1))


if __name__ == "__main__":
    main()
