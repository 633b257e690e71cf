// Android log output of the library: one helper per tag, texts passed exactly as written.
#pragma once

#include <android/log.h>

namespace tvox
{

enum class Priority : int {
    debug = ANDROID_LOG_DEBUG,
    info = ANDROID_LOG_INFO,
    error = ANDROID_LOG_ERROR,
};

// Tag "AHAL:TERVOX": calibration, files, diagnostics, paths and the DSP reader.
void log_tervox(Priority prio, const char *fmt, ...) __attribute__((format(printf, 2, 3)));

// Tag "AHAL: tervox_qdsp": driver transfers, tuning and calibration slots.
void log_qdsp(Priority prio, const char *fmt, ...) __attribute__((format(printf, 2, 3)));

} // namespace tvox
