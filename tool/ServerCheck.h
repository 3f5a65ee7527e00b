// The steps of a check on one server.
#ifndef SOLVANE_TOOL_SERVER_CHECK_H
#define SOLVANE_TOOL_SERVER_CHECK_H

#include "CheckReport.h"
#include "Sessions.h"

#include <solvane/lookup/LDAPLookup.h>

#include <memory>
#include <optional>
#include <string>
#include <vector>

namespace Solvane::Tool {

/// What is looked up on each server.
struct Probe {
    std::string key;
    unsigned int repeat = 0; ///< lookups to be measured besides
    std::string obstacle;    ///< why nothing can be looked up; empty: it can
};

/// Takes one session as far as it goes, step by step. Further ones are opened to look at what the
/// first does not tell: the host's other addresses, and the chain of a certificate that is refused
/// for its name.
class ServerCheck {
public:
    /// @param settings  of the lookups; the servers in it are left aside for `server`
    ServerCheck(LDAPLookup::Settings const& settings, LDAPLookup::Server const& server,
                Probe const& probe, CheckReport& report);
    ~ServerCheck();
    ServerCheck(ServerCheck const&) = delete;
    ServerCheck& operator=(ServerCheck const&) = delete;

    /// Takes every step. One that cannot be taken since another failed is reported as not tried.
    void run();

private:
    struct Step;

    // The steps. False: those behind it cannot be taken.
    bool resolve();
    bool reach();
    bool shakeHands();
    bool judgeCertificate();
    bool judgeName();
    bool judgeChain();
    bool bind();
    bool askIdentity();
    bool readRootDse();
    bool findBase();
    bool findReferences();
    bool probe();
    bool probeAgain();
    bool measure();

    bool take(Lookup::Verdict const& verdict, std::string const& text, Stopwatch const& watch);
    bool take(LDAPLookup::Answer const& answer);
    void judge(bool isGood, bool isDemanded, std::string const& text, std::string const& remedy,
               Stopwatch const& watch);
    bool requireKey();
    void showOtherAddresses();
    Lookup::Verdict chainVerdict() const;
    SearchEnd search(std::string const& base, std::vector<std::string> const& attributes);
    std::string withoutUri(std::string const& text) const;
    std::chrono::milliseconds silence() const;
    Lookup::Clock::time_point deadline() const;

    LDAPLookup::Settings m_settings; ///< with the one server
    LDAPLookup::Server const& m_server;
    Probe const& m_probe;
    CheckReport& m_report;
    std::string m_uri;
    char const* m_step = "";                   ///< name of the one that is taken
    std::shared_ptr<Lookup::TlsContext> m_tls; ///< null without TLS
    std::unique_ptr<Lookup::Session> m_session;
    Lookup::Verdict m_handshake;
    bool m_isTrusted = true; ///< as far as the settings demand it
    std::unique_ptr<LDAPLookup> m_lookup;
};

} // namespace Solvane::Tool

#endif
