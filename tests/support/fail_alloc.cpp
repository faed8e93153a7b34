// Preloaded into a program, lets the allocation number FAIL_ALLOC fail, counted from 1; with
// FAIL_ALLOC_FORKED, in processes that it forks alone. Those the settings library calls for are let
// alone: it does not look whether it got any. Tests that it is part of choose the number with
// fail_allocation.

#include <cerrno>
#include <cstdlib>
#include <cstring>
#include <dlfcn.h>
#include <string_view>
#include <unistd.h>
#include <utility>

extern "C" {
void *__libc_malloc(size_t size);
void *__libc_calloc(size_t count, size_t size);
void *__libc_realloc(void *old, size_t size);
char *__strdup(const char *text) noexcept;
void fail_no_more();
long fail_allocation(long number);
}

namespace {

long g_left;
pid_t g_spared; // process without failures

__attribute__((constructor)) void set_number()
{
    const char *number = getenv("FAIL_ALLOC");
    g_left = number == nullptr ? 0 : strtol(number, nullptr, 10);
    g_spared = getenv("FAIL_ALLOC_FORKED") != nullptr ? getpid() : 0;
}

bool fails(const void *caller)
{
    Dl_info from{};
    if (g_left <= 0 || getpid() == g_spared ||
        (dladdr(caller, &from) != 0 &&
         std::string_view(from.dli_fname).find("libconfig") != std::string_view::npos))
        return false;
    if (--g_left != 0)
        return false;
    errno = ENOMEM;
    return true;
}

char *copy_of(const char *text)
{
    const size_t size = strlen(text) + 1;
    void *copy = __libc_malloc(size);
    return copy == nullptr ? nullptr : static_cast<char *>(memcpy(copy, text, size));
}

} // namespace

#pragma GCC visibility push(default)
#define FAILS fails(__builtin_return_address(0))

extern "C" {

// For what a build's instruments do when the program has ended.
void fail_no_more() { g_left = 0; }
// Returns the number that was left: 0 when that allocation has failed.
long fail_allocation(long number) { return std::exchange(g_left, number); }

void *malloc(size_t size) { return FAILS ? nullptr : __libc_malloc(size); }
void *calloc(size_t count, size_t size) { return FAILS ? nullptr : __libc_calloc(count, size); }
void *realloc(void *old, size_t size) { return FAILS ? nullptr : __libc_realloc(old, size); }
char *strdup(const char *text) noexcept { return FAILS ? nullptr : copy_of(text); }
char *__strdup(const char *text) noexcept { return FAILS ? nullptr : copy_of(text); }
}
