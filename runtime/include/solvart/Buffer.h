/// @file
/// A byte buffer.
#ifndef SOLVART_BUFFER_H
#define SOLVART_BUFFER_H

#include <solvart/Export.h>

#include <string>

namespace Solvane {

/// Bytes with a 32-bit length. Always owns a copy; copying a buffer copies the bytes. Thread-safe for
/// reading.
class SOLVART_EXPORT Buffer {
public:
    explicit Buffer();
    /// Copies bytes.
    /// @param bytes     the bytes; may be null if `length` is 0
    /// @param length    number of bytes
    /// @param mayShare  true permits the buffer to borrow the caller's bytes; this runtime always copies
    explicit Buffer(void const* bytes, unsigned int length, bool mayShare);
    /// Copies the bytes of the other buffer.
    Buffer(Buffer const& other) = default;
    /// Moves the bytes.
    Buffer(Buffer&& other) noexcept = default;
    /// Copies the bytes.
    Buffer& operator=(Buffer const& other) = default;
    /// Moves the bytes.
    Buffer& operator=(Buffer&& other) noexcept = default;
    ~Buffer() = default;

    /// Appends bytes.
    /// @throws std::length_error  the length would exceed 32 bits; the buffer is unchanged
    void append(unsigned char const* bytes, unsigned int length);
    /// Appends one byte; throws likewise.
    void append(unsigned char byte);

    /// The first byte; never null, even if the buffer is empty.
    unsigned char* data();
    /// The first byte, likewise.
    unsigned char const* data() const;
    /// Number of bytes.
    unsigned int length() const;

private:
    std::string m_bytes; // stores short values inline; data() is never null
};

} // namespace Solvane

#endif
