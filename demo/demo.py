#!/usr/bin/env python3
# SPDX-License-Identifier: Apache-2.0
# ./dev demo: the main job from end to end. A tracker reads a capture and writes the flows that it chose into tables. An
# offload agent follows these, says in tables of its own what came of each flow, and counts the packets of those that it
# holds. Watchers follow what it says, and two readers look the counters up and walk them. Tracker, watchers and offload
# agent are killed with SIGKILL in turn, each in the middle of its work, and started again. At the end the counters must
# be, row for row, those of an undisturbed run over the same capture; each watcher's changes must add up to the table
# that it watches; and no reader may have met anything that can't be. Exit status 0 only then.
#
# Words go to stderr, the summary to stdout; with --json it is one object.
import argparse
import collections
import csv
import gzip
import json
import os
import shutil
import signal
import subprocess
import sys
import tempfile
import time
from pathlib import Path

from processes import PATIENCE, TERMINAL, Reader, Watcher, fail, paint, say

BASE = "flowtracking/default/hwOffload"
MOUNT = f"{BASE}/counter/capture"
COUNTERS = {"4": f"{MOUNT}/hoIpFlowCounter", "6": f"{MOUNT}/hoIp6FlowCounter"}
CHOSEN = {"4": f"{BASE}/config/hoIpFlowConfig", "6": f"{BASE}/config/hoIp6FlowConfig"}
STATES = {"4": f"{BASE}/status/hoIpFlowStatus", "6": f"{BASE}/status/hoIp6FlowStatus"}
SUMS = {"4": f"{BASE}/counter/status/hosStateIpCounter", "6": f"{BASE}/counter/status/hosStateIp6Counter"}
PROGRAMS = {"tracker": "hoflow-tracker", "offload agent": "hoflow-offload"}
TABLES = [*CHOSEN.values(), *STATES.values(), *COUNTERS.values(), *SUMS.values()]


class Demo:
    def __init__(self, options):
        self.options = options
        self.bin = Path(options.bin)
        self.work = Path(tempfile.mkdtemp(prefix="hoflow-demo.", dir="/dev/shm" if os.path.isdir("/dev/shm") else None))
        self.root = options.root
        self.children, self.readers, self.watchers = [], [], {}
        self.agents = {}
        self.kills = collections.Counter()

    # --- processes ---

    def tool(self, name):
        program = self.bin / name
        if not program.exists():
            fail(f"{program} is missing: run ./dev build")
        return str(program)

    def agent(self, what, root, *more):
        """Starts an agent on the capture; its words are kept in a file."""
        words = tempfile.TemporaryFile("w+")
        process = subprocess.Popen([self.tool(PROGRAMS[what]), self.capture, "--root", str(root), "-j", *more],
                                   stdout=subprocess.PIPE, stderr=words, text=True)
        process.what, process.words = what, words
        self.children.append(process)
        self.agents[what] = process
        return process

    def finish(self, process, limit):
        """Waits for an agent: its exit status (0, or 4 for a damaged capture), its figures and its words."""
        try:
            out, _ = process.communicate(timeout=limit)
        except subprocess.TimeoutExpired:
            process.kill()
            out, _ = process.communicate()
        process.words.seek(0)
        words = process.words.read().strip()
        if process.returncode not in (0, 4) or not out:
            fail(f"the {process.what} ended with status {process.returncode}\n{words}", max(process.returncode, 1))
        return process.returncode, json.loads(out), words

    def kill(self, process, what, standing):
        process.kill()
        process.wait()
        self.kills[what] += 1
        say("SIGKILL", f"to the {what}, process {process.pid}: {standing}", "1;33")

    def follow(self, seconds, until=lambda: False, busy=None):
        """Goes on for a while, or until something happens or the process `busy` ends. True if it happened."""
        end = time.monotonic() + seconds
        while not until() and time.monotonic() < end and (busy is None or busy.poll() is None):
            for helper in [*self.readers, *self.watchers.values()]:
                helper.check()
            if TERMINAL:
                t = self.total()
                anomalies = paint("1;31", t["anomalies"]) if t["anomalies"] else paint("32", "0")
                print(f"\r\033[K{'':>10}  {self.known():,} flows watched  {t['rows']:,} counters  "
                      f"{t['lookups'] / 1e6:.1f} M lookups  {t['walks']:,} walks  anomalies {anomalies}",
                      end="", file=sys.stderr, flush=True)
            time.sleep(0.05)
        return until()

    # --- what is there ---

    def known(self):
        return sum(len(watcher.rows) for watcher in self.watchers.values())

    def total(self):
        states = [reader.state for reader in self.readers]
        total = collections.Counter()
        for state in states:
            total.update({k: v for k, v in state.items() if isinstance(v, int) and not isinstance(v, bool)})
        total["rows"] = max((s.get("rowsIp4", 0) + s.get("rowsIp6", 0) for s in states), default=0)
        return total

    def dump(self, table, root):
        dump = subprocess.run([self.tool("hoflow"), "dump", table, "--root", str(root), "-j"], capture_output=True,
                              text=True, timeout=300)
        if dump.returncode != 0:
            fail(f"hoflow dump {table}: status {dump.returncode}\n{dump.stderr}")
        return [json.loads(line) for line in dump.stdout.splitlines()]

    def counters(self, root):
        """Every row of both counter tables, in the terms of the captures' row files."""
        rows = set()
        for family, table in COUNTERS.items():
            for row in self.dump(table, root):
                key = row["key"]
                rows.add((family, str(key["vlanId"]), str(key["ipProtocolNumber"]), key["srcAddr"], key["dstAddr"],
                          str(key["srcPort"]), str(key["dstPort"]), str(row["packets"]), str(row["bytes"])))
        return rows

    def known_rows(self):
        """The independently counted rows that lie beside some captures, or none."""
        path = Path(self.capture).with_suffix(".rows.tsv.gz")
        if not path.exists():
            return None
        with gzip.open(path, "rt") as lines:
            return {tuple(row) for row in list(csv.reader(lines, delimiter="\t"))[1:]}

    def generations(self):
        """The published generation of each counter table; none while one is formatted anew."""
        files = {family: self.root / table / "kestor" for family, table in COUNTERS.items()}
        return {family: path.read_bytes() if path.exists() else None for family, path in files.items()}

    # --- the steps ---

    def prepare(self):
        """The capture, and what an undisturbed tracker counts of it."""
        if self.options.capture:
            self.capture = os.path.abspath(self.options.capture)
            say("capture", self.capture)
        else:
            self.capture = str(self.work / "made.pcap")
            o = self.options
            made = subprocess.run([self.tool("hoflow-mkcapture"), "--packets", str(o.packets), "--flows", str(o.flows),
                                   "--seed", str(o.seed), self.capture], stdout=subprocess.DEVNULL)
            if made.returncode:
                fail(f"hoflow-mkcapture ended with status {made.returncode}", 3)
            size = os.path.getsize(self.capture) / 1e6
            say("capture", f"made one: {o.packets:,} packets of {o.flows:,} flows, seed {o.seed}, {size:.0f} MB")
        whole, began = self.work / "whole", time.monotonic()
        self.status, self.whole, words = self.finish(self.agent("tracker", whole), 600)
        if words:
            say("tracker", words, "33")
        if not self.whole["packets"]:
            fail("the capture holds no packet that can be counted: there is nothing to show", max(self.status, 1))
        self.reference = self.counters(whole)
        say("reference", f"{self.whole['packets']:,} packets in one undisturbed run: {len(self.reference):,} rows, "
            f"{time.monotonic() - began:.1f} s")

    def clear(self):
        """The root without the tables of an earlier run."""
        earlier = [self.root / table for table in TABLES if (self.root / table).exists()]
        try:
            for table in earlier:
                shutil.rmtree(table)
            self.root.mkdir(parents=True, exist_ok=True)
        except OSError as error:
            fail(f"{error.filename}: {error.strerror}", 3)
        if earlier:
            say("tables", f"removed those of an earlier run below {self.root}")

    def start(self, what):
        """Starts an agent, at a pace at which its work takes the time that was asked for."""
        pace = self.whole["packetsRead"] / self.options.seconds
        again = "again, " if what in self.kills else ""
        process = self.agent(what, self.root, *(["--no-count"] if what == "tracker" else []), "--pace", str(pace))
        does = {"tracker": "chooses flows", "offload agent": "holds them, then counts"}[what]
        say(what.split()[0], f"{again}process {process.pid}: {does}, {pace:,.1f} packets a second")

    def start_watchers(self):
        again = "again, " if "watcher" in self.kills else ""
        self.watchers = {family: Watcher(self.tool("hoflow"), table, self.root) for family, table in STATES.items()}
        self.children += [watcher.process for watcher in self.watchers.values()]
        say("watchers", f"{again}of the flows' states, processes " +
            ", ".join(str(watcher.process.pid) for watcher in self.watchers.values()))

    def interrupt(self, what, seconds, standing):
        """Kills an agent after some seconds of its work. One that was quicker is started once more."""
        for _ in range(5):
            self.follow(seconds, busy=self.agents[what])
            if self.agents[what].poll() is None:
                return self.kill(self.agents[what], what, standing())
            self.finish(self.agents[what], 1)
            self.start(what)
        fail(f"the {what} ended each time before it could be killed")

    def outlast(self, what):
        """Waits for an agent's own end."""
        self.follow(self.options.seconds + PATIENCE, busy=self.agents[what])
        status, figures, _ = self.finish(self.agents[what], 1)
        if status != self.status:
            fail(f"the restarted {what} ended with status {status}, the undisturbed tracker with {self.status}")
        return figures

    def choose(self):
        """The tracker chooses; it and the watchers are killed on the way."""
        seconds = self.options.seconds
        for _ in range(self.options.kills):
            self.interrupt("tracker", seconds / 3, lambda: f"{self.known():,} flows are watched, and stay")
            self.follow(seconds / 12)
            self.start("tracker")
            self.follow(seconds / 6)
            old, self.watchers = self.watchers, {}
            for watcher in old.values():
                self.kill(watcher.process, "watcher", f"it had heard of {watcher.told():,} changes")
            self.start_watchers()
        return self.outlast("tracker")

    def count(self):
        """The offload agent counts, and is killed on the way."""
        kept = stood = 0
        step = self.options.seconds / (self.options.kills + 2)
        self.follow(PATIENCE, lambda: self.total()["rows"] > 0, self.agents["offload agent"])
        for turn in range(self.options.kills):
            self.interrupt("offload agent", step * (turn + 1), lambda: "readers read on")
            self.follow(1.2)  # and report
            stands = {family: max(r.state.get(f"rowsIp{family}", 0) for r in self.readers) for family in COUNTERS}
            generations, stood = self.generations(), sum(stands.values())
            self.start("offload agent")
            self.follow(1, busy=self.agents["offload agent"])
            now = self.generations()
            kept = sum(count for family, count in stands.items() if now[family] == generations[family])
            if kept == stood:
                say("kept", f"all {kept:,} counters: proved sound and adopted, readers did not notice", "1;32")
            else:
                say("kept", f"{kept:,} of {stood:,} counters: it died inside an operation on the rest; that was seen, and "
                    "the table formatted anew", "1;33")
        return self.outlast("offload agent"), stood, kept

    def compare_watchers(self):
        """Rows of the watched tables that a watcher's changes don't add up to, once it is quiet."""
        different = 0
        for family, watcher in self.watchers.items():
            table = {json.dumps(row["key"]): row for row in self.dump(STATES[family], self.root)}
            self.follow(PATIENCE, lambda: watcher.rows == table)
            keys = table.keys() | watcher.rows.keys()
            different += sum(table.get(key) != watcher.rows.get(key) for key in keys)
        return different

    def run(self):
        self.prepare()
        self.clear()
        began = time.monotonic()
        self.readers = [Reader(self.tool("hoflow-demo-reader"), mode, MOUNT, self.root) for mode in ("lookup", "walk")]
        self.children += [reader.process for reader in self.readers]
        say("readers", "of the counters, one looks rows up, one walks: " +
            ", ".join(str(reader.process.pid) for reader in self.readers))
        self.start("offload agent")
        files = [self.root / table / "kestor" for table in STATES.values()]
        self.follow(PATIENCE, lambda: all(file.exists() for file in files), self.agents["offload agent"])
        self.start_watchers()
        self.start("tracker")
        chosen = self.choose()
        states = chosen["offload"]["states"]
        say("chosen", f"{chosen['offload']['chosen']:,} flows; the tracker heard: {states['offloaded']:,} offloaded", "1;32")
        counted, stood, kept = self.count()
        self.follow(0.6)
        different_watched = self.compare_watchers()
        watched = {"rows": self.known(), "changes": sum(w.told() for w in self.watchers.values()),
                   "differentRows": different_watched}
        for watcher in self.watchers.values():
            watcher.end(signal.SIGINT)
        readers = [reader.stop() for reader in self.readers]
        total, final, known = self.total(), self.counters(self.root), self.known_rows()
        sums = {name: sum(int(row[column]) for row in final) for name, column in (("packets", 7), ("bytes", 8))}
        return {
            "capture": self.capture if self.options.capture else None,
            "made": None if self.options.capture else
            {"packets": self.options.packets, "flows": self.options.flows, "seed": self.options.seed},
            "root": str(self.root),
            "tables": TABLES,
            "totals": {"packets": self.whole["packets"], "bytes": self.whole["bytes"], "rows": len(self.reference)},
            **sums,
            "rows": len(final),
            "rowsIp4": sum(row[0] == "4" for row in final),
            "rowsIp6": sum(row[0] == "6" for row in final),
            "exact": final == self.reference and all(sums[name] == self.whole[name] for name in sums),
            "exactToKnownRows": None if known is None else final == known,
            "differentRows": len(final ^ self.reference),
            "chosen": chosen["offload"]["chosen"],
            "states": states,
            "counted": counted["packets"],
            "watched": watched,
            "kills": dict(self.kills),
            "rowsAtKill": stood,
            "rowsKept": kept,
            "seconds": round(time.monotonic() - began, 1),
            **{name: total[name] for name in ("lookups", "walks", "rowsWalked", "retries", "lookasideReads",
                                              "resizesFollowed", "reattaches", "anomalies")},
            "readers": readers,
        }

    def end(self):
        for child in self.children:
            if child.poll() is None:
                child.kill()
                child.wait()
        shutil.rmtree(self.work, ignore_errors=True)


def checks(s):
    """What must hold, by its line in the summary."""
    return {
        "counters": s["exact"],
        "as counted beforehand": s["exactToKnownRows"] is not False,
        "offloaded": s["states"]["offloaded"] == s["chosen"] == s["rows"],
        "watched": s["watched"]["differentRows"] == 0,
        "anomalies": s["anomalies"] == 0,
    }


def show(s):
    good = checks(s)

    def line(name, text):
        mark = "" if name not in good else "  ok" if good[name] else "  WRONG"
        print(f"{name:>24}  {text}{mark}")

    t = s["totals"]
    print()
    line("capture", s["capture"] or "made for this run")
    line("killed, started again", ", ".join(f"{what} {count}x" for what, count in s["kills"].items()) or "nothing")
    line("the capture's totals", f"{t['packets']:,} packets, {t['bytes']:,} bytes, {t['rows']:,} flows")
    line("counters", f"{s['packets']:,} packets, {s['bytes']:,} bytes, {s['rows']:,} flows ({s['rowsIp4']:,} IPv4, "
         f"{s['rowsIp6']:,} IPv6), {s['differentRows']:,} rows differ")
    if s["exactToKnownRows"] is not None:
        line("as counted beforehand", "by other programs")
    line("offloaded", f"{s['states']['offloaded']:,} of {s['chosen']:,} flows chosen")
    line("watched", f"{s['watched']['rows']:,} flows' states, {s['watched']['differentRows']:,} differ from the tables")
    line("counters when killed", f"{s['rowsAtKill']:,}, kept {s['rowsKept']:,}")
    line("lookups", f"{s['lookups']:,}")
    line("walks", f"{s['walks']:,}, over {s['rowsWalked']:,} rows")
    line("repeated reads", f"{s['retries']:,}, resizes followed {s['resizesFollowed']:,}, attached again {s['reattaches']:,}")
    line("anomalies", f"{s['anomalies']:,}")
    line("tables", f"below {s['root']}")
    for table in s["tables"]:
        line("", table)
    line("to look at them", f"build/release/bin/hoflow list --root {s['root']}")


def number(kind, least):
    def parse(text):
        value = kind(text)
        if not least <= value <= 1e9:
            raise argparse.ArgumentTypeError(f"{text}: expected a number from {least} to 1,000,000,000")
        return value

    return parse


def main():
    parser = argparse.ArgumentParser(prog="./dev demo", description="Chooses the flows of a capture, offloads and counts "
                                     "them under readers and watchers, kills each process in turn, and compares.")
    parser.add_argument("capture", nargs="?", help="pcap or pcapng file; without one, a capture is made")
    parser.add_argument("--root", type=Path, help="folder for the tables; those of an earlier run are removed "
                        "(default: /dev/shm/hoflow-demo)")
    parser.add_argument("--json", action="store_true", help="the summary as one JSON object")
    parser.add_argument("--packets", type=number(int, 1), default=400_000, help="of the capture that is made")
    parser.add_argument("--flows", type=number(int, 1), default=60_000, help="of the capture that is made")
    parser.add_argument("--seed", type=int, default=1, help="of the capture that is made")
    parser.add_argument("--seconds", type=number(float, 0.1), default=6, help="how long the paced counting takes")
    parser.add_argument("--kills", type=number(int, 0), default=1, help="how often each process is killed")
    parser.add_argument("--bin", required=True, help=argparse.SUPPRESS)
    options = parser.parse_args()
    options.root = (options.root or Path("/dev/shm/hoflow-demo")).absolute()
    if options.capture and not os.path.isfile(options.capture):
        fail(f"{options.capture}: no such capture", 3)
    # A plain kill of the demo ends its processes, too.
    signal.signal(signal.SIGTERM, signal.default_int_handler)
    demo = Demo(options)
    try:
        summary = demo.run()
    except KeyboardInterrupt:
        fail("interrupted", 130)
    finally:
        demo.end()
    if options.json:
        print(json.dumps(summary))
    else:
        show(summary)
    for reader in summary["readers"]:
        if reader["firstAnomaly"]:
            say(reader["mode"], reader["firstAnomaly"], "1;31")
    return demo.status if all(checks(summary).values()) else 1


if __name__ == "__main__":
    sys.exit(main())
