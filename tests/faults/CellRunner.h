// Runs the cases of one cell of the matrix, each judged, in processes of their own.
#ifndef SOLVANE_TESTS_FAULTS_CELL_RUNNER_H
#define SOLVANE_TESTS_FAULTS_CELL_RUNNER_H

#include "Fault.h"

#include <map>
#include <string>
#include <vector>

namespace SolvaneTest {

/// What a cell came to.
struct CellReport {
    unsigned int tried = 0;
    unsigned int passed = 0; ///< without those in `limits`
    /// Known limits of OpenLDAP that showed, and in how many cases.
    std::map<std::string, unsigned int> limits;
    std::vector<std::string> failures; ///< one line each
    long milliseconds = 0;
};

/// Runs all cases. A process runs one after the other until one of them kills it or hangs; the next
/// process goes on behind that one. Call it where there are no other threads.
CellReport runCell(Fault const& fault, Column column, Extent const& extent);

} // namespace SolvaneTest

#endif
