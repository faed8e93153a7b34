// Files that appear whole or not at all: written beside their place and renamed at the end.
#pragma once

#include <cstdio>
#include <memory>
#include <string>
#include <string_view>

struct close_output {
    int operator()(FILE *fp) const; // standard streams are flushed and stay open
};

struct output_file {
    std::string path;   // as it was named, or what a stream is called; empty: no output is wanted
    std::string target; // the file that is replaced
    std::string beside; // the file that is written; empty: the target itself, which is no file
    std::unique_ptr<FILE, close_output> fp;
    int error = 0; // error number of the first failure

    output_file() = default;
    output_file(output_file &&) = default;
    output_file &operator=(output_file &&) = delete;
    ~output_file(); // removes what was not finished
};

// Begins an output. Standard output ("-"), a pipe or a device is written to directly. A failure is
// told.
bool open_output(output_file *out, const std::string &path);

// Begins an output on standard output or error.
void open_stream(output_file *out, FILE *stream);

inline bool is_open(const output_file &out) { return out.fp != nullptr; }

void write_output(output_file *out, std::string_view text);

// Ends an output and puts it in its place. A failure is told.
bool finish_output(output_file *out);

// Removes what was not finished. Allocates nothing.
void discard_output(output_file *out);
