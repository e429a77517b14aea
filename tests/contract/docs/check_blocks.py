#!/usr/bin/env python3
# SPDX-FileCopyrightText: 2026 The vornnet authors
# SPDX-License-Identifier: Apache-2.0
"""Compiles, runs or compares every fenced block of a document: check_blocks.py DOCUMENT BUILD_DIRECTORY COMPILER

It is run within docs_sandbox, where the pipe directory is as the packages set it up; no document may change that.

The fence names the language alone. Whatever else the check has to know is in a comment on the line before the fence,
<!-- block: WORDS -->, which no renderer shows. An unknown word fails.

cpp                   declarations, compiled with what they include themselves
cpp, body             statements of a function
cpp, run              a program, compiled and run; the next block, text, output, is what it prints
cpp, file=NAME        a program, saved under that name for the commands that follow
cpp, with="TEXT"      also: TEXT is put before what is compiled; for what the block leaves out
text, output          what the program before it prints
console               a terminal: lines with "$ " are run, the others are what is printed. "..." stands for any text, on
                      a line of its own for any lines; the first name like quorax1f3a stands for whatever is there, and
                      from then on for the same. A command that fails, fails the test.
console, later        the same, running beside the blocks that follow; it has to end by itself, or at a line "^C"
console, after        the same, when everything that runs beside has ended
sh                    commands that only have to succeed
text, example         values in the notation of `vornnet encode`, then their bytes, then, when they are read as others,
                      those; compared with the tool in both directions
console, gdb|tshark   sessions that tests of their own run
any, of=PATH          an excerpt: its lines stand in that file of the tree, one after the other
cmake, ini, of=PATH   the same, of a file for another program
sh, not-run=WHY       is not run, for one of the REASONS; its syntax is checked
"""
import os
import pathlib
import re
import shlex
import signal
import subprocess
import sys
import tempfile
import textwrap
import time

REASONS = {
    "packages": "installs packages on the host",
    "host": "changes the host's own files for good",
    "tree": "builds or tests the whole tree, which this test is a part of",
}
# Kinds whose sessions are run by tests of their own, which have to know them.
ELSEWHERE = {"gdb": "tests/companions/debugger/TranscriptTest.cpp",
             "tshark": "tests/companions/dissector/TranscriptTest.cpp"}
KINDS = {"cpp", "cmake", "console", "ini", "sh", "text"} # languages; a text is one of the following
TEXTS = {"output", "example"}
FLAGS = {"body", "run", "later", "after"} | TEXTS | set(ELSEWHERE)
VALUES = {"file", "with", "of", "not-run"}
PIPE_DIRECTORY = "/opt/vorn/hostmgr/var/lib/kestrel/rendez"
PATIENCE = 60
FENCE = re.compile(r"^(\s*)```(.*)$")
MARK = re.compile(r"^\s*<!-- block: (.*) -->$")
SINK_NAME = re.compile(r"quorax[0-9a-f]+(?:-[0-9a-f]{8})?")


class Failure(Exception):
    """What is wrong with a block."""


class Block:
    def __init__(self, line, language, words, text):
        self.line = line
        self.language = language
        self.flags = {word for word in words if "=" not in word}
        self.values = dict(word.split("=", 1) for word in words if "=" in word)
        self.kind = next(iter(self.flags & (TEXTS | set(ELSEWHERE))), language)
        self.text = text

    def check_words(self):
        if self.language not in KINDS or self.kind == "text":
            raise Failure(f"a block of the unknown kind \"{self.language}\"")
        unknown = (self.flags - FLAGS) | (set(self.values) - VALUES)
        if unknown:
            raise Failure(f"unknown words: {sorted(unknown)}")

    def lines(self):
        return self.text.splitlines()


def blocks_of(text):
    blocks, start, language, words, collected = [], None, "", [], []
    for number, line in enumerate(text.splitlines(), 1):
        match, mark = FENCE.match(line), MARK.match(line)
        if match and start is None:
            start, language, collected = number, match.group(2), []
        elif match and not match.group(2).strip():
            blocks.append(Block(start, language, words, textwrap.dedent("\n".join(collected)) + "\n"))
            start, words = None, []
        elif start is not None:
            collected.append(line)
        elif mark:
            words = shlex.split(mark.group(1))
        elif words:
            raise Failure(f"line {number}: no block follows the comment")
    if start is not None:
        raise Failure(f"line {start}: the block has no end")
    return blocks


class Names:
    """Which text of the document stands for which of this run."""

    def __init__(self):
        self.actual = {}

    def into_command(self, command):
        return SINK_NAME.sub(lambda match: self.actual.get(match.group(0), match.group(0)), command)

    def pattern(self, line):
        """A regular expression for a shown line, with a group for each name that is new."""
        parts, new = [], []
        for piece in re.split(rf"(\.\.\.|{SINK_NAME.pattern})", line):
            if piece == "...":
                parts.append(".*")
            elif SINK_NAME.fullmatch(piece) and piece not in self.actual and piece not in new:
                parts.append(f"({SINK_NAME.pattern})")
                new.append(piece)
            else:
                parts.append(re.escape(self.actual.get(piece, piece)))
        return re.compile("".join(parts) + r"\s*"), new

    def matches(self, shown, printed):
        pattern, new = self.pattern(shown)
        match = pattern.fullmatch(printed)
        if match:
            self.actual.update(zip(new, match.groups()))
        return match is not None

    def compare(self, shown, printed):
        """Compares lines; a shown line "..." matches any number of them."""
        if not shown:
            return not printed
        if shown[0].strip() == "...":
            return any(self.compare(shown[1:], printed[skipped:]) for skipped in range(len(printed) + 1))
        return bool(printed) and self.matches(shown[0], printed[0]) and self.compare(shown[1:], printed[1:])


def difference(shown, printed):
    return "the document shows\n{}\nand this was printed\n{}".format(
        textwrap.indent("\n".join(shown), "    "), textwrap.indent("\n".join(printed), "    "))


class Session:
    """The commands of a terminal: [(command, lines shown, whether it ends at ^C)]."""

    def __init__(self, block):
        self.commands = []
        lines = block.lines()
        while lines:
            line = lines.pop(0)
            if not line.startswith("$ "):
                raise Failure("a terminal's first line is a command after \"$ \"")
            command = [line[2:]]
            while command[-1].endswith("\\"):
                command.append(lines.pop(0).removeprefix("> "))
            here = re.search(r"<<'?(\w+)'?", line)
            while here and command[-1].strip() != here.group(1):
                command.append(lines.pop(0).removeprefix("> "))
            shown = []
            while lines and not lines[0].startswith("$ "):
                shown.append(lines.pop(0))
            interrupted = bool(shown) and shown[-1] == "^C"
            self.commands.append(("\n".join(command), shown[:-1] if interrupted else shown, interrupted))


class Later:
    """A command that runs beside others."""

    def __init__(self, document, command, shown, interrupted):
        self.document, self.command, self.shown, self.interrupted = document, command, shown, interrupted
        self.output = tempfile.NamedTemporaryFile("w+")
        self.process = document.start(command, self.output)
        self.await_first_line()

    def printed(self):
        return pathlib.Path(self.output.name).read_text().splitlines()

    def await_first_line(self):
        end = time.monotonic() + PATIENCE
        while self.shown and not self.printed() and self.process.poll() is None and time.monotonic() < end:
            time.sleep(0.01)
        if self.shown and not (self.printed() and self.document.names.matches(self.shown[0], self.printed()[0])):
            os.killpg(self.process.pid, signal.SIGKILL)
            raise Failure(difference(self.shown[:1], self.printed()))

    def finish(self):
        end = time.monotonic() + PATIENCE
        while self.interrupted and len(self.printed()) < len(self.shown) and time.monotonic() < end:
            time.sleep(0.01)
        if self.interrupted:
            os.killpg(self.process.pid, signal.SIGINT)
        try:
            status = self.process.wait(PATIENCE)
        except subprocess.TimeoutExpired:
            os.killpg(self.process.pid, signal.SIGKILL)
            raise Failure(f"{self.command}: has not come to its end; it printed {self.printed()}") from None
        if status not in ((0, 128 + signal.SIGINT, -signal.SIGINT) if self.interrupted else (0,)):
            raise Failure(f"{self.command}: exit status {status}; it printed {self.printed()}")
        if not self.document.names.compare(self.shown, self.printed()):
            raise Failure(difference(self.shown, self.printed()))


class Document:
    def __init__(self, path, build, compiler, work):
        self.path, self.build, self.compiler, self.work = path, build, compiler, work
        self.tree = pathlib.Path(__file__).resolve().parents[3]
        self.names = Names()
        self.later = []
        self.printed = None
        self.not_run = []
        self.environment = None

    def install(self):
        """Installs the libraries and the tool for the commands, which find them as on a machine that has them."""
        stage = self.work / "stage"
        for component in ("runtime", "development", "notify", "notify_development", "tools"):
            subprocess.run(["cmake", "--install", self.build, "--prefix", stage, "--component", component],
                           check=True, capture_output=True)
        libraries = next(stage.rglob("libvornnet.so")).parent
        # What a document calls program.cpp without showing it.
        (self.work / "program.cpp").write_text("#include <VornPipeConnection.h>\n"
                                               "int main() { VornNet::VornPipeConnection connection(\"x\"); }\n")
        # The sandbox's group file cannot be replaced; it has the group already.
        for name, script in (("sudo", 'exec "$@"'), ("groupadd", "true"), ("usermod", "true")):
            stand_in = stage / "bin" / name
            stand_in.write_text(f"#!/bin/sh\n{script}\n")
            stand_in.chmod(0o755)
        clean = {name: os.environ[name] for name in ("HOME", "PATH", "TERM", "ASAN_OPTIONS") if name in os.environ}
        self.environment = clean | {
            "PATH": f"{stage}/bin:{os.environ['PATH']}", "LD_LIBRARY_PATH": str(libraries), "USER": "root",
            "PKG_CONFIG_PATH": f"{libraries}/pkgconfig", "CMAKE_PREFIX_PATH": str(stage), "LC_ALL": "C.UTF-8"}

    def start(self, command, output):
        if self.environment is None:
            self.install()
        return subprocess.Popen(["bash", "-c", command], cwd=self.work, env=self.environment, stdin=subprocess.DEVNULL,
                                stdout=output, stderr=subprocess.STDOUT, start_new_session=True)

    def run(self, command):
        """@return the lines that it prints"""
        with tempfile.TemporaryFile("w+") as output:
            process = self.start(command, output)
            try:
                status = process.wait(PATIENCE)
            except subprocess.TimeoutExpired:
                os.killpg(process.pid, signal.SIGKILL)
                raise Failure(f"{command}: has not come to its end") from None
            output.seek(0)
            printed = output.read()
        if status != 0:
            raise Failure(f"{command}: exit status {status}\n{printed}")
        return printed.splitlines()

    def compile(self, source, *arguments):
        folders = [f"-I{self.tree}/{folder}" for folder in ("include", "notify", "support")]
        result = subprocess.run([self.compiler, "-std=c++17", "-Wall", "-Wextra", *folders, "-x", "c++", source, "-x",
                                 "none", *arguments], capture_output=True, text=True, check=False)
        if result.returncode != 0:
            raise Failure(result.stderr)

    def check_cpp(self, block):
        context = block.values.get("with", "") + "\n"
        if "file" in block.values:
            (self.work / block.values["file"]).write_text(block.text)
        elif "run" in block.flags:
            self.run_program(block)
        else:
            includes, text = re.fullmatch(r"((?:#include [^\n]*\n|\n)*)(.*)", block.text, re.S).groups()
            text = "void body() {\n" + text + "}\n" if "body" in block.flags else text
            using = "using namespace VornNet;\n" if "Vorn" in includes else ""
            source = self.work / "block.cpp"
            source.write_text(includes + using + context + text)
            self.compile(source, "-fsyntax-only", "-Wno-unused-function", "-Wno-unused-variable")

    def run_program(self, block):
        if self.environment is None:
            self.install()
        source, program = self.work / f"block-{block.line}.cpp", self.work / f"block-{block.line}"
        source.write_text(block.text)
        libraries = self.environment["LD_LIBRARY_PATH"]
        self.compile(source, "-o", program, f"-L{libraries}", "-lvornnotify", "-lvornnet", "-lvornsupt", "-pthread")
        self.printed = self.run(f"./{program.name}")

    def check_output(self, block):
        if self.printed is None:
            raise Failure("there is no program before it")
        if not self.names.compare(block.lines(), self.printed):
            raise Failure(difference(block.lines(), self.printed))
        self.printed = None

    def finish_later(self):
        sessions, self.later = self.later, []
        for session in sessions:
            session.finish()

    def check_console(self, block):
        if "after" in block.flags:
            self.finish_later()
        for command, shown, interrupted in Session(block).commands:
            command = self.names.into_command(command)
            if "later" in block.flags:
                self.later.append(Later(self, command, shown, interrupted))
                continue
            printed = self.run(command)
            if not self.names.compare(shown, printed):
                raise Failure(f"{command}\n{difference(shown, printed)}")

    def check_sh(self, block):
        self.run("set -e\n" + self.names.into_command(block.text))

    def check_example(self, block):
        values, shown, *read = block.lines()
        values, bytes_shown = values.split(), " ".join(shown.split())
        encoded = self.run("vornnet encode --json " + " ".join(values))[0]
        if f'"hex":"{bytes_shown}"' not in encoded:
            raise Failure(f"encoded it is {encoded}")
        types = ",".join("ack" if value in ("ack", "error") else value.split(":")[0] for value in values)
        decoded = self.run(f"echo {bytes_shown} | vornnet decode --hex --types {types}")
        expected = self.run("vornnet encode " + (read[0] if read else " ".join(values)))
        if [re.sub(r"^.*?  +", "", line) for line in decoded] != [re.sub(r"^.*?  +", "", line) for line in expected]:
            raise Failure(difference(expected, decoded))

    def check_excerpt(self, block):
        def bare(text):
            return [line.strip() for line in text.splitlines() if line.strip()]
        lines, whole = bare(block.text), bare((self.tree / block.values["of"]).read_text())
        if not any(whole[at:at + len(lines)] == lines for at in range(len(whole))):
            raise Failure(f"stands nowhere in {block.values['of']}")

    def check_elsewhere(self, block):
        if f"<!-- block: {block.kind} -->" not in (self.tree / ELSEWHERE[block.kind]).read_text():
            raise Failure(f"{ELSEWHERE[block.kind]} does not know blocks of the kind {block.kind}")

    def check_not_run(self, block):
        if block.values["not-run"] not in REASONS or block.kind not in ("sh", "console"):
            raise Failure(f"not-run is for sh and console, and for one of {sorted(REASONS)}")
        commands = re.sub(r"(?m)^\$ ", "", block.text)
        looked_at = subprocess.run(["bash", "-n", "-c", commands], capture_output=True, text=True, check=False)
        if looked_at.returncode != 0:
            raise Failure(looked_at.stderr)
        self.not_run.append(f"{self.path.name}:{block.line}: {REASONS[block.values['not-run']]}")

    def check(self, block):
        block.check_words()
        if "not-run" in block.values:
            self.check_not_run(block)
        elif "of" in block.values:
            self.check_excerpt(block)
        elif block.kind in ELSEWHERE:
            self.check_elsewhere(block)
        elif block.kind in ("cmake", "ini"):
            raise Failure("is no excerpt")
        else:
            getattr(self, "check_" + block.kind)(block)

    @staticmethod
    def pipe_directory():
        """@return who owns the directory that the packages have set up, and who may use it"""
        found = os.stat(PIPE_DIRECTORY)
        return found.st_ino, found.st_uid, found.st_gid, oct(found.st_mode)

    def check_all(self):
        failures, before = 0, self.pipe_directory()
        blocks = blocks_of(self.path.read_text())
        for block in blocks:
            try:
                self.check(block)
            except (Failure, subprocess.CalledProcessError, ValueError) as failure:
                failures += 1
                print(f"{self.path}:{block.line}: {failure}")
        try:
            self.finish_later()
        except Failure as failure:
            failures += 1
            print(f"{self.path}: {failure}")
        if self.pipe_directory() != before:
            failures += 1
            print(f"{self.path}: the pipe directory was {before} and is {self.pipe_directory()}")
        print(f"{self.path.name}: {len(blocks)} blocks, {len(self.not_run)} of them not run, {failures} wrong")
        for line in self.not_run:
            print(f"not run: {line}")
        return failures


def main(arguments):
    if len(arguments) != 3:
        sys.exit(__doc__)
    path, build, compiler = pathlib.Path(arguments[0]).resolve(), pathlib.Path(arguments[1]).resolve(), arguments[2]
    with tempfile.TemporaryDirectory() as work:
        try:
            return 1 if Document(path, build, compiler, pathlib.Path(work)).check_all() else 0
        except Failure as failure: # the blocks could not even be told apart
            sys.exit(f"{path}: {failure}")


if __name__ == "__main__":
    sys.exit(main(sys.argv[1:]))
