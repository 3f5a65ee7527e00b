// Targets of the service: its protocols.
#include "AuthSession.h"
#include "Socketmap.h"
#include "Target.h"

using namespace Solvane::Service;
using SolvaneTest::require;

namespace {

constexpr std::size_t longest = 64;

/// What a reader makes of a stream that arrives in pieces of `size` bytes.
std::vector<std::string> readIn(std::string const& stream, std::size_t size, bool& isMalformed)
{
    NetstringReader reader(longest);
    std::vector<std::string> read;
    for (std::size_t begin = 0; begin < stream.size(); begin += size) {
        reader.add(std::string_view(stream).substr(begin, size));
        while (auto text = reader.next()) {
            require(text->size() <= longest, "a netstring is bounded");
            read.push_back(*text);
        }
        require(reader.isMalformed() || reader.heldBytes() <= longest + 4, "memory is bounded");
    }
    isMalformed = reader.isMalformed();
    return read;
}

} // namespace

namespace SolvaneTest {

/// Netstrings from any client: what is read does not depend on how it arrives, and is bounded.
void fuzz_socketmap(std::uint8_t const* data, std::size_t size)
{
    std::string const stream = textOf(data, size);
    bool isMalformed = false;
    bool isMalformedInBytes = false;
    auto const read = readIn(stream, stream.size() + 1, isMalformed);
    require(read == readIn(stream, 1, isMalformedInBytes), "bytes arrive as they like");
    require(isMalformed == isMalformedInBytes, "garbage is garbage");
    std::string written;
    for (std::string const& text : read) {
        written += netstring(text);
        auto const request = requestOf(text);
        require(!request || request->map + ' ' + request->key == text, "a request is whole");
        require(Reply::tryLater(text).text.size() < 600, "a reason is short");
    }
    require(stream.compare(0, written.size(), written) == 0, "what is read was sent");
}

/// Lines from any mail server: the session ends or goes on, asks and answers in whole lines, and gives
/// each login at most one answer.
void fuzz_auth(std::uint8_t const* data, std::size_t size)
{
    AuthSession::Options options;
    options.mostLogins = 4;
    options.needsSecured = size % 2 == 0;
    options.trouble = size % 4 < 2 ? AuthSession::Trouble::fail : AuthSession::Trouble::close;
    AuthSession session(options);
    std::string const stream = "VERSION\t1\t2\n" + textOf(data, size);
    auto const kinds = {AuthSession::Verdict::Kind::accepted, AuthSession::Verdict::Kind::denied,
                        AuthSession::Verdict::Kind::tryLater};
    std::uint64_t logins = 0;
    for (std::size_t begin = 0; begin < stream.size(); begin += 7) {
        session.add(std::string_view(stream).substr(begin, 7));
        while (auto const login = session.nextLogin()) {
            require(login->number == ++logins, "logins are counted");
            require(!login->user.empty(), "a login has a name");
            session.conclude(logins, {*(kinds.begin() + logins % 3), ""});
        }
        require(session.pending() <= options.mostLogins, "logins are bounded");
        std::string const output = session.takeOutput();
        require(output.empty() || output.back() == '\n', "answers are whole lines");
        require(output.find('\0') == std::string::npos, "names are escaped");
    }
    require(session.fault().empty() || session.isOver(), "a fault ends the session");
    auto const text = textOf(data, size);
    require(unescaped(escaped(text)) == text, "escapes are undone");
}

} // namespace SolvaneTest
