// Failing allocations, each in turn: of C++ and of OpenLDAP.
#include "Expectations.h"
#include "Resources.h"
#include "Sites.h"

#include "Allocations.h"
#include "Descriptor.h"

#include <array>
#include <new>

#include <fcntl.h>
#include <sys/wait.h>
#include <unistd.h>

namespace SolvaneTest {

namespace {

/// The number of allocations of an operation: of C++ and of OpenLDAP.
struct Counts {
    unsigned long ofProgram;
    unsigned long ofOpenLdap;
};

Counts countHere(Column column, Target const& target)
{
    std::unique_ptr<Action> const first = makeAction(column, std::string());
    first->run(target); // what is made only once is left out
    std::unique_ptr<Action> const operation = makeAction(column, std::string());
    unsigned long const before = OpenLdapMemory::now();
    unsigned int const ofProgram = allocationsOf([&] { operation->run(target); });
    return {ofProgram, OpenLdapMemory::now() - before};
}

/// The same, measured in a separate process.
Counts countIn(Column column, unsigned int port)
{
    Target target;
    target.port = port;
    std::array<int, 2> ends;
    checked(pipe2(ends.data(), O_CLOEXEC), "pipe2");
    Descriptor const readEnd(ends[0]);
    Descriptor writeEnd(ends[1]);
    pid_t const pid = checked(fork(), "fork");
    if (pid == 0) {
        Counts const counts = countHere(column, target);
        checked(write(writeEnd.number(), &counts, sizeof counts), "write");
        _exit(0);
    }
    writeEnd.close();
    Counts counts = {};
    ssize_t const got = read(readEnd.number(), &counts, sizeof counts);
    waitpid(pid, nullptr, 0);
    if (got != static_cast<ssize_t>(sizeof counts)) {
        throw std::runtime_error("the allocations cannot be counted");
    }
    return counts;
}

/// A healthy server; one allocation of the operation fails.
template <typename Failing> class MemorySite : public HealthySite {
public:
    MemorySite(unsigned int port, unsigned int number) : HealthySite(port), m_number(number) {}
    Came meet(Action& operation) override
    {
        Failing const scope(m_number);
        try {
            return operation.run(m_where);
        } catch (std::bad_alloc const&) { // of this test's own
            return {"out of memory"};
        }
    }

private:
    unsigned int m_number;
};

class OpenLdapMemorySite : public MemorySite<OpenLdapMemory::Failing> {
public:
    using MemorySite::MemorySite;
    std::string culprit() override { return OpenLdapMemory::Failing::wantedBy(); }
};

template <typename Site>
std::vector<Case> failingCases(unsigned long count, Accepted const& accepted, Extent const& extent)
{
    std::vector<Case> cases;
    for (unsigned int number = 0; number < count; number += extent.stride) {
        Case tried;
        tried.name = "allocation " + std::to_string(number);
        tried.site = [number, port = extent.healthyPort] {
            return std::make_unique<Site>(port, number);
        };
        tried.accepted = accepted;
        cases.push_back(tried);
    }
    return cases;
}

std::string notForTheTool(Column column)
{
    return column == Column::tool ? "a separate process, which uses the engine's code"
                                  : std::string();
}

Fault programMemory()
{
    return {
        "memory", "Each allocation of C++ fails in turn (operator new).", notForTheTool,
        [](Column column, Extent const& extent) {
            Accepted accepted = anyOf({success(column), {"out of memory"}});
            if (usesEngine(column)) { // OpenLDAP writes the request, which cannot throw
                accepted.insert("TryLater -1");
            }
            return failingCases<MemorySite<FailingAllocation>>(
                countIn(column, extent.healthyPort).ofProgram, accepted, extent);
        },
        "An add that fails while it builds its arrays leaks what it has built "
        "([Behaviours](guide/behaviours.md#a-failed-build-leaks)); this memory is not counted."};
}

/// The failure of any step, as an exception of the library's.
Accepted failureAnywhere(Column column)
{
    Accepted all = anyOf({success(column),
                          {"out of memory"},
                          connectTrouble(column, Trouble::broken),
                          troubleIn(Step::bind, column, Trouble::broken),
                          troubleIn(Step::whoAmI, column, Trouble::broken),
                          brokenBeforeRequest(column),
                          troubleIn(requestOf(column), column, Trouble::broken),
                          unreadable(requestOf(column), column)});
    if (usesEngine(column)) { // OpenLDAP's own codes: encoding, decoding, memory
        all.insert({"TryLater -3", "TryLater -4", "TryLater -10"});
        return all;
    }
    std::string const before = column == Column::pool ? "Connection.cpp:602 (4/0) < " : "";
    for (char const* const place :
         {"Connection.cpp:403 (4/1)", "Connection.cpp:519 (4/2)", "Connection.cpp:241 (4/3)"}) {
        all.insert(before + place);
        if (column == Column::query) {
            std::string const text = place;
            all.insert("error " + text.substr(0, text.find(' ')));
        }
    }
    return all;
}

/// Results if OpenLDAP misinterprets a failed allocation: as an invalid filter, or as the end of an
/// entry.
Accepted halfTruths(Column column)
{
    Accepted const noFilter = codeOfRequest(column, 2); // the search went out without one
    switch (column) {
    case Column::bind:
    case Column::add:
    case Column::modify:
    case Column::remove:
    case Column::compare:
        return {};
    case Column::stream:
        return anyOf({noFilter, alteredEntry(column), nobody(column)});
    case Column::verify: // the search is the engine's
        return {"Misconfigured 2", "Misconfigured -7", "LDAPLookup.cpp (2/0)"};
    case Column::engine:
    case Column::submit:
        return anyOf(
            {noFilter, alteredEntry(column), {"Misconfigured -7", "LDAPLookup.cpp (2/0)"}});
    default:
        return anyOf({noFilter, alteredEntry(column)});
    }
}

Fault openLdapMemory()
{
    return {
        "openldap-memory", "Each allocation of OpenLDAP's libraries fails in turn.", notForTheTool,
        [](Column column, Extent const& extent) {
            std::vector<Case> cases = failingCases<OpenLdapMemorySite>(
                countIn(column, extent.healthyPort).ofOpenLdap, failureAnywhere(column), extent);
            for (Case& each : cases) {
                each.acceptedAsLimit = halfTruths(column);
                each.mayOpenLdapLeak = true;
                each.mayOpenLdapCrash = true;
                each.mayOpenLdapLoseDescriptors = true;
            }
            return cases;
        },
        "OpenLDAP does not check all of its allocations. The table names the function that failed "
        "to allocate, or that aborted the process. Without memory for a filter, OpenLDAP sends the "
        "search without it or reports an invalid filter. Its functions for reading an entry return "
        "the same at the end and without memory. Some paths leak memory or the socket."};
}

} // namespace

std::vector<Fault> memoryFaults() { return {programMemory(), openLdapMemory()}; }

} // namespace SolvaneTest
