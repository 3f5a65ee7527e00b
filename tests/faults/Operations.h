// The operations to test, each written as a careful caller would.
#ifndef SOLVANE_TESTS_FAULTS_OPERATIONS_H
#define SOLVANE_TESTS_FAULTS_OPERATIONS_H

#include "Exchange.h"

#include <chrono>
#include <functional>
#include <memory>
#include <string>
#include <vector>

namespace Solvane {
class LDAPConnection;
class LDAPSearchResultEntry;
} // namespace Solvane

namespace SolvaneTest {

/// The server of an operation, and its timeouts.
struct Target {
    unsigned int port = 0;
    bool isSecure = false;
    /// Seconds for the network and for each answer.
    unsigned int patience = 10;
    // For the engine, the tool and `bind` alone.
    bool startsTls = false;
    bool usesKerberos = false; ///< binds by the process's ticket
    // For the engine and the tool alone.
    std::string certificateFile = {}; ///< of the client
    std::string keyFile = {};
    std::string host = "127.0.0.1";
    std::vector<std::string> nameServers = {}; ///< empty: the system's
    std::vector<unsigned int> otherPorts = {}; ///< of 127.0.0.1: servers behind the first one
    std::chrono::milliseconds deadline{0};     ///< for a key; 0: somewhat more than `patience`
    /// Called between the bind and the next request, if the operation has them.
    std::function<void()> afterBind = [] {};
    /// A program that starts the tool, and options of the tool's own.
    std::vector<std::string> toolPrefix = {};
    std::vector<std::string> toolOptions = {};
};

/// The result of an operation, as one word or one place in the source:
///
/// - "bound", "added", "modified", "deleted", "true", "false", "found", "not found", "code N": the
///   server's answer. "found altered" is an entry that differs from the user's. Of a stream, "found
///   less" and "found more" are a success without all entries, or with too many; "... after one
///   twice" is a failure after an entry that came twice.
/// - "refused N": the bind's code. "unconfirmed": no answer to the bind in time. "no answer": no
///   answer to the request.
/// - "Search.cpp:332 (4/4)": an LDAPException with its code and type; causes follow behind "<". Of
///   a query, "error Search.cpp:332".
/// - "TryLater -1": outcome and code of the engine's answer. "exit 75": the tool's.
/// - "out of memory": std::bad_alloc. "system error: ...": std::system_error, with its text.
using Came = std::vector<std::string>;

/// One operation with the handles that it keeps between runs: a pool, an engine.
class Action {
public:
    virtual ~Action() = default;
    /// Its results; several words if it tries several ways.
    virtual Came run(Target const& target) = 0;
};

/// @param tool  path of solvane-ldap
std::unique_ptr<Action> makeAction(Column column, std::string const& tool);

/// One of the requests beside search and add, on a connection of its own: modify, remove, compare,
/// stream.
std::unique_ptr<Action> makeRequest(Column column);

/// A new connection, not yet bound.
Solvane::LDAPConnection connectionTo(Target const& target);
/// Binds it as the reader; returns "bound", "unconfirmed" or "refused N".
std::string bindTo(Solvane::LDAPConnection& connection, Target const& target);

/// The DN, and the attributes with their values.
std::string valuesOf(Solvane::LDAPSearchResultEntry const& entry);

/// Runs `work`; returns a failure as a word.
std::string wordFor(std::function<std::string()> const& work);

} // namespace SolvaneTest

#endif
