#include "platform/file_failure_injection.h"

#include <map>
#include <utility>

namespace corv::platform {
namespace {

// Set and read on the one thread that does file work; no lock needed.
std::map<std::pair<FileCall, std::string>, unsigned long>& injectedErrors()
{
    static std::map<std::pair<FileCall, std::string>, unsigned long> errors;
    return errors;
}

} // namespace

void injectFileFailure(FileCall call, const std::string& sourcePath, unsigned long error)
{
    injectedErrors()[{call, sourcePath}] = error;
}

void clearInjectedFileFailures()
{
    injectedErrors().clear();
}

bool injectedFileFailure(FileCall call, const std::string& sourcePath, unsigned long& error)
{
    const auto& errors = injectedErrors();
    if (errors.empty())
        return false;
    const auto found = errors.find({call, sourcePath});
    if (found == errors.end())
        return false;
    error = found->second;
    return true;
}

} // namespace corv::platform
