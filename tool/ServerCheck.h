// Checks one server step by step.
#ifndef SOLVANE_TOOL_SERVER_CHECK_H
#define SOLVANE_TOOL_SERVER_CHECK_H

#include "AttributeNames.h"
#include "CheckReport.h"
#include "Sessions.h"

#include <solvane/lookup/LDAPLookup.h>

#include <memory>
#include <optional>
#include <string>
#include <vector>

namespace Solvane::Tool {

/// The lookup to try on each server.
struct Probe {
    std::string key;
    unsigned int repeat = 0;             ///< number of additional lookups to measure
    std::string obstacle;                ///< why no lookup is possible; empty: it is
    std::vector<std::string> attributes; ///< named by the template and the list to return
};

/// Drives one session through all steps, as far as it gets. Opens further sessions for what the
/// first one does not show: the host's other addresses, and the chain of a certificate whose name
/// does not match. Not thread-safe.
class ServerCheck {
public:
    /// Borrows `server`, `probe` and `report`, which must outlive the check.
    /// @param settings  of the lookups; their servers are replaced by `server`
    ServerCheck(LDAPLookup::Settings const& settings, LDAPLookup::Server const& server,
                Probe const& probe, CheckReport& report);
    ~ServerCheck();
    ServerCheck(ServerCheck const&) = delete;
    ServerCheck& operator=(ServerCheck const&) = delete;

    /// Runs every step. After a failure, the remaining ones are reported as skipped.
    void run();

private:
    struct Step;

    // The steps. False: skip the remaining ones.
    bool resolve();
    bool reach();
    bool startTls();
    bool shakeHands();
    bool judgeCertificate();
    bool judgeName();
    bool judgeChain();
    bool judgeRevocation();
    bool bind();
    bool askIdentity();
    bool readRootDse();
    bool findBase();
    bool findReferences();
    bool checkSchema();
    bool probe();
    bool probeAgain();
    bool measure();

    // To which servers a step applies.
    bool isAny() const { return true; }
    bool hasHost() const { return m_server.socketPath.empty(); }
    bool hasSocket() const { return !hasHost(); }
    bool startsTls() const { return m_server.startTls; }
    bool usesTls() const { return m_server.usesTls(); }
    bool readsLists() const;
    bool bindsSimply() const { return m_settings.mechanism == Lookup::Mechanism::simple; }
    bool bindsBySasl() const { return !bindsSimply(); }

    bool take(Lookup::Verdict const& verdict, std::string const& text, Stopwatch const& watch);
    bool take(LDAPLookup::Answer const& answer);
    void judge(bool isGood, bool isDemanded, std::string const& text, std::string const& remedy,
               Stopwatch const& watch);
    bool requireBase();
    bool requireKey();
    void showOtherAddresses();
    Lookup::Verdict chainVerdict() const;
    SearchEnd search(std::string const& base, std::vector<std::string> const& attributes,
                     char const* filter = "(objectClass=*)");
    std::string withoutUri(std::string const& text) const;
    std::chrono::milliseconds silence() const;
    Lookup::Clock::time_point deadline() const;

    LDAPLookup::Settings m_settings; ///< with this server only
    LDAPLookup::Server const& m_server;
    Probe const& m_probe;
    CheckReport& m_report;
    std::string m_uri;
    char const* m_step = "";                   ///< name of the current step
    std::shared_ptr<Lookup::TlsContext> m_tls; ///< null without TLS
    std::unique_ptr<Lookup::Session> m_session;
    Lookup::Verdict m_handshake;
    bool m_isTrusted = true; ///< as far as the settings require
    std::unique_ptr<LDAPLookup> m_lookup;
};

} // namespace Solvane::Tool

#endif
