// What a search filter says, read twice: from its text by the grammar of RFC 4515, and from the
// bytes that OpenLDAP makes of the text to send them (RFC 4511 section 4.5.1). Both readings give
// the same notation, in which every byte of a value is written so that it cannot be mistaken for
// structure:
//
//     &(cn eq 61)(mail sub 6a,74)         both: cn is "a", mail starts with "j" and ends with "t"
#ifndef SOLVANE_TESTS_UNIT_FILTER_TREE_H
#define SOLVANE_TESTS_UNIT_FILTER_TREE_H

#include <stdexcept>
#include <string>

namespace SolvaneTest {

/// The bytes in hexadecimal digits.
std::string hexadecimal(std::string const& bytes);

/// Reads a filter from its text. Bytes other than parentheses, asterisk and backslash stand for
/// themselves, the zero byte too.
/// @throws std::invalid_argument  the text is not a filter
std::string treeOfText(std::string const& filter);

/// Reads a filter as OpenLDAP would send it.
/// @throws std::invalid_argument  OpenLDAP refuses the text
std::string treeByOpenLdap(std::string const& filter);

} // namespace SolvaneTest

#endif
