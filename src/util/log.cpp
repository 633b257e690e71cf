#include "util/log.h"

#include <cstdarg>

namespace tvox
{

namespace
{
constexpr const char *kTervoxTag = "AHAL:TERVOX";
constexpr const char *kQdspTag = "AHAL: tervox_qdsp";
} // namespace

void log_tervox(Priority prio, const char *fmt, ...)
{
    va_list args;
    va_start(args, fmt);
    __android_log_vprint(static_cast<int>(prio), kTervoxTag, fmt, args);
    va_end(args);
}

void log_qdsp(Priority prio, const char *fmt, ...)
{
    va_list args;
    va_start(args, fmt);
    __android_log_vprint(static_cast<int>(prio), kQdspTag, fmt, args);
    va_end(args);
}

} // namespace tvox
