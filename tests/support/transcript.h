// Transcripts: command lines with all they give.
//
// A command begins with "$ " and goes on with "> ". Below stand its output, the lines of standard
// error behind "! ", and the status behind "= ". Time stamps, process ids and the version banner
// are replaced as in support/lines.h. With ORVSCAN_RECORD=1 in the environment the file is written
// anew.
#pragma once

#include <string>

// Runs the commands of a transcript in a folder; fails the test when they give anything else.
void replay(const std::string &path, const std::string &folder);
