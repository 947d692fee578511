# SPDX-License-Identifier: Apache-2.0
# What the demo says to people, and its processes that write JSON lines all the while: readers of the counters, and
# watchers. demo.py starts, kills and judges them.
import collections
import json
import os
import signal
import subprocess
import sys
import threading

TERMINAL = sys.stderr.isatty()
COLOUR = TERMINAL and not os.environ.get("NO_COLOR")
PATIENCE = 100  # seconds, for what takes a moment on a quiet machine


def paint(code, text):
    return f"\033[{code}m{text}\033[0m" if COLOUR else text


def say(what, text, code="1"):
    clear = "\r\033[K" if TERMINAL else ""
    print(f"{clear}{paint(code, f'{what:>10}')}  {text}", file=sys.stderr, flush=True)


def fail(text, status=1):
    say("demo", text, "1;31")
    sys.exit(status)


class Lines:
    """A process that writes JSON lines, each of which goes to `take`."""

    def __init__(self, command, what):
        self.what = what
        self.process = subprocess.Popen([str(word) for word in command], stdout=subprocess.PIPE, text=True)
        self.thread = threading.Thread(target=self.follow, daemon=True)
        self.thread.start()

    def follow(self):
        for line in self.process.stdout:
            if line.endswith("\n"):  # a killed process may leave the half of one
                self.take(json.loads(line))

    def check(self):
        if self.process.poll() is not None:
            fail(f"the {self.what} ended with status {self.process.returncode}")

    def end(self, number=signal.SIGTERM):
        """Ends it, with its last line read."""
        if self.process.poll() is None:
            self.process.send_signal(number)
        try:
            self.process.wait(PATIENCE)
        except subprocess.TimeoutExpired:
            self.process.kill()
            fail(f"the {self.what} did not end")
        self.thread.join(PATIENCE)


class Reader(Lines):
    """Reads the counters again and again, and judges what it reads. `state` is its latest word."""

    def __init__(self, program, mode, mount, root):
        self.mode, self.state = mode, {}
        super().__init__([program, mode, mount, "--root", root], f"{mode} reader")

    def take(self, line):
        self.state = line

    def stop(self):
        self.end()
        if not self.state.get("final"):
            fail(f"the {self.what} died with status {self.process.returncode}")
        return self.state


class Watcher(Lines):
    """`hoflow watch`, and the rows that its changes add up to."""

    def __init__(self, program, table, root):
        self.table, self.rows, self.events = table, {}, collections.Counter()
        super().__init__([program, "watch", "--all", table, "--root", root, "-j"], f"watcher of {table}")

    def take(self, line):
        self.events[line["event"]] += 1
        if "is" in line:
            self.rows[json.dumps(line["is"]["key"])] = line["is"]
        elif "was" in line:
            del self.rows[json.dumps(line["was"]["key"])]

    def told(self):
        return sum(self.events[kind] for kind in ("new", "changed", "removed"))
