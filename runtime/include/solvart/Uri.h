/// @file
/// A URI as a value.
#ifndef SOLVART_URI_H
#define SOLVART_URI_H

#include <solvart/Export.h>

#include <string>

namespace Solvane {

/// A URI, kept and compared as its text. A value: copies are apart, and reading is for any thread.
class SOLVART_EXPORT Uri {
public:
    /// Empty text.
    Uri();
    /// Takes any text.
    explicit Uri(std::string const& text);

    /// The text as it was given.
    std::string asString() const;
    /// True for the same text.
    bool operator==(Uri const& other) const;
    /// True for different texts.
    bool operator!=(Uri const& other) const { return !(*this == other); }

private:
    std::string m_text;
};

} // namespace Solvane

#endif
