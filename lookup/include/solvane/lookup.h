/// @file
/// The lookup engine: everything a program includes.
///
/// @namespace Solvane::Lookup
/// The parts that `LDAPLookup` is made of, for programs that take single ones.
#ifndef SOLVANE_LOOKUP_H
#define SOLVANE_LOOKUP_H

#include <solvane/lookup/Answer.h>
#include <solvane/lookup/LDAPLookup.h>
#include <solvane/lookup/LDAPLookupQueue.h>
#include <solvane/lookup/Observer.h>
#include <solvane/lookup/QueryTemplate.h>
#include <solvane/lookup/Verification.h>
#include <solvane/session/Certificate.h>
#include <solvane/session/PlainText.h>

#endif
