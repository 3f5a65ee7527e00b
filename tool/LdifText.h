// Writes lines of LDIF (RFC 2849).
#ifndef SOLVANE_TOOL_LDIF_TEXT_H
#define SOLVANE_TOOL_LDIF_TEXT_H

#include <string>
#include <string_view>

namespace Solvane::Tool {

/// How a value is written.
enum class LdifForm {
    asFits, ///< as text if possible, else in base64
    base64, ///< always in base64
};

/// Appends a line with its newline, folded if it is long.
void appendLdif(std::string& out, std::string const& name, std::string_view value,
                LdifForm form = LdifForm::asFits);

} // namespace Solvane::Tool

#endif
