#!/usr/bin/env python3
"""The fuzz targets' seeds: inputs that reach what the fuzzer would find late. seeds.py FOLDER

Writes each as FOLDER/TARGET/NAME.
"""

import os
import sys

SEEDS = {
    "auth": {
        "cancel": b"AUTH\t1\tPLAIN\tsecured\tresp=AGFubmEAc2VjcmV0\nCANCEL\t1\n",
        "login": (
            b"CPID\t99\nAUTH\t1\tLOGIN\tservice=smtp\tsecured\nCONT\t1\tYW5uYQ==\n"
            b"CONT\t1\tc2VjcmV0\n"
        ),
        "plain": (
            b"CPID\t99\nAUTH\t1\tPLAIN\tservice=smtp\tnologin\tsecured\trip=192.0.2.9\t"
            b"resp=AGFubmEAc2VjcmV0\nAUTH\t2\tPLAIN\tresp=AGEJYgpjAHg=\n"
        ),
    },
    "answer": {
        "entry": (
            b"0B\x02\x01\x01d=\x04\x09cn=a,dc=b000\x0e\x04\x02cn1\x08\x04\x01a\x04\x03b\0c0"
            b"\x1e\x04\x16userCertificate;binary1\x04\x04\x020\x010\x10\x02\x01\x01s\x0b\x04"
            b"\x09ldap://x/0\x0c\x02\x01\x01e\x07\n"
            b"\x01\0\x04\0\x04\0"
        ),
        "http": (b"HTTP/1.1 400 Bad Request\r\n" b"\r\n"),
        "large_value": (
            (
                b"04\x02\x01\x01d/\x04\x04cn=a0'0\x09\x04\x02cn1\x03\x04\x01a0\x13\x04\x08mail;x-y"
                b"1\x07\x04\x03a@b\x04\x000\x05\x04\x01x1\x000\x82\x10;\x02\x01\x01d\x82\x104\x04"
                b"\x04cn=b0\x82\x10*0\x09\x04\x02cn1\x03\x04\x01b0\x82\x10\x10\x04\x05photo1\x82"
                b"\x10\x05\x04\x82\x10\x01"
            )
            + b"p" * 4097
            + (b"0\x09\x04\x02sn1\x03\x04\x01c0\x0c\x02\x01\x01e\x07\n" b"\x01\0\x04\0\x04\0")
        ),
        "other": (
            b"0\x0e\x02\x01\x01a\x09\n"
            b"\x011\x04\0\x04\x02no0\x0c\x02\x01\x02e\x07\n"
            b"\x01\0\x04\0\x04\x000\x84\x7f\xff\xff\xff"
        ),
        "reference_to_a_host": b"0(\x02\x01\x01s#\x04!ldap://no-such-host-of-mine.test/",
        "referral": (
            b"0\x1f\x02\x01\x01e\x1a\n" b"\x01\n" b"\x04\x04dc=b\x04\x02go\xa3\x0b\x04\x09ldap://y/"
        ),
        "referral_to_a_port": (
            b"0)\x02\x01\x01e$\n"
            b"\x01\n"
            b"\x04\x04dc=b\x04\x02go\xa3\x15\x04\x13ldap://127.0.0.1:9/"
        ),
        "three_entries": (
            b"04\x02\x01\x01d/\x04\x04cn=a0'0\x09\x04\x02cn1\x03\x04\x01a0\x13\x04\x08mail;x-y"
            b"1\x07\x04\x03a@b\x04\x000\x05\x04\x01x1\x0004\x02\x01\x01d/\x04\x04cn=a0'0\x09"
            b"\x04\x02cn1\x03\x04\x01a0\x13\x04\x08mail;x-y1\x07\x04\x03a@b\x04\x000\x05\x04"
            b"\x01x1\x0004\x02\x01\x01d/\x04\x04cn=a0'0\x09\x04\x02cn1\x03\x04\x01a0\x13\x04"
            b"\x08mail;x-y1\x07\x04\x03a@b\x04\x000\x05\x04\x01x1\x000\x0c\x02\x01\x01e\x07\n"
            b"\x01\0\x04\0\x04\0"
        ),
    },
    "attribute_type": {
        "empty": b";a\0;",
        "options": b"userCertificate;binary; lang-fr\0x-opt",
    },
    "controls": {
        "entry": b"\x03d\x1e\x04\x04cn=a0\x160\x09\x04\x02cn1\x03\x04\x01a0\x09\x04\x02sn1\x03\x04\x01b",
        "page": b"\x000\x09\x02\x01\x64\x04\x04\0abc",
        "policy": b"\x020\x08\xa0\x03\x80\x01\x3c\x81\x01\x02",
        "policy_logins": b"\x020\x05\xa0\x03\x81\x01\x05",
        "sort": b"\x010\x07\x0a\x01\x10\x80\x02cn",
    },
    "dn": {
        "encoded": b"1.3.6.1.4.1.1466.0=#04024869,cn=",
        "escapes": b'CN=James \\"Jim\\" Smith\\, III\\0d\\ ,DC=\xc3\xa4',
        "spaces": b" ou = Sales + CN=J.  Smith , dc = net ",
    },
    "entry": {
        "cut": b"\x04\x04cn=x0\x0b0\x09\x04\x02cn1\x03",
        "empty": b"\x04\x000\0",
        "long": (
            b"\x04\x04cn=x0\x82\x01E0\x82\x01A\x04\x0bdescription1\x82\x010\x04\x82\x01,"
            + b"x" * 300
        ),
        "no_attributes": b"\x04\x0fdc=corp,dc=test0\0",
        "no_set": b"\x04\x04cn=x0\x060\x04\x04\x02cn",
        "no_values": b"\x04\x04cn=x0\x130\x06\x04\x02cn1\x000\x09\x04\x02sn1\x03\x04\x01x",
        "nul": (b"\x04\x05cn=\0x0\x0c0\n" b"\x04\x03c\0n1\x03\x04\x01\0"),
        "option": (
            b"\x04\x04cn=x040\x1f\x04\x16userCertificate;binary1\x05\x04\x03der0\x11\x04\n"
            b"cn;lang-fr1\x03\x04\x01x"
        ),
        "person": (
            b"\x04\x18uid=anna,dc=corp,dc=test0J0%\x04\x04mail1\x1d\x04\x0eanna@corp.test\x04"
            b"\x0ba@corp.test0\x0c\x04\x02cn1\x06\x04\x04Anna0\x13\x04\x09jpegPhoto1\x06\x04"
            b"\x04\xff\xd8\x01\x80"
        ),
        "repeated": b"\x04\x04cn=x0\x160\x09\x04\x02cn1\x03\x04\x01x0\x09\x04\x02CN1\x03\x04\x01y",
        "trailing": b"\x04\x04cn=x0\x0b0\x09\x04\x02cn1\x03\x04\x01x\x04\x01x",
        "wrong_length": b"\x04\x04cn=x0 0\x09\x04\x02cn1\x03\x04\x01x",
    },
    "escaping": {
        "bytes": b"\xc3\xa4\xff()",
        "hostile": b"j*doe)(uid=*\\\0x",
    },
    "filter": {
        "comparisons": b"(&(a>=1)(b<=2)(c~=3)(d=*)(e=*x*y)(f=x*)(! (g=)) )",
        "deep": b"(!" * 99 + b"(a=b)" + b")" * 99,
        "escapes": b"(cn;lang-fr=*\\2A*\\00\\\\\xc3\xa4)",
        "extensible": b"(|(sn:dn:2.4.6.8.10:=x)(:caseExactMatch:=y)(o:dn:=z)(1.2:=))",
        "item": b"uid=a b",
    },
    "ldif": {
        "refused": (
            b"dn: cn=a\n"
            b"changetype: modify\n"
            b"replace: cn\n"
            b"cn: b\n"
            b"-\n"
            b"\n"
            b"dn: cn=b\n"
            b"jpegPhoto:< file:///etc/passwd\n"
        ),
        "two": (
            b"version: 1\n"
            b"\n"
            b"dn: cn=a,dc=b\n"
            b"objectClass: top\n"
            b"cn:: YQ==\n"
            b"cn: a\n"
            b" b\n"
            b"\n"
            b"# c\n"
            b"dn:: Y249Yg==\n"
            b"changetype: add\n"
            b"cn: b\n"
        ),
    },
    "ldif_line": {
        "base64": b"cn;lang-de:: YWI=  ",
        "text": b"a_b.1-c:  x:y <z ",
    },
    "options": {
        "explain": b"-t\0(mail=$m)\0--explain\0a@b",
        "lint": b"--lint\0-t\0($u",
        "refused": b"--bind\0-w\0secret",
    },
    "ldif_records": {
        "changes": (
            b"dn: cn=a\ncontrol: 1.2 true:: AAE=\nchangetype: modify\nadd: cn\ncn: b\n-\n"
            b"delete: sn\n-\nreplace: x\nx:: /w==\n\ndn: cn=a\nchangetype: modrdn\nnewrdn: cn=b\n"
            b"deleteoldrdn: 1\nnewsuperior: dc=c\n\ndn: cn=b\nchangetype: delete\n"
        ),
        "content": (
            b"\xef\xbb\xbfversion: 1\r\n# c\n  d\ndn:: Y249w6Q=\nobjectClass: top\ndescription: a\n"
            b"  b\nuserPassword: x\n\n\ndn: cn=b\ncn\n\ndn: cn=c\njpegPhoto:< file:///x\n"
        ),
        "large": b"dn: cn=a\ncn: " + b"x" * 300 + b"\ncn: y\n\ndn: cn=b\n",
    },
    "schema": {
        "mail": (
            b"( 0.9.2342.19200300.100.1.3 NAME ( 'mail' 'rfc822Mailbox' ) DESC 'x' EQUALITY "
            b"caseIgnoreIA5Match SYNTAX 1.3.6.1.4.1.1466.115.121.1.26{256} )"
        ),
        "usage": b"( 2.5.18.1 NAME 'a' SUP a OBSOLETE SINGLE-VALUE NO-USER-MODIFICATION USAGE dSAOperation )",
    },
    "settings": {
        "unknown": b"nonsense = 1\n",
        "usual": (
            b"server_host = ldap://127.0.0.1:389, ::1\n"
            b"bind_dn = cn=a\n"
            b"bind_pw = s\n"
            b"# c\n"
            b"query_filter = (mail=$m)\n"
            b"  more\n"
            b"scope = one\n"
            b"size_limit = 5\n"
        ),
    },
    "socketmap": {
        "requests": b"21:users anna@corp.test,,0:,7:users a,",
        "three": b"7:users a,0:,12:aliases b@c,,65:",
        "zero": b"007:users a,",
    },
    "template": {
        "byte_behind_specifier": b' \xd5|(a=$b)(c=$g\xb9(d=$c)) \0u\0\0B)"\0(G',
        "malformed": b"(x=$q",
        "optional": b" (|(a=$b)(c=$g)(d=$c)) \0u\0\0B)\0(G",
        "removal": b"(mail=$m${@corp.test})\0u\0corp.test",
        "two": b"(&(uid=$u)(dc=$d))\0j*e\0corp.test\0\0",
    },
}


def main():
    for target, seeds in SEEDS.items():
        folder = os.path.join(sys.argv[1], target)
        os.makedirs(folder, exist_ok=True)
        for name, seed in seeds.items():
            with open(os.path.join(folder, name), "wb") as file:
                file.write(seed)


if __name__ == "__main__":
    main()
