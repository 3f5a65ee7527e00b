// Replaces liblber's allocator in the whole process: both libraries call it through the dynamic
// linker, which finds the program's functions first.
#include "Resources.h"

#include <lber.h>

#include <algorithm>
#include <cerrno>
#include <cstdlib>
#include <filesystem>
#include <functional>
#include <mutex>
#include <new>
#include <unordered_map>
#include <utility>

#include <dlfcn.h>
#include <execinfo.h>

// Defined if the leak sanitizer is present.
extern "C" {
void __lsan_ignore_object(void const* memory) __attribute__((weak));
int __lsan_do_recoverable_leak_check() __attribute__((weak));
char const* __lsan_default_suppressions();

/// An add whose arrays cannot be completed leaks what it had built, as documented.
char const* __lsan_default_suppressions()
{
    return "leak:Solvane::LDAPModAdapter::LDAPModAdapter\n";
}
}

namespace {

struct Block {
    void* memory;
    std::size_t size;
    unsigned long number; ///< in the sequence of allocations
};

/// Allocates where a sanitizer sees it, but not with the operators that other tests replace.
template <typename T> struct PlainAllocator {
    using value_type = T;
    PlainAllocator() = default;
    template <typename Other> PlainAllocator(PlainAllocator<Other> const&) {}
    T* allocate(std::size_t count) { return static_cast<T*>(std::malloc(count * sizeof(T))); }
    void deallocate(T* memory, std::size_t) { std::free(memory); }
    bool operator==(PlainAllocator const&) const { return true; }
    bool operator!=(PlainAllocator const&) const { return false; }
};

/// All blocks that OpenLDAP holds.
class Blocks {
public:
    void add(void* memory, std::size_t size, unsigned long number)
    {
        m_blocks[memory] = Block{memory, size, number};
    }
    void remove(void* memory) { m_blocks.erase(memory); }
    template <typename Visit> void visitSince(unsigned long start, Visit visit) const
    {
        for (auto const& [memory, block] : m_blocks) {
            if (block.number >= start) {
                visit(block);
            }
        }
    }

private:
    std::unordered_map<void*, Block, std::hash<void*>, std::equal_to<void*>,
                       PlainAllocator<std::pair<void* const, Block>>>
        m_blocks;
};

constexpr unsigned long never = ~0UL;

std::mutex g_mutex;
unsigned long g_count = 0;       ///< guarded by g_mutex; allocations so far
unsigned long g_failing = never; ///< guarded by g_mutex; the allocation that fails

void* g_frames[30];   ///< the functions on the stack at the failure
int g_frameCount = 0; ///< 0: there was none yet

/// Guarded by g_mutex. OpenLDAP allocates before main and after it, so this is never destroyed.
Blocks& blocks()
{
    static Blocks& all = *new (std::malloc(sizeof(Blocks))) Blocks;
    return all;
}

/// Whether the next allocation may succeed; counts it.
bool mayAllocate(unsigned long& number)
{
    std::lock_guard<std::mutex> const lock(g_mutex);
    number = g_count++;
    if (number != g_failing) {
        return true;
    }
    g_frameCount = backtrace(g_frames, 30);
    return false;
}

void* registered(void* memory, std::size_t size, unsigned long number)
{
    if (memory != nullptr) {
        std::lock_guard<std::mutex> const lock(g_mutex);
        blocks().add(memory, size, number);
    }
    return memory;
}

void forget(void* memory)
{
    std::lock_guard<std::mutex> const lock(g_mutex);
    blocks().remove(memory);
}

void* noMemory()
{
    errno = ENOMEM;
    *ber_errno_addr() = LBER_ERROR_MEMORY;
    return nullptr;
}

} // namespace

// liblber's functions, with their rules: nothing is allocated for a size of 0.
extern "C" {

void* ber_memalloc_x(ber_len_t size, void*)
{
    unsigned long number = 0;
    if (size == 0) {
        return nullptr;
    }
    return mayAllocate(number) ? registered(std::malloc(size), size, number) : noMemory();
}

void* ber_memcalloc_x(ber_len_t count, ber_len_t size, void*)
{
    unsigned long number = 0;
    if (count == 0 || size == 0) {
        return nullptr;
    }
    return mayAllocate(number) ? registered(std::calloc(count, size), count * size, number)
                               : noMemory();
}

void ber_memfree_x(void* memory, void*)
{
    if (memory != nullptr) {
        forget(memory);
        std::free(memory);
    }
}

void* ber_memrealloc_x(void* memory, ber_len_t size, void* context)
{
    if (memory == nullptr) {
        return ber_memalloc_x(size, context);
    }
    if (size == 0) {
        ber_memfree_x(memory, context);
        return nullptr;
    }
    unsigned long number = 0;
    if (!mayAllocate(number)) {
        return noMemory();
    }
    forget(memory); // before another thread can be given the same address
    return registered(std::realloc(memory, size), size, number);
}

} // extern "C"

namespace SolvaneTest {

std::vector<std::string> openDescriptors()
{
    std::vector<std::string> all;
    for (auto const& entry : std::filesystem::directory_iterator("/proc/self/fd")) {
        std::error_code gone; // the iterator's own descriptor
        auto const what = std::filesystem::read_symlink(entry.path(), gone);
        if (!gone && what.string().find("/proc/") != 0) {
            // Of a file its name: under another root, its path changes with the mount namespace.
            all.push_back(entry.path().filename().string() + ' ' + what.filename().string());
        }
    }
    std::sort(all.begin(), all.end());
    return all;
}

unsigned long OpenLdapMemory::now()
{
    std::lock_guard<std::mutex> const lock(g_mutex);
    return g_count;
}

std::vector<std::size_t> OpenLdapMemory::heldSince(unsigned long start)
{
    std::vector<std::size_t> sizes;
    std::lock_guard<std::mutex> const lock(g_mutex);
    blocks().visitSince(start, [&](Block const& block) { sizes.push_back(block.size); });
    return sizes;
}

void OpenLdapMemory::forgiveSince(unsigned long start)
{
    if (__lsan_ignore_object != nullptr) {
        std::lock_guard<std::mutex> const lock(g_mutex);
        blocks().visitSince(start, [](Block const& b) { __lsan_ignore_object(b.memory); });
    }
}

OpenLdapMemory::Failing::Failing(unsigned long number)
{
    backtrace(g_frames, 1); // loads what must not be loaded under the lock
    std::lock_guard<std::mutex> const lock(g_mutex);
    g_frameCount = 0;
    g_failing = g_count + number;
}

OpenLdapMemory::Failing::~Failing()
{
    std::lock_guard<std::mutex> const lock(g_mutex);
    g_failing = never;
}

std::string OpenLdapMemory::Failing::wantedBy()
{
    std::string name;
    for (int i = 0; i < g_frameCount; ++i) {
        Dl_info frame = {};
        if (dladdr(g_frames[i], &frame) == 0 || frame.dli_sname == nullptr) {
            continue;
        }
        std::string const object = frame.dli_fname;
        if (object.find("libldap") != std::string::npos) {
            return frame.dli_sname;
        }
        if (object.find("liblber") != std::string::npos) {
            name = frame.dli_sname; // the outermost of liblber, if libldap did not call it
        }
    }
    return name;
}

bool hasLeakChecker() { return __lsan_do_recoverable_leak_check != nullptr; }

bool hasLostMemory() { return hasLeakChecker() && __lsan_do_recoverable_leak_check() != 0; }

} // namespace SolvaneTest
