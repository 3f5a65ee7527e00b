// Reads every entry of a search with LDAPSearchStream.
//
// Usage: stream HOST PORT BIND_DN PASSWORD BASE FILTER PAGE_SIZE
//
// Prints the number of entries.
#include "Library.h"

#include <cstdio>
#include <string>

using Solvane::LDAPSearchStream;

namespace {

unsigned long entriesOf(char** words)
{
    Solvane::LDAPConnection const connection = SolvaneBench::openBound(
        SolvaneBench::serverAt(words[1], static_cast<unsigned int>(std::stoul(words[2]))),
        {words[3], words[4]});
    LDAPSearchStream::Parameter parameter(words[5]);
    parameter.filter = words[6];
    parameter.pageSize = std::stoi(words[7]);
    LDAPSearchStream stream(connection, parameter);
    stream.send();
    unsigned long entries = 0;
    while (stream.next(60) == LDAPSearchStream::ItemEntry) {
        SolvaneBench::require(SolvaneBench::readEntry(stream.entry()) > 0, "entry");
        ++entries;
    }
    SolvaneBench::require(stream.result().resultCode() == 0, "end of the stream");
    return entries;
}

} // namespace

int main(int count, char** words)
{
    if (count != 8) {
        std::fprintf(stderr, "usage: stream HOST PORT BIND_DN PASSWORD BASE FILTER PAGE_SIZE\n");
        return 2;
    }
    try {
        std::printf("%lu\n", entriesOf(words));
        return 0;
    } catch (Solvane::Exception const& failure) {
        std::fprintf(stderr, "stream: %s\n", failure.stringParameter().c_str());
    } catch (std::exception const& failure) {
        std::fprintf(stderr, "stream: %s\n", failure.what());
    }
    return 1;
}
