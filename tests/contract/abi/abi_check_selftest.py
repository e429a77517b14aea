#!/usr/bin/env python3
# SPDX-FileCopyrightText: 2026 The vornnet authors
# SPDX-License-Identifier: Apache-2.0
"""Shows that abi_check.py finds what it is there to find, in libraries made for the purpose."""

import os
import pathlib
import subprocess
import sys
import tempfile
import unittest

sys.dont_write_bytecode = True  # the source tree stays as it is
import abi_check  # noqa: E402

CODE = """
namespace VornNet {
class __attribute__((visibility("default"))) VornCertificate {
public:
    virtual ~VornCertificate();
    virtual int first();
    virtual int second();

protected:
    int m_nFirst = 0;
    short m_nSecond = 0;
};
VornCertificate::~VornCertificate() = default;
int VornCertificate::first() { return m_nFirst; }
int VornCertificate::second() { return m_nSecond; }
} // namespace VornNet
"""


class AbiCheck(unittest.TestCase):
    def setUp(self):
        folder = tempfile.TemporaryDirectory()
        self.addCleanup(folder.cleanup)
        self.folder = pathlib.Path(folder.name)

    def build_library(self, name, code):
        """Builds a libvornnet.so in a folder of that name."""
        place = self.folder / name
        place.mkdir()
        (place / "code.cpp").write_text(code)
        (place / "all.map").write_text("VORNNET_1 { global: *; };")
        subprocess.run([os.environ.get("CXX", "g++"), "-g", "-shared", "-fPIC", "-o", place / "libvornnet.so",
                        place / "code.cpp", "-Wl,-soname,libvornnet.so.1",
                        f"-Wl,--version-script={place / 'all.map'}"], check=True)
        return place / "libvornnet.so"

    def difference(self, changed):
        self.assertNotEqual(changed, CODE)
        stored = self.folder / "stored.abi"
        stored.write_text(abi_check.layout_text(self.build_library("stored", CODE)))
        return abi_check.layout_difference(stored, self.build_library("changed", changed))

    def leaks(self, code):
        return list(abi_check.leaks("libvornnet", abi_check.exported(self.build_library("leaking", code))))

    def test_the_same_interface_in_other_code_is_accepted(self):
        self.assertEqual(self.difference(CODE.replace("return m_nFirst;", "return m_nFirst + 1;")), "")

    def test_a_field_of_another_type_is_found(self):
        self.assertIn("m_nFirst", self.difference(CODE.replace("int m_nFirst", "long m_nFirst")))

    def test_fields_the_other_way_round_are_found(self):
        swapped = CODE.replace("int m_nFirst = 0;", "").replace(
            "m_nSecond = 0;", "m_nSecond = 0; int m_nFirst = 0;")
        self.assertIn("offset changed", self.difference(swapped))

    def test_virtual_operations_the_other_way_round_are_found(self):
        swapped = CODE.replace("virtual int first();", "").replace(
            "virtual int second();", "virtual int second(); virtual int first();")
        self.assertIn("vtable", self.difference(swapped))

    def test_a_function_that_is_gone_is_found(self):
        self.assertIn("first", self.difference(CODE.replace("virtual int first();", "").replace(
            "int VornCertificate::first() { return m_nFirst; }", "")))

    def test_public_classes_leak_nothing(self):
        self.assertEqual(self.leaks(CODE), [])

    def test_a_class_without_a_public_header_is_a_leak(self):
        code = CODE + """
            namespace VornNet {
            class ServerGate { void open(); };
            void ServerGate::open() {}
            }"""
        self.assertEqual(len(self.leaks(code)), 1)

    def test_a_function_of_the_standard_library_is_a_leak(self):
        code = CODE + "#include <string>\ntemplate class std::basic_string<char16_t>;"
        self.assertNotEqual(self.leaks(code), [])

    def test_a_symbol_that_keeps_the_library_loaded_is_a_leak(self):
        code = CODE + """
            namespace VornNet {
            template <typename T> struct VornUtilities { static int count; };
            template <typename T> int VornUtilities<T>::count = 0;
            template struct VornUtilities<int>;
            }"""
        self.assertTrue(any("unique" in leak for leak in self.leaks(code)))


if __name__ == "__main__":
    unittest.main()
