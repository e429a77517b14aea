#!/usr/bin/env python3
# SPDX-FileCopyrightText: 2026 The vornnet authors
# SPDX-License-Identifier: Apache-2.0
"""Shows that check_tree.py finds what it is there to find."""

import sys
import unittest

sys.dont_write_bytecode = True  # the source tree stays as it is
import check_tree  # noqa: E402

HEADER = """
/** Says nothing. */
class VORNNET_API First : public Base {
public:
    First(); // not here: close()
    ~First() override;
    virtual void close() = 0;
    void transfer(const VornString& sText);
    void transfer(const char* buf, long bufLen, long* error) override;
    bool operator==(const First& other) const;
    int count() const { return m_count; }

protected:
    unsigned int m_count;
};

/** Thread-safety: none. Blocking: none. Ownership: none. Signals: none. Errors: none. */
class Second {
    void open(std::map<int, long> entries = {});
};
"""

SOURCE = """
First::First() : Base("First::close()") {}

First::~First() {
    First::close();
}

void First::transfer(const VornString& text) {
    other(text);
}

void First::transfer(const char* buffer, long length, long* error) {
}

void Second::open(std::map<int, long> entries) {
}
"""


class CheckTree(unittest.TestCase):
    def problems(self, source):
        return list(check_tree.order_problems(check_tree.declared_order(HEADER),
                                              check_tree.defined_order(source)))

    def test_declarations_are_found_in_their_order(self):
        self.assertEqual([name for name, _ in check_tree.declared_order(HEADER)["First"]],
                         ["First", "~First", "close", "transfer", "transfer", "operator==", "count"])

    def test_definitions_are_matched_with_declarations(self):
        declared = check_tree.declared_order(HEADER)
        for name, found in check_tree.defined_order(SOURCE).items():
            for function in found:
                self.assertIn(function, declared[name])

    def test_the_order_of_the_header_is_accepted(self):
        self.assertEqual(self.problems(SOURCE), [])

    def test_two_overloads_the_other_way_round_are_found(self):
        first = SOURCE.index("void First::transfer(const V")
        second = SOURCE.index("void First::transfer(const c")
        end = SOURCE.index("void Second")
        swapped = SOURCE[:first] + SOURCE[second:end] + SOURCE[first:second] + SOURCE[end:]
        self.assertEqual(len(self.problems(swapped)), 1)

    def test_a_destructor_before_the_constructor_is_found(self):
        self.assertEqual(len(self.problems("First::~First() {}\nFirst::First() {}\n")), 1)

    def test_comments_are_found_with_their_classes(self):
        comments = dict(check_tree.class_comments(HEADER))
        self.assertEqual(sorted(comments), ["First", "Second"])
        self.assertIn("Says nothing", comments["First"])
        self.assertIn("Signals", comments["Second"])


if __name__ == "__main__":
    unittest.main()
