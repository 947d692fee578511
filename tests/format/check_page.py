#!/usr/bin/env python3
# SPDX-License-Identifier: Apache-2.0
# What docs/format.md says, held against files: the reader that was written from the page reads the golden tables, its
# damage checks bite, and each line of the page's worked example stands in the golden file as printed.
#
#    check_page.py SOURCE-TREE
import re
import shutil
import sys
import tempfile
from pathlib import Path

import read_table

tree = Path(sys.argv[1])
golden = tree / "tests/format/golden"
problems = []

rows = read_table.read(golden / "hoIpFlowCounter") + read_table.read(golden / "hoIp6FlowCounter")
if rows != (golden / "rows.tsv").read_text().splitlines():
    problems.append("the golden tables read as:\n" + "\n".join(rows))

# A byte of each: magic, valueType (checksum), capacity, a row's OCCUPIED, its rhash, its key, a bucket's link.
for name, at in (("slots", 0), ("slots", 25), ("slots", 575), ("slots", 680), ("slots", 684), ("slots", 696), ("buckets", 1743)):
    with tempfile.TemporaryDirectory() as place:
        copy = Path(place) / "table"
        shutil.copytree(golden / "hoIpFlowCounter", copy)
        data = bytearray((copy / name).read_bytes())
        data[at] ^= 0x41
        (copy / name).write_bytes(data)
        try:
            read_table.read(copy)
            problems.append(f"damage at {at} of {name} went unseen")
        except read_table.Damaged:
            pass

page = (tree / "docs/format.md").read_text().split("## An example")[1]
lines = 0
for block, name in zip(re.findall(r"```\n(.*?)```", page, re.S), ("slots", "slots", "buckets")):
    data = (golden / "hoIpFlowCounter" / name).read_bytes()
    for line in block.splitlines():
        at, octets = re.match(r"([0-9a-f]{4})  ((?:[0-9a-f]+ )*[0-9a-f]+)(?: \.\.\.)?  ", line).groups()
        wanted = bytes.fromhex(octets)
        lines += 1
        if data[int(at, 16):int(at, 16) + len(wanted)] != wanted:
            problems.append(f"docs/format.md, example: {line}")
if lines < 25:
    problems.append(f"only {lines} lines of the page's example were found")

print(*problems, sep="\n", end="\n" if problems else "")
sys.exit(1 if problems else 0)
