// The plug-in object as the host drives it, and the stream that the host lends to it. The order of
// virtual operations and the shape of the inheritance are fixed: hosts are compiled separately.
#pragma once

#include "xj-client-usbip/HostAbi.h"
#include "xj-client-usbip/Reference.h"

class IClientUsbipListenter;

// The byte stream to the remote side, implemented by the host.
//
// Read is called by the one thread that runs IPluginRaw::Run; Write by the module's send thread
// and by the Run thread, never by two at once. Both may block for as long as they like, but must
// return non-zero soon after the host has ended the stream: ending it is how the host makes Run
// return, and ExitInstance waits for a Write in progress.
class IPluginStreamRaw : public virtual IReference {
  public:
    virtual void Reserved1() = 0;  // the host's; never called by the module

    // Reads 1 to `len` bytes into `buf` and stores their number in `*got`. Blocks until there is
    // at least one byte. Returns 0, or non-zero on failure or end of stream. `reserved` is 0.
    virtual int Read(void* buf, unsigned long len, unsigned long* got, unsigned long reserved) = 0;

    // Writes 1 to `len` bytes and stores their number in `*written`. Blocks until at least one
    // byte is taken. Returns 0, or non-zero on failure. `reserved` is 0.
    virtual int Write(const void* data, unsigned long len, unsigned long* written,
                      unsigned long reserved) = 0;
};

class IAutoConfigRaw : public virtual IReference {
  public:
    virtual long Load(const wchar_t*) = 0;
};

// Calling order: InitInstance, Run on a thread of the host's, end the stream so that Run returns,
// ExitInstance, Release. InitInstance .. ExitInstance may be repeated with a new stream.
class IPluginRaw : public IAutoConfigRaw {
  public:
    // Takes a reference on the stream and drops the one on the stream before it; null is accepted.
    // Not while Run or the send thread is active. Returns 0.
    virtual long InitInstance(IPluginStreamRaw* stream) = 0;
    // Blocks while messages arrive; returns 1 after a read has failed.
    virtual long Run() = 0;
    // Detaches every device and stops the send thread (up to 500 ms). Does not end Run. Returns 0.
    virtual long ExitInstance() = 0;
    virtual long SetPermission(const char*, int) { return 0; }
    virtual long Empty() { return 0; }
    virtual CRefObj<IPluginStreamRaw> GetPluginStream() { return {}; }
};

class IXJModInterface : public virtual IReference {
  public:
    virtual long GetInterface(const char* name, void** out) = 0;
    virtual long SetProperty(const char* name, IXJModData* value) = 0;
    virtual IXJModData* GetProperty(const char* name) = 0;
};

class IClientUsbipPlugin : public virtual IPluginRaw, public virtual IXJModInterface {
  public:
    virtual void SetListener(IClientUsbipListenter* listener) = 0;
};
