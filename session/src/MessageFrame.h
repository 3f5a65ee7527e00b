// Finds the end of a message before it is parsed.
#ifndef SOLVANE_SESSION_SRC_MESSAGE_FRAME_H
#define SOLVANE_SESSION_SRC_MESSAGE_FRAME_H

#include <cstddef>
#include <string_view>

namespace Solvane::Lookup {

/// The frame of an LDAP message (RFC 4511 section 4.1.1): a sequence of definite length that begins
/// with the message id.
struct MessageFrame {
    /// How much of the message is present.
    enum State {
        partial, ///< more bytes are needed
        whole,   ///< the complete message
        invalid, ///< not an LDAP message
    };

    State state = partial;
    std::size_t length = 0;      ///< of the whole message in bytes; 0 while unknown
    int id = 0;                  ///< message id, once whole
    unsigned char operation = 0; ///< tag of the operation, once whole
    std::size_t operationAt = 0; ///< position of that tag
};

/// The frame of the message at the start of `bytes`.
MessageFrame frameOf(std::string_view bytes);

/// Whether a message with this tag is followed by more answers to the same request.
bool isIntermediate(unsigned char operation);

} // namespace Solvane::Lookup

#endif
