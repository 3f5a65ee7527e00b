// Plain sequences of the library's own calls.
#include "Directory.h"

#include <stdexcept>

using namespace Solvane;

namespace SolvaneTest {

namespace {

LDAPConnection::RefServer localServer(unsigned int port, LDAPConnection::Protocol protocol,
                                      bool secure, unsigned int networkTimeout)
{
    return LDAPConnection::RefServer("127.0.0.1", port, protocol, secure, networkTimeout, false,
                                     false);
}

LDAPSearchResultEntry const& onlyEntryIn(LDAPResult const& result)
{
    if (result.searchResultEntries().size() != 1) {
        throw std::runtime_error("found " + std::to_string(result.searchResultEntries().size()) +
                                 " entries instead of one; code " +
                                 std::to_string(result.resultCode()));
    }
    return result.searchResultEntries().front();
}

} // namespace

LDAPConnection::RefServer plainServer(unsigned int port, unsigned int networkTimeout)
{
    return localServer(port, LDAPConnection::V3, false, networkTimeout);
}

LDAPConnection::RefServer secureServer(unsigned int port, unsigned int networkTimeout)
{
    return localServer(port, LDAPConnection::V3, true, networkTimeout);
}

LDAPConnection::RefServer version2Server(unsigned int port)
{
    return localServer(port, LDAPConnection::V2, false, 10);
}

void bindAsReader(LDAPConnection& connection)
{
    connection.bind(readerDn, readerPassword, LDAPConnection::Synchronous);
}

LDAPConnection boundTo(LDAPConnection::RefServer const& server)
{
    LDAPConnection connection(server, false);
    bindAsReader(connection);
    return connection;
}

LDAPConnection anonymousTo(LDAPConnection::RefServer const& server)
{
    return LDAPConnection(server, true);
}

LDAPSearch::Parameter searchFor(std::string const& baseDN, std::string const& filter)
{
    LDAPSearch::Parameter parameter(baseDN);
    parameter.filter = filter;
    return parameter;
}

LDAPSearch::Parameter lookupOf(std::string const& dn)
{
    LDAPSearch::Parameter parameter(dn);
    parameter.scope = LDAPSearch::ScopeBase;
    return parameter;
}

LDAPResult answerTo(LDAPSearch& search)
{
    search.send();
    if (search.wait(10)) {
        throw std::runtime_error("no answer in time");
    }
    return search.result();
}

LDAPResult answerTo(LDAPConnection& connection, LDAPSearch::Parameter const& parameter)
{
    LDAPSearch search(connection, parameter);
    return answerTo(search);
}

LDAPAttribute attributeOf(std::string const& type, std::string const& value)
{
    LDAPAttribute attribute{LDAPAttributeType(type)};
    attribute.value(value);
    return attribute;
}

std::vector<std::string> namesIn(LDAPResult const& result)
{
    std::vector<std::string> names;
    for (LDAPSearchResultEntry const& entry : result.searchResultEntries()) {
        names.push_back(entry.entryName());
    }
    return names;
}

std::vector<std::string> descriptionsIn(LDAPResult const& result)
{
    std::vector<std::string> descriptions;
    for (LDAPAttribute const& attribute : onlyEntryIn(result).attributes().attributes()) {
        descriptions.push_back(attribute.type().asString());
    }
    return descriptions;
}

std::vector<std::string> valuesIn(LDAPResult const& result, std::string const& description)
{
    for (LDAPAttribute const& attribute : onlyEntryIn(result).attributes().attributes()) {
        if (attribute.type().asString() == description) {
            std::list<std::string> const& values = attribute.value();
            return std::vector<std::string>(values.begin(), values.end());
        }
    }
    return {};
}

} // namespace SolvaneTest
