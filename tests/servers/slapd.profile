# OpenLDAP, as the test bed sets it up. Shell syntax; BASE_DN is the server's.
PROGRAM=slapd                # that must be installed
PACKAGE=slapd                # whose version is told
SERVER_NAME=OpenLDAP
SCRIPTS=slapd                # testbed/slapd-start and so on
GUIDE='## OpenLDAP'          # its part of docs/guide/servers.md
USERS=600
START_OPTIONS='--client-certs allow'  # of slapd-start
SOCKET=$SERVER_DIR/ldapi
KERBEROS_HOST=localhost      # for which it has a principal

# The data
PEOPLE=ou=people,$BASE_DN
ESCAPES=ou=escapes,$BASE_DN
BIG=ou=big,$BASE_DN
NEW=ou=new,$BASE_DN
PRIVATE=ou=private,$BASE_DN  # for bound users only; empty: there is none
REFERRAL_ENTRY=cn=elsewhere,ou=referrals,$BASE_DN  # empty: there is none
NAMING=uid                   # attribute in the RDN of a person
FULL_NAME=cn                 # attribute with a person's full name
CERTIFICATE='userCertificate;binary'  # description of a person's certificate
TEMPLATE='(&(objectClass=inetOrgPerson)(mail=$m))'
OTHER_BIND_NAMES=''          # of the reader, besides the DN, separated by blanks

# Result codes that differ between servers
PLAIN_BIND=0                 # a right password without TLS
ANONYMOUS_SEARCH=0           # a search without a bind
UNDEFINED_TYPE=17            # an add with an attribute type that does not exist
BINARY_OPTION=0              # an add of userCertificate;binary
LANGUAGE_OPTION=0            # an add of description;lang-fr
AT_REFERRAL_ENTRY=10         # a base search of a referral entry; 0: a continuation reference
SIZE_LIMIT=500               # entries that the server sends at the most; empty: no limit
CLIENT_SIZE_LIMIT=4          # a search with a limit that is less than the entries found; 0: ignored
WHO_AM_I=0                   # the question "Who am I?"
VERSION_2=0                  # a bind of protocol version 2
# Of a lookup by each way in: without a bind, with a password, by SASL EXTERNAL, by SASL GSSAPI; -9: not
# possible, as there is no certificate
WAY_PLAIN='0 0 -9 0'
WAY_LDAPS='0 0 0 0'
WAY_STARTTLS='0 0 0 0'
WAY_LDAPI='0 0 0 0'
VALUES_IN_SPITE_OF_TYPES_ONLY=0  # of an attribute, where types alone were asked for
