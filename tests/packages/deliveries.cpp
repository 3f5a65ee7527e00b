
// The rest of a program that begins with the code of the engine's page: eight threads ask one
// engine about users that are there and users that are not, at a throwaway server. Prints
// "deliveries: ok".
#include <atomic>
#include <cstdlib>
#include <iostream>
#include <thread>
#include <vector>

namespace {

constexpr int threadCount = 8;
constexpr int usersPerThread = 100;

LDAPLookup::Settings settingsFor(char const* port)
{
    LDAPLookup::Settings settings;
    settings.servers.emplace_back();
    settings.servers.back().host = "127.0.0.1";
    settings.servers.back().port = static_cast<unsigned int>(std::atoi(port));
    settings.bindDn = "cn=reader,dc=corp,dc=test";
    settings.password = "reader-pw";
    settings.base = "ou=people,dc=corp,dc=test";
    settings.queryTemplate = "(mail=$m)";
    return settings;
}

/// How many of the users user0000001 and on, and as many unknown ones, meet the fate they should.
int rightFates(LDAPLookup& lookup)
{
    int right = 0;
    for (int number = 1; number <= usersPerThread; ++number) {
        std::string const digits = std::to_string(10000000 + number).substr(1);
        right += actionFor(lookup, "user" + digits + "@corp.test") == std::string("deliver");
        right += actionFor(lookup, "nobody" + digits + "@corp.test") == std::string("reject");
    }
    return right;
}

} // namespace

int main(int argc, char** argv)
{
    if (argc != 2) {
        std::cerr << "usage: deliveries PORT\n";
        return 64;
    }
    LDAPLookup lookup(settingsFor(argv[1]));
    std::atomic<int> right{0};
    std::vector<std::thread> threads;
    for (int i = 0; i < threadCount; ++i) {
        threads.emplace_back([&] { right += rightFates(lookup); });
    }
    for (std::thread& thread : threads) {
        thread.join();
    }
    LDAPLookup::Statistics const counted = lookup.statistics();
    bool const passed = right == 2 * threadCount * usersPerThread && counted.opened >= 1 &&
                        counted.opened <= LDAPLookup::Settings().connections;
    std::cout << "deliveries: " << (passed ? "ok" : "failed") << ", " << right << " right, "
              << counted.opened << " connections\n";
    return passed ? 0 : 1;
}
