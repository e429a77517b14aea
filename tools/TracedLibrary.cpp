// SPDX-FileCopyrightText: 2026 The vornnet authors
// SPDX-License-Identifier: Apache-2.0
#include "TracedLibrary.h"

#include "ExitStatus.h"

#include <cstring>
#include <fstream>
#include <functional>
#include <iterator>
#include <sstream>

#include <fcntl.h>
#include <gelf.h>
#include <unistd.h>

namespace VornTool {

namespace {

/** An open ELF file. */
class ElfFile {
public:
    explicit ElfFile(const std::string& path)
        : m_descriptor(::open(path.c_str(), O_RDONLY | O_CLOEXEC)),
          m_elf((::elf_version(EV_CURRENT), ::elf_begin(m_descriptor, ELF_C_READ, nullptr))) {
        if (m_elf == nullptr) {
            ::close(m_descriptor);
            throw ToolError(exitFailed, "cannot read the library's file " + path);
        }
    }

    ~ElfFile() {
        ::elf_end(m_elf);
        ::close(m_descriptor);
    }

    ElfFile(const ElfFile&) = delete;
    ElfFile& operator=(const ElfFile&) = delete;

    /** Calls @p visit with each section of a type until it returns true. @return whether it did */
    bool findSection(unsigned int type, const std::function<bool(Elf_Data&, const GElf_Shdr&)>& visit) const {
        for (Elf_Scn* section = nullptr; (section = ::elf_nextscn(m_elf, section)) != nullptr;) {
            GElf_Shdr header;
            Elf_Data* data = nullptr;
            if (::gelf_getshdr(section, &header) != nullptr && header.sh_type == type &&
                (data = ::elf_getdata(section, nullptr)) != nullptr && visit(*data, header))
                return true;
        }
        return false;
    }

    std::uint64_t offsetOf(std::uint64_t address) const {
        std::size_t count = 0;
        ::elf_getphdrnum(m_elf, &count);
        for (std::size_t i = 0; i < count; ++i) {
            GElf_Phdr header;
            if (::gelf_getphdr(m_elf, static_cast<int>(i), &header) != nullptr && header.p_type == PT_LOAD &&
                address >= header.p_vaddr && address - header.p_vaddr < header.p_filesz)
                return address - header.p_vaddr + header.p_offset;
        }
        return 0;
    }

    Elf* get() const { return m_elf; }

private:
    int m_descriptor;
    Elf* m_elf;
};

/** The description of a probe's note: three addresses, of which the first is the probe's, and three texts. */
struct ProbeNote {
    explicit ProbeNote(const char* description, std::size_t size) {
        constexpr std::size_t cAddresses = 3 * sizeof(std::uint64_t);
        if (size < cAddresses)
            return;
        std::memcpy(&address, description, sizeof address);
        std::istringstream texts(std::string(description + cAddresses, size - cAddresses));
        std::getline(texts, provider, '\0');
        std::getline(texts, name, '\0');
        std::getline(texts, arguments, '\0');
    }

    std::uint64_t address = 0;
    std::string provider;
    std::string name;
    std::string arguments;
};

std::vector<std::string> wordsOf(const std::string& text) {
    std::istringstream stream(text);
    return {std::istream_iterator<std::string>(stream), {}};
}

} // namespace

TracedLibrary::TracedLibrary(pid_t process, const std::string& name) : m_process(process), m_name(name) {
    const std::string directory = "/proc/" + std::to_string(process);
    std::ifstream maps(directory + "/maps");
    if (!maps)
        throw ToolError(exitUnreachable, "there is no process " + std::to_string(process));
    for (std::string line; std::getline(maps, line);) {
        std::istringstream fields(line);
        std::string range;
        std::string mode;
        std::string offset;
        std::string device;
        std::string inode;
        std::string file;
        fields >> range >> mode >> offset >> device >> inode >> std::ws;
        std::getline(fields, file);
        if (file.substr(file.rfind('/') + 1).rfind(name, 0) == 0 && std::stoull(offset, nullptr, 16) == 0) {
            m_path = directory + "/map_files/" + range;
            m_start = std::stoull(range, nullptr, 16);
            return;
        }
    }
    if (!maps.eof())
        throw ToolError(exitFailed, "may not look into process " + std::to_string(process) + "; run as root");
    throw ToolError(exitUnreachable, "process " + std::to_string(process) + " does not use " + name);
}

ProbeSite TracedLibrary::probe(const std::string& provider, const std::string& name) const {
    const ElfFile file(m_path);
    ProbeSite site;
    const bool isFound = file.findSection(SHT_NOTE, [&](Elf_Data& data, const GElf_Shdr&) {
        GElf_Nhdr header;
        std::size_t nameAt = 0;
        std::size_t textAt = 0;
        for (std::size_t at = 0; (at = ::gelf_getnote(&data, at, &header, &nameAt, &textAt)) > 0;) {
            const auto* bytes = static_cast<const char*>(data.d_buf);
            if (header.n_namesz != sizeof "stapsdt" || std::strcmp(bytes + nameAt, "stapsdt") != 0)
                continue;
            const ProbeNote note(bytes + textAt, header.n_descsz);
            if (note.provider == provider && note.name == name) {
                site = {file.offsetOf(note.address), wordsOf(note.arguments)};
                return true;
            }
        }
        return false;
    });
    if (!isFound)
        throw ToolError(exitFailed,
                        m_name + " of process " + std::to_string(m_process) + " was built without probes");
    return site;
}

std::uint64_t TracedLibrary::addressOf(const std::string& symbol) const {
    const ElfFile file(m_path);
    std::uint64_t address = 0;
    const bool isFound = file.findSection(SHT_DYNSYM, [&](Elf_Data& data, const GElf_Shdr& section) {
        GElf_Sym entry;
        for (int i = 0; ::gelf_getsym(&data, i, &entry) != nullptr; ++i) {
            const char* name = ::elf_strptr(file.get(), section.sh_link, entry.st_name);
            if (name != nullptr && symbol == name) {
                address = m_start + entry.st_value;
                return true;
            }
        }
        return false;
    });
    if (!isFound)
        throw ToolError(exitFailed, m_name + " has no " + symbol);
    return address;
}

} // namespace VornTool
