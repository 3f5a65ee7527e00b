// Verifies one password without blocking: a search, then a bind.
#ifndef SOLVANE_LOOKUP_SRC_VERIFIER_H
#define SOLVANE_LOOKUP_SRC_VERIFIER_H

#include "Login.h"
#include "Pipeline.h"
#include "Shared.h"

#include <solvane/lookup/Verification.h>

#include <solvane/session/Waits.h>

#include <string>

namespace Solvane::Lookup {

/// Finds the entry of a key with one pipeline, and binds as it with another one, whose pool has
/// connections for this purpose only:
///
///     finding --exactly one entry--> binding --response--> done
///        |                                                   ^
///        +--anything else------------------------------------+
///
/// Both share one deadline. Nothing blocks: the owner alternates `advance` with a poll on `waits`.
/// Not thread-safe; the `Shared` state is.
class Verifier : public NonCopyable {
public:
    /// Starts at once. The key and the password are copied; the copy is wiped at the end.
    Verifier(Shared& shared, std::string const& key, std::string const& password);

    /// Makes as much progress as possible without blocking.
    void advance();
    /// Adds what `advance` waits for.
    void waits(Waits& waits) const;
    bool isDone() const { return m_isDone; }
    /// The result, once done.
    Verification& result() { return m_result; }

private:
    void takeEntry();
    void takeBind();
    void take(Answer const& answer);
    void finish(VerifyOutcome outcome, int code, std::string const& text);

    Clock::time_point const m_start;
    Login m_login;
    Pipeline m_finding;
    Pipeline m_binding;
    bool m_isBinding = false;
    bool m_isDone = false;
    Verification m_result;
};

} // namespace Solvane::Lookup

#endif
