// What is inside a search result entry, read in one pass and by OpenLDAP's ordinary calls: the same
// entry, or both find it damaged.
#include "Target.h"

#include <solvane/session/EntryReader.h>

#include <solvane/ldap/impl/OpenLDAPOwners.h>

#include <array>
#include <list>
#include <set>
#include <string>
#include <utility>
#include <vector>

#include <openldap.h>

#include <strings.h>
#include <sys/socket.h>
#include <unistd.h>

using namespace Solvane;
using SolvaneTest::require;

namespace {

/// A description and its values, as often as the entry has any.
using Attributes = std::vector<std::pair<std::string, std::vector<std::string>>>;

struct Entry {
    bool isWhole = false;
    std::string dn;
    Attributes attributes;
};

/// The header of a BER element with a length of four bytes.
std::string header(unsigned char tag, std::size_t length)
{
    std::string bytes{static_cast<char>(tag), '\x84'};
    for (int shift = 24; shift >= 0; shift -= 8) {
        bytes.push_back(static_cast<char>(length >> shift & 0xFF));
    }
    return bytes;
}

/// The entry as a message to the first request of a session.
std::string messageWith(std::string const& content)
{
    std::string const operation = header(0x64, content.size()) + content;
    std::string const id = "\x02\x01\x01";
    return header(0x30, id.size() + operation.size()) + id + operation;
}

/// A session with a search under way, whose answer is one message.
class Session {
public:
    explicit Session(std::string const& message)
    {
        std::array<int, 2> ends{};
        require(socketpair(AF_UNIX, SOCK_STREAM, 0, ends.data()) == 0, "there are sockets");
        require(ldap_init_fd(ends[0], LDAP_PROTO_TCP, "ldap://peer/", &m_session) == 0,
                "there is a session");
        int const version = LDAP_VERSION3;
        ldap_set_option(m_session, LDAP_OPT_PROTOCOL_VERSION, &version);
        ldap_set_option(m_session, LDAP_OPT_REFERRALS, LDAP_OPT_OFF);
        int id = 0;
        require(ldap_search_ext(m_session, "", LDAP_SCOPE_BASE, "(a=b)", nullptr, 0, nullptr,
                                nullptr, nullptr, -1, &id) == 0,
                "the search is sent");
        require(write(ends[1], message.data(), message.size()) ==
                    static_cast<ssize_t>(message.size()),
                "the answer fits into the socket");
        m_peer = ends[1];
        timeval atOnce = {0, 0};
        ldap_result(m_session, LDAP_RES_ANY, LDAP_MSG_ONE, &atOnce, m_message.address());
        require(m_message.get() != nullptr, "the message is there");
    }
    ~Session()
    {
        m_message.free();
        ldap_unbind_ext(m_session, nullptr, nullptr);
        close(m_peer);
    }
    Session(Session const&) = delete;
    Session& operator=(Session const&) = delete;

    LDAP* get() const { return m_session; }
    LDAPMessage* message() const { return m_message.get(); }

private:
    LDAP* m_session = nullptr;
    LDAPMessageBuffer m_message;
    int m_peer = -1;
};

bool isDamaged(LDAP* session)
{
    int code = LDAP_SUCCESS;
    ldap_get_option(session, LDAP_OPT_RESULT_CODE, &code);
    return code == LDAP_DECODING_ERROR;
}

/// The entry by OpenLDAP's ordinary calls.
Entry ordinary(Session const& session)
{
    Entry entry;
    LDAPCharBuffer dn;
    *dn.address() = ldap_get_dn(session.get(), session.message());
    if (dn.get() == nullptr) {
        return entry;
    }
    entry.dn = dn.get();
    LDAPBerElementBuffer position;
    LDAPCharBuffer name;
    *name.address() = ldap_first_attribute(session.get(), session.message(), position.address());
    for (; name.get() != nullptr;
         *name.address() = ldap_next_attribute(session.get(), session.message(), position.get())) {
        std::vector<std::string> values;
        int const none = LDAP_SUCCESS;
        ldap_set_option(session.get(), LDAP_OPT_RESULT_CODE, &none);
        LDAPBerValBuffer array(",");
        *array.address() = ldap_get_values_len(session.get(), session.message(), name.get());
        if (array.get() == nullptr && isDamaged(session.get())) {
            return entry;
        }
        for (berval** value = array.get(); value != nullptr && *value != nullptr; ++value) {
            values.emplace_back((*value)->bv_val, (*value)->bv_len);
        }
        entry.attributes.emplace_back(name.get(), std::move(values));
        name.free();
        ldap_set_option(session.get(), LDAP_OPT_RESULT_CODE, &none);
    }
    entry.isWhole = !isDamaged(session.get());
    return entry;
}

/// The entry by the reader.
/// @param isRead    whether it read one
/// @param entries  what it read
Entry read(bool isRead, std::list<LDAPSearchResultEntry> const& entries)
{
    Entry entry;
    entry.isWhole = isRead;
    require(entries.size() == (entry.isWhole ? 1U : 0U), "nothing is appended if it is damaged");
    if (!entry.isWhole) {
        return entry;
    }
    entry.dn = entries.front().entryName();
    for (LDAPAttribute const& attribute : entries.front().attributes().attributes()) {
        std::vector<std::string> values;
        for (Buffer const& value : attribute.binaryValue()) {
            values.emplace_back(reinterpret_cast<char const*>(value.data()), value.length());
        }
        entry.attributes.emplace_back(attribute.type().asString(), std::move(values));
    }
    return entry;
}

Entry read(Session const& session)
{
    std::list<LDAPSearchResultEntry> entries;
    bool const isRead = Lookup::readEntry(session.get(), session.message(), entries);
    return read(isRead, entries);
}

Entry read(std::string const& content)
{
    std::list<LDAPSearchResultEntry> entries;
    bool const isRead = Lookup::readEntry(content, entries);
    return read(isRead, entries);
}

bool hasNul(std::string const& text) { return text.find('\0') != std::string::npos; }

/// Whether OpenLDAP's ordinary calls tell all of an entry: they cut names at a NUL, and look values up
/// by name.
bool isPlain(Entry const& entry)
{
    auto const isLess = [](std::string const& a, std::string const& b) {
        return strcasecmp(a.c_str(), b.c_str()) < 0;
    };
    std::set<std::string, decltype(isLess)> names(isLess);
    for (auto const& attribute : entry.attributes) {
        // What the type makes of blanks and empty options is another matter.
        std::string const& name = attribute.first;
        bool const isOdd =
            name.empty() || hasNul(name) || name.find_first_of(" \t\n\v\f\r;") != std::string::npos;
        if (isOdd || !names.insert(name).second) {
            return false;
        }
    }
    return !hasNul(entry.dn);
}

} // namespace

namespace SolvaneTest {

void fuzz_entry(std::uint8_t const* data, std::size_t size)
{
    constexpr std::size_t longest = 16384; // fits into a socket's buffer
    std::string const content = SolvaneTest::textOf(data, std::min(size, longest));
    // Each on a message of its own: the reader's calls end names with a NUL where they stand.
    std::string const message = messageWith(content);
    Entry const first = read(Session(message));
    Entry const expected = ordinary(Session(message));
    Entry const left = read(content);
    require(left.isWhole == first.isWhole && left.dn == first.dn &&
                left.attributes == first.attributes,
            "the entry is the same without OpenLDAP's message");
    if (first.isWhole && isPlain(first)) {
        require(expected.isWhole, "OpenLDAP reads what the reader reads");
        require(first.dn == expected.dn, "the name is the same");
        require(first.attributes == expected.attributes ||
                    !isPlain(expected), // trimmed by the type
                "the attributes are the same");
    }
    if (expected.isWhole && isPlain(expected) && !hasNul(content)) {
        require(first.isWhole, "the reader reads what OpenLDAP reads");
    }
}

} // namespace SolvaneTest
