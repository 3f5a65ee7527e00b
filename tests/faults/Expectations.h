// What the documentation promises of each operation, by where it is disturbed and how.
#ifndef SOLVANE_TESTS_FAULTS_EXPECTATIONS_H
#define SOLVANE_TESTS_FAULTS_EXPECTATIONS_H

#include "Fault.h"

#include <initializer_list>

namespace SolvaneTest {

/// How it is disturbed.
enum class Trouble {
    none,
    broken, ///< the connection ends, or what comes is no LDAP
    silent, ///< nothing more comes
};

/// Nothing was disturbed, or the disturbance came too late to matter.
Accepted success(Column column);
/// The server cannot be connected to, and says so at once, or (`silent`) never.
Accepted connectTrouble(Column column, Trouble trouble);
/// In the answer to a step of the column's exchange. For a step that it does not have: success.
Accepted troubleIn(Step step, Column column, Trouble trouble);
/// The connection is gone when the request behind the bind is sent.
Accepted brokenBeforeRequest(Column column);
/// A response of this step that OpenLDAP hands over and that cannot be read.
Accepted unreadable(Step step, Column column);
/// The server answers this code.
Accepted codeOfBind(Column column, long code);
Accepted codeOfRequest(Column column, long code);

Accepted anyOf(std::initializer_list<Accepted> accepted);

} // namespace SolvaneTest

#endif
