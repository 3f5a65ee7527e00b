// The debug channel of a test program: lines go to the collector, or are dropped.
#include "DebugLines.h"

#include <solvart/Debug.h>

#include <array>
#include <cstdarg>
#include <cstdio>

#include <unistd.h>

namespace {

SolvaneTest::DebugLines* g_collector = nullptr;

} // namespace

// A definition in the program takes precedence over the runtime library's.
void basepp::dbg::debug(char const* file, int line, char const* function, int flags,
                        char const* format, ...)
{
    if (g_collector == nullptr) {
        return;
    }
    std::array<char, 2048> text{};
    va_list arguments;
    va_start(arguments, format);
    std::vsnprintf(text.data(), text.size(), format, arguments);
    va_end(arguments);
    g_collector->add(std::string(file) + ':' + std::to_string(line) + ' ' + function + ' ' +
                     std::to_string(flags) + ": " + text.data());
}

namespace SolvaneTest {

DebugLines::DebugLines(unsigned int mask) : m_maskBefore(basepp_dbg_mask_)
{
    basepp_dbg_mask_ = mask;
    g_collector = this;
}

DebugLines::~DebugLines()
{
    basepp_dbg_mask_ = m_maskBefore;
    g_collector = nullptr;
}

std::string tid() { return "tid=" + std::to_string(gettid()) + ' '; }

} // namespace SolvaneTest
