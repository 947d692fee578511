#!/usr/bin/env python3
# SPDX-License-Identifier: Apache-2.0
# Each rule of checks.py is shown a small tree that keeps it and one that breaks it: a check that can't fail is none.
import subprocess
import tempfile
import unittest
from pathlib import Path

import checks

SPDX = "// SPDX-License-Identifier: Apache-2.0\n"


class Rules(unittest.TestCase):
    def setUp(self):
        self.place = tempfile.TemporaryDirectory()
        self.tree = Path(self.place.name)
        self.write("src/public-headers", "")
        self.write("tests/house/allowed-orders", "")

        self.addCleanup(self.place.cleanup)

    def write(self, name, text):
        path = self.tree / name
        path.parent.mkdir(parents=True, exist_ok=True)
        path.write_text(text)

    def finds(self, rule, files, *words):
        """After these files were written the rule finds one problem for each of the words, in their order."""
        for name, text in files.items():
            self.write(name, text)
        found = rule(self.tree)
        self.assertEqual(len(found), len(words), found)
        for problem, word in zip(found, words):
            self.assertIn(word, problem)

    def test_floors(self):
        self.finds(checks.floors, {
            "src/platform/Mem/Map.h": "#include <vector>\n",
            "src/tables/Mirak/Table.h": '#include "Mem/Map.h"\n#include "Mirak/Other.h"\n',
            "src/flows/Flow/Key.h": '#include "Mirak/Table.h"\n', "src/public-headers": "Flow/Key.h # keys\n",
            "agents/a/a.cpp": '#include "Flow/Key.h"\n'})
        self.finds(checks.floors, {
            "src/platform/Mem/Up.cpp": '#include "Mirak/Table.h"\n', "src/tables/Mirak/Up.cpp": '# include "Flow/Key.h"\n',
            "agents/a/a.cpp": '#include "Mirak/Table.h"\n', "src/public-headers": "Flow/Key.h\nFlow/Gone.h\n"},
            "platform/Mem/Up.cpp", "tables/Mirak/Up.cpp", "Flow/Gone.h", "agents/a/a.cpp")

    def test_shared_words(self):
        code, allowed = "src/tables/T.cpp", "tests/house/allowed-orders"
        self.finds(checks.shared_words, {
            checks.OWNER: "std::memory_order_acquire; volatile int x;\n",
            code: '// memory_order_relaxed, volatile\nlog("volatile");\nif (header->x == 1) f();\n'})
        self.finds(checks.shared_words, {
            code: "x.load(std::memory_order_relaxed);\nstd::atomic_ref<int> r(x);\n"
            "std::memcpy(&v, &header->lookaside, 8);\nheader->freeSlots = 3;\nheader->runtimeFlags |= 1;\n"},
            "memory_order_relaxed", "atomic_ref", "bytewise", "plain store", "plain store")
        self.finds(checks.shared_words, {code: "volatile int signalled;\n",
                                         allowed: f"{code} volatile a signal handler sets it\n"})
        self.finds(checks.shared_words, {code: ""}, "no longer has volatile")

    def test_sync_labels(self):
        both = "// SYNC(a) store: x\npublishPair(l, v);\n// SYNC(a) load: y\nauto w = loadPair(l);\n"
        for text, *words in [("// the pair SYNC(a)\n" + both,),
                             (both + "// SYNC(b) store: z\nstoreShared(w, 1);\n", "SYNC(b) has no load side"),
                             (both + "// SYNC(a) load: nothing follows\n", "stands above no load"),
                             ("", "no SYNC label")]:
            self.finds(checks.sync_labels, {"src/tables/T.cpp": text}, *words)

    def test_mentions(self):
        self.finds(checks.mentions, {"docs/a.md": f"a Part of it, inspect, {checks.OWN_TEXT}: 2\n"})
        for bad in ("see Part" + " 4.1", "the " + "spec says", "spec" + ".md", "a Spec" + "ification", "issue" + " 2"):
            self.finds(checks.mentions, {"docs/a.md": f"first\n{bad}\n"}, "docs/a.md:2")

    def test_merged(self):
        self.finds(checks.merged, {"docs/a.1": "a table\n======\n========\n << HEAD\n"})
        for mark in ("<" * 7 + " HEAD", "=" * 7, ">" * 7 + " branch"):
            self.finds(checks.merged, {"docs/a.1": f"first\n{mark}\n"}, "docs/a.1")

    def test_spdx(self):
        self.finds(checks.spdx, {"src/a.h": SPDX + "// a\n", "run": "#!/bin/sh\n#" + SPDX[2:], "tests/data": "no source\n"})
        self.finds(checks.spdx, {"src/a.h": "// a\n" + SPDX, "run": "#!/bin/sh\n", "CMakeLists.txt": "project(x)\n"},
                   "", "", "")

    def test_hot_functions(self):
        def listing(*functions):
            source = "\n".join(f"void {name}(int* p) {{ {body}; }}" for name, body in functions)
            self.write("hot.cpp", source)
            library = str(self.tree / "hot.so")
            subprocess.run(["c++", "-O2", "-shared", "-fPIC", "-o", library, str(self.tree / "hot.cpp")], check=True)
            return subprocess.run(["objdump", "-d", "-C", "--no-show-raw-insn", library], capture_output=True, text=True,
                                  check=True).stdout

        text = listing(("hot", "__atomic_store_n(p, 1, __ATOMIC_RELEASE)"), ("cold", "__atomic_fetch_add(p, 1, 5)"))
        self.assertEqual(checks.locked_instructions(text, ["^hot\\("]), [])
        self.assertEqual(len(checks.locked_instructions(text, ["^cold\\("])), 1)
        self.assertEqual(checks.locked_instructions(text, ["^gone\\("]), ["no function matches ^gone\\("])
        text = listing(("hot", "__atomic_store_n(p, 1, __ATOMIC_SEQ_CST)"), ("fenced", "__builtin_ia32_mfence()"))
        self.assertIn("xchg", checks.locked_instructions(text, ["^hot\\("])[0])
        self.assertIn("mfence", checks.locked_instructions(text, ["^fenced\\("])[0])

    def test_count(self):
        self.assertEqual(checks.too_few("Total Tests: 12\n", 12), [])
        self.assertEqual(len(checks.too_few("Total Tests: 11\n", 12)), 1)
        self.assertEqual(len(checks.too_few("nothing", 1)), 1)


if __name__ == "__main__":
    unittest.main()
