// Runs the program as its users do.
#pragma once

#include "common/meta.h"
#include "support/lines.h"
#include "support/process.h"

// The command line of a run.
inline std::vector<std::string> orvscan_args(const std::vector<std::string> &args)
{
    std::vector<std::string> all{ORVSCAN_PROGRAM};
    all.insert(all.end(), args.begin(), args.end());
    return all;
}

// A result with time stamps, the process id and the version banner replaced by "@", "PID" and
// "BANNER".
inline run_result comparable(run_result result)
{
    const std::string banner = version_banner();
    for (std::string *text : {&result.out, &result.err}) {
        *text = unstamped(*text, result.pid);
        for (size_t at = 0; (at = text->find(banner, at)) != std::string::npos;)
            text->replace(at, banner.size(), "BANNER");
    }
    return result;
}

inline run_result orvscan(const std::vector<std::string> &args, const run_options &options = {})
{
    return comparable(run_process(orvscan_args(args), options));
}
