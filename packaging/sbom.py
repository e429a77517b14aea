#!/usr/bin/python3
# SPDX-FileCopyrightText: 2026 The vornnet authors
# SPDX-License-Identifier: Apache-2.0
"""Writes a bill of materials (SPDX 2.3, JSON) of Debian packages made of this tree.

It depends on nothing but the packages, the versions of what they were built with and SOURCE_DATE_EPOCH, so the same
packages give the same bytes. It leaves itself out of the list of files, for it may be in one of the packages.
"""

import argparse
import datetime
import hashlib
import json
import os
import re
import subprocess
import sys

from debian.debfile import DebFile

OWN_NAME = "vornnet.spdx.json.gz"
HOMEPAGE = "https://vornnet.example/"
SUPPLIER = "Organization: The vornnet authors"
COPYRIGHT = "2026 The vornnet authors"
LICENCE = "Apache-2.0"

# Libraries of which parts are compiled into the programs, by the Debian package they come from.
COMPILED_IN = {
    "libcli11-dev": ("CLI11", "BSD-3-Clause", "https://github.com/CLIUtils/CLI11"),
    "nlohmann-json3-dev": ("nlohmann-json", "MIT", "https://github.com/nlohmann/json"),
}
PROGRAMS = ("vornnet-relay", "vornnet-tools")
THEME = re.compile("/(scripts|styles|copy-?button[^/]*|check-solid.svg|skeleton.css|debug.css)(/|$)")


def installed_version(package):
    """The version it has on the machine that builds, or None."""
    result = subprocess.run(["dpkg-query", "-W", "-f=${Version}", package], stdout=subprocess.PIPE,
                            stderr=subprocess.DEVNULL, check=False)
    return result.stdout.decode() or None


def identifier(kind, name):
    return f"SPDXRef-{kind}-" + re.sub(r"[^A-Za-z0-9.-]", "-", name)


def reference(package):
    """By what tools that look for known faults know a package."""
    return [{"referenceCategory": "PACKAGE-MANAGER", "referenceType": "purl", "referenceLocator": f"pkg:deb/{package}"}]


def licences_in(name, content):
    """What a file says of its licences itself; files without a mark have that of the project."""
    text = content.decode("utf-8", "replace")
    # Put together, so that nobody takes this line for a mark of its own.
    found = set(re.findall("SPDX-License" + r"-Identifier: ([A-Za-z0-9.-]+)", text))
    if not found and "/html/_static/" in name and not name.endswith("/manual.css"):
        # Parts of the site that come with the program that renders it, or, in most cases so named, with its theme.
        found = {"MIT" if re.search(r"\bMIT\b", text) or THEME.search(name) else "BSD-2-Clause"}
    return sorted(found) or [LICENCE]


class Package:
    """One Debian package, read from its file."""

    def __init__(self, path):
        with DebFile(path) as package:
            self.fields, archive = package.debcontrol(), package.data.tgz()
            contents = {member.name: archive.extractfile(member).read() for member in archive if member.isfile()}
        self.name, self.version = self.fields["Package"], self.fields["Version"]
        self.id = identifier("Package", self.name)
        self.left_out = []
        self.files = []
        for name in sorted(contents):
            self.add_file(name, contents[name])

    def add_file(self, name, content):
        if os.path.basename(name) == OWN_NAME:
            self.left_out.append(name)
            return
        licences = licences_in(name, content)
        self.files.append({
            "SPDXID": identifier("File", f"{self.name}-{len(self.files)}"),
            "fileName": name,
            "checksums": [{"algorithm": kind.upper(), "checksumValue": hashlib.new(kind, content).hexdigest()}
                          for kind in ("sha1", "sha256")],
            "licenseConcluded": " AND ".join(licences),
            "licenseInfoInFiles": licences,
            "copyrightText": COPYRIGHT if licences == [LICENCE] else "NOASSERTION",
        })

    def dependencies(self):
        """Names of the packages it depends on; of alternatives the first."""
        names = (entry.split("|")[0].split("(")[0].strip() for entry in self.fields.get("Depends", "").split(","))
        return [name for name in names if name]

    def verification_code(self):
        sums = sorted(file["checksums"][0]["checksumValue"] for file in self.files)
        return hashlib.sha1("".join(sums).encode()).hexdigest()

    def describe(self):
        licences = sorted({licence for file in self.files for licence in file["licenseInfoInFiles"]})
        code = {"packageVerificationCodeValue": self.verification_code()}
        if self.left_out:
            code["packageVerificationCodeExcludedFiles"] = self.left_out
        return {
            "SPDXID": self.id,
            "name": self.name,
            "versionInfo": self.version,
            "supplier": SUPPLIER,
            "downloadLocation": "NOASSERTION",
            "homepage": HOMEPAGE,
            "filesAnalyzed": True,
            "packageVerificationCode": code,
            "licenseConcluded": " AND ".join(licences),
            "licenseDeclared": LICENCE,
            "licenseInfoFromFiles": licences,
            "copyrightText": COPYRIGHT,
            "externalRefs": reference(f"vornnet/{self.name}@{self.version}?arch={self.fields['Architecture']}"),
        }


def package_not_analyzed(spdx_id, name, supplier, licence):
    return {
        "SPDXID": spdx_id,
        "name": name,
        "supplier": supplier,
        "downloadLocation": "NOASSERTION",
        "filesAnalyzed": False,
        "licenseConcluded": "NOASSERTION",
        "licenseDeclared": licence,
        "copyrightText": "NOASSERTION",
    }


def foreign_package(debian_name, name, licence="NOASSERTION", **further):
    version = installed_version(debian_name)
    if version:
        further |= {"versionInfo": version, "externalRefs": reference(f"debian/{debian_name}@{version}")}
    return package_not_analyzed(identifier("Package", debian_name), name, "Organization: Debian", licence) | further


def source_package(version):
    return package_not_analyzed("SPDXRef-Source", "vornnet", SUPPLIER, LICENCE) | {
        "versionInfo": version, "homepage": HOMEPAGE, "licenseConcluded": LICENCE, "copyrightText": COPYRIGHT}


def relation(first, kind, second):
    return {"spdxElementId": first, "relationshipType": kind, "relatedSpdxElement": second}


def document(packages, epoch):
    own_names = {package.name: package for package in packages}
    version = packages[0].version
    relations = [relation("SPDXRef-DOCUMENT", "DESCRIBES", package.id) for package in packages]
    foreign = {}
    for package in packages:
        relations.append(relation(package.id, "GENERATED_FROM", "SPDXRef-Source"))
        relations += [relation(package.id, "CONTAINS", file["SPDXID"]) for file in package.files]
        for name in package.dependencies():
            if name not in own_names:
                foreign.setdefault(name, foreign_package(name, name))
            relations.append(relation(package.id, "DEPENDS_ON", identifier("Package", name)))
    for program in sorted(own_names.keys() & set(PROGRAMS)):
        for debian_name, (name, licence, homepage) in COMPILED_IN.items():
            foreign[debian_name] = foreign_package(debian_name, name, licence, homepage=homepage)
            relations.append(relation(own_names[program].id, "STATIC_LINK", identifier("Package", debian_name)))
    result = {
        "spdxVersion": "SPDX-2.3",
        "dataLicense": "CC0-1.0",
        "SPDXID": "SPDXRef-DOCUMENT",
        "name": f"vornnet-{version}",
        "creationInfo": {
            "created": datetime.datetime.fromtimestamp(epoch, datetime.timezone.utc).strftime("%Y-%m-%dT%H:%M:%SZ"),
            "creators": [SUPPLIER, "Tool: vornnet-sbom"],
        },
        "packages": [package.describe() for package in packages] + [source_package(version.rsplit("-", 1)[0])] +
                    [foreign[name] for name in sorted(foreign)],
        "files": [file for package in packages for file in package.files],
        "relationships": relations,
    }
    # Two documents must not have one name; what follows from the content is as good as a random one, and repeatable.
    digest = hashlib.sha256(json.dumps(result, sort_keys=True).encode()).hexdigest()
    result["documentNamespace"] = f"{HOMEPAGE}spdx/vornnet-{version}-{digest[:32]}"
    return result


def main():
    parser = argparse.ArgumentParser(description=__doc__.splitlines()[0])
    parser.add_argument("--output", required=True)
    parser.add_argument("packages", nargs="+", metavar="DEB")
    options = parser.parse_args()
    epoch = os.environ.get("SOURCE_DATE_EPOCH", "")
    if not epoch.isdigit():
        sys.exit("sbom.py: SOURCE_DATE_EPOCH is not set, and the time of this moment would be in the result")
    packages = sorted((Package(path) for path in options.packages), key=lambda package: package.name)
    with open(options.output, "w", encoding="utf-8") as file:
        json.dump(document(packages, int(epoch)), file, indent=1)
        file.write("\n")


if __name__ == "__main__":
    main()
