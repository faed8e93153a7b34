// Rings of the shared-memory log whose record was spoilt: a reader that opens one, and a writer
// that goes on with it. The first byte tells which, and the pages of the ring; the record follows,
// and then what the ring holds or, for a writer, the texts to append.

#include "fuzz.h"

#include <libtarnlink/invariant.h>
#include <libtarnlink/lard.h>

#include <algorithm>
#include <cstring>
#include <fcntl.h>
#include <span>
#include <string>
#include <string_view>
#include <sys/mman.h>
#include <sys/stat.h>
#include <unistd.h>

namespace {

// Thrown where an invariant that a spoilt record breaks would have ended the process.
struct intended_end {};

const size_t PAGE = static_cast<size_t>(sysconf(_SC_PAGESIZE));

const std::string &ring_name()
{
    static const std::string name = "orvscan-fuzz-" + std::to_string(getpid());
    return name;
}

// A shared-memory object, gone at the end.
struct object {
    object(const std::string &suffix, int flags)
        : name("/" + ring_name() + suffix), fd(shm_open(name.c_str(), flags, 0600))
    {
        expect(fd >= 0);
    }
    ~object()
    {
        close(fd);
        shm_unlink(name.c_str());
    }
    object(object &&) = delete;

    void put(std::span<const uint8_t> bytes, size_t len) const
    {
        const auto kept = static_cast<ssize_t>(std::min(bytes.size(), len));
        expect(pwrite(fd, bytes.data(), static_cast<size_t>(kept), 0) == kept);
        expect(ftruncate(fd, static_cast<off_t>(len)) == 0);
    }

    std::string name;
    int fd;
};

struct ring_handle {
    ~ring_handle()
    {
        if (lh != nullptr)
            is_writer ? lard_destroy(lh) : lard_close(lh);
    }
    lard_t lh;
    bool is_writer;
};

void look_at(lard_t lh, size_t ring_len)
{
    bool crashed = false;
    expect(!lard_is_active(lh, &crashed) || !crashed);
    lard_get_ctemp(lh);
    static const int out = memfd_create("snapshot", MFD_CLOEXEC);
    expect(lseek(out, 0, SEEK_SET) == 0);
    const ssize_t n = lard_snapshot(lh, out);
    expect(n >= 0 && static_cast<size_t>(n) <= ring_len + 1);
}

void read_spoilt(std::span<const uint8_t> record, std::span<const uint8_t> held, size_t npages)
{
    lard_meta seen{};
    memcpy(&seen, record.data(), record.size());
    if (seen.seg_pages == 0) // ends the process, and an end leaves a ring half open
        return;
    const object meta(".meta", O_RDWR | O_CREAT | O_TRUNC);
    const object data(".dat", O_RDWR | O_CREAT | O_TRUNC);
    meta.put(record, record.size());
    data.put(held, (2 * npages + 1) * PAGE);
    const ring_handle reader{lard_open(ring_name().c_str()), false};
    if (reader.lh == nullptr)
        return;
    look_at(reader.lh, seen.seg_pages * PAGE);
}

void write_texts(lard_t lh, std::string_view texts)
{
    while (!texts.empty()) {
        const int kind = texts.front();
        const std::string text(texts.substr(1, texts.find('\n')));
        texts.remove_prefix(std::min(texts.size(), text.size() + 1));
        if (kind % 3 == 0)
            lard_set_temp(lh, kind);
        else if (kind % 3 == 1)
            lard_puts(lh, text.c_str());
        else
            lard_printf(lh, "%s%*d", text.c_str(), kind * 100, kind);
    }
}

void write_spoilt(std::span<const uint8_t> record, std::string_view texts, size_t npages)
{
    const ring_handle writer{lard_create(ring_name().c_str(), npages), true};
    expect(writer.lh != nullptr);
    {
        const int fd = shm_open(("/" + ring_name() + ".meta").c_str(), O_RDWR, 0600);
        expect(fd >= 0);
        const size_t len = std::min(record.size(), sizeof(lard_meta));
        expect(pwrite(fd, record.data(), len, 0) == static_cast<ssize_t>(len));
        close(fd);
    }
    write_texts(writer.lh, texts);
    look_at(writer.lh, npages * PAGE);
}

} // namespace

// Takes the place of the library's: a record with a negative temperature is meant to end the
// process.
void invariant_failed(const char *expression, const char *file, const char *function)
{
    if (expression == std::string_view("m->sns.sum >= 0"))
        throw intended_end();
    dprintf(STDERR_FILENO, "%s: %s: invariant `%s' broken\n", file, function, expression);
    abort();
}

int LLVMFuzzerTestOneInput(const uint8_t *data, size_t size)
{
    if (size < 1)
        return 0;
    stderr = null_stream(); // refusals are told there
    const std::span<const uint8_t> in(data + 1, size - 1);
    const std::span<const uint8_t> record = in.first(std::min(in.size(), sizeof(lard_meta)));
    const std::span<const uint8_t> rest = in.subspan(record.size());
    const size_t npages = 1 + data[0] / 2 % 3;
    try {
        if (data[0] % 2 == 0)
            read_spoilt(record, rest, npages);
        else
            write_spoilt(record, {reinterpret_cast<const char *>(rest.data()), rest.size()},
                         npages);
    } catch (const intended_end &) {
    }
    return 0;
}
