// Looks addresses up with go-ldap, one after another on one connection.
//
// Usage: go_ldap URI BIND_DN PASSWORD BASE ATTRIBUTE <addresses
//
// Prints a line for each: the address, a tab, the attribute's first value.
package main

import (
	"bufio"
	"fmt"
	"log"
	"os"

	"github.com/go-ldap/ldap"
)

func main() {
	uri, dn, password, base, attribute := os.Args[1], os.Args[2], os.Args[3], os.Args[4], os.Args[5]
	session, err := ldap.DialURL(uri)
	if err != nil {
		log.Fatal(err)
	}
	defer session.Close()
	if err := session.Bind(dn, password); err != nil {
		log.Fatal(err)
	}
	output := bufio.NewWriter(os.Stdout)
	defer output.Flush()
	addresses := bufio.NewScanner(os.Stdin)
	for addresses.Scan() {
		address := addresses.Text()
		found, err := session.Search(ldap.NewSearchRequest(base, ldap.ScopeWholeSubtree,
			ldap.NeverDerefAliases, 0, 0, false, "(mail="+ldap.EscapeFilter(address)+")",
			[]string{attribute}, nil))
		if err != nil {
			log.Fatal(err)
		}
		for _, entry := range found.Entries {
			fmt.Fprintf(output, "%s\t%s\n", address, entry.GetAttributeValue(attribute))
		}
	}
}
