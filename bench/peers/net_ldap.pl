#!/usr/bin/perl
# Looks addresses up with Net::LDAP, one after another on one connection.
#
# Usage: net_ldap.pl URI BIND_DN PASSWORD BASE ATTRIBUTE <addresses
#
# Prints a line for each: the address, a tab, the attribute's first value.
use strict;
use warnings;
use Net::LDAP;
use Net::LDAP::Util qw(escape_filter_value);

my ($uri, $dn, $password, $base, $attribute) = @ARGV;
my $session = Net::LDAP->new($uri) or die $@;
my $bound = $session->bind($dn, password => $password);
die $bound->error if $bound->code;
while (my $address = <STDIN>) {
    chomp $address;
    my $found = $session->search(
        base => $base,
        filter => '(mail=' . escape_filter_value($address) . ')',
        attrs => [$attribute]);
    die $found->error if $found->code;
    print $address, "\t", $_->get_value($attribute), "\n" for $found->entries;
}
