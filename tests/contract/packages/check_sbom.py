#!/usr/bin/python3
# SPDX-FileCopyrightText: 2026 The vornnet authors
# SPDX-License-Identifier: Apache-2.0
"""Checks that a bill of materials holds together and lists exactly the files of the packages: check_sbom.py SBOM DEB..."""

import collections
import hashlib
import json
import re
import sys

from debian.debfile import DebFile

OWN_NAME = "vornnet.spdx.json.gz"
LICENCES = {"Apache-2.0", "BSD-2-Clause", "BSD-3-Clause", "MIT", "NOASSERTION"}


def related(sbom, kind):
    """{element: the element to which it stands in this relation}"""
    return {relation["relatedSpdxElement"]: relation["spdxElementId"] for relation in sbom["relationships"]
            if relation["relationshipType"] == kind}


def reference_faults(sbom):
    """Each element has a name of its own, and is reached from the document; nothing else is named."""
    names = collections.Counter([sbom["SPDXID"], *(one["SPDXID"] for one in sbom["packages"] + sbom["files"])])
    ends = {relation[end] for relation in sbom["relationships"] for end in ("spdxElementId", "relatedSpdxElement")}
    yield from (f"{name}: twice" for name, number in names.items() if number > 1)
    yield from (f"{name}: not an identifier" for name in names if not re.fullmatch("SPDXRef-[A-Za-z0-9.-]+", name))
    yield from (f"{name}: is there, or related, but not both" for name in ends ^ set(names))


def licence_faults(sbom):
    for one in sbom["packages"] + sbom["files"]:
        for field in ("licenseConcluded", "licenseDeclared"):
            unknown = set(one.get(field, "NOASSERTION").split(" AND ")) - LICENCES
            if unknown:
                yield f"{one['SPDXID']}: unknown licences {unknown}"


def checksum_of(file, algorithm):
    return next(one["checksumValue"] for one in file["checksums"] if one["algorithm"] == algorithm)


def verification_faults(sbom):
    owners = related(sbom, "CONTAINS")
    for package in sbom["packages"]:
        sums = sorted(checksum_of(file, "SHA1") for file in sbom["files"] if owners[file["SPDXID"]] == package["SPDXID"])
        expected = hashlib.sha1("".join(sums).encode()).hexdigest() if sums else None
        if package.get("packageVerificationCode", {}).get("packageVerificationCodeValue") != expected:
            yield f"{package['name']}: wrong verification code"


def files_of(path):
    """{(package, version, file): checksum}, without the bill itself, which cannot list itself."""
    with DebFile(path) as package:
        control, archive = package.debcontrol(), package.data.tgz()
        return {(control["Package"], control["Version"], member.name):
                hashlib.sha256(archive.extractfile(member).read()).hexdigest()
                for member in archive if member.isfile() and not member.name.endswith("/" + OWN_NAME)}


def file_faults(sbom, paths):
    packages, owners = {package["SPDXID"]: package for package in sbom["packages"]}, related(sbom, "CONTAINS")
    listed = {}
    for file in sbom["files"]:
        package = packages[owners[file["SPDXID"]]]
        listed[package["name"], package["versionInfo"], file["fileName"]] = checksum_of(file, "SHA256")
    found = {key: value for path in paths for key, value in files_of(path).items()}
    for key in sorted(listed.keys() | found.keys()):
        if listed.get(key) != found.get(key):
            yield f"{key}: listed with {listed.get(key)}, found with {found.get(key)}"


def faults_of(sbom, paths):
    # What comes later relies on the references.
    return [*reference_faults(sbom)] or [*licence_faults(sbom), *verification_faults(sbom), *file_faults(sbom, paths)]


def main(path, *paths):
    with open(path, encoding="utf-8") as file:
        faults = faults_of(json.load(file), paths)
    for fault in faults[:20]:
        print(f"{path}: {fault}", file=sys.stderr)
    return 1 if faults else 0


if __name__ == "__main__":
    sys.exit(main(*sys.argv[1:]))
