// The lookups of one thread: from a client's request to the directory's answer.
#ifndef SOLVANE_SERVICE_LOOKUPS_H
#define SOLVANE_SERVICE_LOOKUPS_H

#include "Log.h"
#include "LoginLimits.h"
#include "Maps.h"
#include "Metrics.h"
#include "Recent.h"
#include "Socketmap.h"

#include <solvane/lookup/LDAPLookup.h>
#include <solvane/lookup/LDAPLookupQueue.h>

#include <boost/asio/io_context.hpp>

#include <cstddef>
#include <functional>
#include <list>
#include <map>
#include <memory>
#include <string>

namespace Solvane::Service {

class MapQueue;

/// What all threads share. Thread-safe.
struct Environment {
    Metrics& metrics;
    Log& log;
    LoginLimits& limits;
};

/// Answers requests in the thread of an `io_context`: from the cache, together with an equal request
/// that is under way, or from the directory. After a reload, requests go to the new maps; those under
/// way end in the old ones. Not thread-safe.
class Lookups {
public:
    using FindHandler = std::function<void(Reply const&)>;
    using VerifyHandler = std::function<void(LDAPLookup::Verification const&)>;

    Lookups(boost::asio::io_context& context, Environment& environment);
    ~Lookups();
    Lookups(Lookups const&) = delete;
    Lookups& operator=(Lookups const&) = delete;

    /// Puts maps and settings into use. Call it before the others.
    void use(std::shared_ptr<Maps> const& maps);
    /// Those in use.
    ServiceSettings const& settings() const { return m_maps->service(); }

    /// Looks a key up. The handler is called once, perhaps before `find` returns.
    void find(Request const& request, FindHandler handler);
    /// Verifies a password in the map for logins. The handler is called once, perhaps before `verify`
    /// returns.
    void verify(std::string const& user, std::string const& password, VerifyHandler handler);

private:
    using Queues = std::map<std::string, std::shared_ptr<MapQueue>>; ///< by the name of the map

    void dropIdle();

    boost::asio::io_context& m_context;
    Environment& m_environment;
    std::shared_ptr<Maps> m_maps;
    Queues m_queues;                                ///< of m_maps
    std::list<std::shared_ptr<MapQueue>> m_earlier; ///< with requests under way
};

} // namespace Solvane::Service

#endif
