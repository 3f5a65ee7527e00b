// How a process ended that was to go on.
#ifndef SOLVANE_TESTS_FAULTS_CRASH_H
#define SOLVANE_TESTS_FAULTS_CRASH_H

#include <string>

namespace SolvaneTest {

/// Has a crash of this process say on standard error in which functions it happened. A sanitizer that
/// does so already is left alone.
void reportCrashes();

/// The function of OpenLDAP's libraries in which a process ended, by what it wrote; empty when it ended
/// anywhere else.
std::string openLdapFunctionIn(std::string const& standardError);

} // namespace SolvaneTest

#endif
