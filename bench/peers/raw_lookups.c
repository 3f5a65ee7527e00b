/* Looks addresses up with OpenLDAP's calls alone, one after another on one connection.
 *
 * Usage: raw_lookups URI BIND_DN PASSWORD BASE ATTRIBUTE <addresses
 *
 * Prints a line for each: the address, a tab, the attribute's first value. */
#include "raw.h"

#include <stdio.h>
#include <stdlib.h>
#include <string.h>

/* Addresses of the test data hold nothing that a filter would have to escape. */
static void look_up(LDAP* session, char const* base, char* attribute, char const* address)
{
    char filter[512];
    char* attributes[] = {attribute, NULL};
    LDAPMessage* chain;
    snprintf(filter, sizeof filter, "(mail=%s)", address);
    chain = raw_take_chain(session, raw_send_search(session, base, filter, attributes));
    for (LDAPMessage* entry = ldap_first_entry(session, chain); entry != NULL;
         entry = ldap_next_entry(session, entry)) {
        struct berval** const values = ldap_get_values_len(session, entry, attribute);
        if (values != NULL && values[0] != NULL) {
            printf("%s\t%.*s\n", address, (int)values[0]->bv_len, values[0]->bv_val);
        }
        ldap_value_free_len(values);
    }
    ldap_msgfree(chain);
}

int main(int count, char** words)
{
    char address[256];
    LDAP* session;
    if (count != 6) {
        fprintf(stderr, "usage: raw_lookups URI BIND_DN PASSWORD BASE ATTRIBUTE <addresses\n");
        return 2;
    }
    session = raw_open(words[1], words[2], words[3]);
    while (fgets(address, sizeof address, stdin) != NULL) {
        address[strcspn(address, "\n")] = '\0';
        look_up(session, words[4], words[5], address);
    }
    raw_close(session);
    return 0;
}
