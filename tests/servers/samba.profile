# An Active Directory domain controller, Samba's. slapd.profile says what each line is.
PROGRAM=samba
PACKAGE=samba-ad-dc
SERVER_NAME='Active Directory (Samba)'
SCRIPTS=samba
GUIDE='## Active Directory'
USERS=100
START_OPTIONS=''
SOCKET=$SERVER_DIR/private/ldapi
KERBEROS_HOST=dc1.ad.corp.test

PEOPLE=OU=people,$BASE_DN
ESCAPES=OU=escapes,$BASE_DN
BIG=OU=big,$BASE_DN
NEW=OU=new,$BASE_DN
PRIVATE=''
REFERRAL_ENTRY=''
NAMING=CN
FULL_NAME=displayName
CERTIFICATE=userCertificate
TEMPLATE='(&(objectClass=user)(proxyAddresses=smtp:$m))'
OTHER_BIND_NAMES='reader@ad.corp.test ADCORP\reader'

PLAIN_BIND=8
ANONYMOUS_SEARCH=1
UNDEFINED_TYPE=16
BINARY_OPTION=16
LANGUAGE_OPTION=16
AT_REFERRAL_ENTRY=''
SIZE_LIMIT=''
CLIENT_SIZE_LIMIT=0
WHO_AM_I=2
VERSION_2=0
VALUES_IN_SPITE_OF_TYPES_ONLY=1
WAY_PLAIN='1 8 -9 0'
WAY_LDAPS='1 0 1 0'
WAY_STARTTLS='1 0 1 0'
WAY_LDAPI='1 8 1 0'
