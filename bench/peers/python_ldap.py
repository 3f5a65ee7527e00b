#!/usr/bin/python3
"""Looks addresses up with python-ldap, one after another on one connection.

Usage: python_ldap.py URI BIND_DN PASSWORD BASE ATTRIBUTE <addresses

Prints a line for each: the address, a tab, the attribute's first value.
"""

import sys

import ldap
import ldap.filter

uri, dn, password, base, attribute = sys.argv[1:]
session = ldap.initialize(uri)
session.simple_bind_s(dn, password)
for line in sys.stdin:
    address = line.rstrip("\n")
    found = session.search_s(
        base, ldap.SCOPE_SUBTREE, f"(mail={ldap.filter.escape_filter_chars(address)})", [attribute]
    )
    for _, attributes in found:
        print(address, attributes[attribute][0].decode(), sep="\t")
