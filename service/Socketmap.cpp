// Reads requests and writes replies. Nothing here does any input or output.
#include "Socketmap.h"

#include <solvane/ldap/LDAPAttribute.h>
#include <solvane/lookup/Answer.h>
#include <solvane/lookup/Settings.h>
#include <solvane/session/PlainText.h>

#include <algorithm>
#include <charconv>
#include <iterator>

namespace Solvane::Service {

namespace {

using Lookup::Outcome;

constexpr std::size_t longestReason = 500; // mail servers log it

/// The values to return, without empty ones.
std::vector<std::string> valuesIn(Lookup::Answer const& answer, Lookup::Settings const& settings)
{
    std::vector<std::string> values;
    if (settings.makesResults()) {
        values = answer.results;
    } else {
        for (std::string const& attribute : settings.attributes) {
            std::vector<std::string> more = answer.values(attribute); // of all entries in order
            std::move(more.begin(), more.end(), std::back_inserter(values));
        }
    }
    values.erase(std::remove(values.begin(), values.end(), std::string()), values.end());
    return values;
}

bool isAskedFor(std::string const& type, Lookup::Settings const& settings)
{
    LDAPAttributeType const returned(type);
    for (auto const* const names :
         {&settings.attributes, &settings.specialResultAttributes, &settings.leafResultAttributes,
          &settings.terminalResultAttributes}) {
        for (std::string const& name : *names) {
            if (LDAPAttributeType(LDAPAttributeType(name).type()) == returned) {
                return true;
            }
        }
    }
    return false;
}

/// The type of an attribute with values that was not asked for; empty if there is none. A server may
/// return one by its main name instead of the name in the settings ("uid" for "userid").
std::string unaskedIn(Lookup::Answer const& answer, Lookup::Settings const& settings)
{
    for (LDAPSearchResultEntry const& entry : answer.entries) {
        for (LDAPAttribute const& attribute : entry.attributes().attributes()) {
            std::string const& type = attribute.type().type();
            if (!attribute.binaryValue().empty() && !isAskedFor(type, settings)) {
                return type;
            }
        }
    }
    return {};
}

/// The reply for entries without a value.
Reply replyWithout(Lookup::Answer const& answer, Lookup::Settings const& settings)
{
    std::string const unasked = unaskedIn(answer, settings);
    if (unasked.empty()) {
        return Reply::notFound();
    }
    return Reply::tryLater(answer.server +
                           ": the entry has no value of the result attributes, but "
                           "of '" +
                           unasked + "': set result_attribute to the server's name");
}

Reply replyWith(std::vector<std::string> const& values, std::string const& server)
{
    std::string joined;
    for (std::string const& value : values) {
        if (auto const fault = Lookup::faultIn(value)) {
            return Reply::tryLater(server + ": a value contains " + Lookup::describe(*fault));
        }
        joined += (joined.empty() ? "" : ",") + value;
        if (joined.size() > longestReply) {
            break;
        }
    }
    Reply reply = Reply::found(joined);
    if (reply.text.size() > longestReply) {
        return Reply::tryLater(server + ": the values have more than " +
                               std::to_string(longestReply) + " bytes");
    }
    return reply;
}

/// The cause, with the server if the text does not name it.
std::string reasonOf(Lookup::Answer const& answer)
{
    if (answer.server.empty() || answer.text.find(answer.server) != std::string::npos) {
        return answer.text;
    }
    return answer.server + ": " + answer.text;
}

} // namespace

void NetstringReader::add(std::string_view bytes)
{
    if (m_isMalformed) {
        return;
    }
    if (m_begin != 0) {
        m_bytes.erase(0, m_begin);
        m_begin = 0;
    }
    m_bytes.append(bytes);
}

std::optional<std::string> NetstringReader::next()
{
    if (m_isMalformed || (!m_length && !readLength())) {
        return std::nullopt;
    }
    if (heldBytes() <= *m_length) {
        return std::nullopt; // the comma is missing too
    }
    if (m_bytes[m_begin + *m_length] != ',') {
        m_isMalformed = true;
        return std::nullopt;
    }
    std::string content = m_bytes.substr(m_begin, *m_length);
    m_begin += *m_length + 1;
    m_length.reset();
    return content;
}

/// Returns false if the length is not complete, or malformed.
bool NetstringReader::readLength()
{
    std::size_t const mostDigits = std::to_string(m_longest).size();
    std::string_view const held = std::string_view(m_bytes).substr(m_begin);
    auto const end = std::min(held.find_first_not_of("0123456789"), held.size());
    bool const hasEnd = end < held.size();
    bool const isNumber = end <= mostDigits && (end < 2 || held.front() != '0');
    if (!isNumber || (hasEnd && (end == 0 || held[end] != ':'))) {
        m_isMalformed = true;
        return false;
    }
    if (!hasEnd) {
        return false;
    }
    std::size_t length = 0;
    std::from_chars(held.data(), held.data() + end, length);
    if (length > m_longest) {
        m_isMalformed = true;
        return false;
    }
    m_length = length;
    m_begin += end + 1;
    return true;
}

std::string netstring(std::string_view bytes)
{
    std::string made = std::to_string(bytes.size());
    made += ':';
    made += bytes;
    made += ',';
    return made;
}

std::optional<Request> requestOf(std::string const& text)
{
    auto const blank = text.find(' ');
    if (blank == std::string::npos) {
        return std::nullopt;
    }
    return Request{text.substr(0, blank), text.substr(blank + 1)};
}

Reply Reply::found(std::string_view value) { return {Kind::found, "OK " + std::string(value)}; }

Reply Reply::notFound() { return {Kind::notFound, "NOTFOUND "}; }

Reply Reply::tryLater(std::string_view reason)
{
    std::string text = Lookup::oneLine(reason);
    if (text.size() > longestReason) {
        text.resize(longestReason);
        while (!Lookup::isUtf8(text)) { // the last character may be cut
            text.pop_back();
        }
    }
    return {Kind::tryLater, "TEMP " + text};
}

Reply replyTo(Lookup::Answer const& answer, Lookup::Settings const& settings)
{
    switch (answer.outcome) {
    case Outcome::Found: {
        auto const values = valuesIn(answer, settings);
        return values.empty() ? replyWithout(answer, settings) : replyWith(values, answer.server);
    }
    case Outcome::NotFound:
    case Outcome::Skipped:
    case Outcome::BadKey:
        return Reply::notFound();
    case Outcome::TryLater:
    case Outcome::Refused:
    case Outcome::Misconfigured:
        break;
    }
    return Reply::tryLater(reasonOf(answer));
}

} // namespace Solvane::Service
