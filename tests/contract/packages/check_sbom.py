#!/usr/bin/env python3
# SPDX-FileCopyrightText: 2026 The vornnet authors
# SPDX-License-Identifier: Apache-2.0
"""Checks a bill of materials: that it is SPDX 2.3, and that it lists exactly the files of the packages named.

check_sbom.py SBOM [DEB...]
"""

import hashlib
import io
import json
import re
import subprocess
import sys
import tarfile

OWN_NAME = "vornnet.spdx.json.gz"
LICENCES = {"Apache-2.0", "BSD-2-Clause", "BSD-3-Clause", "MIT"}
CHECKSUM_LENGTHS = {"SHA1": 40, "SHA256": 64}
RELATIONSHIPS = {"DESCRIBES", "CONTAINS", "GENERATED_FROM", "DEPENDS_ON", "STATIC_LINK"}
PURPOSES = {"APPLICATION", "FRAMEWORK", "LIBRARY", "CONTAINER", "OPERATING-SYSTEM", "DEVICE", "FIRMWARE", "SOURCE",
            "ARCHIVE", "FILE", "INSTALL", "OTHER"}
FILE_TYPES = {"SOURCE", "BINARY", "ARCHIVE", "APPLICATION", "AUDIO", "IMAGE", "TEXT", "VIDEO", "DOCUMENTATION", "SPDX",
              "OTHER"}

DOCUMENT_FIELDS = {"spdxVersion", "dataLicense", "SPDXID", "name", "creationInfo", "packages", "files",
                   "relationships", "documentNamespace"}
PACKAGE_FIELDS = {"SPDXID", "name", "supplier", "downloadLocation", "filesAnalyzed", "licenseConcluded",
                  "licenseDeclared", "copyrightText"}
PACKAGE_FURTHER = {"versionInfo", "homepage", "packageVerificationCode", "licenseInfoFromFiles",
                   "primaryPackagePurpose", "externalRefs"}
RELATIONSHIP_FIELDS = ("spdxElementId", "relationshipType", "relatedSpdxElement")
FILE_FIELDS = {"SPDXID", "fileName", "fileTypes", "checksums", "licenseConcluded", "licenseInfoInFiles",
               "copyrightText"}


class Checker:
    def __init__(self, sbom):
        self.sbom = sbom
        self.faults = []
        self.ids = set()

    def expect(self, condition, fault):
        if not condition:
            self.faults.append(fault)

    def expect_fields(self, where, found, needed, further=frozenset()):
        self.expect(needed <= set(found), f"{where}: lacks {sorted(needed - set(found))}")
        self.expect(set(found) <= needed | further, f"{where}: has {sorted(set(found) - needed - further)} besides")

    def take_id(self, spdx_id):
        self.expect(re.fullmatch(r"SPDXRef-[A-Za-z0-9.-]+", spdx_id), f"{spdx_id}: not an identifier")
        self.expect(spdx_id not in self.ids, f"{spdx_id}: twice")
        self.ids.add(spdx_id)

    def check_licence(self, where, expression):
        if expression not in ("NOASSERTION", "NONE"):
            unknown = set(re.split(r" (?:AND|OR) ", expression)) - LICENCES
            self.expect(not unknown, f"{where}: unknown licence {sorted(unknown)}")

    def check_shape(self):
        self.expect_fields("document", self.sbom, DOCUMENT_FIELDS)
        for package in self.sbom.get("packages", []):
            self.expect_fields(package.get("name", "a package"), package, PACKAGE_FIELDS, PACKAGE_FURTHER)
        for file in self.sbom.get("files", []):
            self.expect_fields(file.get("fileName", "a file"), file, FILE_FIELDS)
        for relation in self.sbom.get("relationships", []):
            self.expect_fields("a relationship", relation, set(RELATIONSHIP_FIELDS))

    def check_document(self):
        sbom = self.sbom
        self.expect(sbom["spdxVersion"] == "SPDX-2.3", "document: not version 2.3")
        self.expect(sbom["dataLicense"] == "CC0-1.0", "document: dataLicense is not CC0-1.0")
        self.expect(sbom["SPDXID"] == "SPDXRef-DOCUMENT", "document: SPDXID is not SPDXRef-DOCUMENT")
        self.take_id(sbom["SPDXID"])
        self.expect(re.fullmatch(r"https://[^ #]+", sbom["documentNamespace"]), "document: bad namespace")
        creation = sbom["creationInfo"]
        self.expect(re.fullmatch(r"\d{4}-\d\d-\d\dT\d\d:\d\d:\d\dZ", creation.get("created", "")),
                    "document: bad time of creation")
        for creator in creation.get("creators", [""]):
            self.expect(re.match(r"(Tool|Organization|Person): .", creator), f"document: bad creator {creator!r}")

    def check_file(self, file):
        name = file["fileName"]
        self.take_id(file["SPDXID"])
        self.expect(name.startswith("./"), f"{name}: not relative to the package")
        self.expect(set(file["fileTypes"]) <= FILE_TYPES, f"{name}: bad type")
        sums = {checksum["algorithm"]: checksum["checksumValue"] for checksum in file["checksums"]}
        self.expect(set(sums) == set(CHECKSUM_LENGTHS), f"{name}: checksums are {sorted(sums)}")
        for algorithm, value in sums.items():
            self.expect(re.fullmatch(f"[0-9a-f]{{{CHECKSUM_LENGTHS.get(algorithm)}}}", value),
                        f"{name}: bad {algorithm}")
        self.check_licence(name, file["licenseConcluded"])
        for licence in file["licenseInfoInFiles"]:
            self.check_licence(name, licence)

    def check_package(self, package):
        name = package["name"]
        self.take_id(package["SPDXID"])
        self.expect(package.get("versionInfo"), f"{name}: no version")
        self.expect(re.match(r"(Organization|Person): .|NOASSERTION$", package["supplier"]),
                    f"{name}: bad supplier")
        self.expect(package.get("primaryPackagePurpose", "OTHER") in PURPOSES, f"{name}: bad purpose")
        for field in ("licenseConcluded", "licenseDeclared"):
            self.check_licence(name, package[field])
        for reference in package.get("externalRefs", []):
            self.expect(reference.get("referenceCategory") == "PACKAGE-MANAGER" and
                        reference.get("referenceType") == "purl" and
                        re.fullmatch(r"pkg:deb/[a-z]+/[a-z0-9.+-]+@[^ ?]+(\?arch=[a-z0-9]+)?",
                                     reference.get("referenceLocator", "")), f"{name}: bad reference {reference}")
        analyzed = package["filesAnalyzed"]
        self.expect(analyzed == ("packageVerificationCode" in package), f"{name}: files analyzed or not?")
        if analyzed:
            self.check_verification_code(package)

    def check_verification_code(self, package):
        contained = {relation["relatedSpdxElement"] for relation in self.sbom["relationships"]
                     if relation["spdxElementId"] == package["SPDXID"] and relation["relationshipType"] == "CONTAINS"}
        sums = sorted(checksum["checksumValue"] for file in self.sbom["files"] if file["SPDXID"] in contained
                      for checksum in file["checksums"] if checksum["algorithm"] == "SHA1")
        self.expect(sums, f"{package['name']}: no files")
        self.expect(package["packageVerificationCode"].get("packageVerificationCodeValue") ==
                    hashlib.sha1("".join(sums).encode()).hexdigest(), f"{package['name']}: wrong verification code")

    def check_relationships(self):
        related = set()
        described = set()
        for relation in self.sbom["relationships"]:
            first, kind, second = (relation[field] for field in RELATIONSHIP_FIELDS)
            self.expect(kind in RELATIONSHIPS, f"relationship {kind} is unknown")
            for element in (first, second):
                self.expect(element in self.ids, f"{kind}: there is no {element}")
            related.add(second)
            if kind == "DESCRIBES":
                self.expect(first == "SPDXRef-DOCUMENT", f"{first} describes something")
                described.add(second)
        self.expect(described, "document: describes nothing")
        alone = self.ids - related - {"SPDXRef-DOCUMENT"}
        self.expect(not alone, f"related to nothing: {sorted(alone)[:5]}")

    def check_debian_packages(self, paths):
        listed = {}
        owner = {relation["relatedSpdxElement"]: relation["spdxElementId"] for relation in self.sbom["relationships"]
                 if relation["relationshipType"] == "CONTAINS"}
        for file in self.sbom["files"]:
            sums = {checksum["algorithm"]: checksum["checksumValue"] for checksum in file["checksums"]}
            listed[owner.get(file["SPDXID"]), file["fileName"]] = sums.get("SHA256")
        ids = {package["name"]: package for package in self.sbom["packages"]}
        found = {}
        for path in paths:
            name, version = subprocess.run(["dpkg-deb", "-f", path, "Package", "Version"], check=True,
                                           stdout=subprocess.PIPE).stdout.decode().split("\n")[:2]
            name = name.split(": ")[1]
            package = ids.get(name, {})
            self.expect(package.get("versionInfo") == version.split(": ")[1], f"{name}: another version than {path}")
            found.update(((package.get("SPDXID"), file), value) for file, value in sums_of(path))
        for key in sorted(set(listed) | set(found), key=str):
            if key[1].endswith("/" + OWN_NAME):
                self.expect(key not in listed, "it lists itself")
            else:
                self.expect(listed.get(key) == found.get(key),
                            f"{key}: listed with {listed.get(key)}, found with {found.get(key)}")

    def check(self, paths):
        self.check_shape()
        if self.faults:
            return self.faults
        self.check_document()
        for file in self.sbom["files"]:
            self.check_file(file)
        for package in self.sbom["packages"]:
            self.check_package(package)
        self.check_relationships()
        if paths:
            self.check_debian_packages(paths)
        return self.faults


def sums_of(path):
    content = subprocess.run(["dpkg-deb", "--fsys-tarfile", path], check=True, stdout=subprocess.PIPE).stdout
    with tarfile.open(fileobj=io.BytesIO(content)) as archive:
        return [(member.name, hashlib.sha256(archive.extractfile(member).read()).hexdigest())
                for member in archive.getmembers() if member.isfile()]


def main():
    if len(sys.argv) < 2:
        sys.exit(__doc__)
    with open(sys.argv[1], encoding="utf-8") as file:
        faults = Checker(json.load(file)).check(sys.argv[2:])
    for fault in faults[:20]:
        print(f"{sys.argv[1]}: {fault}", file=sys.stderr)
    sys.exit(1 if faults else 0)


if __name__ == "__main__":
    main()
