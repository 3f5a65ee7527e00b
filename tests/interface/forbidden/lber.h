// Found in the place of OpenLDAP's header, to show which public header asks for it.
#error "A public header includes <lber.h>; declare what it needs instead."
