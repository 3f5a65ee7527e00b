// The socketmap protocol of Postfix and Sendmail (socketmap_table(5)): netstrings, requests, replies.
#ifndef SOLVANE_SERVICE_SOCKETMAP_H
#define SOLVANE_SERVICE_SOCKETMAP_H

#include <cstddef>
#include <optional>
#include <string>
#include <string_view>
#include <vector>

namespace Solvane::Lookup {
struct Answer;
struct Settings;
} // namespace Solvane::Lookup

namespace Solvane::Service {

/// Reads netstrings ("5:hello,") from a stream of bytes, with bounded memory.
class NetstringReader {
public:
    /// @param longest  maximum of bytes in a netstring; a longer one is malformed
    explicit NetstringReader(std::size_t longest) : m_longest(longest) {}

    /// Appends bytes of the stream. Ignored once the stream is malformed.
    void add(std::string_view bytes);
    /// The next whole netstring; empty if more bytes are needed or the stream is malformed.
    std::optional<std::string> next();
    /// Whether the stream cannot be read any further.
    bool isMalformed() const { return m_isMalformed; }
    /// The number of bytes that `next` has not returned yet.
    std::size_t heldBytes() const { return m_bytes.size() - m_begin; }

private:
    bool readLength();

    std::size_t const m_longest;
    std::string m_bytes;
    std::size_t m_begin = 0;             ///< of the bytes not returned yet
    std::optional<std::size_t> m_length; ///< of the netstring that begins at m_begin; once known
    bool m_isMalformed = false;
};

/// The bytes as a netstring.
std::string netstring(std::string_view bytes);

/// The longest request that is read. Keys have at most 1000 bytes unless `key_bytes` is set.
constexpr std::size_t longestRequest = 16384;
/// The longest reply that Postfix reads.
constexpr std::size_t longestReply = 100000;

/// A request, "MAP KEY".
struct Request {
    std::string map;
    std::string key; ///< may be empty
};
/// Empty if there is no blank between map and key.
std::optional<Request> requestOf(std::string const& text);

/// The reply to a request. A value.
///
/// | outcome of the lookup                | reply      | Postfix           |
/// |--------------------------------------|------------|-------------------|
/// | Found, with a value                  | `OK`       | uses the value    |
/// | Found, without a value               | `NOTFOUND` | 550 for RCPT      |
/// | Found, only with other attributes    | `TEMP`     | 451, logs reason  |
/// | NotFound                             | `NOTFOUND` | 550               |
/// | Skipped: the domain is not served    | `NOTFOUND` | 550               |
/// | BadKey: the key cannot be an address | `NOTFOUND` | 550               |
/// | TryLater, Refused, Misconfigured     | `TEMP`     | 451, logs reason  |
/// | value too long or with control bytes | `TEMP`     | 451, logs reason  |
///
/// `PERM` is never sent: Sendmail does not defer mail for it.
struct Reply {
    /// What the reply says.
    enum class Kind { found, notFound, tryLater };

    Kind kind = Kind::tryLater;
    std::string text; ///< with the protocol's word: "OK anna@corp.test"

    static Reply found(std::string_view value);
    static Reply notFound();
    /// @param reason  shortened, and put on one line
    static Reply tryLater(std::string_view reason);
};

/// The reply for an answer of the engine: its results if the settings make them, else the values of
/// the result attributes in the order of the settings; joined by commas.
/// @param settings  of the map
Reply replyTo(Lookup::Answer const& answer, Lookup::Settings const& settings);

} // namespace Solvane::Service

#endif
