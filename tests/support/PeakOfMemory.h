// The peak memory of this process.
#ifndef SOLVANE_TESTS_SUPPORT_PEAK_OF_MEMORY_H
#define SOLVANE_TESTS_SUPPORT_PEAK_OF_MEMORY_H

#include <fstream>
#include <sstream>
#include <stdexcept>
#include <string>

namespace SolvaneTest {

/// The peak address space of this process in megabytes.
inline long peakOfMemory()
{
    std::ifstream status("/proc/self/status");
    for (std::string line; std::getline(status, line);) {
        std::istringstream fields(line);
        std::string name;
        long kilobytes = 0;
        if (fields >> name >> kilobytes && name == "VmPeak:") {
            return kilobytes / 1024;
        }
    }
    throw std::runtime_error("no VmPeak");
}

} // namespace SolvaneTest

#endif
