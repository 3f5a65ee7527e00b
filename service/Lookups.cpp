// Requests through the queues of maps.
#include "Lookups.h"

#include <boost/asio/posix/stream_descriptor.hpp>

#include <fmt/format.h>

#include <chrono>
#include <system_error>
#include <unordered_map>
#include <utility>
#include <vector>

namespace Solvane::Service {

namespace {

using Clock = std::chrono::steady_clock;
using Lookup::Outcome;

constexpr std::size_t longestKept = 4096; ///< bytes of a reply in a cache
constexpr int mostAnswersAtATime = 256;   ///< before other events have their turn

} // namespace

/// The requests of one thread for one map. A key that arrives while the same key is under way waits
/// for that answer. Not thread-safe.
class MapQueue : public std::enable_shared_from_this<MapQueue> {
public:
    MapQueue(boost::asio::io_context& context, Environment& environment, std::shared_ptr<Maps> maps,
             Map& map)
        : m_environment(environment), m_maps(std::move(maps)), m_map(map), m_queue(map.lookup),
          m_descriptor(context, m_queue.descriptor()), m_kept(m_maps->service().cacheEntries)
    {
    }
    MapQueue(MapQueue const&) = delete;
    MapQueue& operator=(MapQueue const&) = delete;
    ~MapQueue() { m_descriptor.release(); } // the queue closes it

    /// Takes answers as they come, for as long as it exists.
    void await()
    {
        m_descriptor.async_wait(boost::asio::posix::stream_descriptor::wait_read,
                                [weak = weak_from_this()](boost::system::error_code const& error) {
                                    auto const queue = weak.lock();
                                    if (queue && !error) {
                                        queue->takeAnswers();
                                        queue->await();
                                    }
                                });
    }

    void find(std::string const& key, Lookups::FindHandler handler)
    {
        if (Kept const* const kept = keptFor(key)) {
            ++m_map.metrics->cacheHits;
            tell(key, *kept, " (kept)");
            handler(kept->reply);
            return;
        }
        auto const [asked, isNew] = m_tags.emplace(key, m_lastTag + 1);
        if (isNew) {
            m_queue.submit(key, ++m_lastTag);
        } else {
            ++m_map.metrics->shared;
        }
        m_asked[asked->second].push_back(std::move(handler));
    }

    void verify(std::string const& user, std::string const& password,
                Lookups::VerifyHandler handler)
    {
        m_logins.emplace(++m_lastTag, std::move(handler));
        m_queue.submitVerify(user, password, m_lastTag);
    }

    /// Whether no request is under way.
    bool isIdle() const { return m_queue.pending() == 0; }
    /// Calls a function when that comes true.
    void whenIdle(std::function<void()> function) { m_whenIdle = std::move(function); }

private:
    /// An answer for later requests.
    struct Kept {
        Reply reply;
        Outcome outcome;
        Clock::time_point until;
    };

    Kept const* keptFor(std::string const& key)
    {
        Kept const* const kept = m_kept.find(key);
        return kept != nullptr && Clock::now() < kept->until ? kept : nullptr;
    }

    void takeAnswers()
    {
        for (int i = 0; i < mostAnswersAtATime; ++i) {
            auto const result = m_queue.next();
            if (!result) {
                break;
            }
            if (result->verification) {
                m_logins.extract(result->tag).mapped()(*result->verification);
            } else {
                take(*result);
            }
        }
        if (m_whenIdle && isIdle()) {
            m_whenIdle();
        }
    }

    void take(LDAPLookupQueue::Result const& result)
    {
        auto const asked = m_asked.extract(result.tag);
        m_tags.erase(result.key);
        Lookup::Answer const& answer = result.answer;
        Kept const taken = {replyTo(answer, m_map.settings.lookup), answer.outcome, {}};
        m_map.metrics->latency.add(answer.milliseconds);
        keep(result.key, taken);
        std::string const remark = fmt::format(", {:.1f} ms{}{}", answer.milliseconds,
                                               answer.server.empty() ? "" : ", ", answer.server);
        for (Lookups::FindHandler const& handler : asked.mapped()) {
            tell(result.key, taken, remark);
            handler(taken.reply);
        }
    }

    /// Only what a server has said is kept, never trouble.
    void keep(std::string const& key, Kept taken)
    {
        bool const isSaid = taken.outcome == Outcome::Found || taken.outcome == Outcome::NotFound;
        ServiceSettings const& settings = m_maps->service();
        auto const time = taken.reply.kind == Reply::Kind::found ? settings.cacheTime
                                                                 : settings.cacheNegativeTime;
        if (isSaid && taken.reply.kind != Reply::Kind::tryLater && time.count() > 0 &&
            taken.reply.text.size() <= longestKept) {
            taken.until = Clock::now() + time;
            m_kept.store(key, std::move(taken));
        }
    }

    /// Counts and logs an answer.
    void tell(std::string const& key, Kept const& answer, std::string const& remark)
    {
        ++m_map.metrics->requests[static_cast<std::size_t>(answer.outcome)];
        if (answer.outcome == Outcome::Found && answer.reply.kind == Reply::Kind::notFound) {
            ++m_map.metrics->withoutValue;
        }
        if (m_maps->service().logsRequests) {
            m_environment.log.write(Log::Level::info,
                                    fmt::format("{} {}: {}{}", m_map.settings.name, key,
                                                Lookup::name(answer.outcome), remark));
        }
    }

    Environment& m_environment;
    std::shared_ptr<Maps> const m_maps; ///< has `m_map`
    Map& m_map;
    LDAPLookupQueue m_queue;
    boost::asio::posix::stream_descriptor m_descriptor;
    Recent<Kept> m_kept;
    std::unordered_map<std::string, LDAPLookupQueue::Tag> m_tags; ///< of keys under way
    std::unordered_map<LDAPLookupQueue::Tag, std::vector<Lookups::FindHandler>> m_asked;
    std::unordered_map<LDAPLookupQueue::Tag, Lookups::VerifyHandler> m_logins;
    LDAPLookupQueue::Tag m_lastTag = 0;
    std::function<void()> m_whenIdle;
};

Lookups::Lookups(boost::asio::io_context& context, Environment& environment)
    : m_context(context), m_environment(environment)
{
}

Lookups::~Lookups() = default;

void Lookups::use(std::shared_ptr<Maps> const& maps)
{
    Queues queues;
    try {
        for (Map& map : maps->all()) {
            auto const queue = std::make_shared<MapQueue>(m_context, m_environment, maps, map);
            queue->await();
            queues.emplace(map.settings.name, queue);
        }
    } catch (std::system_error const& fault) { // no descriptor is left
        m_environment.log.write(Log::Level::error,
                                std::string("cannot use the maps: ") + fault.what());
        return;
    }
    m_queues.swap(queues);
    m_maps = maps;
    for (auto const& [name, queue] : queues) {
        if (!queue->isIdle()) {
            m_earlier.push_back(queue);
            queue->whenIdle([this] { dropIdle(); });
        }
    }
}

void Lookups::dropIdle()
{
    m_earlier.remove_if([](auto const& queue) { return queue->isIdle(); });
}

void Lookups::find(Request const& request, FindHandler handler)
{
    auto const queue = m_queues.find(request.map);
    if (queue == m_queues.end()) {
        ++m_environment.metrics.unknownMaps;
        handler(Reply::tryLater("there is no map '" + request.map + '\''));
        return;
    }
    queue->second->find(request.key, std::move(handler));
}

void Lookups::verify(std::string const& user, std::string const& password, VerifyHandler handler)
{
    auto const queue = m_queues.find(settings().authMap);
    if (queue == m_queues.end()) {
        LDAPLookup::Verification none;
        none.outcome = LDAPLookup::VerifyOutcome::Misconfigured;
        none.text = "there is no map for logins";
        handler(none);
        return;
    }
    queue->second->verify(user, password, std::move(handler));
}

} // namespace Solvane::Service
