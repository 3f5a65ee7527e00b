/// @file
/// Where <solvane/session/PlainText.h> was before.
#ifndef SOLVANE_LOOKUP_PLAIN_TEXT_H
#define SOLVANE_LOOKUP_PLAIN_TEXT_H

#include <solvane/session/PlainText.h>

#endif
