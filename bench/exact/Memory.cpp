// Counts allocations with functions that replace the C library's and call them.
#include "Counting.h"

#include <cstddef>
#include <cstdio>

#include <malloc.h>

extern "C" {
void* __libc_malloc(std::size_t size);
void* __libc_calloc(std::size_t count, std::size_t size);
void* __libc_realloc(void* memory, std::size_t size);
void __libc_free(void* memory);
}

namespace {

thread_local bool t_isCounting = false;
unsigned long g_allocations = 0; // used only by the counting thread
long g_keptBytes = 0;

/// Adds or subtracts the heap memory of an allocation: its bytes and its header.
void account(void* memory, int sign)
{
    if (t_isCounting && memory != nullptr) {
        g_keptBytes += sign * static_cast<long>(malloc_usable_size(memory) + sizeof(std::size_t));
    }
}

void* allocated(void* memory)
{
    g_allocations += t_isCounting ? 1U : 0U;
    account(memory, 1);
    return memory;
}

} // namespace

extern "C" {

void* malloc(std::size_t size) { return allocated(__libc_malloc(size)); }

void* calloc(std::size_t count, std::size_t size) { return allocated(__libc_calloc(count, size)); }

void* realloc(void* memory, std::size_t size)
{
    account(memory, -1);
    return allocated(__libc_realloc(memory, size));
}

void free(void* memory)
{
    account(memory, -1);
    __libc_free(memory);
}
}

namespace SolvaneBench {

Counted::Counted()
{
    stopClocks(true);
    t_isCounting = true;
}

Counted::~Counted()
{
    t_isCounting = false;
    stopClocks(false);
}

void forget()
{
    g_allocations = 0;
    g_keptBytes = 0;
}

void report(std::string const& name, unsigned int pieces)
{
    std::printf("%s allocations %.3f\n", name.c_str(), static_cast<double>(g_allocations) / pieces);
    std::printf("%s memory %.3f\n", name.c_str(), static_cast<double>(g_keptBytes) / pieces);
}

} // namespace SolvaneBench
