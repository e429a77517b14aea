#!/usr/bin/env python3
# SPDX-FileCopyrightText: 2026 The vornnet authors
# SPDX-License-Identifier: Apache-2.0
"""Makes small packages and their bill of materials, and spoils it in many ways, each of which must be found."""

import copy
import json
import os
import subprocess
import sys
import tempfile
import unittest

sys.dont_write_bytecode = True # the tree stays as it is

HERE = os.path.dirname(os.path.abspath(__file__))
SBOM = os.path.join(HERE, "..", "..", "..", "packaging", "sbom.py")
CHECK = os.path.join(HERE, "check_sbom.py")
sys.path.insert(0, HERE)
import check_sbom # pylint: disable=wrong-import-position

PACKAGES = {
    "libvornnet1": ("libc6 (>= 2.35)", {
        "usr/lib/libvornnet.so.1": b"\x7fELF one",
        "usr/share/doc/libvornnet1/vornnet.spdx.json.gz": b"left out",
        "usr/share/doc/libvornnet1/copyright": b"two",
    }),
    "vornnet-tools": ("libvornnet1 (= 1.0.0-1), adduser | systemd-sysusers", {
        "usr/bin/vornnet": b"\x7fELF three",
        "usr/share/doc/vornnet/html/_static/jquery.js": b"/* @licstart MIT */",
        "usr/share/doc/vornnet/html/_static/doctools.js": b"/* BSD */",
        "usr/share/doc/vornnet/html/_static/styles/furo.css": b"body { }",
    }),
}


def make_package(directory, name, version="1.0.0-1"):
    depends, files = PACKAGES[name]
    tree = os.path.join(directory, "tree-" + name)
    files = {**files, "DEBIAN/control": (f"Package: {name}\nVersion: {version}\nArchitecture: all\nDepends: {depends}\n"
                                         "Maintainer: nobody <nobody@example.org>\nDescription: one\n two\n").encode()}
    for path, content in files.items():
        os.makedirs(os.path.dirname(os.path.join(tree, path)), mode=0o755, exist_ok=True)
        with open(os.path.join(tree, path), "wb") as file:
            file.write(content)
    result = os.path.join(directory, name + ".deb")
    subprocess.run(["dpkg-deb", "-Znone", "--build", tree, result], check=True, stdout=subprocess.DEVNULL)
    return result


class SbomTest(unittest.TestCase):
    @classmethod
    def setUpClass(cls):
        os.umask(0o022)
        cls.work = tempfile.TemporaryDirectory()
        cls.packages = [make_package(cls.work.name, name) for name in PACKAGES]
        with open(cls.write("good.json"), encoding="utf-8") as file:
            cls.good = json.load(file)

    @classmethod
    def tearDownClass(cls):
        cls.work.cleanup()

    @classmethod
    def write(cls, name, packages=None, epoch="1795262400"):
        path = os.path.join(cls.work.name, name)
        subprocess.run([sys.executable, SBOM, "--output", path, *(packages or cls.packages)], check=True,
                       env={**os.environ, "SOURCE_DATE_EPOCH": epoch})
        return path

    def check(self, sbom, packages=()):
        """What the check says of it; nothing when it has no fault."""
        return "\n".join(check_sbom.Checker(sbom).check(packages))

    def spoil(self, change):
        sbom = copy.deepcopy(self.good)
        change(sbom)
        return self.check(sbom)

    def test_two_of_the_same_packages_are_the_same(self):
        with open(self.write("first.json"), "rb") as first, \
                open(self.write("second.json", list(reversed(self.packages))), "rb") as second:
            self.assertEqual(first.read(), second.read())

    def test_is_valid_and_lists_what_the_packages_have(self):
        self.assertEqual(self.check(self.good, self.packages), "")

    def test_the_program_tells_by_its_status(self):
        good = self.write("good.json")
        self.assertEqual(subprocess.run([CHECK, good, *self.packages], check=False).returncode, 0)
        result = subprocess.run([CHECK, good, self.packages[0]], stderr=subprocess.PIPE, check=False)
        self.assertEqual(result.returncode, 1)
        self.assertIn(b"found with None", result.stderr)

    def test_says_the_time_and_the_licences(self):
        self.assertEqual(self.good["creationInfo"]["created"], "2026-11-21T12:00:00Z")
        licences = {file["fileName"]: file["licenseConcluded"] for file in self.good["files"]}
        self.assertEqual(licences, {
            "./usr/bin/vornnet": "Apache-2.0",
            "./usr/lib/libvornnet.so.1": "Apache-2.0",
            "./usr/share/doc/libvornnet1/copyright": "Apache-2.0",
            "./usr/share/doc/vornnet/html/_static/jquery.js": "MIT",
            "./usr/share/doc/vornnet/html/_static/doctools.js": "BSD-2-Clause",
            "./usr/share/doc/vornnet/html/_static/styles/furo.css": "MIT",
        })

    def test_depends_on_the_library_of_the_same_build(self):
        needed = [relation["relatedSpdxElement"] for relation in self.good["relationships"]
                  if relation["relationshipType"] == "DEPENDS_ON"]
        self.assertEqual(needed, ["SPDXRef-Package-libc6", "SPDXRef-Package-libvornnet1", "SPDXRef-Package-adduser"])

    def test_a_field_that_lacks_is_found(self):
        for field in self.good:
            with self.subTest(field=field):
                self.assertIn(f"document: lacks ['{field}']",
                              self.spoil(lambda sbom, field=field: sbom.pop(field)))
        for kind in ("packages", "files"):
            for field in ("SPDXID", "licenseConcluded", "copyrightText"):
                with self.subTest(kind=kind, field=field):
                    self.assertIn(f"lacks ['{field}']",
                                  self.spoil(lambda sbom, kind=kind, field=field: sbom[kind][0].pop(field)))

    def test_a_changed_checksum_is_found(self):
        self.assertIn("wrong verification code",
                      self.spoil(lambda sbom: sbom["files"][0]["checksums"][0].update(checksumValue="0" * 40)))

    def test_a_file_that_was_changed_later_is_found(self):
        sbom = copy.deepcopy(self.good)
        sbom["files"][0]["checksums"][1]["checksumValue"] = "0" * 64
        self.assertIn("listed with " + "0" * 64, self.check(sbom, self.packages))

    def test_a_package_that_lacks_is_found(self):
        self.assertIn("found with None", self.check(self.good, self.packages[:1]))


if __name__ == "__main__":
    unittest.main()
