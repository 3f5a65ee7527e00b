// Keys into records: the engine's answers written, counted and complained about.
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

/// One run over all keys.
class LookupRun {
public:
    /// @param single  more than one entry for a key is an error
    LookupRun(LDAPLookup& lookup, CommonOptions const& common, bool single, Output& output,
              Diagnostics& diagnostics);

    /// Looks every key up; each gets one record.
    /// @return the worst outcome
    /// @throws Failure, ReaderGone
    Outcome over(KeyOptions& keys);
    /// On standard error, as it was asked for with --stats.
    void printStatistics(Stats form) const;

private:
    /// What `--stats` tells.
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
    std::string m_pending;     ///< records that are not written yet
    bool m_hasMoreKeys = true; ///< at once: their answers may be written together
    Outcome m_worst = Outcome::found;
    Counts m_counts;
    std::string m_complaint;                   ///< made last
    unsigned long m_unspoken = 0;              ///< keys after it with the same
    mutable std::vector<float> m_milliseconds; ///< of every key; only for statistics
    std::chrono::steady_clock::time_point m_start;
};

} // namespace Solvane::Tool

#endif
