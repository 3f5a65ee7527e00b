// The memory of the test's own process: its peak, what stands in it, leaks that are tolerated.
#ifndef SOLVANE_TESTS_SUPPORT_PROCESS_MEMORY_H
#define SOLVANE_TESTS_SUPPORT_PROCESS_MEMORY_H

#include <algorithm>
#include <cstdint>
#include <cstring>
#include <fstream>
#include <sstream>
#include <stdexcept>
#include <string>
#include <string_view>
#include <vector>

#include <fcntl.h>
#include <sys/mman.h>
#include <unistd.h>

#if defined(__SANITIZE_ADDRESS__)
#include <sanitizer/lsan_interface.h>
#endif

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

/// The growth of the resident memory of this process, in megabytes.
class ResidentMemory {
public:
    ResidentMemory() : m_before(now()) {}
    long growth() const { return now() - m_before; }

private:
    static long now()
    {
        std::ifstream status("/proc/self/statm");
        long all = 0;
        long resident = 0;
        status >> all >> resident;
        return resident * sysconf(_SC_PAGESIZE) / (1L << 20);
    }

    long m_before;
};

/// How often a text stands in this process's writable memory: heap, stacks and variables. Reads it
/// through a buffer of its own, which is wiped, so that it never finds what it has read.
inline std::size_t occurrencesInMemory(std::string const& text)
{
    struct Region {
        std::uint64_t begin;
        std::uint64_t end;
    };
    constexpr std::size_t room = 1UL << 20;
    void* const mapped =
        mmap(nullptr, room, PROT_READ | PROT_WRITE, MAP_PRIVATE | MAP_ANONYMOUS, -1, 0);
    char* const buffer = static_cast<char*>(mapped);
    std::vector<Region> regions;
    std::ifstream maps("/proc/self/maps");
    for (std::string line; std::getline(maps, line);) {
        std::istringstream fields(line);
        Region region = {0, 0};
        char dash = '-';
        std::string permissions;
        fields >> std::hex >> region.begin >> dash >> region.end >> permissions;
        constexpr std::uint64_t most = 1UL << 28; // a sanitizer's shadow is larger
        if (permissions.compare(0, 2, "rw") == 0 && region.end - region.begin <= most) {
            regions.push_back(region);
        }
    }
    int const memory = open("/proc/self/mem", O_RDONLY | O_CLOEXEC);
    auto const own = reinterpret_cast<std::uintptr_t>(buffer);
    std::size_t count = 0;
    auto const countIn = [&](std::uint64_t begin, std::uint64_t end) {
        // Pieces overlap by less than the text, so that it is found once wherever it stands.
        for (std::uint64_t at = begin; at + text.size() <= end; at += room - text.size() + 1) {
            std::size_t const length = std::min<std::uint64_t>(room, end - at);
            ssize_t const got = pread(memory, buffer, length, static_cast<off_t>(at));
            std::string_view const piece(buffer, got < 0 ? 0 : static_cast<std::size_t>(got));
            for (auto found = piece.find(text); found != std::string_view::npos;
                 found = piece.find(text, found + 1)) {
                ++count;
            }
            explicit_bzero(buffer, length);
        }
    };
    for (Region const& region : regions) { // the kernel may have joined the buffer with a neighbour
        if (own >= region.begin && own < region.end) {
            countIn(region.begin, own);
            countIn(own + room, region.end);
        } else {
            countIn(region.begin, region.end);
        }
    }
    close(memory);
    munmap(mapped, room);
    return count;
}

/// What this thread allocates during the object's lifetime is no leak. For GSSAPI without a security
/// layer, that is over TLS: the plugin of Cyrus SASL 2.1.28 loses the credentials of each bind.
class ToleratedLeak {
public:
#if defined(__SANITIZE_ADDRESS__)
    ToleratedLeak() { __lsan_disable(); }
    ~ToleratedLeak() { __lsan_enable(); }
#else
    ToleratedLeak() {} // not defaulted, or it would be an unused variable
#endif
    ToleratedLeak(ToleratedLeak const&) = delete;
    ToleratedLeak& operator=(ToleratedLeak const&) = delete;
};

} // namespace SolvaneTest

#endif
