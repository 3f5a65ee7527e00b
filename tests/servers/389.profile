# 389 Directory Server, as the test bed sets it up. slapd.profile says what each line is.
PROGRAM=ns-slapd
PACKAGE=389-ds-base
SERVER_NAME='389 Directory Server'
SCRIPTS=ds389
GUIDE='## 389 Directory Server'
USERS=600
START_OPTIONS=''
SOCKET=$SERVER_DIR/run/ldapi
KERBEROS_HOST=localhost

PEOPLE=ou=people,$BASE_DN
ESCAPES=ou=escapes,$BASE_DN
BIG=ou=big,$BASE_DN
NEW=ou=new,$BASE_DN
PRIVATE=ou=private,$BASE_DN
REFERRAL_ENTRY=cn=elsewhere,ou=referrals,$BASE_DN
NAMING=uid
FULL_NAME=cn
CERTIFICATE='userCertificate;binary'
TEMPLATE='(&(objectClass=inetOrgPerson)(mail=$m))'
OTHER_BIND_NAMES=''

PLAIN_BIND=0
ANONYMOUS_SEARCH=0
UNDEFINED_TYPE=65
BINARY_OPTION=0
LANGUAGE_OPTION=0
AT_REFERRAL_ENTRY=0
SIZE_LIMIT=500
CLIENT_SIZE_LIMIT=4
WHO_AM_I=0
VERSION_2=0
VALUES_IN_SPITE_OF_TYPES_ONLY=0
WAY_PLAIN='0 0 -9 0'
WAY_LDAPS='0 0 0 0'
WAY_STARTTLS='0 0 0 0'
WAY_LDAPI='0 0 0 0'
