/// @file
/// Where <solvane/session/Certificate.h> was before.
#ifndef SOLVANE_LOOKUP_CERTIFICATE_H
#define SOLVANE_LOOKUP_CERTIFICATE_H

#include <solvane/session/Certificate.h>

#endif
