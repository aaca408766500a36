// The plug-in object as the host drives it, and the stream that the host lends to it. The order of
// virtual operations and the shape of the inheritance are fixed: hosts are compiled separately.
#pragma once

#include "xj-client-usbip/HostAbi.h"
#include "xj-client-usbip/Reference.h"

class IClientUsbipListenter;

// How an operation is described below, where it needs it:
//   When     in which state it may be called
//   Thread   who calls it; "any" also means several at once
//   Locks    what the module holds while it calls the host
//   Blocks   for how long
//   From     from which callbacks the host may call it. Callbacks are what the module calls: Log
//            (HostAbi.h), Read, Write, and AddRef and Release of the host's objects. A host that
//            calls an operation from another one reenters the module, which deadlocks or destroys
//            what the callback returns to.

// The byte stream to the remote side, implemented by the host and called by the module. It must
// outlive the plug-in's reference, which InitInstance or the last Release drops.
//
// Ending the stream is how the host makes Run return and frees a Write that is stuck: Read and
// Write then return non-zero soon, and go on doing so.
class IPluginStreamRaw : public virtual IReference {
  public:
    virtual void Reserved1() = 0;  // the host's; never called by the module

    // Reads 1 to `len` bytes into `buf` and stores their number in `*got`. Returns 0, or non-zero
    // on failure or end of stream, after which it is not called again in this Run. `reserved` is 0.
    //   Thread   the one in Run
    //   Locks    none
    //   Blocks   as long as it likes, and at least until there is a byte: 0 bytes without a failure
    //            are asked for again at once
    virtual int Read(void* buf, unsigned long len, unsigned long* got, unsigned long reserved) = 0;

    // Writes 1 to `len` bytes and stores their number in `*written`. Returns 0, or non-zero on
    // failure: the rest of the message is dropped, the next message is tried. `reserved` is 0.
    //   Thread   the module's send thread, or the one in Run; never two at once
    //   Locks    the write lock, from a message's first byte to its last
    //   Blocks   as long as it likes, and at least until a byte is taken: 100 times 0 bytes in a
    //   row
    //            (one second) count as a failure. ExitInstance waits for it.
    virtual int Write(const void* data, unsigned long len, unsigned long* written,
                      unsigned long reserved) = 0;
};

class IAutoConfigRaw : public virtual IReference {
  public:
    virtual long Load(const wchar_t*) = 0;  // does nothing; returns 0
};

// Calling order: InitInstance, Run on a thread of the host's, end the stream so that Run returns,
// ExitInstance, Release. InitInstance .. ExitInstance may be repeated with a new stream.
//
// AddRef may be called from anywhere. Release too, but for the last one, which is an ExitInstance.
class IPluginRaw : public IAutoConfigRaw {
  public:
    // Takes a reference on the stream and drops the one on the stream before it; null is accepted.
    // Returns 0.
    //   When     before Run, and again after ExitInstance
    //   Thread   any, one at a time
    //   Blocks   never
    //   From     no callback
    virtual long InitInstance(IPluginStreamRaw* stream) = 0;

    // Reads the stream and serves it until a Read fails. Returns 1. Up to 32 MiB of memory that
    // messages took are kept for the next ones, until for half a second there is none to write; the
    // settings of the process's heap are left alone.
    //   When     after InitInstance, one at a time; again after it has returned, which drops what
    //            the Run before has left unsent
    //   Thread   one of the host's own, which it keeps
    //   Blocks   until the stream has ended
    //   From     no callback
    virtual long Run() = 0;

    // Detaches every device and stops the send thread; what is still unsent is dropped. Does not
    // make Run return. Returns 0.
    //   When     any time. While Run still reads, the remote side learns of the devices' ends, and
    //            what it maps afterwards stays until the next ExitInstance or the last Release.
    //   Thread   any, but the module's own
    //   Blocks   some milliseconds for each device, and for a Write in progress
    //   From     no callback, above all not from Log: it waits for the threads that log, and on the
    //            thread in Run it destroys the device that the line is about
    virtual long ExitInstance() = 0;

    virtual long SetPermission(const char*, int) { return 0; }
    virtual long Empty() { return 0; }
    virtual CRefObj<IPluginStreamRaw> GetPluginStream() { return {}; }
};

// None of these does anything: 0 or null, the arguments stay as they are. Any thread, from
// anywhere.
class IXJModInterface : public virtual IReference {
  public:
    virtual long GetInterface(const char* name, void** out) = 0;
    virtual long SetProperty(const char* name, IXJModData* value) = 0;
    virtual IXJModData* GetProperty(const char* name) = 0;
};

class IClientUsbipPlugin : public virtual IPluginRaw, public virtual IXJModInterface {
  public:
    // Does nothing. Any thread, from anywhere.
    virtual void SetListener(IClientUsbipListenter* listener) = 0;
};
