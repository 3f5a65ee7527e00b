// The attributes of a received entry in one run of bytes.
#include "PackedAttributes.h"

#include "OpenLDAP.h"

namespace Solvane {

namespace {

char* write(char* to, std::uint32_t number)
{
    std::memcpy(to, &number, sizeof number);
    return to + sizeof number;
}

char* write(char* to, char const* bytes, std::size_t length)
{
    if (length != 0) { // nothing may come as a null pointer
        std::memcpy(to, bytes, length);
    }
    return to + length;
}

} // namespace

AttributePacker::AttributePacker()
    : m_bytes(sizeof m_attributes, boost::container::default_init), m_attributes(0)
{
}

bool AttributePacker::append(char const* description, berval** values)
{
    std::size_t const length = std::strlen(description);
    std::uint32_t count = 0;
    std::size_t size = 2 * sizeof count + length;
    if (values != nullptr) {
        for (; values[count] != nullptr; ++count) {
            std::size_t const bytes = values[count]->bv_len;
            if (bytes > largestValue) {
                return false;
            }
            size += sizeof count + bytes;
        }
    }
    std::size_t const start = m_bytes.size();
    m_bytes.resize(start + size, boost::container::default_init);
    char* position = m_bytes.data() + start;
    position = write(position, static_cast<std::uint32_t>(length));
    position = write(position, count);
    position = write(position, description, length);
    for (std::uint32_t i = 0; i < count; ++i) {
        position = write(position, static_cast<std::uint32_t>(values[i]->bv_len));
        position = write(position, values[i]->bv_val, values[i]->bv_len);
    }
    ++m_attributes;
    return true;
}

std::unique_ptr<char[]> AttributePacker::block()
{
    write(m_bytes.data(), m_attributes);
    std::unique_ptr<char[]> result(new char[m_bytes.size()]); // make_unique would zero it first
    write(result.get(), m_bytes.data(), m_bytes.size());
    return result;
}

} // namespace Solvane
