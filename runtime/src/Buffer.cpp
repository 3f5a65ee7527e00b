// A byte buffer, based on std::string for its inline storage.
#include <solvart/Buffer.h>

#include <limits>
#include <stdexcept>

namespace Solvane {

Buffer::Buffer() = default;

Buffer::Buffer(void const* bytes, unsigned int length, bool /*mayShare*/)
{
    append(static_cast<unsigned char const*>(bytes), length);
}

void Buffer::append(unsigned char const* bytes, unsigned int length)
{
    if (length > std::numeric_limits<unsigned int>::max() - this->length()) {
        throw std::length_error("Buffer: more bytes than a 32-bit length can count");
    }
    if (length != 0) { // a null pointer is permitted for no bytes
        m_bytes.append(reinterpret_cast<char const*>(bytes), length);
    }
}

void Buffer::append(unsigned char byte) { append(&byte, 1); }

unsigned char* Buffer::data() { return reinterpret_cast<unsigned char*>(m_bytes.data()); }

unsigned char const* Buffer::data() const
{
    return reinterpret_cast<unsigned char const*>(m_bytes.data());
}

unsigned int Buffer::length() const { return static_cast<unsigned int>(m_bytes.size()); }

} // namespace Solvane
