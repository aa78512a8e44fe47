#pragma once
// Resident memory of a read-only file mapping. This file and its implementations use no Qt.
#include <cstddef>

namespace corv::platform {

// Takes the pages of a read-only file mapping out of the process's resident memory; the next
// access reads them again from the file cache. A reader that walks a large mapped file calls it
// now and then, so that the file does not count in full against the process's memory.
// POSIX: madvise(MADV_DONTNEED). Windows: VirtualUnlock, which takes pages that are not locked
// out of the working set. Failures change nothing and are not reported.
void releaseMappedPages(const void* address, std::size_t length);

} // namespace corv::platform
