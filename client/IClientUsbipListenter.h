// The interface through which a device client reports to its owner.
#pragma once

#include "xj-client-usbip/Reference.h"

class IClientUsbipListenter : public virtual IReference {
  public:
    // Both are called on the work thread of the device client, for several clients at once, without
    // a lock held. They must not stop the client, since stopping it joins the thread.

    // A whole USB/IP PDU that the kernel wrote for device `devid`; valid only during the call.
    virtual void OnUsbipPacket(unsigned int devid, const char* data, unsigned long len) = 0;
    // The client of `devid` has ended.
    virtual void OnUsbipDeviceError(unsigned int devid) = 0;
};
