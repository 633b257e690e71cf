/* The exported header must compile as plain C; the layout checks mirror the C++ ones. */
#include "tvoxsp.h"

_Static_assert(sizeof(tervox_cal_record) == 24, "six 32-bit words per channel");
_Static_assert(TERVOX_NUM_CTLS == 19, "19 control ids");

size_t tvoxsp_c_sizeof_tervox(void)
{
    return sizeof(struct tervox);
}
size_t tvoxsp_c_offsetof_str_format_out(void)
{
    return offsetof(struct tervox, str_format_out);
}
