// The requests of operations and the answers of a healthy server, message by message.
#ifndef SOLVANE_TESTS_FAULTS_EXCHANGE_H
#define SOLVANE_TESTS_FAULTS_EXCHANGE_H

#include <string>
#include <vector>

namespace SolvaneTest {

/// The operations tried against each fault: the columns of the matrix.
enum class Column {
    bind,
    search,
    add,
    modify,
    remove, ///< "delete"
    compare,
    stream, ///< LDAPSearchStream: three entries, in pages of two
    pool,   ///< a search on a connection of LDAPConnectionCache
    query,  ///< the query driver, with a bind of its own
    engine, ///< LDAPLookup: find, then findAll
    submit, ///< LDAPLookupQueue: several keys at once, in a loop with poll
    /// LDAPLookup::verify with the right password and with a wrong one. Its exchange is that of the
    /// user's bind; the search before is the engine's, and undisturbed.
    verify,
    tool, ///< solvane-ldap lookup, as a process
};
constexpr Column allColumns[] = {Column::bind,   Column::search,  Column::add,    Column::modify,
                                 Column::remove, Column::compare, Column::stream, Column::pool,
                                 Column::query,  Column::engine,  Column::submit, Column::verify,
                                 Column::tool};
char const* nameOf(Column column);
/// Whether its results are answers of the engine in this process.
constexpr bool isLookup(Column column)
{
    return column == Column::engine || column == Column::submit;
}
/// Whether it uses the engine in this process.
constexpr bool usesEngine(Column column) { return isLookup(column) || column == Column::verify; }

// The user on the servers of these tests, and the reader who may search it.
constexpr char userAddress[] = "user0000001@corp.test";
constexpr char userDn[] = "uid=user0000001,ou=people,dc=corp,dc=test";
constexpr char userName[] = "Anna Berg 1";
constexpr char people[] = "ou=people,dc=corp,dc=test";
constexpr char readerDn[] = "cn=reader,dc=corp,dc=test";
constexpr char readerPassword[] = "reader-pw";
constexpr char userPassword[] = "pw-user0000001"; // as in testbed/gen-ldif
constexpr char newDn[] = "uid=somebody,ou=new,dc=corp,dc=test";

// The users that a stream finds. They have no attribute but the address.
constexpr int streamedUsers = 3;
constexpr int pageSize = 2;
std::string streamedDn(int user);
std::string streamedAddress(int user);

/// The steps of an exchange, by request. The two of a stream are its pages.
enum class Step { bind, whoAmI, search, add, modify, remove, compare, page, nextPage, other };
/// Whether it is answered with entries.
constexpr bool isSearch(Step step)
{
    return step == Step::search || step == Step::page || step == Step::nextPage;
}
Step stepOf(std::string const& request);
/// The first step after the bind in a column's exchange; `other` if there is none.
Step requestOf(Column column);

/// The answer to a request, message by message; empty for an unbind.
std::vector<std::string> repliesTo(std::string const& request);

/// Whether the request is a bind as the reader.
bool isBindOfReader(std::string const& request);

/// The messages of a good answer to a step.
std::vector<std::string> repliesOf(Step step, int messageId);

/// A final response with any code, including those that no server sends.
std::string finalResponse(Step step, int messageId, long code);
std::string userEntry(int messageId);
/// The same message with another id, which need not exist.
std::string readdressed(std::string const& message, long messageId);

/// The role of a byte in a message.
enum class Role {
    tag,
    length,
    messageId, ///< and its length
    resultCode,
    text,    ///< of a name, a value or a diagnostic text: nothing in the message depends on it
    control, ///< identifier or value of a control
};
/// The role of each byte of a whole message.
std::vector<Role> rolesIn(std::string const& message);

/// One message of a recorded exchange.
struct Reply {
    Step step;
    bool isEntry;
    std::string bytes;
};
/// Everything that a healthy server sends on the connection of a column's operation.
std::vector<Reply> recordedReplies(Column column);

} // namespace SolvaneTest

#endif
