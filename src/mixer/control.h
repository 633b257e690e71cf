// Lookup and bounded read of one mixer control, shared by the setter, the readers and the tools.
#pragma once

#include <cstddef>
#include <cstdint>

#include "util/text.h"

struct mixer;
struct mixer_ctl;

namespace tvox
{

// A control named by number when the whole text is a number (C notation), else by name.
struct mixer_ctl *find_control(struct mixer *mixer, const char *control);

// tervox_tmixer_get with at most out_size bytes stored in out. Returns the control's value count.
int32_t read_control(struct mixer *mixer, const char *control, void *out, std::size_t out_size);

} // namespace tvox
