// The exported path of the driver device that tuning transfers open.
#include "qdsp/driver.h"
#include "tvoxsp/qdsp.h"

const char *DEVICE_FILE_NAME = tvox::kDriverDevice;
