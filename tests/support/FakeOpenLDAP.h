// Replaces single calls of OpenLDAP and of the C library.
//
// The linker's --wrap redirects the calls of a test program to here (CMakeLists.txt has the list). A call whose member is empty is forwarded to the real function.
#ifndef SOLVANE_TESTS_SUPPORT_FAKE_OPENLDAP_H
#define SOLVANE_TESTS_SUPPORT_FAKE_OPENLDAP_H

#include <ldap.h>

#include <cstdio>
#include <ctime>
#include <functional>
#include <map>
#include <mutex>
#include <string>
#include <vector>

#include <poll.h>
#include <sys/socket.h>

// Exported by libldap, declared in no installed header.
extern "C" int ldap_pvt_tls_set_option(LDAP* session, int option, void* value);
extern "C" int ldap_pvt_tls_init(int threads);
extern "C" void ldap_mark_select_clear(LDAP* session, Sockbuf* socket);

namespace SolvaneTest {

template <typename Function> struct ReplacementOf;
template <typename Result, typename... Arguments> struct ReplacementOf<Result(Arguments...)> {
    using Type = std::function<Result(Arguments...)>;
};
template <typename Result, typename... Arguments>
struct ReplacementOf<Result(Arguments...) noexcept> {
    using Type = std::function<Result(Arguments...)>;
};
/// Anything that can be called like the C function; empty: the function itself.
template <typename Function> using Replacement = typename ReplacementOf<Function>::Type;

/// During its lifetime, calls of this thread reach the real functions and are not recorded.
class RealCalls {
public:
    RealCalls() : m_before(s_areWanted) { s_areWanted = true; }
    ~RealCalls() { s_areWanted = m_before; }
    RealCalls(RealCalls const&) = delete;
    RealCalls& operator=(RealCalls const&) = delete;

    static bool areWanted() { return s_areWanted; }

private:
    static thread_local bool s_areWanted;
    bool m_before;
};

/// Replaces and records the wrapped calls during its lifetime; one object at a time.
///
/// Calls made by a replacement are real and not recorded. Replacements may throw, unless the
/// function they replace is declared not to throw (`time`, `getsockopt`).
class FakeOpenLDAP {
public:
    FakeOpenLDAP();
    ~FakeOpenLDAP();
    FakeOpenLDAP(FakeOpenLDAP const&) = delete;
    FakeOpenLDAP& operator=(FakeOpenLDAP const&) = delete;

    /// Every call so far, in order: the function's name and the arguments that matter. Pointers
    /// show as their names, as "null", or as "unknown"; memory that is freed shows its
    /// content.
    std::vector<std::string> calls() const;
    /// Forgets the calls so far.
    void forgetCalls();
    /// What `pointer` is called from now on. Sessions that ldap_initialize makes are "session",
    /// messages that ldap_result hands out "message", an entry's position "position" by themselves.
    void name(void const* pointer, std::string const& text);

    Replacement<decltype(::ldap_initialize)> ldap_initialize;
    Replacement<decltype(::ldap_set_option)> ldap_set_option;
    Replacement<decltype(::ldap_get_option)> ldap_get_option;
    Replacement<decltype(::ldap_pvt_tls_set_option)> ldap_pvt_tls_set_option;
    Replacement<decltype(::ldap_pvt_tls_init)> ldap_pvt_tls_init;
    Replacement<decltype(::ldap_mark_select_clear)> ldap_mark_select_clear;
    Replacement<decltype(::ldap_unbind_ext)> ldap_unbind_ext;
    Replacement<decltype(::ldap_sasl_bind)> ldap_sasl_bind;
    Replacement<decltype(::ldap_sasl_bind_s)> ldap_sasl_bind_s;
    Replacement<decltype(::ldap_sasl_interactive_bind)> ldap_sasl_interactive_bind;
    Replacement<decltype(::ldap_start_tls)> ldap_start_tls;
    Replacement<decltype(::ldap_install_tls)> ldap_install_tls;
    Replacement<decltype(::ldap_tls_inplace)> ldap_tls_inplace;
    Replacement<decltype(::ldap_search_ext)> ldap_search_ext;
    Replacement<decltype(::ldap_add_ext)> ldap_add_ext;
    Replacement<decltype(::ldap_delete_ext)> ldap_delete_ext;
    Replacement<decltype(::ldap_compare_ext)> ldap_compare_ext;
    Replacement<decltype(::ldap_rename)> ldap_rename;
    Replacement<decltype(::ldap_modify_ext)> ldap_modify_ext;
    Replacement<decltype(::ldap_extended_operation)> ldap_extended_operation;
    Replacement<decltype(::ldap_abandon_ext)> ldap_abandon_ext;
    Replacement<decltype(::ldap_result)> ldap_result;
    Replacement<decltype(::ldap_msgtype)> ldap_msgtype;
    Replacement<decltype(::ldap_parse_result)> ldap_parse_result;
    Replacement<decltype(::ldap_parse_reference)> ldap_parse_reference;
    Replacement<decltype(::ldap_parse_extended_result)> ldap_parse_extended_result;
    Replacement<decltype(::ldap_count_messages)> ldap_count_messages;
    Replacement<decltype(::ldap_first_message)> ldap_first_message;
    Replacement<decltype(::ldap_next_message)> ldap_next_message;
    Replacement<decltype(::ldap_get_dn)> ldap_get_dn;
    Replacement<decltype(::ldap_first_attribute)> ldap_first_attribute;
    Replacement<decltype(::ldap_next_attribute)> ldap_next_attribute;
    Replacement<decltype(::ldap_get_values_len)> ldap_get_values_len;
    Replacement<decltype(::ldap_msgfree)> ldap_msgfree;
    Replacement<decltype(::ldap_memfree)> ldap_memfree;
    Replacement<decltype(::ldap_value_free)> ldap_value_free;
    Replacement<decltype(::ldap_value_free_len)> ldap_value_free_len;
    Replacement<decltype(::ldap_controls_free)> ldap_controls_free;
    Replacement<decltype(::ber_free)> ber_free;
    Replacement<decltype(::ber_bvfree)> ber_bvfree;
    Replacement<decltype(::ber_str2bv)> ber_str2bv;
    Replacement<decltype(::ber_set_option)> ber_set_option;
    Replacement<decltype(::ber_sockbuf_add_io)> ber_sockbuf_add_io;
    Replacement<decltype(::ber_sockbuf_remove_io)> ber_sockbuf_remove_io;
    Replacement<decltype(::ber_sockbuf_ctrl)> ber_sockbuf_ctrl;

    Replacement<decltype(::time)> time;
    Replacement<decltype(::getsockopt)> getsockopt;
    Replacement<decltype(::recv)> recv;
    Replacement<decltype(::send)> send;
    // Spelled out, as the attributes of their declarations cannot be passed on.
    Replacement<int(pollfd*, nfds_t, int)> poll;
    Replacement<FILE*(char const*, char const*)> fopen;
    Replacement<int(FILE*)> fclose;

    // For the wrapped calls.
    static FakeOpenLDAP* current();
    void record(std::string const& call);
    std::string nameOf(void const* pointer) const;

private:
    mutable std::mutex m_mutex;
    std::vector<std::string> m_calls;
    std::map<void const*, std::string> m_names;
};

} // namespace SolvaneTest

#endif
