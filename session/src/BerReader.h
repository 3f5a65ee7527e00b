// Reads consecutive BER elements by OpenLDAP's rules.
#ifndef SOLVANE_SESSION_SRC_BER_READER_H
#define SOLVANE_SESSION_SRC_BER_READER_H

#include <cstddef>
#include <string_view>

namespace Solvane::Lookup {

/// Reads elements from the front of borrowed bytes. Accepts what OpenLDAP's ber_scanf accepts:
/// elements of definite length with any tag. Not thread-safe.
class BerReader {
public:
    explicit BerReader(std::string_view bytes) : m_rest(bytes) {}

    bool isAtEnd() const { return m_rest.empty(); }

    /// The first byte of the next element's tag; -1 at the end.
    int nextTag() const { return m_rest.empty() ? -1 : static_cast<int>(byteAt(0)); }

    /// Reads the next element. False if it is incomplete; the reader cannot be used any more then.
    bool take(std::string_view& content)
    {
        std::size_t length = 0;
        if (!takeHeader(length)) {
            return false;
        }
        content = m_rest.substr(0, length);
        m_rest.remove_prefix(length);
        return true;
    }

    /// Enters the next element and continues with its content. False if it is incomplete.
    bool enter()
    {
        std::size_t length = 0;
        return takeHeader(length);
    }

private:
    bool takeHeader(std::size_t& length)
    {
        constexpr std::size_t longest = 8; // bytes of a tag, and of a length
        std::size_t position = 1;
        if (m_rest.empty()) {
            return false;
        }
        if ((byteAt(0) & 0x1F) == 0x1F) { // a tag of several bytes
            while (position < longest && position < m_rest.size() &&
                   (byteAt(position) & 0x80) != 0) {
                ++position;
            }
            if (position++ == longest) {
                return false;
            }
        }
        if (position >= m_rest.size()) {
            return false;
        }
        length = byteAt(position++);
        if (length >= 0x80) {
            std::size_t const count = length & 0x7F;
            if (count == 0 || count > longest || m_rest.size() - position < count) {
                return false;
            }
            length = 0;
            for (std::size_t const end = position + count; position != end; ++position) {
                length = length << 8 | byteAt(position);
            }
        }
        m_rest.remove_prefix(position);
        return length <= m_rest.size();
    }

    std::size_t byteAt(std::size_t position) const
    {
        return static_cast<unsigned char>(m_rest[position]);
    }

    std::string_view m_rest;
};

} // namespace Solvane::Lookup

#endif
