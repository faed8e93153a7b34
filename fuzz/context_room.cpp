// Room for one context of the engine. A new one for each input would cost more than most inputs do:
// so large a record takes its memory from the system, and gives it back, each time.

#include "tsanalyze/context.h"

#include <cstdlib>
#include <new>

namespace {

alignas(tsan_ctx) unsigned char g_room[sizeof(tsan_ctx)];
bool g_is_taken;

} // namespace

// Nothing else that is made this way has this size.
void *operator new(size_t size, std::align_val_t align, const std::nothrow_t &) noexcept
{
    if (size != sizeof g_room || g_is_taken)
        return aligned_alloc(static_cast<size_t>(align), size);
    g_is_taken = true;
    return g_room;
}

void operator delete(void *p, std::align_val_t) noexcept
{
    if (p == g_room)
        g_is_taken = false;
    else
        free(p);
}

void operator delete(void *p, size_t, std::align_val_t align) noexcept
{
    operator delete(p, align);
}
