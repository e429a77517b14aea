#!/usr/bin/env python3
# SPDX-FileCopyrightText: 2026 The vornnet authors
# SPDX-License-Identifier: Apache-2.0
"""Compiles what programs may write and what the headers refuse: check_calls.py COMPILER INCLUDES...

A refused piece must be refused by one error, which says what to write instead.
"""
import pathlib
import subprocess
import sys
import tempfile

TRANSFER = """
#include <VornSocketConnection.h>
#include <cstdint>
#include <vector>
using namespace VornNet;
enum Plain { cOne };
struct AsInt { operator int() const { return 1; } };
struct AsText { operator VornString() const { return "x"; } };
void use(VornConnection& connection, VornSocketConnection& derived, const VornSmartPointer<VornConnection>& sp,
         const VornString& sText, const char* text, char* buffer, bool flag, short small, int number, long large) {
    (void)connection, (void)derived, (void)sp, (void)sText, (void)text, (void)buffer, (void)flag, (void)small;
    (void)number, (void)large;
    long error = 0;
    (void)error;
    %s;
}
"""
CONVERSION = """
#include <ModuleData.h>
#include <VornThread.h>
#include <VornUnableToResolveAddressException.h>
#include <VornUnableToResolveNameException.h>
#include <type_traits>
using namespace VornNet;
static_assert(std::is_convertible_v<%s>);
"""
STRING = "#include <VornString.h>\nVornSupport::VornString text%s;\n"
BYTE = "write VornString(1, character) or static_cast<short>(number)"
INTEGER = "write static_cast<int>(number), or <short> or <long>"
FRACTION = "write VornString(std::to_string(number)), or cast to int"
VIEW = "write VornString(view)"
POINTER = "write *pointer, or pointer != nullptr for a bool"
OTHER_STRING = "vornnet needs libstdc++ and its C++11 std::string"

# (frame, piece, what the error says or None, further options)
PIECES = [
    (TRANSFER, ";\n    ".join(f"{object}.transfer({value})" for object in ("connection", "derived", "(*sp)") for value in (
        "sText", "VornString(3, 'x')", '"text"', "text", "buffer", "nullptr", "flag", "true", "small", "number", "7",
        "large", "7L", "large == 3", "cOne", "static_cast<short>(1)", "AsInt()", "AsText()", "std::vector<bool>(1)[0]",
        '{"text", 3}', "text, 4, &error")), None),
    *((TRANSFER, f"derived.transfer({value})", message) for value, message in (
        ("'x'", BYTE), ("sText[0]", BYTE), ("std::uint8_t(1)", BYTE), ("std::int8_t(1)", BYTE),
        ("1u", INTEGER), ("1ul", INTEGER), ("1ll", INTEGER), ("1ull", INTEGER), ("sText.size()", INTEGER),
        ("std::uint16_t(1)", INTEGER), ("L'x'", INTEGER), ("u'x'", INTEGER),
        ("1.5", FRACTION), ("1.5f", FRACTION), ("1.5L", FRACTION), ("std::string_view(sText)", VIEW),
        ("&number", POINTER), ("&connection", POINTER), ("this_is_a_function", POINTER), ("(void*)nullptr", POINTER),
        ("&sText", POINTER), ("sp", POINTER), ("&AsInt::operator int", POINTER))),
    *((CONVERSION, types, None) for types in (
        "const VornString&, VornUnableToResolveNameException", "const VornString&, VornUnableToResolveAddressException",
        "bool, VornSupport::ModuleData", "const VornString&, VornThread")),
    (STRING, "", None),
    (STRING, "", OTHER_STRING, "-D_GLIBCXX_USE_CXX11_ABI=0"),
    (STRING, "", OTHER_STRING, "-stdlib=libc++"),
]


def problem(compiler, includes, folder, piece):
    frame, text, message, *options = piece
    source = folder / "piece.cpp"
    source.write_text(frame.replace("void use", "void this_is_a_function();\nvoid use") % text)
    run = subprocess.run([compiler, "-std=c++17", "-fsyntax-only", "-Wall", "-Wextra", "-Werror", *options,
                          *(f"-I{folder}" for folder in includes), source],
                         capture_output=True, text=True, check=False)
    errors = run.stderr.count(" error: ") + run.stderr.count("fatal error: ")
    if message is None:
        return f"is refused: {run.stderr}" if run.returncode else None
    if run.returncode == 0:
        return "is not refused"
    return None if message in run.stderr and errors == 1 else f"is refused by {errors} errors: {run.stderr}"


def main(compiler, *includes):
    pieces = [piece for piece in PIECES if compiler.startswith("clang") or "-stdlib=libc++" not in piece]
    problems = 0
    with tempfile.TemporaryDirectory() as folder:
        for piece in pieces:
            found = problem(compiler, includes, pathlib.Path(folder), piece)
            if found:
                problems += 1
                print(" ".join(piece[1:2] + piece[3:]), found)
    print(f"{len(pieces)} pieces, {problems} problems")
    return 1 if problems else 0


sys.exit(main(*sys.argv[1:]))
