// Shared-memory log ("lard"): a ring of recent log text that other processes can read.
//
// A writer creates the ring under a name and appends text to it; any number of readers open it by
// that name, also after the writer has died, dump the text and ask how severe the recent messages
// were (the temperature). One writer, no locks: a reader may see a line that is half written.
//
// Two POSIX shared-memory objects carry a ring: "/NAME.meta" holds one lard_meta record,
// "/NAME.dat" the text. Both are created with mode 0600.
#pragma once

#include <cstddef>
#include <cstdint>
#include <ctime>
#include <sys/types.h>

enum {
    LARD_MAX_NAME = 255, // room for an object's name, terminator included
    MAX_SNS = 64,        // temperature samples kept
};

// The last MAX_SNS temperature samples and their sum, the current temperature.
struct lard_sns {
    uint64_t idx;         // next slot to fill
    int32_t val[MAX_SNS]; // samples
    int32_t sum;          // sum of all samples
};

// The record in "/NAME.meta". It is shared between processes: its layout is fixed.
struct lard_meta {
    uint64_t seg_pages; // payload size in pages
    uint64_t pld_start; // offset in the ring of the oldest byte kept
    uint64_t pld_len;   // bytes kept, at most the ring's length
    int32_t owner_pid;  // process id of the writer
    timespec write_tm;  // monotonic time of the last write
    lard_sns sns;       // temperature
    uint8_t is_closed;  // 1 once the writer has closed the ring
};

static_assert(sizeof(lard_meta) == 328);
static_assert(offsetof(lard_meta, seg_pages) == 0);
static_assert(offsetof(lard_meta, pld_start) == 8);
static_assert(offsetof(lard_meta, pld_len) == 16);
static_assert(offsetof(lard_meta, owner_pid) == 24);
static_assert(offsetof(lard_meta, write_tm) == 32);
static_assert(offsetof(lard_meta, sns) + offsetof(lard_sns, idx) == 48);
static_assert(offsetof(lard_meta, sns) + offsetof(lard_sns, val) == 56);
static_assert(offsetof(lard_meta, sns) + offsetof(lard_sns, sum) == 312);
static_assert(offsetof(lard_meta, is_closed) == 320);

struct lard_ctx;
typedef struct lard_ctx *lard_t;

// Creates a ring of `npages` memory pages under `name`, removing what an earlier process left under
// it. Returns the writer's handle, or null after a message on standard error. `name` may not be
// null.
lard_t lard_create(const char *name, size_t npages);

// Opens an existing ring for reading. Returns a handle, or null after a message on standard error.
lard_t lard_open(const char *name);

// Appends text; the printf form formats it first. Returns the number of bytes appended, or -7 when
// there is nothing to append or the text does not fit the ring, which then stays as it was.
int lard_puts(lard_t lh, const char *str);
int lard_printf(lard_t lh, const char *fmt, ...) __attribute__((format(printf, 2, 3)));

// Writes the ring's content to a descriptor. Returns the bytes written, or -1 with errno set.
ssize_t lard_snapshot(lard_t lh, int fd);

// Pushes one temperature sample (0 or more) over the oldest one.
void lard_set_temp(lard_t lh, int32_t temp);

// The current temperature: the sum of the last MAX_SNS samples.
int32_t lard_get_ctemp(lard_t lh);

// Process id of the writer.
pid_t lard_owner_pid(lard_t lh);

// True while the writer exists and has not closed the ring. `*crashed` (may be null) tells whether
// the writer vanished without closing it.
bool lard_is_active(lard_t lh, bool *crashed);

// Both unmap and close the ring and free the handle; the owner marks it closed first. lard_close
// keeps the objects for readers, lard_destroy removes them.
void lard_close(lard_t lh);
void lard_destroy(lard_t lh);
