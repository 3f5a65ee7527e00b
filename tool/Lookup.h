// Looking keys up one after the other on one session.
#ifndef SOLVANE_TOOL_LOOKUP_H
#define SOLVANE_TOOL_LOOKUP_H

#include "Console.h"
#include "DirectorySession.h"
#include "QueryTemplate.h"
#include "Record.h"

#include <optional>
#include <string>

namespace Solvane::Tool {

/// Makes a record of each key. Connects with the first key that has a filter, and not again: a key
/// that fails does not stop the others, but without the session they are all to be tried later.
class Lookup {
public:
    Lookup(ServerSettings const& server, std::string const& uri,
           LDAPSearch::Parameter const& parameter, QueryTemplate const& queryTemplate,
           Diagnostics const& diagnostics);

    Record lookUp(std::string const& key);

private:
    Answer answerTo(Record& record);
    Answer search(Record const& record);
    void connect();

    ServerSettings const& m_server;
    std::string m_uri;
    LDAPSearch::Parameter m_parameter;
    QueryTemplate const& m_template;
    Diagnostics const& m_diagnostics;
    std::optional<DirectorySession> m_session;
    std::optional<Answer> m_brokenOff; ///< why there is no session any more
};

} // namespace Solvane::Tool

#endif
