// The one mutex.
#include "ProcessDefaults.h"

#include "ForkedLocks.h"

namespace Solvane {

std::mutex& processDefaults()
{
    static std::mutex& mutex = []() -> std::mutex& {
        auto& made = *new std::mutex;
        keepFreeOverForks(made);
        return made;
    }();
    return mutex;
}

} // namespace Solvane
