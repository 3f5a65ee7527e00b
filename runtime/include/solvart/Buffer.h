/// @file
/// A run of bytes that owns its memory.
#ifndef SOLVART_BUFFER_H
#define SOLVART_BUFFER_H

#include <solvart/Export.h>

#include <string>

namespace Solvane {

/// Bytes with a 32-bit length. Always owns a copy; copying a buffer copies the bytes.
class SOLVART_EXPORT Buffer {
public:
    explicit Buffer();
    /// Copies `length` bytes from `bytes`, which may be null when `length` is 0.
    /// @param mayShare  leave to keep pointing at the caller's bytes; this runtime always copies
    explicit Buffer(void const* bytes, unsigned int length, bool mayShare);
    Buffer(Buffer const& other) = default;
    Buffer(Buffer&& other) noexcept = default;
    Buffer& operator=(Buffer const& other) = default;
    Buffer& operator=(Buffer&& other) noexcept = default;
    ~Buffer() = default;

    /// Adds bytes at the end.
    /// @throws std::length_error  the length would not fit 32 bits; the buffer is unchanged
    void append(unsigned char const* bytes, unsigned int length);
    void append(unsigned char byte);

    /// The first byte; never null, also when the buffer is empty.
    unsigned char* data();
    unsigned char const* data() const;
    unsigned int length() const;

private:
    std::string m_bytes; // keeps short values inline, and its data() is never null
};

} // namespace Solvane

#endif
