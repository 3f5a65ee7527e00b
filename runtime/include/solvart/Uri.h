/// @file
/// A URI.
#ifndef SOLVART_URI_H
#define SOLVART_URI_H

#include <solvart/Export.h>

#include <string>

namespace Solvane {

/// A URI, stored and compared as text. A value, thread-safe for reading.
class SOLVART_EXPORT Uri {
public:
    /// An empty text.
    Uri();
    /// Accepts any text.
    explicit Uri(std::string const& text);

    /// The text, unchanged.
    std::string asString() const;
    /// Whether the texts are equal.
    bool operator==(Uri const& other) const;
    /// Whether the texts differ.
    bool operator!=(Uri const& other) const { return !(*this == other); }

private:
    std::string m_text;
};

} // namespace Solvane

#endif
