// A URI.
#include <solvart/Uri.h>

namespace Solvane {

Uri::Uri() = default;
Uri::Uri(std::string const& text) : m_text(text) {}

std::string Uri::asString() const { return m_text; }
bool Uri::operator==(Uri const& other) const { return m_text == other.m_text; }

} // namespace Solvane
