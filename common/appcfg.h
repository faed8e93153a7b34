// Settings that the programs of the family share.
#pragma once

// Code of a syslog facility (syslog.h): "user" in any letter case, or "local0" to "local7", where
// "local" is case-sensitive and a digit follows. Returns -1 for anything else.
int str2fac(const char *name);

// Name of a facility code that str2fac gives, "#unknown#" for any other.
const char *fac2str(int code);
