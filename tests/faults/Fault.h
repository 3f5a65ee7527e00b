// A fault as data: its cases, and what each operation may come to in them.
#ifndef SOLVANE_TESTS_FAULTS_FAULT_H
#define SOLVANE_TESTS_FAULTS_FAULT_H

#include "Exchange.h"
#include "Operations.h"

#include <functional>
#include <memory>
#include <set>
#include <stdexcept>
#include <string>
#include <vector>

namespace SolvaneTest {

/// Thrown by the constructor of a site that this host does not permit.
class NotPermitted : public std::runtime_error {
public:
    using std::runtime_error::runtime_error;
};

/// The surroundings in which an operation meets a fault, made for one case.
class Site {
public:
    virtual ~Site() = default;
    /// Where the fault is.
    virtual Target target() = 0;
    /// Ends the fault; where the same operation, with the handles it has, must succeed.
    virtual Target mended() = 0;
    /// Runs the operation into the fault.
    virtual Came meet(Action& operation) { return operation.run(target()); }
    /// Who is to be named beside a known limit that showed; empty: nobody.
    virtual std::string culprit() { return std::string(); }
    /// What else was wrong, as a search on a connection without a bind; empty: nothing.
    virtual std::string violation() { return std::string(); }
};

/// What an operation may come to, as words of `Came`.
using Accepted = std::set<std::string>;

struct Case {
    std::string name;
    std::function<std::unique_ptr<Site>()> site;
    Accepted accepted;
    /// What the operation may come to besides, for a reason outside this library: these are counted
    /// apart.
    Accepted acceptedAsLimit = {};
    /// Seconds within which the operation must have ended.
    unsigned int limitSeconds = 20;
    /// Known limits of the installed OpenLDAP: it may lose memory of its own, or end the process.
    bool mayOpenLdapLeak = false;
    bool mayOpenLdapCrash = false;
    bool mayOpenLdapLoseDescriptors = false;
};

/// What a run is asked for.
struct Extent {
    /// At most so many cases of a cell, taken from all over it; 0: all.
    unsigned int most = 0;
    /// Every n-th position only; 1: all.
    unsigned int stride = 1;
    unsigned int healthyPort = 0; ///< of a server in another process
    std::string tool;             ///< path of solvane-ldap
    std::string preload;          ///< path of the library that makes a program's clock jump
};

/// A row of the matrix.
struct Fault {
    std::string name;
    std::string meaning; ///< one sentence for the document
    /// Why a column makes no sense here; empty where it does.
    std::function<std::string(Column)> notApplicable;
    std::function<std::vector<Case>(Column, Extent const&)> cases;
    /// The reason behind known limits, for the document; empty where there are none.
    std::string limit = {};
};

/// For rows in which every column makes sense.
std::string always(Column);

// The rows, by where the fault lies.
std::vector<Fault> connectionFaults();
std::vector<Fault> serverFaults();
std::vector<Fault> byteFaults();
std::vector<Fault> messageFaults();
std::vector<Fault> hostFaults();
std::vector<Fault> interruptionFaults();
std::vector<Fault> memoryFaults();

} // namespace SolvaneTest

#endif
