// How many references a body has; the library itself has no use for the number.
#ifndef SOLVANE_TESTS_UNIT_REFERENCE_COUNT_H
#define SOLVANE_TESTS_UNIT_REFERENCE_COUNT_H

#include <solvane/ldap/RefCounted.h>

namespace SolvaneTest {

/// Drops references until the last one has been dropped, then takes as many again. For one thread.
inline int countOf(Solvane::RefImpl& body)
{
    int count = 1;
    while (!body.dropReference()) {
        ++count;
    }
    for (int i = 0; i < count; ++i) {
        body.addReference();
    }
    return count;
}

} // namespace SolvaneTest

#endif
