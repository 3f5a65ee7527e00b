/// @file
/// A URI as a value.
#ifndef SOLVART_URI_H
#define SOLVART_URI_H

#include <solvart/Export.h>

#include <string>

namespace Solvane {

/// A URI, kept and compared as its text.
class SOLVART_EXPORT Uri {
public:
    Uri();
    explicit Uri(std::string const& text);

    std::string asString() const;
    bool operator==(Uri const& other) const;
    bool operator!=(Uri const& other) const { return !(*this == other); }

private:
    std::string m_text;
};

} // namespace Solvane

#endif
