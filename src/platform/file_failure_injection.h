#pragma once
// Internal to the platform layer: the file calls of file_replace_*.cpp ask here whether a test
// told them to fail. No Qt here either.
#include "platform/file_replace.h"

namespace corv::platform {

// True when a failure is injected for this call and source path; `error` then holds its code.
bool injectedFileFailure(FileCall call, const std::string& sourcePath, unsigned long& error);

} // namespace corv::platform
