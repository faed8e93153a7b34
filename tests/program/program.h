// Runs the program as its users do.
#pragma once

#include "common/meta.h"
#include "support/capture.h"
#include "support/lines.h"
#include "support/process.h"

#include <gtest/gtest.h>

// A result with time stamps, the process id and the version banner replaced by "@", "PID" and
// "BANNER".
inline run_result comparable(run_result result)
{
    for (std::string *text : {&result.out, &result.err}) {
        *text = unstamped(*text, result.pid);
        replace_all(text, version_banner(), "BANNER");
    }
    return result;
}

inline run_result orvscan(std::vector<std::string> args)
{
    args.insert(args.begin(), ORVSCAN_PROGRAM);
    return comparable(run_process(args));
}

inline std::string exit_line(int status)
{
    return "@ (NRM)  FSCN  BANNER EXIT(" + std::to_string(status) + "). PID=PID\n";
}

inline std::string null_text(int count)
{
    capture_builder c;
    c.null(count);
    return c.text();
}

// Tests of the program, with a capture to hand.
struct program : testing::Test {
    temp_dir dir;
    std::string file = dir.file("null.ts", null_text(3));
    run_result shell(const std::string &line) const { return run_shell(dir.path(), line); }
};
