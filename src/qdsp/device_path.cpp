// The exported path of the driver device that tuning transfers open.
#include "qdsp/driver.h"
#include "tvoxsp/qdsp.h"
#include "util/exported_data.h"

const char *DEVICE_FILE_NAME = tvox::kDriverDevice;

// A HAL may point the path elsewhere at any time; a program may hold its own copy of it.
const char *tvox::device_file_name()
{
    return live(DEVICE_FILE_NAME, "DEVICE_FILE_NAME");
}
