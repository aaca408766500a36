// One mapped device, as the plug-in holds it.
#pragma once

#include <string_view>

#include "base/Buffer.h"
#include "wire/ChannelMessages.h"
#include "xj-client-usbip/Reference.h"

class IClientUsbipListenter;

// Calling order: the setters, Run, any number of Forward, Stop, Release.
//
// Threads: all but Stop and Release are called by the thread in the plug-in's Run, one after the
// other; Stop and the last Release by that thread or by the one in ExitInstance, also while the
// other calls Forward. None may be called on the client's own threads, which Stop joins.
class IUsbipClient : public virtual IReference {
  public:
    // Borrowed: the listener must outlive the client.
    virtual void SetListener(IClientUsbipListenter* listener) = 0;
    virtual void SetDevId(unsigned int devid) = 0;
    virtual unsigned int GetDevId() = 0;
    virtual void SetDevInfo(const _USBIP_DEV& info) = 0;
    virtual const _USBIP_DEV* GetDevInfo() = 0;  // the client's own copy
    virtual bool Run() = 0;                      // false: no socket pair could be made
    // Detaches the device and joins the client's threads; a few milliseconds when nothing is
    // wrong. True.
    virtual bool Stop() = 0;
    // Gives the kernel what the peer has forwarded, or lets it wait, if the client accepts it.
    // `bytes` stand in `message`, which nobody changes any more. True.
    virtual bool Forward(IBuffer* message, std::string_view bytes) = 0;
    // Whether there is room for a PDU of `len` bytes. Too much of what waits for the kernel ends
    // the device; one that has ended, or whose attach has failed, takes nothing any more.
    virtual bool Accepts(unsigned long len) = 0;
};
