#include "util/exported_data.h"

#include <cstdint>
#include <cstring>
#include <elf.h>
#include <link.h>
#include <span>
#include <string_view>
#include <vector>

namespace tvox
{

namespace
{

#if defined(__x86_64__)
constexpr uint32_t kCopy = R_X86_64_COPY;
#elif defined(__i386__)
constexpr uint32_t kCopy = R_386_COPY;
#elif defined(__aarch64__)
constexpr uint32_t kCopy = R_AARCH64_COPY;
#elif defined(__arm__)
constexpr uint32_t kCopy = R_ARM_COPY;
#elif defined(__riscv)
constexpr uint32_t kCopy = R_RISCV_COPY;
#else
#error "the copy relocation type of this architecture is missing"
#endif

// r_info packs the symbol index and the type: 32 and 32 bits in 64-bit ELF, 24 and 8 in 32-bit.
template <typename Info> constexpr uint32_t relocation_type(Info info)
{
    if constexpr (sizeof(Info) == 8)
        return static_cast<uint32_t>(info & 0xFFFFFFFF);
    else
        return static_cast<uint32_t>(info & 0xFF);
}
template <typename Info> constexpr std::size_t relocation_symbol(Info info)
{
    if constexpr (sizeof(Info) == 8)
        return static_cast<std::size_t>(info >> 32);
    else
        return static_cast<std::size_t>(info >> 8);
}

// A variable the program holds a copy of, by the name the copy relocation gives it.
struct Copy {
    std::string_view name;
    void *address;
};

struct Dynamic {
    uintptr_t base = 0;
    const ElfW(Sym) *symbols = nullptr;
    const char *strings = nullptr;
    std::size_t strings_size = 0;
};

// glibc stores these entries of the program's dynamic section already relocated, bionic as
// written: an unrelocated address lies below the load base of a position-independent program.
uintptr_t address(uintptr_t base, ElfW(Addr) value)
{
    return value >= base ? value : base + value;
}

template <typename Rel>
void add_copies(const Dynamic &dyn, uintptr_t table, std::size_t size, std::size_t entry,
                std::vector<Copy> &copies)
{
    if (table == 0 || entry != sizeof(Rel) || dyn.symbols == nullptr || dyn.strings == nullptr)
        return;
    for (const Rel &rel : std::span(reinterpret_cast<const Rel *>(table), size / sizeof(Rel))) {
        if (relocation_type(rel.r_info) != kCopy)
            continue;
        const ElfW(Word) name = dyn.symbols[relocation_symbol(rel.r_info)].st_name;
        if (name < dyn.strings_size)
            copies.push_back(
                {dyn.strings + name, reinterpret_cast<void *>(dyn.base + rel.r_offset)});
    }
}

// The first object dl_iterate_phdr reports is the program itself.
int scan_program(struct dl_phdr_info *info, std::size_t, void *data)
{
    auto &copies = *static_cast<std::vector<Copy> *>(data);
    const ElfW(Dyn) *entries = nullptr;
    for (const auto &segment : std::span(info->dlpi_phdr, info->dlpi_phnum))
        if (segment.p_type == PT_DYNAMIC)
            entries = reinterpret_cast<const ElfW(Dyn) *>(info->dlpi_addr + segment.p_vaddr);
    if (entries == nullptr)
        return 1;
    Dynamic dyn{info->dlpi_addr};
    uintptr_t rela = 0, rel = 0;
    std::size_t rela_size = 0, rela_entry = 0, rel_size = 0, rel_entry = 0;
    for (const ElfW(Dyn) *d = entries; d->d_tag != DT_NULL; ++d) {
        switch (d->d_tag) {
        case DT_SYMTAB:
            dyn.symbols = reinterpret_cast<const ElfW(Sym) *>(address(dyn.base, d->d_un.d_ptr));
            break;
        case DT_STRTAB:
            dyn.strings = reinterpret_cast<const char *>(address(dyn.base, d->d_un.d_ptr));
            break;
        case DT_STRSZ:
            dyn.strings_size = d->d_un.d_val;
            break;
        case DT_RELA:
            rela = address(dyn.base, d->d_un.d_ptr);
            break;
        case DT_RELASZ:
            rela_size = d->d_un.d_val;
            break;
        case DT_RELAENT:
            rela_entry = d->d_un.d_val;
            break;
        case DT_REL:
            rel = address(dyn.base, d->d_un.d_ptr);
            break;
        case DT_RELSZ:
            rel_size = d->d_un.d_val;
            break;
        case DT_RELENT:
            rel_entry = d->d_un.d_val;
            break;
        default:
            break;
        }
    }
    add_copies<ElfW(Rela)>(dyn, rela, rela_size, rela_entry, copies);
    add_copies<ElfW(Rel)>(dyn, rel, rel_size, rel_entry, copies);
    return 1;
}

// The program's relocations do not change: they are read once.
const std::vector<Copy> &program_copies()
{
    static const std::vector<Copy> copies = [] {
        std::vector<Copy> found;
        dl_iterate_phdr(scan_program, &found);
        return found;
    }();
    return copies;
}

} // namespace

void *program_copy_of(const char *name)
{
    for (const Copy &copy : program_copies())
        if (copy.name == name)
            return copy.address;
    return nullptr;
}

} // namespace tvox
