// Reads every entry of a search with go-ldap, which keeps them all until the search has ended.
//
// Usage: go_ldap_stream URI BIND_DN PASSWORD BASE FILTER
//
// Prints the number of entries.
package main

import (
	"fmt"
	"log"
	"os"

	"github.com/go-ldap/ldap"
)

func main() {
	uri, dn, password, base, filter := os.Args[1], os.Args[2], os.Args[3], os.Args[4], os.Args[5]
	session, err := ldap.DialURL(uri)
	if err != nil {
		log.Fatal(err)
	}
	defer session.Close()
	if err := session.Bind(dn, password); err != nil {
		log.Fatal(err)
	}
	found, err := session.Search(ldap.NewSearchRequest(base, ldap.ScopeWholeSubtree,
		ldap.NeverDerefAliases, 0, 0, false, filter, nil, nil))
	if err != nil {
		log.Fatal(err)
	}
	size := 0
	for _, entry := range found.Entries {
		size += len(entry.DN)
		for _, attribute := range entry.Attributes {
			for _, value := range attribute.ByteValues {
				size += len(value)
			}
		}
	}
	if size == 0 {
		log.Fatal("the entries have no bytes")
	}
	fmt.Println(len(found.Entries))
}
