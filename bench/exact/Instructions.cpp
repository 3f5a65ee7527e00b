// Counts instructions with callgrind. A report is one of its output files, named in its "Trigger".
#include "Counting.h"

#include <valgrind/callgrind.h>

namespace SolvaneBench {

Counted::Counted()
{
    stopClocks(true);
    CALLGRIND_TOGGLE_COLLECT;
}

Counted::~Counted()
{
    CALLGRIND_TOGGLE_COLLECT;
    stopClocks(false);
}

void forget() { CALLGRIND_ZERO_STATS; }

void report(std::string const& name, unsigned int pieces)
{
    std::string const label = name + '/' + std::to_string(pieces);
    CALLGRIND_DUMP_STATS_AT(label.c_str());
}

} // namespace SolvaneBench
