#include "util/exported_data.h"

#include <cstdint>
#include <dlfcn.h>
#include <link.h>
#include <span>

namespace tvox
{

namespace
{

struct Probe {
    uintptr_t address;
    bool in_program;
};

// The first object dl_iterate_phdr reports is the program itself.
int probe_program(struct dl_phdr_info *info, size_t, void *data)
{
    auto *probe = static_cast<Probe *>(data);
    for (const auto &segment : std::span(info->dlpi_phdr, info->dlpi_phnum)) {
        const uintptr_t start = info->dlpi_addr + segment.p_vaddr;
        if (segment.p_type == PT_LOAD && probe->address >= start &&
            probe->address - start < segment.p_memsz)
            probe->in_program = true;
    }
    return 1;
}

bool in_program(const void *address)
{
    Probe probe{reinterpret_cast<uintptr_t>(address), false};
    dl_iterate_phdr(probe_program, &probe);
    return probe.in_program;
}

} // namespace

void *program_copy_of(const void *own, const char *name)
{
    // The definition the process reads first: ours, a copy in the program, or a rival library's.
    // Looked up from the program's handle: a lookup from this library (RTLD_DEFAULT) starts with
    // the library itself, since it is linked with -Bsymbolic.
    void *program = dlopen(nullptr, RTLD_NOW);
    if (program == nullptr)
        return nullptr;
    void *found = dlsym(program, name);
    dlclose(program);
    return found != nullptr && found != own && in_program(found) ? found : nullptr;
}

} // namespace tvox
