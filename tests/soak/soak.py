#!/usr/bin/env python3
# SPDX-License-Identifier: Apache-2.0
"""Both agents and a watcher on live traffic for an hour, the agents killed and restarted at random.

Flows come and go on the loopback interface; the tracker chooses them, the offload agent holds what fits, and
`hoflow watch` follows the tracker's table from the first second to the last. Each second the processes' descriptors and
memory and the tables' blocks are noted. At the end the traffic stops: every flow must go, the watcher's lines must add
up to an empty table, each table must pass `hoflow check`, and nothing may have grown. Exit status 0 if so."""
import argparse
import collections
import json
import os
import random
import shutil
import signal
import socket
import statistics
import subprocess
import sys
import tempfile
import threading
import time
from pathlib import Path

sys.path.append(str(Path(__file__).resolve().parents[2] / "demo"))
from processes import TERMINAL, Watcher  # noqa: E402

CONFIG = "flowtracking/default/hwOffload/config/hoIpFlowConfig"
SETTLED = 6  # seconds after its start in which a process is not measured


class Agent:
    """A program that is started again whenever it is ended. Its words are kept in a file."""

    def __init__(self, name, command):
        self.name, self.command, self.samples, self.words = name, command, [], tempfile.TemporaryFile("w+")
        self.start()

    def start(self):
        self.process = subprocess.Popen(self.command, stdout=subprocess.DEVNULL, stderr=self.words)
        self.since = time.monotonic()

    def end(self, number):
        self.process.send_signal(number)
        self.process.wait(timeout=60)


class Watched(Watcher):
    """What `hoflow watch` says, and the first line that doesn't fit the ones before."""

    def __init__(self, *place):
        self.name, self.samples, self.since, self.wrong = "watch", [], time.monotonic(), None
        super().__init__(*place)

    def take(self, line):
        row = line.get("is") or line.get("was")
        if row and (json.dumps(row["key"]) in self.rows) == (line["event"] == "new"):
            self.wrong = self.wrong or line
        else:
            super().take(line)


def sample(one):
    """Notes a process's descriptors and KiB of memory, once it has settled."""
    if one.process.poll() is not None:
        if isinstance(one, Agent):
            one.words.seek(0)
            print(*one.words.readlines()[-5:], file=sys.stderr)
        sys.exit(f"soak: {one.name} ended by itself with {one.process.returncode}")
    if time.monotonic() - one.since >= SETTLED:
        proc = Path("/proc") / str(one.process.pid)
        resident = int((proc / "statm").read_text().split()[1]) * os.sysconf("SC_PAGESIZE")
        one.samples.append((len(os.listdir(proc / "fd")), resident // 1024))


class Traffic(threading.Thread):
    """UDP flows over the loopback interface: a window of ports that moves on."""

    def __init__(self, flows, dice):
        super().__init__(daemon=True)
        self.flows, self.dice, self.sent, self.going = flows, dice, 0, True
        self.start()

    def run(self):
        sink = socket.socket(socket.AF_INET, socket.SOCK_DGRAM)
        sink.bind(("127.0.0.1", 0))
        sockets = collections.deque()
        while self.going:
            for _ in range(self.flows // 20):
                one = socket.socket(socket.AF_INET, socket.SOCK_DGRAM)
                one.bind(("127.0.0.1", 0))
                sockets.append(one)
            while len(sockets) > self.flows:
                sockets.popleft().close()
            for one in self.dice.sample(list(sockets), min(len(sockets), 200)):
                one.sendto(b"soak", sink.getsockname())
                self.sent += 1
            time.sleep(0.1)


def flat(what, values, slack, report):
    """Whether the last quarter of the values lies no higher than the first one."""
    quarter = max(1, len(values) // 4)
    first, last = statistics.median(values[:quarter]), statistics.median(values[-quarter:])
    good = last <= first + slack
    report.append((what, first, last, max(values), "" if good else "GREW"))
    return good


def main():
    parser = argparse.ArgumentParser(description=__doc__, formatter_class=argparse.RawDescriptionHelpFormatter)
    parser.add_argument("seconds", nargs="?", type=float, default=3600, help="how long (3600)")
    parser.add_argument("--bin", required=True, type=Path, help="folder of the programs")
    parser.add_argument("--flows", type=int, default=600, help="at a time (600)")
    parser.add_argument("--slots", type=int, default=400, help="of the hardware (400)")
    parser.add_argument("--seed", type=int, default=int(time.time()))
    parser.add_argument("--interface", default="lo")
    options = parser.parse_args()
    if os.geteuid() != 0:
        sys.exit("soak: capturing on an interface takes root (or CAP_NET_RAW)")
    dice = random.Random(options.seed)
    print(f"soak: {options.seconds:.0f} seconds, seed {options.seed}", file=sys.stderr)
    root = tempfile.mkdtemp(prefix="hoflow-soak-", dir="/dev/shm")
    live = ["-i", options.interface, "--root", root]
    tracker = Agent("tracker", [options.bin / "hoflow-tracker", *live, "--idle", "3", "--no-count"])
    offload = Agent("offload", [options.bin / "hoflow-offload", *live, "--slots", str(options.slots)])
    watcher = Watched(options.bin / "hoflow", CONFIG, root)
    everyone = [tracker, offload, watcher]
    traffic = Traffic(options.flows, dice)
    used, ends = [], collections.Counter()
    begin, next_end = time.monotonic(), time.monotonic() + 15
    try:
        while (now := time.monotonic()) < begin + options.seconds:
            time.sleep(1)
            for one in everyone:
                sample(one)
            if now > begin + 10:
                used.append(sum(path.stat().st_blocks // 2 for path in Path(root).rglob("*") if path.is_file()))
            if watcher.wrong:
                sys.exit(f"soak: the watcher's lines don't add up: {watcher.wrong}")
            if now > next_end:
                victim = dice.choice([tracker, offload])
                number = dice.choice([signal.SIGKILL, signal.SIGTERM])
                victim.end(number)
                ends[f"{victim.name} {number.name}"] += 1
                if dice.random() < 0.5:
                    time.sleep(dice.random())
                victim.start()
                next_end = now + dice.uniform(8, 25)
            if TERMINAL:
                print(f"\r{now - begin:6.0f} s  {len(watcher.rows)} rows, {watcher.told()} changes, "
                      f"{sum(ends.values())} restarts ", end="", file=sys.stderr)
        traffic.going = False
        until = time.monotonic() + 60
        while watcher.rows and time.monotonic() < until:
            time.sleep(0.5)
        good = not watcher.rows and not watcher.wrong
        report = []
        for one in everyone:
            descriptors, memory = zip(*one.samples)
            good &= flat(f"{one.name}: descriptors", descriptors, 2, report)
            good &= flat(f"{one.name}: resident KiB", memory, 4096, report)
        good &= flat("tables: KiB of blocks", used, max(1024, used[0] // 4), report)
        tables = subprocess.run([options.bin / "hoflow", "list", "--root", root, "-j"], capture_output=True, text=True)
        for line in tables.stdout.splitlines():
            name = json.loads(line)["table"]
            checked = subprocess.run([options.bin / "hoflow", "check", "--root", root, name], capture_output=True)
            good &= checked.returncode == 0
            if checked.returncode != 0:
                print(f"{name}: {checked.stderr.decode()}")
        print(f"\n{'':28} {'first':>10} {'last':>10} {'most':>10}")
        for what, first, last, most, word in report:
            print(f"{what:28} {first:10.0f} {last:10.0f} {most:10.0f} {word}")
        print(f"restarts: {dict(ends)}; packets sent: {traffic.sent}; changes watched: {watcher.told()}; "
              f"watcher's events: {dict(watcher.events)}; rows left: {len(watcher.rows)}")
        print("flat, and everything added up" if good else "NOT as it should be")
        return 0 if good else 1
    finally:
        traffic.going = False
        for one in everyone:
            one.process.kill()
        shutil.rmtree(root, ignore_errors=True)


if __name__ == "__main__":
    sys.exit(main())
