/* Reads every entry of a search with OpenLDAP's calls alone, and stores none.
 *
 * Usage: raw_stream URI BIND_DN PASSWORD BASE FILTER
 *
 * Prints the number of entries. */
#include "raw.h"

#include <stdio.h>

int main(int count, char** words)
{
    LDAP* session;
    if (count != 6) {
        fprintf(stderr, "usage: raw_stream URI BIND_DN PASSWORD BASE FILTER\n");
        return 2;
    }
    session = raw_open(words[1], words[2], words[3]);
    printf("%lu\n", raw_read_entries(session, raw_send_search(session, words[4], words[5], NULL)));
    raw_close(session);
    return 0;
}
