#ifndef SOLVART_BUFFER_H
#define SOLVART_BUFFER_H

#include <string>

namespace Solvane {

class Buffer {
public:
    explicit Buffer();
    explicit Buffer(void const* bytes, unsigned int length, bool mayShare);
    Buffer(Buffer const& other) = default;
    Buffer(Buffer&& other) noexcept = default;
    Buffer& operator=(Buffer const& other) = default;
    Buffer& operator=(Buffer&& other) noexcept = default;

    void append(unsigned char const* bytes, unsigned int length);
    void append(unsigned char byte);
    unsigned char* data();
    unsigned char const* data() const;
    unsigned int length() const;

private:
    std::string m_bytes; // its data() is never null
};

} // namespace Solvane

#endif
