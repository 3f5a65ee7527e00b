// Runs the engine over all keys; writes and counts the records and reports errors.
#ifndef SOLVANE_TOOL_LOOKUP_RUN_H
#define SOLVANE_TOOL_LOOKUP_RUN_H

#include "Console.h"
#include "Options.h"
#include "Outcome.h"
#include "Progress.h"
#include "RecordWriter.h"

#include <solvane/lookup/LDAPLookup.h>

#include <chrono>
#include <memory>
#include <string>
#include <vector>

namespace Solvane::Tool {

/// One run over all keys. Not thread-safe.
class LookupRun {
public:
    /// @param single  more than one entry for a key is an error
    LookupRun(LDAPLookup& lookup, CommonOptions const& common, std::unique_ptr<RecordWriter> writer,
              bool single, Output& output, Diagnostics& diagnostics);

    /// Looks up every key and writes one record for each.
    /// @return the worst outcome
    /// @throws Failure     the keys cannot be read, or the output cannot be written
    /// @throws ReaderGone  the reader of standard output is gone
    Outcome over(KeyOptions& keys);
    /// Prints the statistics of --stats on standard error.
    void printStatistics(Stats form) const;

private:
    /// The counts shown by `--stats`.
    struct Counts {
        unsigned long keys = 0;
        unsigned long found = 0;
        unsigned long notFound = 0;
        unsigned long skipped = 0;
        unsigned long errors = 0;
    };

    void take(Record const& record, Progress& progress);
    void count(Record const& record);
    void complain(Record const& record);
    void endComplaint();
    void flush();
    double percentile(double part) const;

    LDAPLookup& m_lookup;
    bool m_isSingle;
    bool m_countsTimes;
    Output& m_output;
    Diagnostics& m_diagnostics;
    std::unique_ptr<RecordWriter> m_writer;
    std::string m_pending;     ///< records not written yet
    bool m_hasMoreKeys = true; ///< without waiting: records may be written together
    Outcome m_worst = Outcome::found;
    Counts m_counts;
    std::string m_complaint;                   ///< the last error printed
    unsigned long m_unspoken = 0;              ///< later keys with the same error
    mutable std::vector<float> m_milliseconds; ///< of every key; only with --stats
    std::chrono::steady_clock::time_point m_start;
};

} // namespace Solvane::Tool

#endif
