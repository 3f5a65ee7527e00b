// Why a process crashed.
#ifndef SOLVANE_TESTS_FAULTS_CRASH_H
#define SOLVANE_TESTS_FAULTS_CRASH_H

#include <string>

namespace SolvaneTest {

/// Makes a crash of this process print its backtrace on standard error, unless a sanitizer does so
/// already.
void reportCrashes();

/// The function of OpenLDAP in which a process crashed, from its output; empty if it crashed
/// elsewhere.
std::string openLdapFunctionIn(std::string const& standardError);

} // namespace SolvaneTest

#endif
