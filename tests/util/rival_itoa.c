/* Another library's generic names: an itoa with a recognisable result, and a `self` of its own
 * that points at itself. */
#include <stdint.h>
#include <string.h>

char *itoa(int32_t value, char *buffer, int32_t base)
{
    (void)value;
    (void)base;
    strcpy(buffer, "rival");
    return buffer;
}

void *self = &self;
