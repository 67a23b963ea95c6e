#include "daemon/CodePages.h"

#include <cstdint>
#include <cstring>
#include <link.h>
#include <sys/mman.h>
#include <unistd.h>

namespace
{

// Segments that are never written have nothing that would be lost.
int releaseSegments(dl_phdr_info* object, std::size_t, void*)
{
    if (std::strstr(object->dlpi_name, "vdso") != nullptr)
        return 0;
    const auto page = static_cast<uintptr_t>(sysconf(_SC_PAGESIZE));
    for (int i = 0; i < object->dlpi_phnum; ++i)
    {
        const ElfW(Phdr)& segment = object->dlpi_phdr[i];
        if (segment.p_type != PT_LOAD || (segment.p_flags & PF_W) != 0)
            continue;
        const uintptr_t first = (object->dlpi_addr + segment.p_vaddr) / page * page;
        const uintptr_t end = object->dlpi_addr + segment.p_vaddr + segment.p_memsz;
        madvise(reinterpret_cast<void*>(first), end - first, MADV_DONTNEED); // merely a hint
    }
    return 0;
}

} // namespace

void releaseCodePages()
{
    dl_iterate_phdr(releaseSegments, nullptr);
}
