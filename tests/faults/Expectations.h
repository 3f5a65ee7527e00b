// The documented result of each operation, by place and kind of disturbance.
#ifndef SOLVANE_TESTS_FAULTS_EXPECTATIONS_H
#define SOLVANE_TESTS_FAULTS_EXPECTATIONS_H

#include "Fault.h"

#include <initializer_list>

namespace SolvaneTest {

/// How it is disturbed.
enum class Trouble {
    none,
    broken, ///< the connection ends, or the data is not LDAP
    silent, ///< nothing more arrives
};

/// Nothing was disturbed, or too late to matter.
Accepted success(Column column);
/// The connect is refused at once, or (`silent`) never answered.
Accepted connectTrouble(Column column, Trouble trouble);
/// A disturbance in the answer to a step of the column's exchange; success if it lacks that step.
Accepted troubleIn(Step step, Column column, Trouble trouble);
/// A step has succeeded but the connection is lost afterwards; empty unless the next step is a page.
Accepted troubleAfter(Step step, Column column);
/// The connection is lost when the request after the bind is sent.
Accepted brokenBeforeRequest(Column column);
/// A malformed response of this step that OpenLDAP passes on.
Accepted unreadable(Step step, Column column);
/// The server answers this code.
Accepted codeOfBind(Column column, long code);
Accepted codeOfRequest(Column column, long code);

Accepted anyOf(std::initializer_list<Accepted> accepted);

} // namespace SolvaneTest

#endif
