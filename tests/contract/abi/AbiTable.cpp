// SPDX-FileCopyrightText: 2026 The vornnet authors
// SPDX-License-Identifier: Apache-2.0
#include "AbiTable.h"

#include <algorithm>
#include <cstdint>
#include <cstdlib>
#include <fstream>
#include <iostream>
#include <iterator>
#include <map>
#include <memory>
#include <typeinfo>

#include <cxxabi.h>
#include <dlfcn.h>
#include <elf.h>
#include <link.h>

namespace VornAbi {

namespace {

void replaceAll(std::string& text, const std::string& from, const std::string& to) {
    for (std::size_t at = text.find(from); at != std::string::npos; at = text.find(from, at + to.size()))
        text.replace(at, from.size(), to);
}

std::vector<ClassRow> readClassTable() {
    std::vector<ClassRow> rows;
#define PLAIN(class_, size_) rows.push_back({#class_, size_, sizeof(class_), alignof(class_), "", {}});
#define CLASS(class_, size_)                                                                                 \
    rows.push_back({#class_, size_, sizeof(class_), alignof(class_), typeid(class_).name(), {}});
#define BASE(class_, base_, offset_) rows.back().bases.push_back({#base_, offset_});
#include "Classes.inc"
    return rows;
}

using Exports = std::multimap<const void*, std::string>;

/** Adds what the shared object in @p file exports, which is loaded at @p base. */
void addExports(const std::string& file, std::uintptr_t base, Exports& exports) {
    std::ifstream stream(file, std::ios::binary);
    const std::vector<char> image{std::istreambuf_iterator<char>(stream), {}};
    const auto* header = reinterpret_cast<const ElfW(Ehdr)*>(image.data());
    const auto* sections = reinterpret_cast<const ElfW(Shdr)*>(image.data() + header->e_shoff);
    for (std::size_t i = 0; i < header->e_shnum; ++i) {
        if (sections[i].sh_type != SHT_DYNSYM)
            continue;
        const auto* symbols = reinterpret_cast<const ElfW(Sym)*>(image.data() + sections[i].sh_offset);
        const char* texts = image.data() + sections[sections[i].sh_link].sh_offset;
        for (std::size_t s = 0; s < sections[i].sh_size / sizeof(*symbols); ++s) {
            if (symbols[s].st_shndx != SHN_UNDEF && symbols[s].st_shndx != SHN_ABS) {
                exports.emplace(reinterpret_cast<const void*>(base + symbols[s].st_value),
                                texts + symbols[s].st_name);
            }
        }
    }
}

/** What both libraries export, by address. */
Exports readExports() {
    Exports exports;
    dl_iterate_phdr(
        [](dl_phdr_info* info, std::size_t, void* data) {
            const std::string file = info->dlpi_name;
            if (file.find("libvorn") != std::string::npos)
                addExports(file, info->dlpi_addr, *static_cast<Exports*>(data));
            return 0;
        },
        &exports);
    return exports;
}

const Exports& allExports() {
    static const Exports exports = readExports();
    return exports;
}

} // namespace

void PrintTo(const ClassRow& row, std::ostream* stream) {
    *stream << row.name;
}

const std::vector<ClassRow>& classTable() {
    static const std::vector<ClassRow> rows = readClassTable();
    return rows;
}

std::vector<ClassRow> classesWithVirtualOperations() {
    std::vector<ClassRow> rows;
    std::copy_if(classTable().begin(), classTable().end(), std::back_inserter(rows),
                 [](const ClassRow& row) { return !row.mangledName.empty(); });
    return rows;
}

const ClassRow& classRow(const std::string& name) {
    const auto& rows = classTable();
    const auto at =
        std::find_if(rows.begin(), rows.end(), [&](const ClassRow& row) { return row.name == name; });
    if (at == rows.end()) {
        std::cerr << "Classes.inc has no row for " << name << "\n";
        std::abort();
    }
    return *at;
}

std::string readable(const char* mangledName) {
    int status = 0;
    const std::unique_ptr<char, decltype(&std::free)> demangled(
        abi::__cxa_demangle(mangledName, nullptr, nullptr, &status), &std::free);
    std::string text = demangled != nullptr ? demangled.get() : mangledName;
    replaceAll(text, "std::__cxx11::basic_string<char, std::char_traits<char>, std::allocator<char> >",
               "VornString");
    replaceAll(text,
               "std::__cxx11::basic_string<wchar_t, std::char_traits<wchar_t>, std::allocator<wchar_t> >",
               "VornUString");
    replaceAll(text, "std::vector<VornString, std::allocator<VornString > >", "std::vector<VornString>");
    replaceAll(text, "[abi:cxx11]", "");
    replaceAll(text, "VornNet::", "");
    replaceAll(text, "VornSupport::", "");
    return text;
}

std::vector<std::string> exportedNames(const void* address) {
    const Exports& names = allExports();
    std::vector<std::string> found;
    const auto range = names.equal_range(address);
    std::transform(range.first, range.second, std::back_inserter(found),
                   [](const auto& entry) { return entry.second; });
    return found;
}

std::set<std::string> allExportedNames() {
    std::set<std::string> names;
    for (const auto& [address, name] : allExports())
        names.insert(readable(name.c_str()));
    return names;
}

const void* exportedAddress(const std::string& mangledName) {
    // The handle stands for the networking library and the support library it depends on, not for the
    // program.
    static void* const libraries = dlopen("libvornnet.so.1", RTLD_NOW | RTLD_NOLOAD);
    if (libraries == nullptr) {
        std::cerr << "libvornnet.so.1 is not loaded\n";
        std::abort();
    }
    return dlsym(libraries, mangledName.c_str());
}

} // namespace VornAbi
