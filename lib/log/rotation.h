// What the logger and its rotation share.
#pragma once

#include <libtarnlink/log.h>

#include <array>

// Whether the stream is standard output or standard error, which are never closed or rotated.
bool is_standard_stream(const FILE *fp);

// Rotates the log when its size or its end of day says so; called after every written line.
void rotate_if_due(log_ctx *log);

// Opens `path` as the log's file in append mode, unbuffered, and sets total_out to its size.
// Returns LOG_OK or LOG_FAILED.
int open_log_file(log_ctx *log, const char *path);

// Opens the file of a log anew, quietly, when a rotation has left the log without a stream. Called
// before a line is written: a log whose folder comes back goes on by itself.
void reopen_if_lost(log_ctx *log);

// The places that hold the log's stream, unused ones null: logs may share a stream, as their own or
// as a mirror. None when the log has no stream.
typedef std::array<FILE **, 8> stream_users;
stream_users users_of(log_ctx *log);
