#include "platform/mapped_pages.h"

#include <windows.h>

namespace corv::platform {

void releaseMappedPages(const void* address, std::size_t length)
{
    // Documented behaviour: unlocking pages that are not locked removes them from the working
    // set (the call then fails with ERROR_NOT_LOCKED, which is expected here).
    VirtualUnlock(const_cast<void*>(address), length);
}

} // namespace corv::platform
