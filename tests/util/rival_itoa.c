/* Another library's itoa with the same name and a recognisable result. */
#include <stdint.h>
#include <string.h>

char *itoa(int32_t value, char *buffer, int32_t base)
{
    (void)value;
    (void)base;
    strcpy(buffer, "rival");
    return buffer;
}
