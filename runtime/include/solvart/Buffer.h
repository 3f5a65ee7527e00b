/// @file
/// A run of bytes that owns its memory.
#ifndef SOLVART_BUFFER_H
#define SOLVART_BUFFER_H

#include <solvart/Export.h>

#include <string>

namespace Solvane {

/// Bytes with a 32-bit length. Always owns a copy; copying a buffer copies the bytes. Any number of
/// threads may read one, or one may change it.
class SOLVART_EXPORT Buffer {
public:
    explicit Buffer();
    /// Copies bytes.
    /// @param bytes     where they are; may be null when `length` is 0
    /// @param length    how many there are
    /// @param mayShare  leave to keep pointing at the caller's bytes; this runtime always copies
    explicit Buffer(void const* bytes, unsigned int length, bool mayShare);
    /// A copy has bytes of its own.
    Buffer(Buffer const& other) = default;
    /// Takes over the bytes.
    Buffer(Buffer&& other) noexcept = default;
    /// Copies the bytes.
    Buffer& operator=(Buffer const& other) = default;
    /// Takes over the bytes.
    Buffer& operator=(Buffer&& other) noexcept = default;
    ~Buffer() = default;

    /// Adds bytes at the end.
    /// @throws std::length_error  the length would not fit 32 bits; the buffer is unchanged
    void append(unsigned char const* bytes, unsigned int length);
    /// Adds one byte at the end; throws likewise.
    void append(unsigned char byte);

    /// The first byte; never null, also when the buffer is empty.
    unsigned char* data();
    /// The first byte, likewise.
    unsigned char const* data() const;
    /// How many bytes there are.
    unsigned int length() const;

private:
    std::string m_bytes; // keeps short values inline, and its data() is never null
};

} // namespace Solvane

#endif
