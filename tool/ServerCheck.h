// The steps of a check on one server.
#ifndef SOLVANE_TOOL_SERVER_CHECK_H
#define SOLVANE_TOOL_SERVER_CHECK_H

#include "CheckReport.h"

#include <solvane/lookup/DirectorySession.h>
#include <solvane/lookup/LDAPLookup.h>

#include <list>
#include <memory>
#include <optional>
#include <string>

namespace Solvane::Tool {

/// What is looked up on each server.
struct Probe {
    std::string key;
    unsigned int repeat = 0; ///< lookups to be measured besides
    std::string obstacle;    ///< why nothing can be looked up; empty: it can
};

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
    struct SearchEnd;

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
    bool probe();
    bool probeAgain();
    bool measure();

    bool take(Lookup::Verdict const& verdict, std::string const& text, Stopwatch const& watch);
    bool take(LDAPLookup::Answer const& answer);
    void judge(bool isGood, bool isDemanded, std::string const& text, std::string const& remedy,
               Stopwatch const& watch);
    bool requireKey();
    std::unique_ptr<Lookup::DirectorySession> session(Lookup::TlsVerify verify) const;
    SearchEnd search(std::string const& base, std::list<LDAPAttributeType> const& attributes);
    Lookup::Verdict collect(LDAPResult& result);
    std::string withoutUri(std::string const& text) const;
    Lookup::Clock::time_point deadline() const;

    LDAPLookup::Settings m_settings; ///< with the one server
    LDAPLookup::Server const& m_server;
    Probe const& m_probe;
    CheckReport& m_report;
    std::string m_uri;
    char const* m_step = ""; ///< name of the one that is taken
    LDAPConnection::RefServer m_description;
    std::optional<Lookup::Certificate> m_certificate;
    bool m_isTrusted = true; ///< as far as the settings demand it
    std::unique_ptr<Lookup::DirectorySession> m_session;
    std::unique_ptr<LDAPLookup> m_lookup;
};

} // namespace Solvane::Tool

#endif
