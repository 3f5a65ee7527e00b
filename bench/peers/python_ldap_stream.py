#!/usr/bin/python3
"""Reads every entry of a search with python-ldap, one message after another.

Usage: python_ldap_stream.py URI BIND_DN PASSWORD BASE FILTER

Prints the number of entries.
"""

import sys

import ldap

uri, dn, password, base, text = sys.argv[1:]
session = ldap.initialize(uri)
session.simple_bind_s(dn, password)
search = session.search(base, ldap.SCOPE_SUBTREE, text)
entries = size = 0
while True:
    kind, messages = session.result(search, all=0)
    if kind == ldap.RES_SEARCH_RESULT:
        break
    for name, attributes in messages:
        size += len(name) + sum(len(value) for values in attributes.values() for value in values)
        entries += 1
print(entries)
