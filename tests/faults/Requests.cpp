// Requests beside search and add, and the streamed search.
#include "Operations.h"

#include <solvane/ldap.h>

#include <algorithm>
#include <vector>

using namespace Solvane;

namespace SolvaneTest {

namespace {

/// Binds, and then does what `request` says.
std::string boundAnd(Target const& target,
                     std::function<std::string(LDAPConnection&)> const& request)
{
    return wordFor([&] {
        LDAPConnection connection = connectionTo(target);
        std::string const bound = bindTo(connection, target);
        if (bound != "bound") {
            return bound;
        }
        target.afterBind();
        return request(connection);
    });
}

std::string wordOfCode(int code, char const* success)
{
    return code == 0 ? success : "code " + std::to_string(code);
}

/// Sends a request and waits for its result.
std::string sent(LDAPOperation& request, Target const& target, char const* success)
{
    request.send();
    return request.wait(target.patience) ? "no answer"
                                         : wordOfCode(request.result().resultCode(), success);
}

class Modify : public Action {
public:
    Came run(Target const& target) override
    {
        return {boundAnd(target, [&](LDAPConnection& connection) {
            LDAPModify modify(connection, userDn);
            modify.replace("cn", {userName});
            modify.add("mail", {"another@corp.test"});
            return sent(modify, target, "modified");
        })};
    }
};

class Delete : public Action {
public:
    Came run(Target const& target) override
    {
        return {boundAnd(target, [&](LDAPConnection& connection) {
            LDAPDelete deletion(connection, newDn);
            return sent(deletion, target, "deleted");
        })};
    }
};

class Compare : public Action {
public:
    Came run(Target const& target) override
    {
        return {boundAnd(target, [&](LDAPConnection& connection) {
            LDAPCompare compare(connection, userDn, "mail", userAddress);
            std::string const word = sent(compare, target, "code 0");
            switch (compare.outcome()) {
            case LDAPCompare::CompareTrue:
                return std::string("true");
            case LDAPCompare::CompareFalse:
                return std::string("false");
            default:
                return word;
            }
        })};
    }
};

/// Takes all entries of a search, one after the other.
class Stream : public Action {
public:
    Came run(Target const& target) override
    {
        std::vector<std::string> taken;
        std::string const word = boundAnd(target, [&](LDAPConnection& connection) {
            LDAPSearchStream::Parameter parameter(people);
            parameter.filter = "(mail=*@corp.test)";
            parameter.attributes = {LDAPAttributeType("mail")};
            parameter.pageSize = pageSize;
            LDAPSearchStream stream(connection, parameter);
            stream.send();
            return readAll(stream, target, taken);
        });
        bool const isEnd = word.rfind("found", 0) == 0 || word == "not found";
        return {word + (isEnd || !hasOneTwice(taken) ? "" : " after one twice")};
    }

private:
    static std::string readAll(LDAPSearchStream& stream, Target const& target,
                               std::vector<std::string>& taken)
    {
        for (;;) {
            switch (stream.next(target.patience)) {
            case LDAPSearchStream::ItemEntry:
                taken.push_back(valuesOf(stream.entry()));
                break;
            case LDAPSearchStream::ItemEnd: {
                int const code = stream.result().resultCode();
                return code == 0 ? wordOf(taken) : wordOfCode(code, "");
            }
            case LDAPSearchStream::ItemTimeout:
                return "no answer";
            default:
                return "a reference";
            }
        }
    }

    static std::vector<std::string> expected()
    {
        std::vector<std::string> all;
        for (int user = 1; user <= streamedUsers; ++user) {
            all.push_back(streamedDn(user) + "|mail=" + streamedAddress(user));
        }
        return all;
    }

    static std::string wordOf(std::vector<std::string> const& taken)
    {
        std::vector<std::string> const all = expected();
        if (taken == all) {
            return "found";
        }
        return taken.empty()               ? "not found"
               : taken.size() < all.size() ? "found less"
               : taken.size() > all.size() ? "found more"
                                           : "found altered";
    }

    static bool hasOneTwice(std::vector<std::string> const& taken)
    {
        std::vector<std::string> const all = expected();
        return std::any_of(all.begin(), all.end(), [&](std::string const& entry) {
            return std::count(taken.begin(), taken.end(), entry) > 1;
        });
    }
};

} // namespace

std::unique_ptr<Action> makeRequest(Column column)
{
    switch (column) {
    case Column::modify:
        return std::make_unique<Modify>();
    case Column::remove:
        return std::make_unique<Delete>();
    case Column::compare:
        return std::make_unique<Compare>();
    default:
        return std::make_unique<Stream>();
    }
}

} // namespace SolvaneTest
