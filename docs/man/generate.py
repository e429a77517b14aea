#!/usr/bin/env python3
# SPDX-FileCopyrightText: 2026 The vornnet authors
# SPDX-License-Identifier: Apache-2.0
"""Makes manual pages of the headers' comments: generate.py XML_DIRECTORY OUTPUT_DIRECTORY

Of Doxygen's XML: one page in section 3 for each public class and for each header of free functions, with the free
functions of a class's header on its page; and vornnet(7), whose text stands beside this file, with a list of them all.
"""
import pathlib
import re
import sys
import textwrap
import xml.etree.ElementTree

TREE = pathlib.Path(__file__).resolve().parent.parent.parent
# In two pieces, or it would be taken for a mark of this file.
LICENCE = '.\\" SPDX-FileCopyrightText: 2026 The vornnet authors\n.\\" SPDX-License' '-Identifier: Apache-2.0\n'
# What a page is about, where its header has no class of that name.
HEADERS = {"VornSleep": "sleep for some milliseconds", "VornString": "texts, and conversions between their kinds",
           "VornUtilities": "look up names and addresses of hosts"}
PROMISES = ("Thread-safety", "Blocking", "Ownership", "Signals")
ACCESS = {"public": "Operations", "protected": "For derived classes"}


def date():
    """The date of the tool's pages, so that the same tree gives the same pages."""
    return re.search(r"^\.Dd (.*)$", (TREE / "tools/man/vornnet.1").read_text(), re.M).group(1)


def escaped(text):
    return text.replace("\\", "\\e")


class Text:
    """Running text, in bold where it is code, with one sentence in a line."""

    def __init__(self):
        self.text, self.listings = "", []

    def add(self, element):
        self.text += escaped(element.text or "")
        for child in element:
            if child.tag == "computeroutput":
                self.text += f"\\fB{escaped(''.join(child.itertext()))}\\fR"
            elif child.tag == "sp":
                self.text += " "
            elif child.tag == "programlisting":
                self.text += f"\0{len(self.listings)}\0"
                self.listings.append(listing(child))
            elif child.tag not in BLOCKS:
                self.add(child)
            self.text += escaped(child.tail or "")
        return self

    def lines(self):
        lines = []
        for number, part in enumerate(self.text.split("\0")):
            if number % 2:
                lines += self.listings[int(part)]
            else:
                lines = with_break(lines, self.wrapped(part))
        return lines

    @staticmethod
    def wrapped(text):
        text = " ".join(text.split())
        lines = []
        for sentence in re.split(r"(?<=[.!?]) (?=[A-Z])", text):
            lines += textwrap.wrap(sentence, 78, break_long_words=False, break_on_hyphens=False)
        return ["\\&" + line if line.startswith((".", "'")) else line for line in lines]


BLOCKS = {"simplesect", "parameterlist", "itemizedlist", "xrefsect", "verbatim"}


def paragraph(element):
    """The lines of a <para>, without what is said in lists and sections of it."""
    return Text().add(element).lines()


def paragraphs(parent):
    """The running text of a description: paragraphs and programs, with .Pp between them."""
    result = []
    for para in parent.findall("para") if parent is not None else []:
        result = with_break(result, paragraph(para))
    return result


def with_break(first, second):
    return first + ([".Pp"] if first and second else []) + second


def listing(program):
    rows = [Text().add(row) for row in program.findall("codeline")]
    code = [re.sub(r"^([.'])", r"\\&\1", row.text.rstrip()) for row in rows]
    return [".Bd -literal -offset indent", *code, ".Ed"]


def sections(parent, kind, title=None):
    for section in parent.iter("simplesect") if parent is not None else []:
        if section.get("kind") == kind and (title is None or section.findtext("title") == title):
            yield section


def joined(section):
    lines = []
    for para in section.findall("para"):
        lines += paragraph(para)
    return lines


def described(member, kind):
    """[(name, lines)] of parameters or exceptions."""
    found = []
    for group in member.iter("parameterlist"):
        if group.get("kind") == kind:
            for item in group.findall("parameteritem"):
                name = ", ".join("".join(part.itertext()) for part in item.iter("parametername"))
                lines = []
                for para in item.find("parameterdescription").findall("para"):
                    lines += paragraph(para)
                found.append((name, lines))
    return found


def type_text(element):
    text = "".join(element.itertext()) if element is not None else ""
    text = re.sub(r"\bVorn(Net|Support)::(?=\w)", "", re.sub(r"VORN\w+_(API|LOCAL) ", "", text))
    text = re.sub(r"< ", "<", re.sub(r" >", ">", text))
    return re.sub(r" ([&*]+)", r"\1 ", text).replace("& ,", "&,").replace("& )", "&)").strip()


def signature(member):
    arguments = type_text(member.find("argsstring")).replace(" override", "").replace("=0", " = 0")
    before = [word for word, says in (("static", member.get("static") == "yes"),
                                      ("explicit", member.get("explicit") == "yes"),
                                      ("virtual", member.get("virt") == "pure-virtual")) if says]
    if member.get("kind") == "typedef":
        return re.sub(r"(using )\w+::|\s+(?=\s)", r"\1", type_text(member.find("definition")))
    if member.get("kind") == "enum":
        values = ", ".join(value.findtext("name") for value in member.findall("enumvalue"))
        return f"enum {member.findtext('name')} {{ {values} }}"
    words = [*before, type_text(member.find("type")), member.findtext("name") + arguments]
    return " ".join(word for word in words if word)


def sentence(lines, word):
    """Lines that continue a word, such as "Returns", as one sentence or more."""
    text = Text()
    text.text = f"{word} {' '.join(lines)}".rstrip(".") + "."
    return text.lines()


def entry(member):
    """One operation: its signature, and all that is said of it."""
    lines = [f'.It Cm "{escaped(signature(member))}"']
    text = paragraphs(member.find("briefdescription"))
    text = with_break(text, paragraphs(member.find("detaileddescription")))
    for section in sections(member.find("detaileddescription"), "return"):
        text += sentence(joined(section), "Returns")
    for section in sections(member.find("briefdescription"), "return"):
        text += sentence(joined(section), "Returns")
    parameters = described(member, "param")
    if parameters:
        text += [".Bl -tag -width Ds -compact"]
        for name, meaning in parameters:
            text += [f".It Fa {name}", *meaning]
        text += [".El"]
    for name, meaning in described(member, "exception"):
        text += sentence(meaning, f"Throws {name}" if name else "Throws")
    values = [(value.findtext("name"), paragraphs(value.find("briefdescription")))
              for value in member.findall("enumvalue")]
    if any(meaning for _, meaning in values):
        text += [".Bl -tag -width Ds -compact"]
        for name, meaning in values:
            text += [f".It Dv {name}", *meaning]
        text += [".El"]
    return lines + [line for line in text if line]


def is_documented(member):
    return any("".join(member.find(part).itertext()).strip() for part in ("briefdescription", "detaileddescription"))


def members(compound, access, kinds=("function", "typedef", "enum")):
    found = [member for member in compound.iter("memberdef")
             if member.get("prot") == access and member.get("kind") in kinds and is_documented(member)]
    return sorted(found, key=lambda member: int(member.find("location").get("line")))


class Page:
    def __init__(self, name, header):
        self.name, self.header = name, header
        self.brief, self.synopsis, self.description, self.groups, self.errors, self.related = "", [], [], [], [], set()

    def add_promises(self, detail):
        entries = [line for title in PROMISES for section in sections(detail, "par", title)
                   for line in (f".It {title}", *joined(section))]
        if entries:
            self.groups.append(("Threads, blocking, ownership and signals", entries))
        self.errors = [line for section in sections(detail, "par", "Errors") for line in joined(section)]

    def text(self, everybody):
        lines = [f".Dd {date()}", f".Dt {self.name.upper()} 3", ".Os", ".Sh NAME", f".Nm {self.name}",
                 f".Nd {escaped(self.brief)}", ".Sh SYNOPSIS", f".In {self.header}", *self.synopsis,
                 ".Pp", "Link with:", ".Dl $(pkg-config --cflags --libs vornnet)", ".Sh DESCRIPTION",
                 *self.description]
        for title, entries in self.groups:
            lines += [f".Ss {title}", ".Bl -tag -width Ds", *entries, ".El"]
        if self.errors:
            lines += [".Sh ERRORS", *self.errors]
        related = sorted((self.related & everybody) - {self.name}, key=str.lower)
        lines += [".Sh SEE ALSO"] + [f".Xr {name} 3 ," for name in related] + [".Xr vornnet 7"]
        return LICENCE + "\n".join(lines) + "\n"


def lower_first(text):
    word = text.split(" ")[0]
    return text[0].lower() + text[1:] if text and re.fullmatch(r"[A-Z][a-z]*,?", word) else text


def one_line(description):
    """What a page is, from the first sentence of a comment: without article and explanation."""
    text = re.split(r"(?<=\w)[.:;](?: |$)", " ".join("".join(description.itertext()).split()))[0]
    return lower_first(re.sub(r"^(A|An|The) ", "", text))


def class_page(compound, name):
    page = Page(name, compound.findtext("includes"))
    page.brief = one_line(compound.find("briefdescription"))
    bases = [base.text for base in compound.findall("basecompoundref")]
    template = compound.find("templateparamlist")
    page.synopsis = ([".Bd -literal"]
                     + (["template <typename T>"] if template is not None else [])
                     + [f"class {compound.findtext('compoundname')}"
                        + (" : public " + ", public ".join(bases) if bases else "")] + [".Ed"])
    detail = compound.find("detaileddescription")
    page.description = with_break(paragraphs(compound.find("briefdescription")), paragraphs(detail))
    page.add_promises(detail)
    for access, title in ACCESS.items():
        entries = [line for member in members(compound, access) for line in entry(member)]
        if entries:
            page.groups.append((title, entries))
    page.related = {base.split("::")[-1].split("<")[0] for base in bases}
    page.related |= {other.text.split("::")[-1] for other in compound.findall("derivedcompoundref")}
    page.related |= set(re.findall(r"\bVorn[A-Z]\w+", " ".join(page.description)))
    return page


def header_page(compound, name):
    page = Page(name, compound.findtext("compoundname"))
    page.brief = HEADERS[name]
    detail = compound.find("detaileddescription")
    page.description = (paragraphs(compound.find("briefdescription")) + paragraphs(detail)) or [
        "A function of the library that everything else is built on."]
    page.synopsis = [".Bd -literal", f"namespace {namespace_of(compound)}", ".Ed"]
    page.add_promises(detail)
    return page


def namespace_of(compound):
    return compound.findtext("innernamespace")


def load(folder):
    for path in sorted(folder.glob("*.xml")):
        root = xml.etree.ElementTree.parse(path).getroot()
        yield from root.findall("compounddef")


def make_pages(folder):
    compounds = list(load(folder))
    pages = {}
    for compound in compounds:
        name = compound.findtext("compoundname").split("::")[-1]
        if compound.get("kind") == "class" and compound.get("prot") == "public":
            pages[name] = class_page(compound, name)
    for compound in compounds:
        name = pathlib.PurePath(compound.findtext("compoundname")).stem
        if compound.get("kind") == "file" and name in HEADERS:
            pages[name] = header_page(compound, name)
    for compound in compounds:
        if compound.get("kind") in ("namespace", "file"):
            add_functions(compound, pages)
    return pages


def add_functions(compound, pages):
    """Free functions and types, on the page of their header."""
    for member in members(compound, "public"):
        location = pathlib.PurePath(member.find("location").get("file"))
        page = pages.get(location.stem)
        if page is None or location.suffix != ".h":
            continue
        lines = entry(member)
        title = "Functions and types"
        group = next((entries for name, entries in page.groups if name == title), None)
        if group is None:
            group = []
            page.groups.append((title, group))
        if lines[0] not in group:
            group += lines


def overview(pages):
    text = (TREE / "docs/man/vornnet.7").read_text()
    everything = sorted(pages.values(), key=lambda page: page.name.lower())
    table = "\n".join(f".It Xr {page.name} 3\n{escaped(page.brief)}" for page in everything)
    related = "\n".join(f".Xr {page.name} 3 ," for page in everything).rstrip(" ,")
    return text.replace("@DATE@", date()).replace("@CLASSES@", table).replace("@SEE_ALSO@", related)


def main(arguments):
    if len(arguments) != 2:
        sys.exit(__doc__)
    output = pathlib.Path(arguments[1])
    pages = make_pages(pathlib.Path(arguments[0]))
    for section in ("man3", "man7"):
        (output / section).mkdir(parents=True, exist_ok=True)
    for page in pages.values():
        (output / "man3" / f"{page.name}.3").write_text(page.text(set(pages)))
    (output / "man7" / "vornnet.7").write_text(overview(pages))
    print(f"{len(pages)} pages in section 3")


if __name__ == "__main__":
    main(sys.argv[1:])
