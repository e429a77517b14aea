#!/usr/bin/env python3
# SPDX-FileCopyrightText: 2026 The vornnet authors
# SPDX-License-Identifier: Apache-2.0
"""Shows that the checks of the documents find what is wrong.

selftest.py SOURCE_TREE [BUILD_DIRECTORY SANDBOX COMPILER]
"""
import os
import pathlib
import shutil
import subprocess
import sys
import tempfile
import unittest

HERE = pathlib.Path(__file__).resolve().parent
TREE = pathlib.Path(sys.argv.pop(1)).resolve()
BUILD, SANDBOX, COMPILER = (sys.argv.pop(1), sys.argv.pop(1), sys.argv.pop(1)) if len(sys.argv) > 3 else (None,) * 3


def run(*command, **options):
    return subprocess.run([str(word) for word in command], capture_output=True, text=True, check=False, **options)


class Blocks(unittest.TestCase):
    @staticmethod
    def fence(info):
        """Of "cpp body" the comment with the words and the fence with the language."""
        language, _, words = info.partition(" ")
        return (f"<!-- block: {words} -->\n" if words else "") + f"```{language}"

    def outcome(self, *blocks):
        with tempfile.TemporaryDirectory() as folder:
            page = pathlib.Path(folder) / "page.md"
            page.write_text("".join(f"text\n\n{self.fence(info)}\n{text}```\n" for info, text in blocks))
            return run(SANDBOX, HERE / "check_blocks.py", page, BUILD, COMPILER)

    def passes(self, *blocks):
        result = self.outcome(*blocks)
        self.assertEqual(result.returncode, 0, result.stdout + result.stderr)
        return result.stdout

    def fails(self, expected, *blocks):
        result = self.outcome(*blocks)
        self.assertEqual(result.returncode, 1, result.stdout + result.stderr)
        self.assertIn(expected, result.stdout)

    def test_program_and_its_output(self):
        program = ("cpp run", '#include <cstdio>\nint main() { std::puts("one"); }\n')
        self.passes(program, ("text output", "one\n"))
        self.fails("was printed", program, ("text output", "two\n"))
        self.fails("no program", ("text output", "one\n"))

    def test_command_and_its_output(self):
        self.passes(("console", "$ echo one; echo two\none\ntwo\n$ true\n"))
        self.passes(("console", "$ echo one two three; echo four; echo five\none ... three\n...\nfive\n"))
        self.fails("was printed", ("console", "$ echo one\ntwo\n"))
        self.fails("was printed", ("console", "$ echo one\n"))
        self.fails("exit status 3", ("console", "$ exit 3\n"))

    def test_bytes(self):
        self.passes(("text example", "int:1\n00 00 00 01\n"))
        self.fails("encoded it is", ("text example", "int:1\n00 00 00 02\n"))
        self.passes(("text example", "long:-1\nff ff ff ff 00 00 00 00\nlong:4294967295\n"))
        self.fails("was printed", ("text example", "long:-1\nff ff ff ff 00 00 00 00\n"))

    def test_pipe_directory_that_is_changed(self):
        self.fails("the pipe directory was", ("sh", "chmod 0700 /opt/vorn/hostmgr/var/lib/kestrel/rendez\n"))


class Pages(unittest.TestCase):
    """Checks of the whole tree, on a copy of what they look at."""

    def setUp(self):
        self.folder = tempfile.TemporaryDirectory()
        self.tree = pathlib.Path(self.folder.name)
        for name in ("docs", "include", "support", "src", "examples", "tests", "bench"):
            if name == "docs":
                shutil.copytree(TREE / name, self.tree / name)
            else:
                (self.tree / name).symlink_to(TREE / name)
        for page in ("README.md", "CONTRIBUTING.md", "SECURITY.md"):
            shutil.copy(TREE / page, self.tree)

    def tearDown(self):
        self.folder.cleanup()

    def change(self, page, old, new):
        path = self.tree / "docs" / page
        text = path.read_text()
        self.assertIn(old, text)
        path.write_text(text.replace(old, new, 1))

    def finds(self, check, expected):
        result = run(HERE / check, self.tree)
        self.assertEqual(result.returncode, 1, result.stdout + result.stderr)
        self.assertIn(expected, result.stdout)

    def test_text_that_is_missing(self):
        self.change("errors.md", "`VornServerSocket::init: failed to bind socket.`", "`x`")
        self.finds("check_texts.py", "not in docs/errors.md")

    def test_link_that_leads_nowhere(self):
        self.change("client.md", "(guarantees.md#ports-that-move)", "(guarantees.md#ports-that-stay)")
        self.finds("check_chapters.py", "no heading")
        self.change("client.md", "(guarantees.md#", "(nowhere.md#")
        self.finds("check_chapters.py", "leads nowhere")

    def test_test_that_is_not_there(self):
        self.change("threats.md", "VornLibraryCallbackSink_Failure.EmptyDatagram_EndsUdpSink", "VornLibraryCallbackSink_Failure.EmptyDatagram_EndsNothing")
        self.finds("check_chapters.py", "no test VornLibraryCallbackSink_Failure.EmptyDatagram_EndsNothing")


class Site(unittest.TestCase):
    WIDGET = """/** A widget. */
class Widget {
public:
    /** Opens it. @param n how wide */
    void open(int n);
};
"""

    def setUp(self):
        self.folder = tempfile.TemporaryDirectory()
        self.addCleanup(self.folder.cleanup)
        self.tree = pathlib.Path(self.folder.name)
        (self.tree / "include").mkdir()
        (self.tree / "bench").mkdir()
        (self.tree / "bench/README.md").write_text("# Measured\n")

    def doxygen(self, header):
        path = self.tree / "include/VornWidget.h"
        path.write_text(header)
        settings = (TREE / "docs/Doxyfile").read_text() + f"INPUT = {path}\nOUTPUT_DIRECTORY = {self.tree}\n"
        return run("doxygen", "-", cwd=TREE, input=settings)

    def sphinx(self, header, page):
        self.doxygen(header)
        (self.tree / "index.md").write_text(f"# Contents\n\n1. [Reference](reference.md)\n{page}")
        (self.tree / "reference.md").write_text("# Reference\n\n")
        return run("sphinx-build", "-q", "-W", "-c", TREE / "docs", "-D", f"breathe_projects.vornnet={self.tree}/xml",
                   self.tree, self.tree / "html", env=os.environ | {"PYTHONDONTWRITEBYTECODE": "1"})

    def test_public_name_without_a_comment(self):
        documented = self.doxygen(self.WIDGET)
        self.assertEqual(documented.returncode, 0, documented.stderr)
        bare = self.doxygen(self.WIDGET.replace("Opens it. @param n how wide", ""))
        self.assertNotEqual(bare.returncode, 0)
        self.assertIn("is not documented", bare.stderr)

    def test_function_without_a_summary(self):
        self.assertIn("does not begin with what it does", self.sphinx(self.WIDGET.replace("Opens it. ", ""), "").stderr)

    def test_link_that_leads_nowhere(self):
        good = self.sphinx(self.WIDGET, "[there](bench/README.md#measured)\n")
        self.assertEqual(good.returncode, 0, good.stderr)
        self.assertIn("nowhere", self.sphinx(self.WIDGET, "[there](bench/README.md#nowhere)\n").stderr)
        self.assertIn("nowhere", self.sphinx(self.WIDGET, "[there](nowhere.md)\n").stderr)


# What is not built cannot be run, and no block is run in place.
cases = [Pages, Site] + ([Blocks] if BUILD and "VORNTEST_IN_PLACE" not in os.environ else [])
suite = unittest.TestSuite(unittest.defaultTestLoader.loadTestsFromTestCase(case) for case in cases)
sys.exit(0 if unittest.TextTestRunner().run(suite).wasSuccessful() else 1)
