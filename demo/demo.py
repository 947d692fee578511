#!/usr/bin/env python3
# SPDX-License-Identifier: Apache-2.0
# ./dev demo: the main job from end to end. A tracker counts a capture into tables while two other processes look
# rows up and walk the tables; the tracker is killed with SIGKILL in the middle and started again. At the end the
# tables must hold, row for row, what an undisturbed run over the same capture leaves, and no reader may have met
# anything that can't be. Exit status 0 only then.
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
import threading
import time
from pathlib import Path

MOUNT = "flowtracking/default/hwOffload/counter/capture"
TABLES = {"4": f"{MOUNT}/hoIpFlowCounter", "6": f"{MOUNT}/hoIp6FlowCounter"}
COLOUR = sys.stderr.isatty() and not os.environ.get("NO_COLOR")
TERMINAL = sys.stderr.isatty()


def paint(code, text):
    return f"\033[{code}m{text}\033[0m" if COLOUR else text


def say(what, text, code="1"):
    clear = "\r\033[K" if TERMINAL else ""
    print(f"{clear}{paint(code, f'{what:>10}')}  {text}", file=sys.stderr, flush=True)


def fail(text, status=1):
    say("demo", text, "1;31")
    sys.exit(status)


class Reader:
    """One reader process. It writes its counts so far as JSON lines; `state` is the latest of them."""

    def __init__(self, program, mode, root):
        self.mode = mode
        self.state = {}
        self.process = subprocess.Popen([program, mode, MOUNT, "--root", root], stdout=subprocess.PIPE, text=True)
        self.follower = threading.Thread(target=self.follow, daemon=True)
        self.follower.start()

    def follow(self):
        for line in self.process.stdout:
            self.state = json.loads(line)

    def alive(self):
        return self.process.poll() is None

    def stop(self):
        """Ends it, with its last line read."""
        if self.alive():
            self.process.send_signal(signal.SIGTERM)
        try:
            self.process.wait(20)
        except subprocess.TimeoutExpired:
            self.process.kill()
            fail(f"the {self.mode} reader did not end")
        self.follower.join(5)
        if not self.state.get("final"):
            fail(f"the {self.mode} reader died with status {self.process.returncode}")
        return self.state


class Demo:
    def __init__(self, options):
        self.options = options
        self.bin = Path(options.bin)
        self.work = Path(tempfile.mkdtemp(prefix="hoflow-demo.", dir="/dev/shm" if os.path.isdir("/dev/shm") else None))
        self.root = options.root
        self.children = []

    def tool(self, name):
        program = self.bin / name
        if not program.exists():
            fail(f"{program} is missing: run ./dev build")
        return str(program)

    def prepare(self):
        """The capture."""
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

    def clear(self):
        """The root without the tables of an earlier run."""
        earlier = [self.root / table for table in TABLES.values() if (self.root / table).exists()]
        try:
            for table in earlier:
                shutil.rmtree(table)
            self.root.mkdir(parents=True, exist_ok=True)
        except OSError as error:
            fail(f"{error.filename}: {error.strerror}", 3)
        if earlier:
            say("tables", f"removed those of an earlier run below {self.root}")

    def track(self, root, *more):
        """Starts a tracker; its words are kept in a file."""
        words = tempfile.TemporaryFile("w+")
        process = subprocess.Popen([self.tool("hoflow-tracker"), self.capture, "--root", str(root), "-j", *more],
                                   stdout=subprocess.PIPE, stderr=words, text=True)
        process.words = words
        self.children.append(process)
        return process

    def finish(self, process, limit):
        """Waits for a tracker: its exit status (0, or 4 for a damaged capture) and what it counted."""
        out, _ = process.communicate(timeout=limit)
        process.words.seek(0)
        words = process.words.read().strip()
        if process.returncode not in (0, 4) or not out:
            fail(f"the tracker ended with status {process.returncode}\n{words}", max(process.returncode, 1))
        return process.returncode, json.loads(out), words

    def rows(self, root):
        """Every row of both tables, in the terms of the captures' row files."""
        rows = set()
        for family, table in TABLES.items():
            dump = subprocess.run([self.tool("hoflow"), "dump", table, "--root", str(root), "-j"], capture_output=True,
                                  text=True, timeout=300)
            if dump.returncode != 0:
                fail(f"hoflow dump {table}: status {dump.returncode}\n{dump.stderr}")
            for line in dump.stdout.splitlines():
                row = json.loads(line)
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

    def watch(self, seconds, tracker=None):
        """Shows the readers' counts for a while, or until the tracker ends."""
        end = time.monotonic() + seconds
        while time.monotonic() < end and (tracker is None or tracker.poll() is None):
            for reader in self.readers:
                if not reader.alive():
                    reader.stop()
                    fail(f"the {reader.mode} reader ended: {reader.state.get('firstAnomaly')}")
            if TERMINAL:
                t = self.total()
                anomalies = paint("1;31", t["anomalies"]) if t["anomalies"] else paint("32", "0")
                print(f"\r\033[K{'':>10}  {t['rows']:,} rows  {t['lookups'] / 1e6:.1f} M lookups  {t['walks']:,} walks  "
                      f"{t['retries']:,} retries  anomalies {anomalies}", end="", file=sys.stderr, flush=True)
            time.sleep(0.1)

    def total(self):
        states = [r.state for r in self.readers]
        total = collections.Counter()
        for state in states:
            total.update({k: v for k, v in state.items() if isinstance(v, int) and not isinstance(v, bool)})
        total["rows"] = max((s.get("rowsIp4", 0) + s.get("rowsIp6", 0) for s in states), default=0)
        return total

    def generations(self):
        """The published generation of each table; none while one is formatted anew."""
        def read(path):
            return path.read_bytes() if path.exists() else None

        return {family: read(self.root / table / "kestor") for family, table in TABLES.items()}

    def run(self):
        self.prepare()
        began = time.monotonic()
        whole = self.work / "whole"
        status, counted, words = self.finish(self.track(whole), 600)
        if words:
            say("tracker", words, "33")
        reference = self.rows(whole)
        say("reference", f"{counted['packets']:,} packets in one undisturbed run: {len(reference):,} rows, "
            f"{time.monotonic() - began:.1f} s")

        if not counted["packetsRead"]:
            fail("the capture holds no packet that can be read: there is nothing to show", max(status, 1))
        self.clear()
        pace = counted["packetsRead"] / self.options.seconds
        self.readers = [Reader(self.tool("hoflow-demo-reader"), mode, str(self.root)) for mode in ("lookup", "walk")]
        self.children += [r.process for r in self.readers]
        say("readers", "two processes, one looks rows up, one walks: " + ", ".join(str(r.process.pid) for r in self.readers))

        stood, generations, kept, kills = {}, {}, 0, 0
        while True:
            # Each start reads the capture from its beginning: the packets that stand in the tables are counted again in
            # private memory, at the same pace.
            tracker = self.track(self.root, "--pace", str(pace))
            due = time.monotonic() + self.options.seconds * (kills + 1) / (self.options.kills + 1)
            if not kills:
                say("tracker", f"process {tracker.pid}, {pace:,.{0 if pace >= 10 else 1}f} packets a second")
            else:
                say("tracker", f"again, process {tracker.pid}")
                self.watch(1, tracker)
                now = self.generations()
                kept = sum(rows for family, rows in stood.items() if now[family] == generations[family])
                if kept == sum(stood.values()):
                    say("kept", f"all {kept:,} rows: proved sound and adopted, readers did not notice", "1;32")
                else:
                    say("kept", f"{kept:,} of {sum(stood.values()):,} rows: it died inside an operation on the rest; that "
                        "was seen, and the table formatted anew", "1;33")
            if kills == self.options.kills:
                break
            self.watch(due - time.monotonic(), tracker)
            if tracker.poll() is not None:
                fail("the tracker ended before it could be killed\n" + self.finish(tracker, 1)[2])
            tracker.kill()
            tracker.wait()
            kills += 1
            self.watch(1.2)  # the readers go on without it, and report
            stood = {family: max(r.state.get(f"rowsIp{family}", 0) for r in self.readers) for family in TABLES}
            generations = self.generations()
            say("SIGKILL", f"to {tracker.pid}: {sum(stood.values()):,} rows stand, readers read on", "1;33")
        self.watch(self.options.seconds * 3 + 60, tracker)
        again, counted, _ = self.finish(tracker, 60)
        if again != status:
            fail(f"the restarted tracker ended with status {again}, the undisturbed one with {status}")
        self.watch(0.6)
        readers = [r.stop() for r in self.readers]
        total = self.total()
        final = self.rows(self.root)
        known = self.known_rows()
        return status, {
            "capture": self.capture if self.options.capture else None,
            "made": None if self.options.capture else
            {"packets": self.options.packets, "flows": self.options.flows, "seed": self.options.seed},
            "root": str(self.root),
            "tables": list(TABLES.values()),
            "packets": counted["packets"],
            "bytes": counted["bytes"],
            "rows": len(final),
            "rowsIp4": sum(r[0] == "4" for r in final),
            "rowsIp6": sum(r[0] == "6" for r in final),
            "exact": final == reference,
            "exactToKnownRows": None if known is None else final == known,
            "differentRows": len(final ^ reference),
            "kills": kills,
            "rowsAtKill": sum(stood.values()),
            "rowsKept": kept,
            "packetsKept": counted["packetsKept"],
            "seconds": round(time.monotonic() - began, 1),
            "lookups": total["lookups"],
            "walks": total["walks"],
            "rowsWalked": total["rowsWalked"],
            "retries": total["retries"],
            "lookasideReads": total["lookasideReads"],
            "resizesFollowed": total["resizesFollowed"],
            "reattaches": total["reattaches"],
            "anomalies": total["anomalies"],
            "readers": readers,
        }

    def end(self):
        for child in self.children:
            if child.poll() is None:
                child.kill()
                child.wait()
        shutil.rmtree(self.work, ignore_errors=True)


def show(s):
    def line(name, text, good=None):
        mark = "" if good is None else "  ok" if good else "  WRONG"
        print(f"{name:>24}  {text}{mark}")

    print()
    line("capture", s["capture"] or "made for this run")
    line("packets counted", f"{s['packets']:,}")
    line("rows", f"{s['rows']:,} ({s['rowsIp4']:,} IPv4, {s['rowsIp6']:,} IPv6)")
    line("rows when killed", f"{s['rowsAtKill']:,}, kept {s['rowsKept']:,}")
    line("as an undisturbed run", f"{s['differentRows']:,} rows differ", s["exact"])
    if s["exactToKnownRows"] is not None:
        line("as counted beforehand", "by other programs", s["exactToKnownRows"])
    line("lookups", f"{s['lookups']:,}")
    line("walks", f"{s['walks']:,}, over {s['rowsWalked']:,} rows")
    line("repeated reads", f"{s['retries']:,}, resizes followed {s['resizesFollowed']:,}, attached again {s['reattaches']:,}")
    line("anomalies", f"{s['anomalies']:,}", s["anomalies"] == 0)
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
    parser = argparse.ArgumentParser(prog="./dev demo", description="Counts a capture into tables under readers, "
                                     "kills the tracker in the middle, starts it again, and compares.")
    parser.add_argument("capture", nargs="?", help="pcap or pcapng file; without one, a capture is made")
    parser.add_argument("--root", type=Path, help="folder for the tables; those of an earlier run are removed "
                        "(default: /dev/shm/hoflow-demo)")
    parser.add_argument("--json", action="store_true", help="the summary as one JSON object")
    parser.add_argument("--packets", type=number(int, 1), default=400_000, help="of the capture that is made")
    parser.add_argument("--flows", type=number(int, 1), default=60_000, help="of the capture that is made")
    parser.add_argument("--seed", type=int, default=1, help="of the capture that is made")
    parser.add_argument("--seconds", type=number(float, 0.1), default=6, help="how long the paced tracker takes")
    parser.add_argument("--kills", type=number(int, 0), default=1, help="how often the tracker is killed")
    parser.add_argument("--bin", required=True, help=argparse.SUPPRESS)
    options = parser.parse_args()
    options.root = (options.root or Path("/dev/shm/hoflow-demo")).absolute()
    if options.capture and not os.path.isfile(options.capture):
        fail(f"{options.capture}: no such capture", 3)
    # A plain kill of the demo ends its processes, too.
    signal.signal(signal.SIGTERM, signal.default_int_handler)
    demo = Demo(options)
    try:
        status, summary = demo.run()
    except KeyboardInterrupt:
        fail("interrupted", 130)
    finally:
        demo.end()
    good = summary["exact"] and summary["exactToKnownRows"] is not False and summary["anomalies"] == 0
    if options.json:
        print(json.dumps(summary))
    else:
        show(summary)
    for reader in summary["readers"]:
        if reader["firstAnomaly"]:
            say(reader["mode"], reader["firstAnomaly"], "1;31")
    return status if good else 1


if __name__ == "__main__":
    sys.exit(main())
