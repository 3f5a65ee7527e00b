// Uses the installed libraries as an outside program does: a filter, a request class of its own, a
// failed bind that is caught, and a lookup at a dead server. Prints "consumer: ok".
#include <solvane/ldap.h>
#include <solvane/ldap/impl.h>
#include <solvane/lookup.h>

#include <iostream>

namespace {

/// A request that answers itself: what derived classes need is there and exported.
class Echo : public Solvane::LDAPRequestImpl {
public:
    void send() override { id(42); }
    bool wait(unsigned int) override { return false; }
    Solvane::LDAPResult const& result() const override { return m_result; }
    void cancel() override {}

private:
    Solvane::LDAPResult m_result;
};

class EchoRequest : public Solvane::LDAPRequest {
public:
    EchoRequest() { m_impl.adopt(std::make_unique<Echo>()); }
};

bool expandsTemplates()
{
    Solvane::EmailAddress const address("j*doe@corp.test");
    return Solvane::LDAPUtil::instanceFilterTemplate("(&(uid=$u)(dc=$d))", address) ==
           "(&(uid=j\\2Adoe)(dc=corp.test))";
}

bool sendsRequestsOfItsOwn()
{
    EchoRequest request;
    request.send();
    return request.id() == 42 && !request.wait(0) && request.result().isNull();
}

bool reportsADeadServer()
{
    Solvane::LDAPConnection::RefServer const server("127.0.0.1", 1, Solvane::LDAPConnection::V3,
                                                    false, 1, false, false);
    Solvane::LDAPConnection connection(server, false);
    try {
        connection.bind("cn=reader", "secret", Solvane::LDAPConnection::Asynchronous);
    } catch (Solvane::LDAPException const& refused) {
        return refused.getType() == 1 && refused.lineNumber() == 241;
    }
    return false;
}

bool tellsDownFromUnknown()
{
    Solvane::LDAPLookup::Settings settings;
    settings.servers.emplace_back();
    settings.servers.back().host = "127.0.0.1";
    settings.servers.back().port = 1;
    settings.queryTemplate = "(mail=$m)";
    Solvane::LDAPLookup lookup(settings);
    return lookup.find("j.doe@corp.test").outcome == Solvane::LDAPLookup::Outcome::TryLater;
}

} // namespace

int main()
{
    bool const passed = expandsTemplates() && sendsRequestsOfItsOwn() && reportsADeadServer() &&
                        tellsDownFromUnknown();
    std::cout << "consumer: " << (passed ? "ok" : "failed") << '\n';
    return passed ? 0 : 1;
}
