// Helpers to check a thrown LDAPException.
#ifndef SOLVANE_TESTS_SUPPORT_FAULTS_H
#define SOLVANE_TESTS_SUPPORT_FAULTS_H

#include <solvane/ldap/LDAPException.h>

#include <gmock/gmock.h>

#include <stdexcept>

namespace SolvaneTest {

/// Runs `work` and returns a copy of the LDAPException that it throws. Any other outcome fails the
/// test.
template <typename Work> Solvane::LDAPException thrownBy(Work&& work)
{
    try {
        work();
    } catch (Solvane::LDAPException const& thrown) {
        return thrown;
    } catch (Solvane::Exception const& thrown) {
        throw std::logic_error("an Exception was thrown, no LDAPException: " + thrown.asString());
    }
    throw std::logic_error("nothing was thrown");
}

/// An LDAPException of this unit ("Connection.cpp"), line, code and type.
MATCHER_P4(IsFault, unit, line, code, type, "")
{
    *result_listener << "is " << arg.name() << " of " << arg.fileName() << ':' << arg.lineNumber()
                     << ", code " << arg.code() << ", type " << arg.getType() << ", text \""
                     << arg.stringParameter() << '"';
    return arg.name() == "LDAPException" && arg.fileName() == unit &&
           arg.lineNumber() == static_cast<unsigned int>(line) && arg.code() == code &&
           arg.getType() == type;
}

/// The same, with this text.
MATCHER_P5(IsFault, unit, line, code, type, text, "")
{
    return testing::ExplainMatchResult(IsFault(unit, line, code, type), arg, result_listener) &&
           arg.stringParameter() == text;
}

/// What an operation reports that is called through a null handle.
MATCHER_P2(IsNullHandle, unit, line, "")
{
    return testing::ExplainMatchResult(IsFault(unit, line, 1, 0, ""), arg, result_listener) &&
           !arg.hasCause();
}

/// The type of the LDAPException attached as cause; -1 if there is none or it is another exception.
inline int causeType(Solvane::Exception const& thrown)
{
    if (!thrown.hasCause()) {
        return -1;
    }
    auto const* const cause = dynamic_cast<Solvane::LDAPException const*>(&thrown.cause());
    return cause == nullptr ? -1 : cause->getType();
}

/// The LDAPException attached as cause; fails the test if there is none.
inline Solvane::LDAPException const& causeOf(Solvane::Exception const& thrown)
{
    return dynamic_cast<Solvane::LDAPException const&>(thrown.cause());
}

} // namespace SolvaneTest

#endif
