// Tolerates leaks of other libraries.
#ifndef SOLVANE_TESTS_SUPPORT_TOLERATED_LEAK_H
#define SOLVANE_TESTS_SUPPORT_TOLERATED_LEAK_H

#if defined(__SANITIZE_ADDRESS__)
#include <sanitizer/lsan_interface.h>
#endif

namespace SolvaneTest {

/// What this thread allocates during the object's lifetime is no leak. For GSSAPI without a security
/// layer, that is over TLS: the plugin of Cyrus SASL 2.1.28 loses the credentials of each bind.
class ToleratedLeak {
public:
#if defined(__SANITIZE_ADDRESS__)
    ToleratedLeak() { __lsan_disable(); }
    ~ToleratedLeak() { __lsan_enable(); }
#else
    ToleratedLeak() {} // not defaulted, or it would be an unused variable
#endif
    ToleratedLeak(ToleratedLeak const&) = delete;
    ToleratedLeak& operator=(ToleratedLeak const&) = delete;
};

} // namespace SolvaneTest

#endif
