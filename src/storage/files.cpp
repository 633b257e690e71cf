// Calibration files: the binary and text back-ends and the front-ends that reach them through
// the active context, so a HAL can install back-ends of its own.
#include "calibration/results.h"
#include "mixer/control.h"
#include "storage/file_replacement.h"
#include "tvoxsp.h"
#include "util/fatal.h"
#include "util/file_handle.h"
#include "util/log.h"

#include <cerrno>
#include <cstdio>

extern "C" int32_t tervox_default_fwrite(uint32_t *values, size_t count, const char *path)
{
    tvox::FileReplacement file(path, "wb+");
    if (!file.stream()) {
        tvox::log_tervox(tvox::Priority::error, "can't open %s \n", path);
        return -1;
    }
    // Nothing to write still leaves an empty file, and counts as a failure.
    const size_t written = std::fwrite(values, sizeof(uint32_t), count, file.stream());
    const bool stored = file.commit();
    if (written < 1 || !stored) {
        tvox::log_tervox(tvox::Priority::error, "can't write CAL_R to persist slot!\n");
        return -1;
    }
    return 0;
}

extern "C" int32_t tervox_default_fread(uint32_t *values, size_t count, const char *path)
{
    errno = 0;
    const tvox::FileHandle file(std::fopen(path, "rbe"));
    if (!file) {
        tvox::log_tervox(tvox::Priority::error, "%s: can't open %s, errno=%d \n",
                         "tervox_default_fread", path, errno);
        return -1;
    }
    // Words past a short file keep the caller's values; all are logged.
    const size_t read = std::fread(values, sizeof(uint32_t), count, file.get());
    for (size_t i = 0; i < count; ++i)
        tvox::log_tervox(tvox::Priority::info, "CH[%d] = %d, file: %s \n", static_cast<int>(i),
                         static_cast<int>(values[i]), path);
    return read < 1 ? -1 : 0;
}

extern "C" int32_t tervox_ascii_fwrite(uint32_t *values, size_t count, const char *path)
{
    tvox::FileReplacement file(path, "w");
    for (size_t i = 0; file.stream() && i < count; ++i) {
        const char *name = tvox::checked_at(self->channel_name, i);
        std::fprintf(file.stream(), "CH[%d] %s : %d (%4.2f)\n", static_cast<int>(i),
                     tvox::printable(name), static_cast<int>(values[i]),
                     tvox::cal_r_ohms(values[i]));
    }
    // The text file has one failure message, for a file it could not open or not store.
    if (!file.commit()) {
        tvox::log_tervox(tvox::Priority::error, "can't open %s \n", path);
        return -1;
    }
    return 0;
}

extern "C" int32_t tervox_cal_fwrite(uint32_t *values, size_t count)
{
    // The text copy decides the result: the binary write's outcome is only logged.
    self->fwrite_backend(values, count, self->cal_bin_path);
    return self->txt_fwrite_backend(values, count, self->cal_txt_path);
}

extern "C" int32_t tervox_cal_fread(uint32_t *values, size_t count)
{
    if (self->fread_backend(values, count, self->cal_bin_path) != 0)
        return -1;
    // A channel that reads 0 was never calibrated.
    tvox::FailurePattern uncalibrated;
    for (size_t i = 0; i < count; ++i)
        if (values[i] == 0)
            uncalibrated.fail(i);
    return uncalibrated.result();
}

extern "C" int32_t tervox_f0_fwrite(uint32_t *values, size_t count)
{
    return self->fwrite_backend(values, count, self->f0_path);
}

extern "C" int32_t tervox_f0_fread(uint32_t *values, size_t count)
{
    return self->fread_backend(values, count, self->f0_path);
}
