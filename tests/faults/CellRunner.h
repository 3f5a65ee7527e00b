// Runs and judges the cases of one cell of the matrix, in separate processes.
#ifndef SOLVANE_TESTS_FAULTS_CELL_RUNNER_H
#define SOLVANE_TESTS_FAULTS_CELL_RUNNER_H

#include "Fault.h"

#include <map>
#include <string>
#include <vector>

namespace SolvaneTest {

/// The result of a cell.
struct CellReport {
    unsigned int tried = 0;
    unsigned int passed = 0; ///< without those in `limits`
    /// Known limits of OpenLDAP that showed, and in how many cases.
    std::map<std::string, unsigned int> limits;
    std::vector<std::string> failures; ///< one line each
    long milliseconds = 0;
};

/// Runs all cases. A process runs them in sequence until one of them kills it or hangs; the next
/// process continues after that one. The caller must have no other threads.
CellReport runCell(Fault const& fault, Column column, Extent const& extent);

} // namespace SolvaneTest

#endif
