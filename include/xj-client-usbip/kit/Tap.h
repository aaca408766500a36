// A stream that wraps the host's stream and follows what passes on it.
//
// A host lends the tap to the plug-in in the place of its own stream. The tap tells it what is
// mapped and what ends, counts, refuses devices before the module hears of them, and shows PDUs to
// whoever captures them. Payload is not copied unless PDUs are asked for, and nothing is held back
// that is longer than the head of a message; of a map, that is the map.
//
// What is no message of the channel protocol passes as it is: to judge it is the module's business.
#pragma once

#include <cstddef>
#include <cstdint>
#include <memory>
#include <optional>
#include <string_view>

#include "xj-client-usbip/PluginAbi.h"
#include "xj-client-usbip/Reference.h"
#include "xj-client-usbip/kit/Devices.h"

namespace xj_usbip {

// A USB/IP PDU on its way. Valid during the call.
struct TappedPdu {
    const RemoteDevice& device;
    bool to_remote;  // a command; else a reply
    std::string_view
        bytes;           // the front of it: its header of 48 bytes and so much data as was asked
    std::uint64_t size;  // of the whole PDU
};

// What the host wants to know. No operation may throw; each keeps its direction of the stream
// waiting. The tap holds no lock meanwhile.
//   reading    the thread in the plug-in's Run
//   sending    the module's send thread, or the one in Run; never two at once
class ITapEvents {
  public:
    virtual ~ITapEvents() = default;

    // Before the module learns of it. False: it never does, and the remote side is told that the
    // device has ended. A device of the same id has ended before that. Reading.
    virtual bool OnMap(const RemoteDevice& device) = 0;

    // The remote side takes the device back, or maps another one in its place. Reading.
    virtual void OnUnmap(std::uint32_t id) = 0;

    // The module reports that the device has ended. It does not report that it could not attach
    // one; see Arrival.h. Sending.
    virtual void OnEnd(std::uint32_t id) = 0;

    // The remote side is told that our version of the channel protocol is this one. Sending.
    virtual void OnVersion(std::uint32_t) {}

    // If asked for. Commands: sending, before the remote side gets them. Replies: reading, before
    // the module has the end of them.
    virtual void OnPdu(const TappedPdu&) {}
};

class Tap : public IPluginStreamRaw, protected CReference {
  public:
    // More devices than this at a time are refused, whatever the host says.
    static constexpr std::size_t kMostDevices = 1024;

    // Keeps a reference on `stream`. `events` must outlive the tap's part as a stream: until
    // InitInstance has given the plug-in another stream.
    Tap(IPluginStreamRaw* stream, ITapEvents& events);

    long AddRef() override { return CReference::AddRef(); }
    long Release() override { return CReference::Release(); }
    void Reserved1() override {}
    int Read(void* buf, unsigned long len, unsigned long* got, unsigned long reserved) override;
    int Write(const void* data, unsigned long len, unsigned long* written,
              unsigned long reserved) override;

    // None when no such device is mapped. Any thread.
    std::optional<DeviceCounts> Counts(std::uint32_t id) const;

    // From now on OnPdu is called for PDUs that begin, with at most so many bytes of data; nothing:
    // no more. Any thread.
    void ShowPdus(std::optional<std::size_t> most_data);

  private:
    ~Tap() override;

    class Reading;
    class Sending;
    class Devices;

    const CRefObj<IPluginStreamRaw> stream_;
    const std::unique_ptr<Devices> devices_;  // has its own lock
    const std::unique_ptr<Sending> sending_;  // has its own lock
    const std::unique_ptr<Reading> reading_;  // the reading thread's
};

}  // namespace xj_usbip
