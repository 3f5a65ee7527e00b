// A fault as data: its cases, and the accepted results of each operation.
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

/// Thrown by the constructor of a site that this host does not allow.
class NotPermitted : public std::runtime_error {
public:
    using std::runtime_error::runtime_error;
};

/// The environment in which an operation meets a fault, for one case.
class Site {
public:
    virtual ~Site() = default;
    /// Where the fault is.
    virtual Target target() = 0;
    /// Ends the fault; returns where the same operation, with the same handles, must succeed.
    virtual Target mended() = 0;
    /// Runs the operation into the fault.
    virtual Came meet(Action& operation) { return operation.run(target()); }
    /// The name to report with a known limit that occurred; empty: none.
    virtual std::string culprit() { return std::string(); }
    /// Anything else that was wrong, such as a search on an unbound connection; empty: nothing.
    virtual std::string violation() { return std::string(); }
};

/// The accepted results of an operation, as words of `Came`.
using Accepted = std::set<std::string>;

struct Case {
    std::string name;
    std::function<std::unique_ptr<Site>()> site;
    Accepted accepted;
    /// Further accepted results, with causes outside this library; counted separately.
    Accepted acceptedAsLimit = {};
    /// Seconds within which the operation must have ended.
    unsigned int limitSeconds = 20;
    /// Known limits of the installed OpenLDAP: it may leak its own memory, or end the process.
    bool mayOpenLdapLeak = false;
    bool mayOpenLdapCrash = false;
    bool mayOpenLdapLoseDescriptors = false;
};

/// The options of a run.
struct Extent {
    /// Maximum number of cases of a cell, evenly spread; 0: all.
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
    /// Why a column does not apply here; empty if it does.
    std::function<std::string(Column)> notApplicable;
    std::function<std::vector<Case>(Column, Extent const&)> cases;
    /// The cause of known limits, for the document; empty if there are none.
    std::string limit = {};
};

/// For rows to which every column applies.
std::string always(Column);

// The rows, by the place of the fault.
std::vector<Fault> connectionFaults();
std::vector<Fault> securityFaults();
std::vector<Fault> serverFaults();
std::vector<Fault> byteFaults();
std::vector<Fault> messageFaults();
std::vector<Fault> hostFaults();
std::vector<Fault> interruptionFaults();
std::vector<Fault> memoryFaults();

} // namespace SolvaneTest

#endif
