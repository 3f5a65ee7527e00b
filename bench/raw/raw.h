/* What the benchmarks compare with: the same work in C, with OpenLDAP's calls alone. Nothing is kept
 * of what was read. Whatever fails ends the process with a message. */
#ifndef SOLVANE_BENCH_RAW_H
#define SOLVANE_BENCH_RAW_H

#include <ldap.h>

#ifdef __cplusplus
extern "C" {
#endif

/* Accepts any certificate from now on, in the whole process; the library's sessions do as well. */
void raw_accept_any_certificate(void);

/* A session of protocol version 3; connected and bound, unless dn is null. */
LDAP* raw_open(char const* uri, char const* dn, char const* password);
void raw_close(LDAP* session);
/* Binds a session, again if it is bound; connects it first if need be. */
void raw_bind(LDAP* session, char const* dn, char const* password);

/* Sends a search below base; gives its message id. attributes ends with a null pointer. */
int raw_send_search(LDAP* session, char const* base, char const* filter, char** attributes);
/* Takes a search's messages one by one, reads every DN, attribute and value, and lets go of them.
 * Gives the number of entries. */
unsigned long raw_read_entries(LDAP* session, int id);
/* The same, with the calls that hand out attributes in their order and need not look for them. */
unsigned long raw_read_entries_in_order(LDAP* session, int id);
/* Takes all messages at once; they stay the caller's (ldap_msgfree). */
LDAPMessage* raw_take_chain(LDAP* session, int id);
/* Reads one entry; gives the number of bytes of its DN and values. */
unsigned long raw_read_entry(LDAP* session, LDAPMessage* entry);

/* Sends an add; gives its message id. */
int raw_send_add(LDAP* session, char const* dn, LDAPMod** attributes);
/* The same for a modify and a delete. */
int raw_send_modify(LDAP* session, char const* dn, LDAPMod** changes);
int raw_send_delete(LDAP* session, char const* dn);
/* Takes the answer to one of these, which must be success. */
void raw_await_change(LDAP* session, int id);

/* Bytes that a session's connection has received since it was opened. */
unsigned long raw_received_bytes(LDAP* session);

#ifdef __cplusplus
}
#endif

#endif
