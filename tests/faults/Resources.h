// Resources that a case must release: descriptors, and memory of this program and of OpenLDAP.
#ifndef SOLVANE_TESTS_FAULTS_RESOURCES_H
#define SOLVANE_TESTS_FAULTS_RESOURCES_H

#include <cstddef>
#include <string>
#include <vector>

namespace SolvaneTest {

/// The open descriptors of this process, with what each one is.
std::vector<std::string> openDescriptors();

/// Blocks that OpenLDAP's two libraries hold. Their allocator is replaced by one that keeps count,
/// in every build; this program is single-threaded as far as OpenLDAP goes.
class OpenLdapMemory {
public:
    /// A place in the sequence of allocations.
    static unsigned long now();
    /// Sizes of the blocks allocated since then and still held.
    static std::vector<std::size_t> heldSince(unsigned long start);
    /// Keeps those blocks from a leak checker.
    static void forgiveSince(unsigned long start);

    /// During its lifetime, one allocation fails, counted from 0; one object at a time.
    class Failing {
    public:
        explicit Failing(unsigned long number);
        ~Failing();
        Failing(Failing const&) = delete;
        Failing& operator=(Failing const&) = delete;

        /// The OpenLDAP function whose allocation failed; empty before the failure.
        static std::string wantedBy();
    };
};

/// Whether this build looks for leaks.
bool hasLeakChecker();
/// Looks for memory that is lost by now. True when there is some, which is described on standard
/// error.
bool hasLostMemory();

} // namespace SolvaneTest

#endif
