// What the programs of the family say about themselves.
#pragma once

// The version banner: one line without line feed, made once. "#error#" when it cannot be made.
const char *version_banner();

// Describes the service library's build.
const char *library_info();
