// Switches OpenLDAP's debug output on for one operation, and off again.
//
//   debug_log HOST PORT
//
// The output goes to /var/spool/crashlog/ldap.log, or to standard error if that directory does not
// exist. Exit status: 0 if both calls succeeded.
#include <solvane/ldap.h>

#include <exception>
#include <iostream>
#include <string>

int main(int argc, char** argv)
{
    if (argc != 3) {
        std::cerr << "usage: debug_log HOST PORT\n";
        return 2;
    }
    constexpr unsigned int timeoutSeconds = 10;
    constexpr int trace = 1; // LDAP_DEBUG_TRACE: the calls; higher levels print passwords
    try {
        unsigned int const port = static_cast<unsigned int>(std::stoul(argv[2]));
        Solvane::LDAPConnection::RefServer const server(argv[1], port, Solvane::LDAPConnection::V3,
                                                        false, timeoutSeconds, false, false);
        Solvane::DebugLogOpenLDAP log;
        int const on = log.level(0, trace);
        {
            Solvane::LDAPConnection connection(server, true);
            connection.bind("", "", Solvane::LDAPConnection::Asynchronous);
            connection.bindWait(timeoutSeconds);
        } // destroy the connection first: it keeps the level of liblber with which it was created
        int const off = log.level(0, 0);
        std::cout << "switched on: " << on << ", switched off: " << off << '\n';
        return on == 0 && off == 0 ? 0 : 1;
    } catch (std::exception const& failure) {
        std::cerr << failure.what() << '\n';
    } catch (Solvane::Exception const& failure) {
        std::cerr << failure.asString() << '\n';
    }
    return 2;
}
