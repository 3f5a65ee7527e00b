// The attributes of a received entry in one run of bytes, until somebody asks for them.
#ifndef SOLVANE_LDAP_SRC_PACKED_ATTRIBUTES_H
#define SOLVANE_LDAP_SRC_PACKED_ATTRIBUTES_H

#include <solvane/ldap/RefCounted.h>

#include <boost/container/small_vector.hpp>

#include <cstddef>
#include <cstdint>
#include <cstring>
#include <memory>

struct berval;

namespace Solvane {

// Layout, numbers of 32 bits in the machine's order:
//   attributes, then for each: length of the description, number of values, the description's bytes;
//   and for each value: length, bytes.

/// Collects attributes in the order in which they come.
class AttributePacker : public NonCopyable {
public:
    AttributePacker();

    /// False, with nothing appended, where a value is too large to be copied twice.
    /// @param values  null-terminated, or null for none; stays the caller's
    bool append(char const* description, berval** values);
    /// True while nothing was appended.
    bool empty() const { return m_attributes == 0; }
    /// What was collected, in a block of its size.
    std::unique_ptr<char[]> block();

private:
    static constexpr std::size_t largestValue = 4096; // bytes
    static constexpr std::size_t usualEntry = 1024;   // bytes; more goes to the heap

    boost::container::small_vector<char, usualEntry> m_bytes;
    std::uint32_t m_attributes;
};

/// Reads a block from its start. What it gives points into the block.
class AttributeUnpacker {
public:
    explicit AttributeUnpacker(char const* block) : m_position(block) {}

    std::uint32_t number()
    {
        std::uint32_t result = 0;
        std::memcpy(&result, m_position, sizeof result);
        m_position += sizeof result;
        return result;
    }
    char const* bytes(std::uint32_t length)
    {
        char const* const start = m_position;
        m_position += length;
        return start;
    }

private:
    char const* m_position;
};

} // namespace Solvane

#endif
