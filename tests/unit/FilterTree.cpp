// Search filters as trees: from text, and from OpenLDAP's encoding.
#include "FilterTree.h"

#include <lber.h>

#include <cctype>
#include <memory>
#include <vector>

// Exported by libldap, declared in no installed header: encodes a filter.
extern "C" int ldap_pvt_put_filter(BerElement* out, char const* text);

namespace SolvaneTest {

namespace {

[[noreturn]] void refuse(std::string const& why) { throw std::invalid_argument(why); }

/// Reads text by the grammar. Attribute descriptions are letters, digits, "-", "." and ";".
class TextReader {
public:
    explicit TextReader(std::string const& text) : m_text(text), m_position(0) {}

    std::string whole()
    {
        std::string const tree = filter();
        if (m_position != m_text.size()) {
            refuse("text behind the filter");
        }
        return tree;
    }

private:
    char peek() const
    {
        if (m_position == m_text.size()) {
            refuse("the filter ends early");
        }
        return m_text[m_position];
    }
    void expect(char character)
    {
        if (peek() != character) {
            refuse(std::string("no ") + character + " at " + std::to_string(m_position));
        }
        ++m_position;
    }

    std::string filter()
    {
        expect('(');
        std::string const tree = content();
        expect(')');
        return tree;
    }

    std::string content()
    {
        char const first = peek();
        if (first != '&' && first != '|' && first != '!') {
            return comparison();
        }
        ++m_position;
        std::string tree(1, first);
        while (peek() == '(') {
            tree += '(' + filter() + ')';
        }
        return tree;
    }

    std::string comparison()
    {
        std::string description;
        while (std::isalnum(static_cast<unsigned char>(peek())) != 0 || peek() == ';' ||
               peek() == '-' || peek() == '.') {
            description += m_text[m_position++];
        }
        if (description.empty()) {
            refuse("no attribute description at " + std::to_string(m_position));
        }
        return description + operation();
    }

    std::string operation()
    {
        char const first = peek();
        ++m_position;
        switch (first) {
        case '=':
            return equality();
        case '>':
            expect('=');
            return " ge " + hexadecimal(value());
        case '<':
            expect('=');
            return " le " + hexadecimal(value());
        case '~':
            expect('=');
            return " approx " + hexadecimal(value());
        default:
            refuse("no comparison");
        }
    }

    /// After "=": a value, a presence, or substrings separated by asterisks.
    std::string equality()
    {
        std::vector<std::string> pieces{value()};
        while (peek() == '*') {
            ++m_position;
            pieces.push_back(value());
        }
        if (pieces.size() == 1) {
            return " eq " + hexadecimal(pieces.front());
        }
        if (pieces.size() == 2 && pieces.front().empty() && pieces.back().empty()) {
            return " present";
        }
        std::string tree = " sub ";
        for (std::size_t i = 0; i < pieces.size(); ++i) {
            bool const isEnd = i == 0 || i + 1 == pieces.size();
            if (isEnd || !pieces[i].empty()) { // an empty piece in the middle says nothing
                tree += (i == 0 ? "" : ",") + hexadecimal(pieces[i]);
            }
        }
        return tree;
    }

    std::string value()
    {
        std::string bytes;
        while (peek() != ')' && peek() != '*') {
            if (peek() == '(') {
                refuse("an open parenthesis in a value");
            }
            char const next = m_text[m_position++];
            bytes += next == '\\' ? escaped() : next;
        }
        return bytes;
    }

    char escaped()
    {
        int byte = 0;
        for (int i = 0; i < 2; ++i) {
            std::string::size_type const digit =
                std::string("0123456789abcdef0123456789ABCDEF").find(peek());
            if (digit == std::string::npos) {
                refuse("a damaged escape");
            }
            byte = byte * 16 + static_cast<int>(digit % 16);
            ++m_position;
        }
        return static_cast<char>(byte);
    }

    std::string const& m_text;
    std::string::size_type m_position;
};

/// A BER element inside a filter.
struct Element {
    unsigned char tag;
    std::string content;
};

/// The consecutive elements in `bytes`.
std::vector<Element> elementsOf(std::string const& bytes)
{
    std::vector<Element> elements;
    std::size_t position = 0;
    auto const next = [&] {
        if (position == bytes.size()) {
            refuse("OpenLDAP's encoding ends early");
        }
        return static_cast<unsigned char>(bytes[position++]);
    };
    while (position < bytes.size()) {
        unsigned char const tag = next();
        std::size_t length = next();
        if ((length & 0x80U) != 0) {
            std::size_t const digits = length & 0x7fU;
            length = 0;
            for (std::size_t i = 0; i < digits; ++i) {
                length = length * 256 + next();
            }
        }
        if (length > bytes.size() - position) {
            refuse("OpenLDAP's encoding ends early");
        }
        elements.push_back(Element{tag, bytes.substr(position, length)});
        position += length;
    }
    return elements;
}

std::string treeOf(Element const& filter);

std::string treeOfSet(char operation, std::string const& content)
{
    std::string tree(1, operation);
    for (Element const& each : elementsOf(content)) {
        tree += '(' + treeOf(each) + ')';
    }
    return tree;
}

std::string treeOfComparison(char const* operation, std::string const& content)
{
    std::vector<Element> const parts = elementsOf(content);
    return parts.at(0).content + operation + hexadecimal(parts.at(1).content);
}

std::string treeOfSubstrings(std::string const& content)
{
    constexpr unsigned char initial = 0x80;
    constexpr unsigned char final = 0x82;
    std::vector<Element> const parts = elementsOf(content);
    std::vector<Element> const pieces = elementsOf(parts.at(1).content);
    std::string tree = parts.at(0).content + " sub ";
    for (Element const& piece : pieces) {
        tree += (piece.tag == initial ? "" : ",") + hexadecimal(piece.content);
    }
    return pieces.empty() || pieces.back().tag != final ? tree + ',' : tree;
}

std::string treeOf(Element const& filter)
{
    switch (filter.tag) {
    case 0xa0:
        return treeOfSet('&', filter.content);
    case 0xa1:
        return treeOfSet('|', filter.content);
    case 0xa2:
        return treeOfSet('!', filter.content);
    case 0xa3:
        return treeOfComparison(" eq ", filter.content);
    case 0xa4:
        return treeOfSubstrings(filter.content);
    case 0xa5:
        return treeOfComparison(" ge ", filter.content);
    case 0xa6:
        return treeOfComparison(" le ", filter.content);
    case 0x87:
        return filter.content + " present";
    case 0xa8:
        return treeOfComparison(" approx ", filter.content);
    default:
        refuse("OpenLDAP made an element of another kind");
    }
}

struct FreeElement {
    void operator()(BerElement* element) const { ber_free(element, 1); }
};

} // namespace

std::string hexadecimal(std::string const& bytes)
{
    constexpr char digits[] = "0123456789abcdef";
    std::string text;
    for (char const byte : bytes) {
        text += digits[static_cast<unsigned char>(byte) >> 4];
        text += digits[static_cast<unsigned char>(byte) & 0xfU];
    }
    return text;
}

std::string treeOfText(std::string const& filter) { return TextReader(filter).whole(); }

std::string treeByOpenLdap(std::string const& filter)
{
    std::unique_ptr<BerElement, FreeElement> const out(ber_alloc_t(LBER_USE_DER));
    berval bytes{0, nullptr};
    if (ldap_pvt_put_filter(out.get(), filter.c_str()) != 0 ||
        ber_flatten2(out.get(), &bytes, 0) != 0) {
        refuse("OpenLDAP refuses the filter");
    }
    std::vector<Element> const elements = elementsOf(std::string(bytes.bv_val, bytes.bv_len));
    if (elements.size() != 1) {
        refuse("OpenLDAP made more than one filter");
    }
    return treeOf(elements.front());
}

} // namespace SolvaneTest
