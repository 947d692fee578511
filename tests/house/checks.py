#!/usr/bin/env python3
# SPDX-License-Identifier: Apache-2.0
# Rules of the house that a compiler doesn't know. ctest runs each as `checks.py RULE TREE [ARGUMENT...]`; a rule
# prints what breaks it, one line a place, and fails. test_checks.py shows each of them failing on a bad sample.
# The checks read text: they find what is written plainly, not what is hidden on purpose.
import re
import subprocess
import sys
from pathlib import Path

FLOORS = ["platform", "tables", "flows"]  # lowest first
CODE = {".h", ".cpp"}
SOURCE = CODE | {".py", ".sh", ".cmake"}


def files(tree, *folders, suffixes=CODE):
    """The files below `folders` of `tree` with one of `suffixes`, as (path, path relative to tree, text)."""
    for folder in folders:
        for path in sorted((tree / folder).rglob("*")):
            if path.is_file() and path.suffix in suffixes:
                yield path, path.relative_to(tree).as_posix(), path.read_text(errors="replace")


def code_lines(text):
    """(number, line) of `text` with comments and string literals blanked, so that words in them don't count."""

    def blank(match):
        return re.sub(r"[^\n]", " ", match.group(0))

    text = re.sub(r'//[^\n]*|/\*.*?\*/|"(?:\\.|[^"\\\n])*"', blank, text, flags=re.S)
    return enumerate(text.splitlines(), 1)


def tracked(tree):
    """All files under version control and new ones; where git has no answer, all files outside build trees."""
    try:
        listed = subprocess.run(["git", "-C", str(tree), "ls-files", "-z", "-co", "--exclude-standard"],
                                capture_output=True, check=True).stdout
        return [tree / name.decode() for name in listed.split(b"\0") if name]
    except (OSError, subprocess.CalledProcessError):
        return [p for p in tree.rglob("*") if p.is_file() and not {"build", ".git"} & set(p.relative_to(tree).parts)]


def floors(tree):
    """A floor includes only itself and the floors below; programs include only public headers."""
    problems = []
    floor_of = {p.name: i for i, floor in enumerate(FLOORS)
                for p in (tree / "src" / floor).glob("*") if p.is_dir()}
    include = re.compile(r'^\s*#\s*include\s*[<"]((\w+)/[^">]+)[">]', re.M)
    for path, name, text in files(tree, "src"):
        mine = FLOORS.index(name.split("/")[1])
        for match in include.finditer(text):
            if floor_of.get(match[2], -1) > mine:
                problems.append(f"{name}: includes {match[1]}, which lies on a floor above")
    listed = (tree / "src/public-headers").read_text().split("\n")
    public = {line.split("#")[0].strip() for line in listed} - {""}
    for header in sorted(public):
        if not any((tree / "src" / floor / header).is_file() for floor in FLOORS):
            problems.append(f"src/public-headers: {header} doesn't exist")
    for path, name, text in files(tree, "tools", "agents", "demo"):
        for match in include.finditer(text):
            if match[2] in floor_of and match[1] not in public and not (path.parent / match[1]).is_file():
                problems.append(f"{name}: includes {match[1]}, which isn't in src/public-headers")
    return problems


ORDERED = re.compile(r"\b(memory_order\w*|atomic_ref|atomic_thread_fence|volatile|__atomic_\w+|__sync_\w+)\b")
SHARED_PLACE = r"(?:header(?:\(\))?->|lookaside|slots\[|buckets\[|->link\b|\.versionFlags\b|->versionFlags\b)"
SHARED_COPY = re.compile(r"\bmem(?:cpy|move|set)\s*\([^;]*" + SHARED_PLACE)
SHARED_STORE = re.compile(r"\bheader(?:\(\))?->\w+(?:\.\w+)*\s*(?:(?:[-+|&^]|<<|>>)?=(?!=)|\+\+|--)")
OWNER = "src/platform/Mem/SharedWords.h"


def shared_words(tree):
    """Shared words are touched in one header only. tests/house/allowed-orders lists exceptions with a reason."""
    problems = []
    allowed, used = {}, set()
    for line in (tree / "tests/house/allowed-orders").read_text().splitlines():
        if line.strip() and not line.startswith("#"):
            place, word, reason = line.split(None, 2)
            allowed[place, word] = reason
    for path, name, text in files(tree, "src", "tools", "agents", "demo"):
        if name == OWNER:
            continue
        for number, line in code_lines(text):
            for match in ORDERED.finditer(line):
                if (name, match[1]) in allowed:
                    used.add((name, match[1]))
                else:
                    problems.append(f"{name}:{number}: {match[1]} outside {OWNER}")
            if SHARED_COPY.search(line):
                problems.append(f"{name}:{number}: a bytewise copy of shared words")
            if SHARED_STORE.search(line):
                problems.append(f"{name}:{number}: a plain store to the shared header")
    for place, word in sorted(set(allowed) - used):
        problems.append(f"tests/house/allowed-orders: {place} no longer has {word}")
    return problems


SYNC = re.compile(r"SYNC\(([^)]*)\)(?: (store|load)\b)?")
ACCESS = {"store": re.compile(r"\b(?:store|publish)\w*\s*[(<]"), "load": re.compile(r"\b(?:load|getValue)\w*\s*[(<]")}
NEAR = 14  # lines from a side's comment to its access


def sync_labels(tree):
    """Each label has `SYNC(label) store: ...` above a store and `SYNC(label) load: ...` above a load."""
    sides, problems = {}, []
    for path, name, text in files(tree, "src"):
        lines = text.splitlines()
        for i, line in enumerate(lines):
            for label, side in SYNC.findall(line):
                known = sides.setdefault(label, {"store": [], "load": []})
                if side:
                    known[side].append(f"{name}:{i + 1}")
                    near = "\n".join(l.split("//")[0] for l in lines[i:i + NEAR])
                    if not ACCESS[side].search(near):
                        problems.append(f"{name}:{i + 1}: SYNC({label}) {side} stands above no {side}")
    for label, found in sorted(sides.items()):
        for side, other in (("store", "load"), ("load", "store")):
            if not found[side]:
                problems.append(f"SYNC({label}) has no {side} side; its {other} side: {', '.join(found[other]) or 'none'}")
    if not sides:
        problems.append("there is no SYNC label at all")
    return problems


# Written in pieces, so that this file doesn't hit itself.
MENTION = re.compile("|".join([r"\bPart" + r"s? [1-6]\.[1-6]\b", r"\bspec" + r"\.md\b", r"\b[Ss]pec" + r"ification\b",
                               r"\bthe " + r"spec\b", r"\b[Ii]ssue" + r"s? #?[0-9]+\b"]))
OWN_TEXT = "bad platform spec" + "ification"  # a message of the tables


def mentions(tree):
    """The project speaks of itself alone."""
    problems = []
    for path in tracked(tree):
        if path.is_symlink() or not path.is_file() or path.name == "LICENSE":
            continue
        data = path.read_bytes()
        if b"\0" in data[:4096]:
            continue
        for number, line in enumerate(data.decode(errors="replace").splitlines(), 1):
            match = MENTION.search(line.replace(OWN_TEXT, ""))
            if match:
                problems.append(f"{path.relative_to(tree)}:{number}: speaks of '{match[0]}'")
    return problems


UNMERGED = re.compile(rb"^(?:<{7}|>{7}|[|]{7})(?: |$)|^={7}$", re.M)


def merged(tree):
    """No file holds the marks of a merge that nobody finished."""
    return [f"{path.relative_to(tree)}: holds '{match[0].decode()}', a merge that wasn't finished"
            for path in tracked(tree) if path.is_file() and (match := UNMERGED.search(path.read_bytes()))]


def spdx(tree):
    """Each source file opens with its licence, behind a #! line if it has one."""
    problems = []
    for path in tracked(tree):
        script = path.suffix == "" and path.is_file() and path.read_bytes()[:2] == b"#!"
        if not path.is_file() or not (path.suffix in SOURCE or script or path.name == "CMakeLists.txt"):
            continue
        lines = path.read_text(errors="replace").splitlines()[:2]
        if lines and lines[0].startswith("#!"):
            lines = lines[1:]
        if not lines or not re.match(r"(//|#) SPDX-License-Identifier: Apache-2\.0$", lines[0]):
            problems.append(f"{path.relative_to(tree)}: doesn't open with the SPDX line")
    return problems


LOCKED = re.compile(r"\block\b|\bxchg\b.*\(|\b[lms]fence\b|\bcpuid\b|\bsyscall\b")
FUNCTION = re.compile(r"^[0-9a-f]+ <(.*)>:$")


def locked_instructions(listing, patterns):
    """Problems of a disassembly: a locked instruction or a fence in a hot function, or a pattern without one."""
    problems, seen, current = [], set(), None
    for line in listing.splitlines():
        match = FUNCTION.match(line)
        if match:
            name = match[1]
            current = None
            if "[clone .cold]" not in name:
                for pattern in patterns:
                    if re.search(pattern, name):
                        seen.add(pattern)
                        current = name
        elif current and LOCKED.search(line.split("#")[0].partition("\t")[2]):
            problems.append(f"{current}: {line.strip()}")
    problems += [f"no function matches {p}" for p in patterns if p not in seen]
    return problems


def hot_functions(tree, library):
    """Lookups, walks and writes of the built library hold no locked instruction and no fence."""
    wanted = [line.strip() for line in (tree / "tests/house/hot-functions").read_text().splitlines()]
    patterns = [line for line in wanted if line and not line.startswith("#")]
    listing = subprocess.run(["objdump", "-d", "-C", "--no-show-raw-insn", library], capture_output=True, text=True,
                             check=True).stdout
    return locked_instructions(listing, patterns)


def count(tree, build):
    """At least as many tests are registered as tests/expected-count says: none has vanished silently."""
    listing = subprocess.run(["ctest", "--test-dir", build, "-N"], capture_output=True, text=True, check=True).stdout
    return too_few(listing, int((tree / "tests/expected-count").read_text()))


def too_few(listing, expected):
    match = re.search(r"^Total Tests: (\d+)$", listing, re.M)
    found = int(match[1]) if match else 0
    print(f"{found} tests, at least {expected} expected")
    return [] if found >= expected else ["tests have vanished; if on purpose, change tests/expected-count"]


RULES = {f.__name__.replace("_", "-"): f for f in (floors, shared_words, sync_labels, mentions, merged, spdx, hot_functions, count)}

if __name__ == "__main__":
    if len(sys.argv) < 3 or sys.argv[1] not in RULES:
        sys.exit(f"usage: checks.py {{{','.join(RULES)}}} TREE [ARGUMENT...]")
    found = RULES[sys.argv[1]](Path(sys.argv[2]).resolve(), *sys.argv[3:])
    print(*found, sep="\n", end="\n" if found else "")
    sys.exit(1 if found else 0)
