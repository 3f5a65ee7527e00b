// Where a message ends, before it is parsed.
#ifndef SOLVANE_SESSION_SRC_MESSAGE_FRAME_H
#define SOLVANE_SESSION_SRC_MESSAGE_FRAME_H

#include <cstddef>
#include <string_view>

namespace Solvane::Lookup {

/// The outside of an LDAP message (RFC 4511 section 4.1.1): a sequence of definite length that begins
/// with the message id.
struct MessageFrame {
    /// How much of it is there.
    enum State {
        partial, ///< more bytes are needed
        whole,   ///< all of it
        invalid, ///< this is no LDAP message
    };

    State state = partial;
    std::size_t length = 0;      ///< of the whole message in bytes; 0 until that can be told
    int id = 0;                  ///< once it is whole
    unsigned char operation = 0; ///< the tag of what it holds, once it is whole
    std::size_t operationAt = 0; ///< where that tag stands
};

/// The frame of the message that `bytes` begins with.
MessageFrame frameOf(std::string_view bytes);

/// Whether more answers to the same request follow one with this tag.
bool isIntermediate(unsigned char operation);

} // namespace Solvane::Lookup

#endif
