// Shared-memory log ("lard"): a ring of recent log text that other processes can read.
//
// A writer creates the ring under a name and appends text to it; any number of readers open it by
// that name, also after the writer has died, dump the text and ask how severe the recent messages
// were (the temperature). One writer, no locks: a reader may see a line that is half written.
//
// A handle belongs to one thread. Inside a signal handler a text or a sample may be appended; it is
// refused when the handler has interrupted another one of the same handle. Nothing else here may be
// called there.
//
// Two POSIX shared-memory objects carry a ring: "/NAME.meta" holds one lard_meta record,
// "/NAME.dat" the text. Both are created with mode 0600.
#pragma once

#include <assert.h>
#include <stdbool.h>
#include <stddef.h>
#include <stdint.h>
#include <sys/types.h>
#include <time.h>

#pragma GCC visibility push(default)
#ifdef __cplusplus
extern "C" {
#endif

enum {
    LARD_MAX_NAME = 255, // room for an object's name, terminator included
    MAX_SNS = 64,        // temperature samples kept
};

enum lard_status {
    LARD_FAILED = -1,    // errno tells why
    LARD_NO_APPEND = -7, // the ring is as it was
};

// The last MAX_SNS temperature samples and their sum, the current temperature.
typedef struct lard_sns {
    uint64_t idx;         // next slot to fill
    int32_t val[MAX_SNS]; // samples
    int32_t sum;          // sum of all samples
} lard_sns;

// The record in "/NAME.meta". It is shared between processes: its layout is fixed.
typedef struct lard_meta {
    uint64_t seg_pages;       // payload size in pages
    uint64_t pld_start;       // offset in the ring of the oldest byte kept
    uint64_t pld_len;         // bytes kept, at most the ring's length
    int32_t owner_pid;        // process id of the writer
    struct timespec write_tm; // monotonic time of the last write
    lard_sns sns;             // temperature
    uint8_t is_closed;        // 1 once the writer has closed the ring
} lard_meta;

static_assert(sizeof(lard_meta) == 328, "shared between processes");
static_assert(offsetof(lard_meta, seg_pages) == 0, "shared between processes");
static_assert(offsetof(lard_meta, pld_start) == 8, "shared between processes");
static_assert(offsetof(lard_meta, pld_len) == 16, "shared between processes");
static_assert(offsetof(lard_meta, owner_pid) == 24, "shared between processes");
static_assert(offsetof(lard_meta, write_tm) == 32, "shared between processes");
static_assert(offsetof(lard_meta, sns.idx) == 48, "shared between processes");
static_assert(offsetof(lard_meta, sns.val) == 56, "shared between processes");
static_assert(offsetof(lard_meta, sns.sum) == 312, "shared between processes");
static_assert(offsetof(lard_meta, is_closed) == 320, "shared between processes");

typedef struct lard_ctx *lard_t;

// Creates a ring of `npages` memory pages (1 or more) under `name`, removing what an earlier
// process left under it. The memory is taken at once. Returns the writer's handle, which lard_close
// or lard_destroy frees, or null with errno set, after a message on standard error where a system
// call failed. `name` may not be null.
lard_t lard_create(const char *name, size_t npages);

// Opens an existing ring for reading. Returns a handle, or null as lard_create does.
lard_t lard_open(const char *name);

// Appends text, which must be shorter than the ring; the printf form formats it first. Returns the
// number of bytes appended, or LARD_NO_APPEND: nothing to append, too long, a reader's handle, no
// memory to format it, or a signal handler that has interrupted another append.
int lard_puts(lard_t lh, const char *str);
int lard_printf(lard_t lh, const char *fmt, ...) __attribute__((format(printf, 2, 3)));

// Writes the ring's content to a descriptor, in one call. Returns the bytes written, or LARD_FAILED
// with errno set: EIO when somebody has made the ring's objects shorter than they were.
ssize_t lard_snapshot(lard_t lh, int fd);

// Pushes one temperature sample (0 or more) over the oldest one. Readers push nothing.
void lard_set_temp(lard_t lh, int32_t temp);

// The current temperature: the sum of the last MAX_SNS samples. 0 when the record is gone.
int32_t lard_get_ctemp(lard_t lh);

// Process id of the writer. 0 when the record is gone.
pid_t lard_owner_pid(lard_t lh);

// True while the writer exists and has not closed the ring; a process that may not be signalled
// exists as well. `*crashed` (may be null) tells whether the writer vanished without closing it.
bool lard_is_active(lard_t lh, bool *crashed);

// Both unmap and close the ring and free the handle; the owner marks it closed first. lard_close
// keeps the objects for readers, lard_destroy removes them.
void lard_close(lard_t lh);
void lard_destroy(lard_t lh);

#ifdef __cplusplus
}
#endif
#pragma GCC visibility pop
