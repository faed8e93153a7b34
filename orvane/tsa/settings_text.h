// The text of a settings file as the parser gets it.
#pragma once

#include <cstdio>
#include <string>
#include <vector>

// A text of which comments and superfluous blanks are left out, and in which included files stand
// in the place of their "@include" directives.
struct settings_text {
    std::string text;          // without zero bytes
    std::vector<int> lines{1}; // for each line of it, the line of the file it comes from
    std::string fault;         // what is wrong with the last line; empty: nothing is
};

// Reads a settings file and those it includes, each once and from its beginning to its end, so that
// pipes will do. Paths are relative to the working directory, files are included 10 deep. After a
// fault the text ends in a byte that the parser stops at unless it has stopped before; its line is
// 0 when the file itself could not be read.
//
// Three limits keep the parser from being busy for more than some seconds; beyond them the fault is
// "File too large": 16 MiB of text, 1000 included files, and names in one group whose comparison,
// each with all before it, takes 10^9 bytes (about 15,000 names of eight characters).
settings_text read_settings_text(FILE *fp);

// The line of the file that the user sees for a line of the text, from 1.
int line_of_file(const settings_text &settings, int line);
