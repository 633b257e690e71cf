// The driver device as a process sees it through the preload library: descriptors that stand for
// "/dev/msm_tervox_playback" inside a simulator, served by the virtual driver (driver.h).
#pragma once

namespace tvox::sim::driver
{

// True for the device's path while $TVOXSIM_DIR names a simulator.
bool is_device_path(const char *path);

// open(), ioctl() and close() of the device, with libc's conventions (-1 and errno).
int node_open(int flags);
bool node_owns(int fd);
int node_ioctl(int fd, unsigned long request, void *argument);
// Forgets the descriptor; the caller closes it.
void node_release(int fd);

} // namespace tvox::sim::driver
