// Permission bits bind the calling thread as they bind the audio server, for the object's
// lifetime: without the capabilities that let root write read-only files and search any folder.
#pragma once

#include <linux/capability.h>
#include <sys/syscall.h>
#include <unistd.h>

namespace tvox::test
{

class PermissionBits
{
  public:
    PermissionBits()
    {
        syscall(SYS_capget, &header_, saved_);
        __user_cap_data_struct reduced[2] = {saved_[0], saved_[1]};
        for (const unsigned cap : {CAP_DAC_OVERRIDE, CAP_DAC_READ_SEARCH})
            reduced[cap / 32].effective &= ~(1u << (cap % 32));
        syscall(SYS_capset, &header_, reduced);
    }
    ~PermissionBits() { syscall(SYS_capset, &header_, saved_); }
    PermissionBits(const PermissionBits &) = delete;
    PermissionBits &operator=(const PermissionBits &) = delete;

  private:
    __user_cap_header_struct header_ = {_LINUX_CAPABILITY_VERSION_3, 0};
    __user_cap_data_struct saved_[2] = {};
};

} // namespace tvox::test
