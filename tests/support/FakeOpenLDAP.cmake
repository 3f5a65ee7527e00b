# solvane_fake_openldap: OpenLDAP and the C library replaced call by call, the debug print captured.
# Whoever links it has the calls below led to the fake, from every object of the program.

add_library(solvane_fake_openldap OBJECT
    DebugLines.cpp
    FakeOpenLDAP.cpp
    ReceivedMessages.cpp
)
target_include_directories(solvane_fake_openldap PUBLIC "${CMAKE_CURRENT_LIST_DIR}")
target_compile_definitions(solvane_fake_openldap PUBLIC LDAP_DEPRECATED=1) # ldap_value_free
target_link_libraries(solvane_fake_openldap
    PUBLIC Solvane::runtime solvane_test_directories OpenLDAP::ldap_r OpenLDAP::lber
    PRIVATE solvane_build_options)
foreach(function
        ldap_initialize ldap_set_option ldap_get_option ldap_pvt_tls_set_option
        ldap_pvt_tls_init ldap_mark_select_clear ldap_unbind_ext
        ldap_sasl_bind ldap_sasl_bind_s ldap_sasl_interactive_bind
        ldap_start_tls ldap_install_tls ldap_tls_inplace
        ldap_search_ext ldap_add_ext
        ldap_result ldap_msgtype ldap_parse_result ldap_parse_reference
        ldap_count_messages ldap_first_message ldap_next_message
        ldap_get_dn ldap_first_attribute ldap_next_attribute ldap_get_values_len
        ldap_msgfree ldap_memfree ldap_value_free ldap_value_free_len
        ber_free ber_bvfree ber_str2bv ber_set_option ber_sockbuf_add_io
        ber_sockbuf_remove_io ber_sockbuf_ctrl
        time getsockopt recv send poll fopen fclose)
    target_link_options(solvane_fake_openldap INTERFACE "LINKER:--wrap=${function}")
endforeach()
