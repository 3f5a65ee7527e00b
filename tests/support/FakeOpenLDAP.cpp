// The wrapped calls: each is recorded, then replaced or forwarded.
#include "FakeOpenLDAP.h"

#include <stdexcept>

// The linker's names for the functions behind --wrap.
// NOLINTBEGIN(bugprone-reserved-identifier)
#define DECLARE_REAL(function) extern "C" decltype(::function) __real_##function
DECLARE_REAL(ldap_initialize);
DECLARE_REAL(ldap_set_option);
DECLARE_REAL(ldap_get_option);
DECLARE_REAL(ldap_pvt_tls_set_option);
DECLARE_REAL(ldap_pvt_tls_init);
DECLARE_REAL(ldap_mark_select_clear);
DECLARE_REAL(ldap_unbind_ext);
DECLARE_REAL(ldap_sasl_bind);
DECLARE_REAL(ldap_sasl_bind_s);
DECLARE_REAL(ldap_sasl_interactive_bind);
DECLARE_REAL(ldap_start_tls);
DECLARE_REAL(ldap_install_tls);
DECLARE_REAL(ldap_tls_inplace);
DECLARE_REAL(ldap_search_ext);
DECLARE_REAL(ldap_add_ext);
DECLARE_REAL(ldap_delete_ext);
DECLARE_REAL(ldap_compare_ext);
DECLARE_REAL(ldap_rename);
DECLARE_REAL(ldap_modify_ext);
DECLARE_REAL(ldap_extended_operation);
DECLARE_REAL(ldap_abandon_ext);
DECLARE_REAL(ldap_result);
DECLARE_REAL(ldap_msgtype);
DECLARE_REAL(ldap_parse_result);
DECLARE_REAL(ldap_parse_reference);
DECLARE_REAL(ldap_parse_extended_result);
DECLARE_REAL(ldap_count_messages);
DECLARE_REAL(ldap_first_message);
DECLARE_REAL(ldap_next_message);
DECLARE_REAL(ldap_get_dn);
DECLARE_REAL(ldap_first_attribute);
DECLARE_REAL(ldap_next_attribute);
DECLARE_REAL(ldap_get_values_len);
DECLARE_REAL(ldap_msgfree);
DECLARE_REAL(ldap_memfree);
DECLARE_REAL(ldap_value_free);
DECLARE_REAL(ldap_value_free_len);
DECLARE_REAL(ldap_controls_free);
DECLARE_REAL(ber_free);
DECLARE_REAL(ber_bvfree);
DECLARE_REAL(ber_str2bv);
DECLARE_REAL(ber_set_option);
DECLARE_REAL(ber_sockbuf_add_io);
DECLARE_REAL(ber_sockbuf_remove_io);
DECLARE_REAL(ber_sockbuf_ctrl);
DECLARE_REAL(time);
DECLARE_REAL(getsockopt);
DECLARE_REAL(recv);
DECLARE_REAL(send);
DECLARE_REAL(poll);
DECLARE_REAL(fopen);
DECLARE_REAL(fclose);
#undef DECLARE_REAL
// NOLINTEND(bugprone-reserved-identifier)

namespace SolvaneTest {

namespace {

FakeOpenLDAP* g_current = nullptr;

// How arguments read in a record.

std::string quoted(char const* text)
{
    return text == nullptr ? "null" : '\'' + std::string(text) + '\'';
}

std::string shown(berval const* value)
{
    if (value == nullptr || value->bv_val == nullptr) {
        return "null";
    }
    return '\'' + std::string(value->bv_val, value->bv_len) + '\'';
}

std::string shown(char const* text) { return quoted(text); }

template <typename Item> std::string shownArray(Item* const* items)
{
    if (items == nullptr) {
        return "null";
    }
    std::string text = "[";
    for (Item* const* item = items; *item != nullptr; ++item) {
        text.append(item == items ? "" : " ").append(shown(*item));
    }
    return text + ']';
}

std::string shown(LDAPMod const* mod)
{
    bool const isBinary = (mod->mod_op & LDAP_MOD_BVALUES) != 0;
    return std::to_string(mod->mod_op) + ' ' + quoted(mod->mod_type) + ' ' +
           (isBinary ? shownArray(mod->mod_bvalues) : shownArray(mod->mod_values));
}

std::string shown(LDAPControl const* control)
{
    return quoted(control->ldctl_oid) + (control->ldctl_iscritical != 0 ? " critical " : " ") +
           shown(&control->ldctl_value);
}

std::string shown(timeval const* time)
{
    if (time == nullptr) {
        return "null";
    }
    return std::to_string(time->tv_sec) + "s " + std::to_string(time->tv_usec) + "us";
}

std::string optionName(int option)
{
    switch (option) {
    case LDAP_OPT_DESC:
        return "DESC";
    case LDAP_OPT_DEREF:
        return "DEREF";
    case LDAP_OPT_SIZELIMIT:
        return "SIZELIMIT";
    case LDAP_OPT_RESULT_CODE:
        return "RESULT_CODE";
    case LDAP_OPT_REFERRALS:
        return "REFERRALS";
    case LDAP_OPT_RESTART:
        return "RESTART";
    case LDAP_OPT_PROTOCOL_VERSION:
        return "PROTOCOL_VERSION";
    case LDAP_OPT_NETWORK_TIMEOUT:
        return "NETWORK_TIMEOUT";
    case LDAP_OPT_CONNECT_CB:
        return "CONNECT_CB";
    case LDAP_OPT_X_TLS_REQUIRE_CERT:
        return "X_TLS_REQUIRE_CERT";
    case LDAP_OPT_X_TLS_CTX:
        return "X_TLS_CTX";
    case LDAP_OPT_DIAGNOSTIC_MESSAGE:
        return "DIAGNOSTIC_MESSAGE";
    case LDAP_OPT_DEBUG_LEVEL:
        return "DEBUG_LEVEL";
    default:
        return std::to_string(option);
    }
}

std::string optionValue(int option, void const* value)
{
    switch (option) {
    case LDAP_OPT_REFERRALS:
    case LDAP_OPT_RESTART:
        return value == LDAP_OPT_OFF ? "off" : value == LDAP_OPT_ON ? "on" : "pointer";
    case LDAP_OPT_DEREF:
    case LDAP_OPT_PROTOCOL_VERSION:
    case LDAP_OPT_X_TLS_REQUIRE_CERT:
    case LDAP_OPT_DEBUG_LEVEL:
        return std::to_string(*static_cast<int const*>(value));
    case LDAP_OPT_NETWORK_TIMEOUT:
        return shown(static_cast<timeval const*>(value));
    default:
        return value == nullptr ? "null" : "pointer";
    }
}

std::string shown(std::string const& text) { return text; }
std::string shown(int number) { return std::to_string(number); }
std::string shown(unsigned long number) { return std::to_string(number); }

FakeOpenLDAP* recorder() { return RealCalls::areWanted() ? nullptr : g_current; }

/// The name of a pointer.
std::string named(void const* pointer)
{
    FakeOpenLDAP const* const fake = recorder();
    return fake == nullptr ? std::string() : fake->nameOf(pointer);
}

template <typename... Arguments> void record(char const* function, Arguments const&... arguments)
{
    if (FakeOpenLDAP* const fake = recorder()) {
        fake->record((std::string(function) + ... + (' ' + shown(arguments))));
    }
}

/// Calls the replacement, or the real function if there is none.
template <typename Member, typename Real, typename... Arguments>
auto run(Member FakeOpenLDAP::*member, Real* real, Arguments... arguments)
{
    FakeOpenLDAP* const fake = recorder();
    RealCalls const inside;
    if (fake != nullptr && fake->*member) {
        return (fake->*member)(arguments...);
    }
    return real(arguments...);
}

/// Names an object that a call has returned.
void christen(void const* pointer, char const* name)
{
    FakeOpenLDAP* const fake = recorder();
    if (fake != nullptr && pointer != nullptr) {
        fake->name(pointer, name);
    }
}

} // namespace

thread_local bool RealCalls::s_areWanted = false;

FakeOpenLDAP::FakeOpenLDAP()
{
    if (g_current != nullptr) {
        throw std::logic_error("there is a FakeOpenLDAP already");
    }
    g_current = this;
}

FakeOpenLDAP::~FakeOpenLDAP() { g_current = nullptr; }

std::vector<std::string> FakeOpenLDAP::calls() const
{
    std::lock_guard<std::mutex> const lock(m_mutex);
    return m_calls;
}

void FakeOpenLDAP::forgetCalls()
{
    std::lock_guard<std::mutex> const lock(m_mutex);
    m_calls.clear();
}

void FakeOpenLDAP::record(std::string const& call)
{
    std::lock_guard<std::mutex> const lock(m_mutex);
    m_calls.push_back(call);
}

void FakeOpenLDAP::name(void const* pointer, std::string const& text)
{
    std::lock_guard<std::mutex> const lock(m_mutex);
    m_names[pointer] = text;
}

std::string FakeOpenLDAP::nameOf(void const* pointer) const
{
    if (pointer == nullptr) {
        return "null";
    }
    std::lock_guard<std::mutex> const lock(m_mutex);
    auto const found = m_names.find(pointer);
    return found == m_names.end() ? "unknown" : found->second;
}

} // namespace SolvaneTest

using SolvaneTest::FakeOpenLDAP;
// Found unqualified below; a using directive would clash with the members' names.
using SolvaneTest::christen;
using SolvaneTest::named;
using SolvaneTest::optionName;
using SolvaneTest::optionValue;
using SolvaneTest::quoted;
using SolvaneTest::record;
using SolvaneTest::run;
using SolvaneTest::shown;
using SolvaneTest::shownArray;

// NOLINTBEGIN(bugprone-reserved-identifier)
#define RUN(function, ...) run(&FakeOpenLDAP::function, __real_##function, __VA_ARGS__)

extern "C" {

// Sessions and options

int __wrap_ldap_initialize(LDAP** session, char const* uri)
{
    record("ldap_initialize", std::string(uri));
    int const rc = RUN(ldap_initialize, session, uri);
    if (rc == LDAP_SUCCESS) {
        christen(*session, "session");
    }
    return rc;
}

int __wrap_ldap_set_option(LDAP* session, int option, void const* value)
{
    record("ldap_set_option", named(session), optionName(option), optionValue(option, value));
    return RUN(ldap_set_option, session, option, value);
}

int __wrap_ldap_get_option(LDAP* session, int option, void* value)
{
    record("ldap_get_option", named(session), optionName(option));
    return RUN(ldap_get_option, session, option, value);
}

int __wrap_ldap_pvt_tls_set_option(LDAP* session, int option, void* value)
{
    record("ldap_pvt_tls_set_option", named(session), optionName(option),
           optionValue(option, value));
    return RUN(ldap_pvt_tls_set_option, session, option, value);
}

int __wrap_ldap_pvt_tls_init(int threads)
{
    record("ldap_pvt_tls_init", threads);
    return RUN(ldap_pvt_tls_init, threads);
}

void __wrap_ldap_mark_select_clear(LDAP* session, Sockbuf* socket)
{
    record("ldap_mark_select_clear", named(session), named(socket));
    RUN(ldap_mark_select_clear, session, socket);
}

int __wrap_ldap_unbind_ext(LDAP* session, LDAPControl** server, LDAPControl** client)
{
    record("ldap_unbind_ext", named(session), named(server), named(client));
    return RUN(ldap_unbind_ext, session, server, client);
}

// Requests

int __wrap_ldap_sasl_bind(LDAP* session, char const* dn, char const* mechanism, berval* credentials,
                          LDAPControl** server, LDAPControl** client, int* id)
{
    record("ldap_sasl_bind", named(session), dn, mechanism, credentials, named(server),
           named(client));
    return RUN(ldap_sasl_bind, session, dn, mechanism, credentials, server, client, id);
}

int __wrap_ldap_sasl_bind_s(LDAP* session, char const* dn, char const* mechanism,
                            berval* credentials, LDAPControl** server, LDAPControl** client,
                            berval** answer)
{
    record("ldap_sasl_bind_s", named(session), dn, mechanism, credentials, named(server),
           named(client), named(answer));
    return RUN(ldap_sasl_bind_s, session, dn, mechanism, credentials, server, client, answer);
}

int __wrap_ldap_sasl_interactive_bind(LDAP* session, char const* dn, char const* mechanisms,
                                      LDAPControl** server, LDAPControl** client,
                                      unsigned int flags, LDAP_SASL_INTERACT_PROC* interact,
                                      void* defaults, LDAPMessage* result, char const** mechanism,
                                      int* id)
{
    record("ldap_sasl_interactive_bind", named(session), dn, mechanisms, named(server),
           named(client), static_cast<int>(flags), named(result));
    return RUN(ldap_sasl_interactive_bind, session, dn, mechanisms, server, client, flags, interact,
               defaults, result, mechanism, id);
}

int __wrap_ldap_start_tls(LDAP* session, LDAPControl** server, LDAPControl** client, int* id)
{
    record("ldap_start_tls", named(session), named(server), named(client));
    return RUN(ldap_start_tls, session, server, client, id);
}

int __wrap_ldap_install_tls(LDAP* session)
{
    record("ldap_install_tls", named(session));
    return RUN(ldap_install_tls, session);
}

int __wrap_ldap_tls_inplace(LDAP* session)
{
    record("ldap_tls_inplace", named(session));
    return RUN(ldap_tls_inplace, session);
}

int __wrap_ldap_search_ext(LDAP* session, char const* base, int scope, char const* filter,
                           char** attributes, int attrsOnly, LDAPControl** server,
                           LDAPControl** client, timeval* timeout, int sizeLimit, int* id)
{
    record("ldap_search_ext", named(session), base, scope, filter, shownArray(attributes),
           attrsOnly, shownArray(server), shownArray(client), shown(timeout), sizeLimit);
    return RUN(ldap_search_ext, session, base, scope, filter, attributes, attrsOnly, server, client,
               timeout, sizeLimit, id);
}

int __wrap_ldap_add_ext(LDAP* session, char const* dn, LDAPMod** mods, LDAPControl** server,
                        LDAPControl** client, int* id)
{
    record("ldap_add_ext", named(session), dn, shownArray(mods), shownArray(server),
           shownArray(client));
    return RUN(ldap_add_ext, session, dn, mods, server, client, id);
}

int __wrap_ldap_delete_ext(LDAP* session, char const* dn, LDAPControl** server,
                           LDAPControl** client, int* id)
{
    record("ldap_delete_ext", named(session), dn, shownArray(server), shownArray(client));
    return RUN(ldap_delete_ext, session, dn, server, client, id);
}

int __wrap_ldap_compare_ext(LDAP* session, char const* dn, char const* type, berval* value,
                            LDAPControl** server, LDAPControl** client, int* id)
{
    record("ldap_compare_ext", named(session), dn, type, value, shownArray(server),
           shownArray(client));
    return RUN(ldap_compare_ext, session, dn, type, value, server, client, id);
}

int __wrap_ldap_rename(LDAP* session, char const* dn, char const* newRdn, char const* newSuperior,
                       int deletesOld, LDAPControl** server, LDAPControl** client, int* id)
{
    record("ldap_rename", named(session), dn, newRdn, newSuperior, deletesOld, shownArray(server),
           shownArray(client));
    return RUN(ldap_rename, session, dn, newRdn, newSuperior, deletesOld, server, client, id);
}

int __wrap_ldap_modify_ext(LDAP* session, char const* dn, LDAPMod** mods, LDAPControl** server,
                           LDAPControl** client, int* id)
{
    record("ldap_modify_ext", named(session), dn, shownArray(mods), shownArray(server),
           shownArray(client));
    return RUN(ldap_modify_ext, session, dn, mods, server, client, id);
}

int __wrap_ldap_extended_operation(LDAP* session, char const* oid, berval* value,
                                   LDAPControl** server, LDAPControl** client, int* id)
{
    record("ldap_extended_operation", named(session), oid, value, shownArray(server),
           shownArray(client));
    return RUN(ldap_extended_operation, session, oid, value, server, client, id);
}

int __wrap_ldap_abandon_ext(LDAP* session, int id, LDAPControl** server, LDAPControl** client)
{
    record("ldap_abandon_ext", named(session), id, shownArray(server), shownArray(client));
    return RUN(ldap_abandon_ext, session, id, server, client);
}

// Answers

int __wrap_ldap_result(LDAP* session, int id, int all, timeval* timeout, LDAPMessage** message)
{
    record("ldap_result", named(session), id, all, shown(timeout));
    int const rc = RUN(ldap_result, session, id, all, timeout, message);
    christen(*message, "message");
    return rc;
}

int __wrap_ldap_msgtype(LDAPMessage* message)
{
    record("ldap_msgtype", named(message));
    return RUN(ldap_msgtype, message);
}

int __wrap_ldap_parse_result(LDAP* session, LDAPMessage* message, int* code, char** matched,
                             char** text, char*** referrals, LDAPControl*** controls, int freeIt)
{
    record("ldap_parse_result", named(session), named(message), named(controls), freeIt);
    return RUN(ldap_parse_result, session, message, code, matched, text, referrals, controls,
               freeIt);
}

int __wrap_ldap_parse_reference(LDAP* session, LDAPMessage* message, char*** references,
                                LDAPControl*** controls, int freeIt)
{
    record("ldap_parse_reference", named(session), named(message), named(controls), freeIt);
    return RUN(ldap_parse_reference, session, message, references, controls, freeIt);
}

int __wrap_ldap_parse_extended_result(LDAP* session, LDAPMessage* message, char** oid,
                                      berval** value, int freeIt)
{
    record("ldap_parse_extended_result", named(session), named(message), freeIt);
    return RUN(ldap_parse_extended_result, session, message, oid, value, freeIt);
}

int __wrap_ldap_count_messages(LDAP* session, LDAPMessage* chain)
{
    record("ldap_count_messages", named(session), named(chain));
    return RUN(ldap_count_messages, session, chain);
}

LDAPMessage* __wrap_ldap_first_message(LDAP* session, LDAPMessage* chain)
{
    record("ldap_first_message", named(session), named(chain));
    return RUN(ldap_first_message, session, chain);
}

LDAPMessage* __wrap_ldap_next_message(LDAP* session, LDAPMessage* message)
{
    record("ldap_next_message", named(session), named(message));
    return RUN(ldap_next_message, session, message);
}

char* __wrap_ldap_get_dn(LDAP* session, LDAPMessage* entry)
{
    record("ldap_get_dn", named(session), named(entry));
    return RUN(ldap_get_dn, session, entry);
}

char* __wrap_ldap_first_attribute(LDAP* session, LDAPMessage* entry, BerElement** position)
{
    record("ldap_first_attribute", named(session), named(entry));
    char* const attribute = RUN(ldap_first_attribute, session, entry, position);
    christen(*position, "position");
    return attribute;
}

char* __wrap_ldap_next_attribute(LDAP* session, LDAPMessage* entry, BerElement* position)
{
    record("ldap_next_attribute", named(session), named(entry), named(position));
    return RUN(ldap_next_attribute, session, entry, position);
}

berval** __wrap_ldap_get_values_len(LDAP* session, LDAPMessage* entry, char const* attribute)
{
    record("ldap_get_values_len", named(session), named(entry), attribute);
    return RUN(ldap_get_values_len, session, entry, attribute);
}

// Memory

int __wrap_ldap_msgfree(LDAPMessage* message)
{
    record("ldap_msgfree", named(message));
    return RUN(ldap_msgfree, message);
}

void __wrap_ldap_memfree(void* memory)
{
    record("ldap_memfree", static_cast<char const*>(memory)); // the library frees texts only
    RUN(ldap_memfree, memory);
}

void __wrap_ldap_value_free(char** values)
{
    record("ldap_value_free", shownArray(values));
    RUN(ldap_value_free, values);
}

void __wrap_ldap_value_free_len(berval** values)
{
    record("ldap_value_free_len", shownArray(values));
    RUN(ldap_value_free_len, values);
}

void __wrap_ldap_controls_free(LDAPControl** controls)
{
    record("ldap_controls_free", shownArray(controls));
    RUN(ldap_controls_free, controls);
}

void __wrap_ber_free(BerElement* element, int freeBuffer)
{
    record("ber_free", named(element), freeBuffer);
    RUN(ber_free, element, freeBuffer);
}

void __wrap_ber_bvfree(berval* value)
{
    record("ber_bvfree", value);
    RUN(ber_bvfree, value);
}

berval* __wrap_ber_str2bv(char const* text, ber_len_t length, int duplicate, berval* value)
{
    record("ber_str2bv", text, length, duplicate, named(value));
    return RUN(ber_str2bv, text, length, duplicate, value);
}

// liblber

int __wrap_ber_set_option(void* item, int option, void const* value)
{
    bool const isFile = option == LBER_OPT_LOG_PRINT_FILE;
    record("ber_set_option", named(item),
           isFile ? std::string("LOG_PRINT_FILE") : std::to_string(option),
           isFile ? named(value) : std::to_string(*static_cast<int const*>(value)));
    return RUN(ber_set_option, item, option, value);
}

int __wrap_ber_sockbuf_add_io(Sockbuf* socket, Sockbuf_IO* io, int level, void* argument)
{
    record("ber_sockbuf_add_io", named(socket), level);
    return RUN(ber_sockbuf_add_io, socket, io, level, argument);
}

int __wrap_ber_sockbuf_remove_io(Sockbuf* socket, Sockbuf_IO* io, int level)
{
    record("ber_sockbuf_remove_io", named(socket), level);
    return RUN(ber_sockbuf_remove_io, socket, io, level);
}

int __wrap_ber_sockbuf_ctrl(Sockbuf* socket, int option, void* argument)
{
    record("ber_sockbuf_ctrl", named(socket), option);
    return RUN(ber_sockbuf_ctrl, socket, option, argument);
}

// The C library

time_t __wrap_time(time_t* now)
{
    record("time");
    return RUN(time, now);
}

int __wrap_getsockopt(int descriptor, int level, int option, void* value, socklen_t* length)
{
    record("getsockopt", descriptor, level, option, static_cast<unsigned long>(*length));
    return RUN(getsockopt, descriptor, level, option, value, length);
}

ssize_t __wrap_recv(int descriptor, void* bytes, size_t length, int flags)
{
    record("recv", descriptor, length, flags);
    return RUN(recv, descriptor, bytes, length, flags);
}

ssize_t __wrap_send(int descriptor, void const* bytes, size_t length, int flags)
{
    record("send", descriptor, length, flags);
    return RUN(send, descriptor, bytes, length, flags);
}

int __wrap_poll(pollfd* waited, nfds_t count, int milliseconds)
{
    record("poll", waited->fd, waited->events, milliseconds);
    return RUN(poll, waited, count, milliseconds);
}

FILE* __wrap_fopen(char const* path, char const* mode)
{
    record("fopen", path, mode);
    FILE* const file = RUN(fopen, path, mode);
    christen(file, "file");
    return file;
}

int __wrap_fclose(FILE* file)
{
    record("fclose", named(file));
    return RUN(fclose, file);
}

} // extern "C"
// NOLINTEND(bugprone-reserved-identifier)
