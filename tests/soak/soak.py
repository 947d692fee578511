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

CONFIG = "flowtracking/default/hwOffload/config/hoIpFlowConfig"
SETTLED = 6  # seconds after its start in which a process is not measured


class Agent:
    """A program that is started again whenever it is ended."""

    def __init__(self, name, command, stdout=subprocess.DEVNULL):
        self.name, self.command, self.stdout = name, command, stdout
        self.starts, self.samples = 0, []
        self.start()

    def start(self):
        self.process = subprocess.Popen(self.command, stdout=self.stdout, stderr=subprocess.PIPE, text=True)
        threading.Thread(target=self.drain, args=[self.process.stderr], daemon=True).start()
        self.since = time.monotonic()
        self.starts += 1

    def drain(self, pipe):
        self.last_words = collections.deque(pipe, maxlen=5)

    def end(self, number):
        self.process.send_signal(number)
        self.process.wait(timeout=60)

    def sample(self):
        if self.process.poll() is not None:
            sys.exit(f"soak: {self.name} ended by itself with {self.process.returncode}: "
                     f"{' '.join(getattr(self, 'last_words', []))}")
        if time.monotonic() - self.since < SETTLED:
            return
        proc = Path("/proc") / str(self.process.pid)
        try:
            resident = int((proc / "statm").read_text().split()[1]) * os.sysconf("SC_PAGESIZE")
            self.samples.append((len(os.listdir(proc / "fd")), resident))
        except FileNotFoundError:
            pass


class Watcher(Agent):
    """`hoflow watch -j`, and what its lines add up to."""

    def __init__(self, command):
        self.rows, self.changes, self.events, self.wrong = set(), 0, collections.Counter(), []
        super().__init__("watch", command, subprocess.PIPE)
        threading.Thread(target=self.read, daemon=True).start()

    def read(self):
        for line in self.process.stdout:
            said = json.loads(line)
            kind = said.get("event")
            self.events[kind] += 1
            if kind not in ("new", "changed", "removed"):
                continue
            self.changes += 1
            row = said.get("row") or said.get("is") or said.get("was")
            key = json.dumps(row["key"], sort_keys=True)
            if (key in self.rows) == (kind == "new"):
                self.wrong.append(f"{kind}: {key}")
            (self.rows.discard if kind == "removed" else self.rows.add)(key)


class Traffic(threading.Thread):
    """UDP flows over the loopback interface: a window of ports that moves on."""

    def __init__(self, flows, dice):
        super().__init__(daemon=True)
        self.flows, self.dice, self.sent, self.going = flows, dice, 0, True

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


def blocks(root):
    return sum(path.stat().st_blocks * 512 for path in Path(root).rglob("*") if path.is_file())


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
    watcher = Watcher([options.bin / "hoflow", "watch", "-j", "--all", "--root", root, CONFIG])
    everyone = [tracker, offload, watcher]
    traffic = Traffic(options.flows, dice)
    traffic.start()
    used, ends = [], collections.Counter()
    begin, next_end = time.monotonic(), time.monotonic() + 15
    try:
        while (now := time.monotonic()) < begin + options.seconds:
            time.sleep(1)
            for one in everyone:
                one.sample()
            if now > begin + 10:
                used.append(blocks(root))
            if watcher.wrong:
                sys.exit(f"soak: the watcher's lines don't add up: {watcher.wrong[0]}")
            if now > next_end:
                victim = dice.choice([tracker, offload])
                number = dice.choice([signal.SIGKILL, signal.SIGTERM])
                victim.end(number)
                ends[f"{victim.name} {number.name}"] += 1
                if dice.random() < 0.5:
                    time.sleep(dice.random())
                victim.start()
                next_end = now + dice.uniform(8, 25)
            if sys.stderr.isatty():
                print(f"\r{now - begin:6.0f} s  {len(watcher.rows)} rows, {watcher.changes} changes, "
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
            good &= flat(f"{one.name}: resident KiB", [m // 1024 for m in memory], 4096, report)
        good &= flat("tables: KiB of blocks", [b // 1024 for b in used], max(1024, used[0] // 4096), report)
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
        print(f"restarts: {dict(ends)}; packets sent: {traffic.sent}; changes watched: {watcher.changes}; "
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
