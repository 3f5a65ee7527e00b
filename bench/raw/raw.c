/* The work that the library does, in C. */
#include "raw.h"

#include <linux/tcp.h>
#include <netinet/in.h>
#include <stdio.h>
#include <stdlib.h>
#include <string.h>
#include <sys/socket.h>

static void check(int rc, char const* what)
{
    if (rc != LDAP_SUCCESS) {
        fprintf(stderr, "raw: %s: %s\n", what, ldap_err2string(rc));
        exit(1);
    }
}

void raw_accept_any_certificate(void)
{
    int const policy = LDAP_OPT_X_TLS_ALLOW;
    check(ldap_set_option(NULL, LDAP_OPT_X_TLS_REQUIRE_CERT, &policy), "certificate policy");
}

static LDAPMessage* take(LDAP* session, int id, int all)
{
    LDAPMessage* message = NULL;
    if (ldap_result(session, id, all, NULL, &message) <= 0) {
        check(LDAP_SERVER_DOWN, "wait");
    }
    return message;
}

/* Reads the code of a final answer, and lets go of it. */
static int code_of(LDAP* session, LDAPMessage* answer)
{
    int code = LDAP_OTHER;
    check(ldap_parse_result(session, answer, &code, NULL, NULL, NULL, NULL, 1), "answer");
    return code;
}

void raw_bind(LDAP* session, char const* dn, char const* password)
{
    struct berval credentials;
    int id = 0;
    credentials.bv_val = strdup(password);
    credentials.bv_len = strlen(password);
    check(ldap_sasl_bind(session, dn, LDAP_SASL_SIMPLE, &credentials, NULL, NULL, &id), "bind");
    free(credentials.bv_val);
    check(code_of(session, take(session, id, LDAP_MSG_ONE)), "bind");
}

LDAP* raw_open(char const* uri, char const* dn, char const* password)
{
    int const version = LDAP_VERSION3;
    LDAP* session = NULL;
    check(ldap_initialize(&session, uri), "initialize");
    check(ldap_set_option(session, LDAP_OPT_PROTOCOL_VERSION, &version), "version");
    if (dn != NULL) {
        raw_bind(session, dn, password);
    }
    return session;
}

void raw_close(LDAP* session) { ldap_unbind_ext(session, NULL, NULL); }

int raw_send_search(LDAP* session, char const* base, char const* filter, char** attributes)
{
    int id = 0;
    check(ldap_search_ext(session, base, LDAP_SCOPE_SUBTREE, filter, attributes, 0, NULL, NULL,
                          NULL, -1, &id),
          "search");
    return id;
}

unsigned long raw_read_entry(LDAP* session, LDAPMessage* entry)
{
    BerElement* position = NULL;
    char* const dn = ldap_get_dn(session, entry);
    unsigned long bytes = strlen(dn);
    char* name = ldap_first_attribute(session, entry, &position);
    ldap_memfree(dn);
    while (name != NULL) {
        struct berval** const values = ldap_get_values_len(session, entry, name);
        for (int i = 0; values != NULL && values[i] != NULL; ++i) {
            bytes += values[i]->bv_len;
        }
        ldap_value_free_len(values);
        ldap_memfree(name);
        name = ldap_next_attribute(session, entry, position);
    }
    ber_free(position, 0);
    return bytes;
}

static unsigned long read_in_order(LDAP* session, LDAPMessage* entry)
{
    BerElement* position = NULL;
    struct berval dn = {0, NULL};
    unsigned long bytes = 0;
    check(ldap_get_dn_ber(session, entry, &position, &dn), "entry");
    bytes += dn.bv_len;
    for (;;) {
        struct berval name = {0, NULL};
        struct berval* values = NULL;
        check(ldap_get_attribute_ber(session, entry, position, &name, &values), "attribute");
        if (name.bv_val == NULL) {
            break;
        }
        for (struct berval const* value = values; value != NULL && value->bv_val != NULL; ++value) {
            bytes += value->bv_len;
        }
        ldap_memfree(values); /* the bytes are the message's */
    }
    ber_free(position, 0);
    return bytes;
}

static unsigned long read_all(LDAP* session, int id,
                              unsigned long (*read_entry)(LDAP*, LDAPMessage*))
{
    unsigned long entries = 0;
    for (;;) {
        LDAPMessage* const message = take(session, id, LDAP_MSG_ONE);
        if (ldap_msgtype(message) == LDAP_RES_SEARCH_ENTRY) {
            read_entry(session, message);
            ldap_msgfree(message);
            ++entries;
        } else {
            check(code_of(session, message), "search");
            return entries;
        }
    }
}

unsigned long raw_read_entries(LDAP* session, int id)
{
    return read_all(session, id, raw_read_entry);
}

unsigned long raw_read_entries_in_order(LDAP* session, int id)
{
    return read_all(session, id, read_in_order);
}

LDAPMessage* raw_take_chain(LDAP* session, int id) { return take(session, id, LDAP_MSG_ALL); }

int raw_send_add(LDAP* session, char const* dn, LDAPMod** attributes)
{
    int id = 0;
    check(ldap_add_ext(session, dn, attributes, NULL, NULL, &id), "add");
    return id;
}

int raw_send_modify(LDAP* session, char const* dn, LDAPMod** changes)
{
    int id = 0;
    check(ldap_modify_ext(session, dn, changes, NULL, NULL, &id), "modify");
    return id;
}

int raw_send_delete(LDAP* session, char const* dn)
{
    int id = 0;
    check(ldap_delete_ext(session, dn, NULL, NULL, &id), "delete");
    return id;
}

void raw_await_change(LDAP* session, int id)
{
    check(code_of(session, take(session, id, LDAP_MSG_ONE)), "change");
}

unsigned long raw_received_bytes(LDAP* session)
{
    struct tcp_info state;
    socklen_t size = sizeof state;
    int descriptor = -1;
    memset(&state, 0, sizeof state);
    check(ldap_get_option(session, LDAP_OPT_DESC, &descriptor), "descriptor");
    if (getsockopt(descriptor, IPPROTO_TCP, TCP_INFO, &state, &size) != 0) {
        perror("raw: received bytes");
        exit(1);
    }
    return (unsigned long)state.tcpi_bytes_received;
}
