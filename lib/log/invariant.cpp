#include <libtarnlink/invariant.h>

#include <cstdio>
#include <cstdlib>

void invariant_failed(const char *expression, const char *file, const char *function)
{
    fflush(stdout);
    fprintf(stderr, "%s: %s: invariant `%s' broken\n", file, function, expression);
    abort();
}
