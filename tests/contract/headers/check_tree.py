#!/usr/bin/env python3
# SPDX-FileCopyrightText: 2026 The vornnet authors
# SPDX-License-Identifier: Apache-2.0
"""Checks how headers, sources and tests belong together.

check_tree.py files SOURCE_DIRECTORY      a class has a header, a source and a test of its name
check_tree.py order SOURCE_DIRECTORY      a source defines functions in the order of its header
check_tree.py comments SOURCE_DIRECTORY   the comment of a public class says what users must know
"""

import json
import pathlib
import re
import subprocess
import sys

# Headers of no class of their own, or without a source or a test of their name; each with the reason.
NO_SOURCE = {
    "VornNetExport": "macros",
    "VornNotifyExport": "macros",
    "VornSupportExport": "macros",
    "VornSmartPointer": "a template, instantiated in TemplateInstantiation.cpp",
}
NO_TEST = {
    "VornNetExport": "macros; tests/contract/abi compares what is exported",
    "VornNotifyExport": "macros; tests/contract/abi compares what is exported",
    "VornSupportExport": "macros; tests/contract/abi compares what is exported",
    "VornUnableToResolveAddressException": "tested together with VornUnableToResolveNameException",
}
# Sources without a public header.
NO_HEADER = {
    "Module": "is not visible outside; has a test",
    "TemplateInstantiation": "nothing but instantiations",
}

# One of them in the middle of a line.
WORD_WITHIN_LINE = re.compile(r"^.*[^*\s]\s+(Thread-safety|Blocking|Ownership|Signals|Errors):", re.M)
FIVE_WORDS = ("thread-safety", "blocking", "ownership", "signals", "errors")
# Classes whose comment need not have them.
NO_FIVE_WORDS = {
    "setloglevel": "a level wrapped into a type; everything is said at VornLogging",
}


def too_few(found, least, what):
    """So that a check which no longer understands the sources does not pass."""
    print(f"{found} {what}")
    return [] if found >= least else [f"only {found} {what} were found"]


def public_headers(root):
    """Those that are installed; the libraries' own do not begin with Vorn."""
    return [header for folder in ("include", "notify", "support") for header in sorted((root / folder).glob("*.h"))
            if header.stem.startswith("Vorn") or header.stem == "ModuleData"]


def source_of(header):
    folder = "src" if header.parent.name == "include" else header.parent.name
    return header.parent.parent / folder / f"{header.stem}.cpp"


def check_files(root):
    problems = []
    for header in public_headers(root):
        source = source_of(header)
        tests = list((root / "tests/unit").glob(f"*/{header.stem}Test.cpp"))
        if source.exists() == (header.stem in NO_SOURCE):
            problems.append(f"{header}: " + ("is listed as having no source, but has one" if source.exists()
                                             else f"has no {source}"))
        if bool(tests) == (header.stem in NO_TEST):
            problems.append(f"{header}: " + ("is listed as having no test, but has one" if tests
                                             else f"has no {header.stem}Test.cpp"))
    problems += check_suites(root)
    stems = {header.stem for header in public_headers(root)}
    internal = {header.stem for folder in ("notify", "src", "support") for header in (root / folder).glob("*.h")}
    for folder in ("notify", "src", "support"):
        for source in sorted((root / folder).glob("*.cpp")):
            if source.stem not in stems | internal | set(NO_HEADER):
                problems.append(f"{source}: has no header")
    return problems


def check_suites(root):
    """A class's suites begin with its name, so that one expression selects them all."""
    stems = sorted((header.stem for header in public_headers(root)), key=len, reverse=True)
    for path in sorted((root / "tests/unit").glob("*/Vorn*Test.cpp")):
        name = next((stem for stem in stems if path.stem.startswith(stem)), None)
        if name is None:
            continue
        for suite in sorted(set(re.findall(r"^TEST(?:_F|_P)?\((\w+),", path.read_text(), re.M))):
            if not re.fullmatch(rf"{name}(Test|_\w+)?", suite):
                yield f"{path}: the suite {suite} is not named after {name}"


def parameter_types(parameters):
    """The parameter list without the parameters' names, so that overloads can be told apart."""
    types = []
    for parameter in re.split(r",(?![^<]*>)", parameters):
        parameter = re.sub(r"=.*", "", parameter)
        words = re.findall(r"[\w:]+(?:<[^>]*>)?|[&*]", parameter)
        named = len(words) > 1 and re.match(r"\w+$", words[-1])
        if named and words[-2] not in ("const", "unsigned", "struct"):
            words.pop()
        types.append(" ".join(re.sub(r"^.*::", "", word) for word in words))
    return ", ".join(types)


def functions(path):
    """(class, name, types of the parameters) of each function of a class, in the order of the file."""
    # The program overlooks a destructor that overrides.
    command = ["ctags", "-D", "override=", "--languages=C++", "--langmap=C++:+.h", "--kinds-C++=pf", "--fields=+S",
               "--sort=no", "--output-format=json", "-o", "-", path]
    for line in subprocess.run(command, check=True, capture_output=True, text=True).stdout.splitlines():
        tag = json.loads(line)
        if tag.get("scopeKind") == "class" and "signature" in tag:
            yield tag["scope"].split("::")[-1], tag["name"], parameter_types(tag["signature"][1:-1])


def order_problems(header, source):
    """What is defined of the header's classes, where it stands too late or was never declared."""
    declared = list(functions(header))
    last = {}
    for function in functions(source):
        name = "{}::{}({})".format(*function)
        if function in declared:
            place = declared.index(function)
            latest = last.setdefault(function[0], place)
            if place < latest:
                yield f"{name} is defined after {function[0]}::{declared[latest][1]}"
            last[function[0]] = max(latest, place)
        elif any(function[0] == one[0] for one in declared):
            yield f"{name} is not in the header"


def check_order(root):
    pairs = [(header, source_of(header)) for header in public_headers(root) if source_of(header).exists()]
    problems = [f"{source}: {problem}" for header, source in pairs for problem in order_problems(header, source)]
    return problems + too_few(sum(len(list(functions(source))) for _, source in pairs), 200, "definitions")


def class_comments(header_text):
    """(class, the comment before it) of each exported class and class template."""
    pattern = r"(?P<comment>/\*\*(?:(?!\*/).)*\*/)?\s*(?:template\s*<[^>]*>\s*)?\n(?:template[^\n]*\n)?" \
              r"class\s+(?:\w+_API\s+)?(?P<name>\w+)[^;{()]*\{"
    for match in re.finditer(pattern, header_text, flags=re.S):
        if not re.search(r"\n[ \t]+class", match.group(0)):
            yield match.group("name"), match.group("comment") or ""


def check_comments(root):
    problems = []
    checked = 0
    for header in public_headers(root):
        for name, comment in class_comments(header.read_text()):
            checked += 1
            missing = [word for word in FIVE_WORDS if word not in comment.lower()]
            if bool(missing) != (name in NO_FIVE_WORDS):
                problems.append(f"{header}: the comment of {name} says nothing of {', '.join(missing)}"
                                if missing else f"{header}: {name} is listed as an exception and is none")
            word = WORD_WITHIN_LINE.search(comment)
            if word:
                problems.append(f"{header}: in the comment of {name}, {word.group(1)} does not begin a line")
    return problems + too_few(checked, 30, "classes")


def main(arguments):
    checks = {"files": check_files, "order": check_order, "comments": check_comments}
    if len(arguments) != 2 or arguments[0] not in checks:
        sys.exit(__doc__)
    problems = checks[arguments[0]](pathlib.Path(arguments[1]))
    for problem in problems:
        print(problem)
    return 1 if problems else 0


if __name__ == "__main__":
    sys.exit(main(sys.argv[1:]))
