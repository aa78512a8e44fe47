#include "platform/mapped_pages.h"

#include <cstdint>
#include <sys/mman.h>
#include <unistd.h>

namespace corv::platform {

void releaseMappedPages(const void* address, std::size_t length)
{
    // madvise wants a page-aligned start; the mapping itself starts on a page.
    const std::uintptr_t page = std::uintptr_t(sysconf(_SC_PAGESIZE));
    const std::uintptr_t start = std::uintptr_t(address) & ~(page - 1);
    const std::size_t span = length + (std::uintptr_t(address) - start);
    // A shared read-only file mapping loses nothing: the pages come back from the file.
    madvise(reinterpret_cast<void*>(start), span, MADV_DONTNEED);
}

} // namespace corv::platform
