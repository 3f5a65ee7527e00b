// Generated entries for servers that answer from memory.
#ifndef SOLVANE_BENCH_PEOPLE_H
#define SOLVANE_BENCH_PEOPLE_H

#include "ReplayServer.h"

#include <string>

namespace SolvaneBench {

/// Entries of people with seven values each, about 315 bytes per message.
inline Answer peopleEntries(unsigned long count)
{
    Answer answer;
    for (unsigned long i = 0; i < count; ++i) {
        std::string const number = std::to_string(1000000 + i);
        std::string const uid = "user" + number;
        answer.add("uid=" + uid + ",ou=people,dc=corp,dc=test",
                   {{"objectClass", {"inetOrgPerson"}},
                    {"uid", {uid}},
                    {"cn", {"Greta Holm " + number}},
                    {"sn", {"Holm"}},
                    {"givenName", {"Greta"}},
                    {"employeeNumber", {number}},
                    {"mail", {uid + "@corp.test", "greta." + number + "@alias.corp.test"}}});
    }
    return answer;
}

} // namespace SolvaneBench

#endif
