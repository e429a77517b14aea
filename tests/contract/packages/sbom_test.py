#!/usr/bin/python3
# SPDX-FileCopyrightText: 2026 The vornnet authors
# SPDX-License-Identifier: Apache-2.0
"""Makes small packages and their bill of materials, compares it with what is expected, and spoils it."""

import copy
import hashlib
import json
import os
import subprocess
import sys
import tempfile
import unittest

sys.dont_write_bytecode = True # the tree stays as it is

HERE = os.path.dirname(os.path.abspath(__file__))
SBOM = os.path.join(HERE, "..", "..", "..", "packaging", "sbom.py")
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

    def spoiled(self, change):
        sbom = copy.deepcopy(self.good)
        change(sbom)
        return "\n".join(check_sbom.faults_of(sbom, self.packages))

    def of_kind(self, relationship):
        return [(relation["spdxElementId"], relation["relatedSpdxElement"]) for relation in self.good["relationships"]
                if relation["relationshipType"] == relationship]

    def test_two_of_the_same_packages_are_the_same(self):
        with open(self.write("first.json"), "rb") as first, \
                open(self.write("second.json", list(reversed(self.packages))), "rb") as second:
            self.assertEqual(first.read(), second.read())

    def test_holds_together_and_lists_what_the_packages_have(self):
        self.assertEqual(check_sbom.main(os.path.join(self.work.name, "good.json"), *self.packages), 0)

    def test_has_the_head_of_a_document(self):
        head = {name: value for name, value in self.good.items() if not isinstance(value, list)}
        self.assertRegex(head.pop("documentNamespace"), r"^https://vornnet\.example/spdx/vornnet-1\.0\.0-1-[0-9a-f]{32}$")
        self.assertEqual(head, {
            "spdxVersion": "SPDX-2.3", "dataLicense": "CC0-1.0", "SPDXID": "SPDXRef-DOCUMENT", "name": "vornnet-1.0.0-1",
            "creationInfo": {"created": "2026-11-21T12:00:00Z",
                             "creators": ["Organization: The vornnet authors", "Tool: vornnet-sbom"]}})

    def test_describes_a_package(self):
        self.assertEqual(self.good["packages"][0] | {"packageVerificationCode": "checked apart"}, {
            "SPDXID": "SPDXRef-Package-libvornnet1", "name": "libvornnet1", "versionInfo": "1.0.0-1",
            "supplier": "Organization: The vornnet authors", "homepage": "https://vornnet.example/",
            "downloadLocation": "NOASSERTION", "filesAnalyzed": True, "packageVerificationCode": "checked apart",
            "licenseConcluded": "Apache-2.0", "licenseDeclared": "Apache-2.0", "licenseInfoFromFiles": ["Apache-2.0"],
            "copyrightText": "2026 The vornnet authors",
            "externalRefs": [{"referenceCategory": "PACKAGE-MANAGER", "referenceType": "purl",
                              "referenceLocator": "pkg:deb/vornnet/libvornnet1@1.0.0-1?arch=all"}]})
        self.assertEqual(self.good["packages"][0]["packageVerificationCode"]["packageVerificationCodeExcludedFiles"],
                         ["./usr/share/doc/libvornnet1/vornnet.spdx.json.gz"])

    def test_describes_a_file(self):
        content = PACKAGES["libvornnet1"][1]["usr/lib/libvornnet.so.1"]
        self.assertEqual(self.good["files"][0], {
            "SPDXID": "SPDXRef-File-libvornnet1-0", "fileName": "./usr/lib/libvornnet.so.1",
            "licenseConcluded": "Apache-2.0", "licenseInfoInFiles": ["Apache-2.0"],
            "copyrightText": "2026 The vornnet authors",
            "checksums": [{"algorithm": "SHA1", "checksumValue": hashlib.sha1(content).hexdigest()},
                          {"algorithm": "SHA256", "checksumValue": hashlib.sha256(content).hexdigest()}]})

    def test_says_the_licences(self):
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
        self.assertEqual([needed for _, needed in self.of_kind("DEPENDS_ON")],
                         ["SPDXRef-Package-libc6", "SPDXRef-Package-libvornnet1", "SPDXRef-Package-adduser"])

    def test_names_what_is_compiled_into_the_tools(self):
        self.assertEqual(self.of_kind("STATIC_LINK"),
                         [("SPDXRef-Package-vornnet-tools", "SPDXRef-Package-libcli11-dev"),
                          ("SPDXRef-Package-vornnet-tools", "SPDXRef-Package-nlohmann-json3-dev")])

    def test_what_was_changed_later_is_found(self):
        for change, fault in (
                (lambda sbom: sbom["files"][1].update(sbom["files"][0]), "SPDXRef-File-libvornnet1-0: twice"),
                (lambda sbom: sbom["files"].pop(), "is there, or related, but not both"),
                (lambda sbom: sbom["files"][0].update(licenseConcluded="GPL-2.0-only"), "unknown licences"),
                (lambda sbom: sbom["files"][0]["checksums"][0].update(checksumValue="0" * 40), "wrong verification code"),
                (lambda sbom: sbom["files"][0]["checksums"][1].update(checksumValue="0" * 64), "listed with 000"),
                (lambda sbom: sbom["packages"][0].update(versionInfo="1.0.0-2"), "found with None")):
            with self.subTest(fault):
                self.assertIn(fault, self.spoiled(change))

    def test_a_package_that_lacks_is_found(self):
        self.assertIn("found with None", "\n".join(check_sbom.faults_of(self.good, self.packages[:1])))


if __name__ == "__main__":
    unittest.main()
