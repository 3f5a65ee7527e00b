#ifndef SOLVART_URI_H
#define SOLVART_URI_H

#include <string>

namespace Solvane {

class Uri {
public:
    Uri();
    explicit Uri(std::string const& text);

    std::string asString() const;
    bool operator==(Uri const& other) const;

private:
    std::string m_text;
};

} // namespace Solvane

#endif
