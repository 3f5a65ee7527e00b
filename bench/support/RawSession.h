// Owner of a session for raw calls.
#ifndef SOLVANE_BENCH_RAW_SESSION_H
#define SOLVANE_BENCH_RAW_SESSION_H

#include "Library.h"
#include "raw.h"

#include <string>
#include <utility>

namespace SolvaneBench {

class RawSession {
public:
    /// Neither connected nor bound.
    explicit RawSession(std::string const& uri) : m_session(raw_open(uri.c_str(), nullptr, nullptr))
    {
    }
    RawSession(std::string const& uri, Credentials const& credentials)
        : m_session(raw_open(uri.c_str(), credentials.dn.c_str(), credentials.password.c_str()))
    {
    }
    RawSession(RawSession&& other) noexcept : m_session(std::exchange(other.m_session, nullptr)) {}
    RawSession(RawSession const&) = delete;
    RawSession& operator=(RawSession const&) = delete;
    ~RawSession()
    {
        if (m_session != nullptr) {
            raw_close(m_session);
        }
    }

    LDAP* get() const { return m_session; }

private:
    LDAP* m_session;
};

} // namespace SolvaneBench

#endif
