// The shared-memory log: a ring of text in one object, mapped twice in a row so that a text may run
// over the ring's end, and a record about it in another.
//
// A reader believes nothing the record says: it takes each value once and keeps it within bounds.
// Nor does it believe in the objects' lengths: touching a mapping of an object that somebody has
// made shorter would kill it, so the record is read, and the text is touched by the kernel only.

#include <libtarnlink/lard.h>

#include <libtarnlink/invariant.h>
#include <libtarnlink/strops.h>
#include <libtarnlink/timeop.h>

#include <algorithm>
#include <atomic>
#include <cerrno>
#include <climits>
#include <csignal>
#include <cstdarg>
#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <fcntl.h>
#include <memory>
#include <new>
#include <sys/mman.h>
#include <sys/stat.h>
#include <sys/uio.h>
#include <unistd.h>

// What a handle stands for. Where a pointer is null or a descriptor -1 there is nothing to undo.
struct lard_ctx {
    // The three mappings of the data object, one behind the other.
    struct lard_dbuf {
        bool is_reader = false;
        int dfd = -1;            // data object
        char *data = nullptr;    // the ring
        char *overlay = nullptr; // the ring once more, right behind it
        char *ddz = nullptr;     // guard page behind both
        size_t dlen = 0;
        size_t olen = 0;
        size_t zlen = 0;
    };

    char name[LARD_MAX_NAME]{};
    int mfd = -1;                    // meta object
    lard_meta *meta = nullptr;       // the record; readers have none
    size_t buflen = 0;               // length of the ring
    volatile sig_atomic_t is_busy{}; // the writer is in the middle of a change
    lard_dbuf dbuf;
};

namespace {

constexpr int NO_GUARD = 22;

typedef lard_ctx::lard_dbuf lard_dbuf;
typedef char object_name[LARD_MAX_NAME];

size_t page_size() { return static_cast<size_t>(sysconf(_SC_PAGESIZE)); }

size_t object_length(const lard_dbuf &dbuf) { return dbuf.dlen + dbuf.olen + dbuf.zlen; }

// Sets the lengths for a ring of that many pages. False when its object would be larger than any
// file.
bool set_lengths(lard_ctx *lc, uint64_t npages)
{
    const size_t page = page_size();
    if (npages < 1 || npages >= SSIZE_MAX / page / 2)
        return false;
    lc->buflen = npages * page;
    lc->dbuf.dlen = lc->buflen;
    lc->dbuf.olen = lc->buflen;
    lc->dbuf.zlen = page;
    return true;
}

int make_object_name(object_name &out, const char *name, const char *suffix)
{
    return snprintf(out, sizeof out, "/%s.%s", name, suffix);
}

bool name_fits(int n) { return n >= 1 && n < LARD_MAX_NAME; }

// Makes the names of both objects; false, after a message, when they would be too long.
bool make_object_names(const char *function, const char *name, object_name &meta, object_name &data)
{
    if (name_fits(make_object_name(meta, name, "meta")) &&
        name_fits(make_object_name(data, name, "dat")))
        return true;
    errno = ENAMETOOLONG;
    fprintf(stderr, "%s: name of the shared-memory log is too long (%lu bytes)\n", function,
            static_cast<unsigned long>(strlen(name)));
    return false;
}

// ---- Closing

void unmap(void *address, size_t len, const char *what)
{
    if (address == nullptr || munmap(address, len) == 0)
        return;
    perror(what);
    INVARIANT(0);
}

// Closes one of the objects and removes its name when asked to. An object that has lost its name
// was replaced by another writer: what is found under the name now is that writer's, and stays.
void close_object(const lard_ctx *lc, int fd, bool destroy, const char *suffix, const char *what)
{
    if (fd < 0)
        return;
    struct stat st {};
    if (destroy && (fstat(fd, &st) != 0 || st.st_nlink > 0)) {
        object_name object;
        const int n = make_object_name(object, lc->name, suffix);
        if (!name_fits(n)) {
            fprintf(stderr, "%s: fprintf out of bounds: %d\n", "free_lctx", n);
            abort();
        }
        if (shm_unlink(object) != 0)
            perror(what);
    }
    close(fd);
}

// Undoes whatever there is of a ring and frees the handle.
void free_lctx(lard_ctx *lc, bool destroy)
{
    const std::unique_ptr<lard_ctx> freed(lc);
    const lard_dbuf &dbuf = lc->dbuf;
    if (lc->meta != nullptr && !dbuf.is_reader && lc->meta->owner_pid == getpid())
        __atomic_store_n(&lc->meta->is_closed, 1, __ATOMIC_RELEASE);
    unmap(lc->meta, sizeof *lc->meta, "munmap(META)");
    close_object(lc, lc->mfd, destroy, "meta", "shm_unlink (META)");
    unmap(dbuf.ddz, dbuf.zlen, "munmap(DZ)");
    unmap(dbuf.overlay, dbuf.olen, "munmap(OVL)");
    unmap(dbuf.data, object_length(dbuf), "munmap(ALL)");
    close_object(lc, dbuf.dfd, destroy, "dat", "shm_unlink (DATA)");
}

// Undoes a ring that could not be completed; errno stays that of the failure.
struct undo {
    bool destroy;

    void operator()(lard_ctx *lc) const
    {
        const int error = errno;
        free_lctx(lc, destroy);
        errno = error;
    }
};

typedef std::unique_ptr<lard_ctx, undo> unfinished_ring;

unfinished_ring new_lctx(const char *name, bool is_reader)
{
    unfinished_ring lc(new (std::nothrow) lard_ctx, undo{!is_reader});
    if (lc == nullptr) {
        errno = ENOMEM;
        return lc;
    }
    copy_text(lc->name, sizeof lc->name, name);
    lc->dbuf.is_reader = is_reader;
    return lc;
}

// ---- Mapping

int open_object(const char *function, const char *object, int flags)
{
    const int fd = shm_open(object, flags, 0600);
    if (fd < 0)
        fprintf(stderr, "%s: shm_open(%s) ERROR(%d): %s\n", function, object, errno,
                strerror(errno));
    return fd;
}

int map_meta(const char *function, lard_ctx *lc)
{
    const size_t len = sizeof *lc->meta;
    void *meta = mmap(nullptr, len, PROT_READ | PROT_WRITE, MAP_SHARED | MAP_POPULATE, lc->mfd, 0);
    if (meta == MAP_FAILED) {
        fprintf(stderr, "%s: mmap(NULL, %lu, .., fd%d, 0) ERROR(%d): %s\n", function,
                static_cast<unsigned long>(len), lc->mfd, errno, strerror(errno));
        return -1;
    }
    lc->meta = static_cast<lard_meta *>(meta);
    return 0;
}

int report_mmap(const char *function, const char *what, size_t len, int fd)
{
    fprintf(stderr, "%s: %s mmap(NULL, %lu, .., fd%d, 0) ERROR(%d): %s\n", function, what,
            static_cast<unsigned long>(len), fd, errno, strerror(errno));
    return -1;
}

// Maps the data object, whose lengths are set. A reader's mappings are filled on demand: memory is
// not taken only because a record says so.
int map_data(const char *function, lard_dbuf &dbuf)
{
    const int access = dbuf.is_reader ? PROT_READ : PROT_READ | PROT_WRITE;
    const int flags = dbuf.is_reader ? MAP_SHARED : MAP_SHARED | MAP_POPULATE;
    const size_t whole = object_length(dbuf);
    void *data = mmap(nullptr, whole, access, flags, dbuf.dfd, 0);
    if (data == MAP_FAILED)
        return report_mmap(function, "BUF", whole, dbuf.dfd);
    dbuf.data = static_cast<char *>(data);

    char *overlay = dbuf.data + dbuf.dlen;
    if (mmap(overlay, dbuf.olen, access, flags | MAP_FIXED, dbuf.dfd, 0) == MAP_FAILED)
        return report_mmap(function, "EXT", dbuf.olen, dbuf.dfd);
    dbuf.overlay = overlay;

    char *ddz = overlay + dbuf.olen;
    if (mmap(ddz, dbuf.zlen, PROT_NONE, flags | MAP_FIXED, dbuf.dfd, 0) == MAP_FAILED) {
        fprintf(stderr, "%s: DDZ mmap(%p, %lu, .., fd%d, 0) ERROR(%d): %s\n", function,
                static_cast<void *>(ddz), static_cast<unsigned long>(dbuf.zlen), dbuf.dfd, errno,
                strerror(errno));
        return NO_GUARD;
    }
    dbuf.ddz = ddz;
    return 0;
}

// ---- Creating

int report_size(const char *function, const char *call, int fd, const char *object, size_t len,
                int error)
{
    fprintf(stderr, "%s: %s(fd%d/%s, %lu) ERROR(%d): %s\n", function, call, fd, object,
            static_cast<unsigned long>(len), error, strerror(error));
    errno = error;
    return -1;
}

// Takes the memory of the ring now. Without it a host would be killed in the middle of a statement
// when shared memory has run out.
int allocate_ring(const lard_ctx *lc)
{
    int error = EINTR;
    while (error == EINTR)
        error = posix_fallocate(lc->dbuf.dfd, 0, static_cast<off_t>(lc->buflen));
    return error;
}

int create_data(lard_ctx *lc, const char *object, size_t npages)
{
    lard_dbuf &dbuf = lc->dbuf;
    dbuf.dfd = open_object(__func__, object, O_RDWR | O_CREAT | O_EXCL);
    if (dbuf.dfd < 0)
        return -1;
    if (!set_lengths(lc, npages))
        return report_size(__func__, "ftruncate", dbuf.dfd, object, npages * page_size(), EINVAL);
    const size_t len = object_length(dbuf);
    if (ftruncate(dbuf.dfd, static_cast<off_t>(len)) != 0)
        return report_size(__func__, "ftruncate", dbuf.dfd, object, len, errno);
    if (const int error = allocate_ring(lc); error != 0)
        return report_size(__func__, "posix_fallocate", dbuf.dfd, object, lc->buflen, error);
    return map_data(__func__, dbuf);
}

// The record is written as a whole, as the last step: a reader finds either no record or a complete
// one with a complete ring.
int create_meta(lard_ctx *lc, const char *object, size_t npages)
{
    lard_meta meta;
    memset(&meta, 0, sizeof meta);
    meta.seg_pages = npages;
    meta.owner_pid = getpid();
    lc->mfd = open_object(__func__, object, O_RDWR | O_CREAT | O_EXCL);
    if (lc->mfd < 0)
        return -1;
    errno = ENOSPC; // what a short write means
    if (pwrite(lc->mfd, &meta, sizeof meta, 0) != static_cast<ssize_t>(sizeof meta))
        return report_size(__func__, "pwrite", lc->mfd, object, sizeof meta, errno);
    return map_meta(__func__, lc);
}

// ---- Opening

int check_size(const char *function, int fd, const char *object, size_t len)
{
    struct stat st {};
    if (fstat(fd, &st) != 0) {
        fprintf(stderr, "%s: fstat(%s) ERROR(%d): %s\n", function, object, errno, strerror(errno));
        return -1;
    }
    if (static_cast<size_t>(st.st_size) >= len)
        return 0;
    fprintf(stderr, "%s: %s is too short: %lu bytes of %lu\n", function, object,
            static_cast<unsigned long>(st.st_size), static_cast<unsigned long>(len));
    errno = EINVAL;
    return -1;
}

int open_meta(lard_ctx *lc, const char *object)
{
    lc->mfd = open_object(__func__, object, O_RDONLY);
    return lc->mfd < 0 ? -1 : check_size(__func__, lc->mfd, object, sizeof *lc->meta);
}

int open_data(lard_ctx *lc, const char *object, uint64_t npages)
{
    lard_dbuf &dbuf = lc->dbuf;
    dbuf.dfd = open_object(__func__, object, O_RDONLY);
    if (dbuf.dfd < 0)
        return -1;
    const size_t len = set_lengths(lc, npages) ? object_length(dbuf) : SIZE_MAX;
    if (check_size(__func__, dbuf.dfd, object, len) != 0)
        return -1;
    return map_data(__func__, dbuf);
}

// ---- Writing

// Where the next text goes.
char *append_position(const lard_ctx *lc)
{
    return lc->dbuf.data + (lc->meta->pld_start + lc->meta->pld_len) % lc->buflen;
}

// Whether a text of `n` bytes can be appended. Readers cannot: their mapping is read-only.
bool can_append(const lard_ctx *lc, long n)
{
    return !lc->dbuf.is_reader && lc->is_busy == 0 && n >= 1 && n <= INT_MAX &&
           static_cast<size_t>(n) < lc->buflen;
}

// While it lives, a signal handler cannot change the ring.
struct ring_change {
    explicit ring_change(lard_ctx *changed) : lc(changed)
    {
        lc->is_busy = 1;
        std::atomic_signal_fence(std::memory_order_seq_cst);
    }
    ~ring_change()
    {
        std::atomic_signal_fence(std::memory_order_seq_cst);
        lc->is_busy = 0;
    }
    ring_change(const ring_change &) = delete;
    ring_change &operator=(const ring_change &) = delete;

    lard_ctx *lc;
};

void push_sample(lard_meta *m, int32_t temp)
{
    const uint64_t idx = m->sns.idx < MAX_SNS ? m->sns.idx : 0;
    const int64_t sum = int64_t{m->sns.sum} - m->sns.val[idx] + temp;
    m->sns.sum = static_cast<int32_t>(sum);
    INVARIANT(m->sns.sum >= 0);
    m->sns.val[idx] = temp;
    m->sns.idx = idx + 1 < MAX_SNS ? idx + 1 : 0;
}

int account_for(lard_ctx *lc, size_t n)
{
    lard_meta *m = lc->meta;
    uint64_t start = m->pld_start;
    uint64_t len = m->pld_len;
    if (len < lc->buflen)
        len += n;
    else if (len == lc->buflen)
        start += n;
    if (len > lc->buflen) {
        start += len % lc->buflen;
        len = lc->buflen;
    }
    // The text is there before the record speaks of it.
    __atomic_store_n(&m->pld_start, start % lc->buflen, __ATOMIC_RELEASE);
    __atomic_store_n(&m->pld_len, len, __ATOMIC_RELEASE);
    set_now(&m->write_tm);
    push_sample(lc->meta, 0);
    return static_cast<int>(n);
}

// ---- Reading

// A copy of the record. False, with errno set, when it is gone.
bool read_record(const lard_ctx *lc, lard_meta *out)
{
    errno = EIO; // what a short read means
    return pread(lc->mfd, out, sizeof *out, 0) == static_cast<ssize_t>(sizeof *out);
}

// Whether the ring's text is still there, and whether the byte at `start` is a zero.
bool look_at_text(const lard_ctx *lc, size_t start, bool *is_zero)
{
    struct stat st {};
    char byte = 0;
    if (fstat(lc->dbuf.dfd, &st) != 0 ||
        pread(lc->dbuf.dfd, &byte, 1, static_cast<off_t>(start)) < 0)
        return false;
    *is_zero = byte == '\0';
    errno = EIO;
    return static_cast<size_t>(st.st_size) >= object_length(lc->dbuf);
}

} // namespace

lard_t lard_create(const char *name, size_t npages)
{
    INVARIANT(NULL != name);
    object_name meta;
    object_name data;
    if (!make_object_names(__func__, name, meta, data))
        return nullptr;
    unfinished_ring lc = new_lctx(name, false);
    if (lc == nullptr)
        return nullptr;
    shm_unlink(meta);
    shm_unlink(data);
    if (create_data(lc.get(), data, npages) != 0 || create_meta(lc.get(), meta, npages) != 0)
        return nullptr;
    return lc.release();
}

lard_t lard_open(const char *name)
{
    object_name meta;
    object_name data;
    if (!make_object_names(__func__, name, meta, data))
        return nullptr;
    unfinished_ring lc = new_lctx(name, true);
    if (lc == nullptr || open_meta(lc.get(), meta) != 0)
        return nullptr;
    lard_meta record;
    if (!read_record(lc.get(), &record))
        return nullptr;
    const uint64_t npages = record.seg_pages;
    INVARIANT(npages > 0);
    if (open_data(lc.get(), data, npages) != 0)
        return nullptr;
    return lc.release();
}

void lard_close(lard_t lh) { free_lctx(lh, false); }

void lard_destroy(lard_t lh) { free_lctx(lh, true); }

// ---- Writing

int lard_puts(lard_t lh, const char *str)
{
    const size_t n = strnlen(str, lh->buflen);
    if (!can_append(lh, static_cast<long>(n)))
        return LARD_NO_APPEND;
    const ring_change change(lh);
    // One byte less than lard_printf has, as intended: of a text that just fits, the terminating
    // zero takes the last character's place.
    const size_t kept = std::min(n, lh->buflen - 2);
    char *out = append_position(lh);
    memcpy(out, str, kept);
    out[kept] = '\0';
    return account_for(lh, n);
}

int lard_printf(lard_t lh, const char *fmt, ...)
{
    va_list args;
    va_list measured;
    va_start(args, fmt);
    va_copy(measured, args);
    // A text that does not fit must not be begun.
    const int n = vsnprintf(nullptr, 0, fmt, measured);
    va_end(measured);
    int appended = LARD_NO_APPEND;
    if (can_append(lh, n)) {
        const ring_change change(lh);
        if (vsnprintf(append_position(lh), lh->buflen, fmt, args) == n) // memory may have run out
            appended = account_for(lh, static_cast<size_t>(n));
    }
    va_end(args);
    return appended;
}

void lard_set_temp(lard_t lh, int32_t temp)
{
    if (lh->dbuf.is_reader || lh->is_busy != 0)
        return;
    const ring_change change(lh);
    push_sample(lh->meta, temp);
}

// ---- Reading

ssize_t lard_snapshot(lard_t lh, int fd)
{
    lard_meta m;
    if (!read_record(lh, &m))
        return LARD_FAILED;
    // Whatever the record says, nothing past the overlay's first byte is read.
    const size_t start = m.pld_start % lh->buflen;
    const size_t len = std::min<size_t>(m.pld_len, lh->buflen);
    bool begins_with_zero = false;
    if (!look_at_text(lh, start, &begins_with_zero))
        return LARD_FAILED;
    char *data = lh->dbuf.data;
    if (start <= 1)
        return write(fd, data, len);
    // The counts are fixed: the byte behind the ring's end is part of the first piece, and the last
    // byte before `start` of neither when `start` holds a text's terminating zero.
    const size_t z = begins_with_zero ? 1 : 0;
    const size_t first = len + 1 > start + z ? len + 1 - start - z : 0;
    const iovec pieces[] = {{data + start + z, first}, {data, start - z}};
    return writev(fd, pieces, 2);
}

int32_t lard_get_ctemp(lard_t lh)
{
    lard_meta m;
    return read_record(lh, &m) ? m.sns.sum : 0;
}

pid_t lard_owner_pid(lard_t lh)
{
    lard_meta m;
    return read_record(lh, &m) ? m.owner_pid : 0;
}

bool lard_is_active(lard_t lh, bool *crashed)
{
    lard_meta m;
    if (!read_record(lh, &m))
        m = {};
    const bool exists = m.owner_pid >= 1 && (kill(m.owner_pid, 0) == 0 || errno == EPERM);
    const bool is_closed = m.is_closed != 0;
    if (crashed != nullptr)
        *crashed = m.owner_pid >= 1 && !exists && !is_closed;
    return exists && !is_closed;
}
