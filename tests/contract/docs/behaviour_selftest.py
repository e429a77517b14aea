#!/usr/bin/env python3
# SPDX-FileCopyrightText: 2026 The vornnet authors
# SPDX-License-Identifier: Apache-2.0
"""Shows that behaviour.py and check_texts.py find what they are there to find, each change in a copy of the tree."""

import contextlib
import pathlib
import shutil
import subprocess
import sys
import tempfile
import unittest

sys.dont_write_bytecode = True  # the source tree stays as it is
import behaviour  # noqa: E402
import source_texts  # noqa: E402

TREE = pathlib.Path(__file__).resolve().parents[3]


class ChangedTree(unittest.TestCase):
    @classmethod
    def setUpClass(cls):
        cls.folder = tempfile.TemporaryDirectory()
        cls.tree = pathlib.Path(cls.folder.name)
        for folder, pattern in (("include", "*.h"), ("support", "*.h"), ("support", "*.cpp"), ("src", "*.cpp"),
                                ("docs", "*.md"), ("docs/behaviour", "*.toml"), ("tests/unit", "*/*.h"),
                                ("tests/unit", "*/*.cpp"), ("tests/hostile", "faults/*.cpp")):
            for path in (TREE / folder).glob(pattern):
                copy = cls.tree / path.relative_to(TREE)
                copy.parent.mkdir(parents=True, exist_ok=True)
                shutil.copy(path, copy)
        shutil.copy(TREE / "README.md", cls.tree)

    @classmethod
    def tearDownClass(cls):
        cls.folder.cleanup()

    @contextlib.contextmanager
    def changed(self, file, old, new):
        path = self.tree / file
        before = path.read_text()
        self.assertIn(old, before, file)
        path.write_text(before.replace(old, new, 1))
        try:
            yield
        finally:
            path.write_text(before)

    def expect(self, problem, file, old, new):
        with self.changed(file, old, new):
            problems = list(behaviour.problems_of(self.tree))
        self.assertTrue(any(problem in found for found in problems), problems)

    def check_texts(self):
        """What check_texts.py prints of the tree."""
        result = subprocess.run([TREE / "tests/contract/docs/check_texts.py", self.tree],
                                capture_output=True, text=True, check=False)
        self.assertEqual(result.stderr, "")
        return result.returncode, result.stdout

    def test_the_tree_as_it_is_has_no_problems(self):
        self.assertEqual(list(behaviour.problems_of(self.tree)), [])
        self.assertEqual(self.check_texts()[0], 0)

    # Texts.

    def test_a_text_changed_in_the_sources_is_found_both_ways(self):
        for problem in ("in the sources, not in the table: 'VornServerSocket::init: failed to bind.'",
                        "in the table, not in the sources: 'VornServerSocket::init: failed to bind socket.'"):
            self.expect(problem, "src/VornServerSocket.cpp", "failed to bind socket.", "failed to bind.")

    def test_a_text_removed_from_the_sources_is_found(self):
        self.expect("in the table, not in the sources: 'VornPipeServer::close: releasing resources'",
                    "src/VornPipeServer.cpp",
                    'logRecord(VornLogging::cDebug, "VornPipeServer::close: releasing resources");', ";")

    def test_a_text_removed_from_the_table_is_found(self):
        self.expect("in the sources, not in the table: 'VornPipeServer::waitForClient: error on select. '",
                    "docs/behaviour/VornPipeServer.toml",
                    'throws = "VornPipeServer::waitForClient: error on select. "\ncode = "0"', 'fails = "empty"')

    def test_a_blank_at_a_texts_end_counts(self):
        self.expect("in the table, not in the sources", "docs/behaviour/VornPipeServer.toml", "pipe not setup. ",
                    "pipe not setup.")

    def test_what_is_filled_in_counts(self):
        self.expect("in the sources, not in the table", "src/VornServerSocket.cpp",
                    '" Port: ", static_cast<short>(nPort)', '" Port: "')

    def test_a_level_changed_in_the_sources_is_found(self):
        self.expect("'VornServerSocket::waitForClient: socket connection error. ...' at level 2",
                    "src/VornServerSocket.cpp", "logRecord(VornLogging::cError", "logRecord(VornLogging::cWarning")

    def test_a_level_changed_in_the_table_is_found(self):
        self.expect("in the table, not in the sources: 'VornPipeServer::close' at level 5",
                    "docs/behaviour/VornPipeServer.toml", 'logs = "VornPipeServer::close"\nlevel = 9',
                    'logs = "VornPipeServer::close"\nlevel = 5')

    def test_a_text_that_cannot_be_followed_is_found(self):
        self.expect("a text that cannot be followed", "src/VornUtilities.cpp", "return 1;",
                    'throw VornException("VornNew::text", codeOf("VornOther::text"));')

    def test_a_text_or_level_changed_in_the_page_of_errors_is_found(self):
        row, problem = "| 9 | `VornPipeServer::close` |", "docs/errors.md"
        for changed in (row.replace("close", "closed"), row.replace("9", "1"), "| |"):
            with self.subTest(changed), self.changed("docs/errors.md", row, changed):
                code, output = self.check_texts()
                self.assertEqual(code, 1)
                self.assertIn(problem, output)
                self.assertIn("'VornPipeServer::close'", output)

    def test_a_text_quoted_by_another_page_that_there_is_not_is_found(self):
        with self.changed("docs/threads.md", "\n# ", "\n`VornPipeServer::init: failed.`\n\n# "):
            self.assertIn("threads.md quotes what is not in the sources", self.check_texts()[1])

    # Tests.

    def test_a_renamed_test_is_found(self):
        self.expect("there is no test VornIPCServerTest.WhenWaiting_HandsTheIdentifyFlagOn",
                    "tests/unit/server/VornIPCServerTest.cpp",
                    "WhenWaiting_HandsTheIdentifyFlagOn", "WhenWaiting_HandsTheFlagOn")

    def test_a_test_that_is_switched_off_is_found(self):
        self.expect("there is no test VornSleepTest.LastsAtLeastAsLongAsAsked", "tests/unit/support/VornSleepTest.cpp",
                    "LastsAtLeastAsLongAsAsked", "DISABLED_LastsAtLeastAsLongAsAsked")

    def test_a_test_that_does_not_show_its_rows_text_is_found(self):
        self.expect("no test of the row shows 'VornThread::start: failed to create thread.'",
                    "docs/behaviour/VornThread.toml", '["WhenNoThreadCanBeCreated_StartThrowsAndNothingRuns"]',
                    '["VornSleepTest.LastsAtLeastAsLongAsAsked"]')

    def test_a_row_without_a_test_is_found(self):
        self.expect("no test", "docs/behaviour/VornThread.toml", 'tests = ["Stop_OnlyAsks"]', "tests = []")

    # Operations.

    def test_a_new_operation_is_found(self):
        for declaration, operation in (("int count() const { return 1; }", "count()"),
                                       ("virtual void add(std::map<int, long> entries = {}) = 0;",
                                        "add(map<int, long>)"),
                                       ("template <typename U>\nbool operator!(const U& value);",
                                        "operator!(const U&)")):
            self.expect(f"VornEvent: is not described: {operation}", "support/VornEvent.h", "virtual ~VornEvent();",
                        "virtual ~VornEvent();\n    " + declaration)

    def test_a_new_function_of_no_class_is_found(self):
        self.expect("VornSleep: is not described: VornNap(long)", "support/VornSleep.h", "VORNSUPT_API void VornSleep",
                    "VORNSUPT_API bool VornNap(long nTime);\n\nVORNSUPT_API void VornSleep")

    def test_a_changed_operation_is_found_both_ways(self):
        for problem in ("VornServerSocket: is not described: setPort(short)",
                        "VornServerSocket: is not declared: setPort(int)"):
            self.expect(problem, "include/VornServerSocket.h", "void setPort(int nPort);", "void setPort(short nPort);")

    def test_private_and_deleted_functions_are_no_operations(self):
        with self.changed("support/VornEvent.h", "struct State;", "struct State;\n    void hidden();"):
            self.assertEqual(list(behaviour.problems_of(self.tree)), [])
        with self.changed("support/VornEvent.h", "virtual ~VornEvent();",
                          "virtual ~VornEvent();\n    VornEvent(int nNothing) = delete;"):
            self.assertEqual(list(behaviour.problems_of(self.tree)), [])

    def test_a_new_header_is_found(self):
        header = self.tree / "include/VornNew.h"
        header.write_text("class VORNNET_API VornNew {\npublic:\n    VornNew();\n};\n")
        try:
            self.assertIn(f"{header}: is not described", list(behaviour.problems_of(self.tree)))
        finally:
            header.unlink()

    # The page and the form of its sources.

    def test_a_page_changed_by_hand_is_found(self):
        self.expect("docs/behaviour.md is not what", "docs/behaviour.md", "only asks", "asks")

    def test_a_change_of_the_source_that_was_not_written_to_the_page_is_found(self):
        self.expect("docs/behaviour.md is not what", "docs/behaviour/VornThread.toml", "only asks", "asks")

    def test_an_unknown_key_is_found(self):
        self.expect("unknown ['dose']", "docs/behaviour/VornThread.toml", 'does = "only asks"', 'dose = "only asks"')

    def test_a_text_without_its_code_is_found(self):
        self.expect("a text needs its code or level", "docs/behaviour/VornThread.toml",
                    'code = "the error number"\n', "")


class SourceTexts(unittest.TestCase):
    def texts(self, statement):
        tokens = source_texts.tokens_of(statement)
        return list(source_texts.texts_of_statement(tokens, {"cError": 1}))

    def test_texts_and_values_are_put_together(self):
        record = 'logRecord(VornLogging::cError, "VornA::b: ", n,\n ":", "x")'
        self.assertEqual(self.texts(record), [("VornA::b: ...:x", 1)])

    def test_each_text_of_a_conditional_has_what_is_common(self):
        record = 'logRecord(VornLogging::cError, b ? "VornA::yes " : "VornA::no ", n)'
        self.assertEqual(self.texts(record), [("VornA::yes ...", 1), ("VornA::no ...", 1)])

    def test_the_code_of_an_exception_is_no_part_of_its_text(self):
        self.assertEqual(self.texts('throw VornException("VornA::b: " + sName, errno)'), [("VornA::b: ...", None)])

    def test_comments_are_no_texts(self):
        self.assertEqual(self.texts('// throw VornException("VornA::b", 0)\n/* "VornA::c" */'), [])


if __name__ == "__main__":
    unittest.main()
