// The requests of the USB/IP server protocol and the readers of its replies. Pure: no descriptor,
// no thread. A reader is given what has come so far, any number of times.
#pragma once

#include <cstddef>
#include <cstdint>
#include <optional>
#include <string>
#include <vector>

#include "remote/device/Device.h"
#include "remote/io/Bytes.h"
#include "wire/UsbipServer.h"

namespace remote {

// What a server tells about a device, checked and in host byte order.
struct ServedDevice {
    std::string busid;  // printable
    UsbSpeed speed;
    std::uint16_t bus;
    std::uint16_t number;
    std::uint16_t vendor;
    std::uint16_t product;
    std::vector<std::uint8_t> classes;  // of the device and, in a list, of its interfaces
};

Bytes EncodeImportRequest(const std::string& busid);  // 1 to kUsbipMaxBusId characters
Bytes EncodeListRequest();

// Reads the reply to an import of `busid` from the front of `received`. Returns its length in
// bytes, 0 when more are needed; `device` is filled. A non-empty `error` says why there is none.
std::size_t ReadImportReply(ByteView received, const std::string& busid, ServedDevice& device,
                            std::string& error);

// Reads the reply to a list request piece by piece.
class ListReader {
  public:
    // More devices than this are refused. A host controller has at most 127.
    static constexpr std::uint32_t kMaxDevices = 4096;

    // Takes whole pieces from the front of `received` and returns how many bytes they are long.
    std::size_t Read(ByteView received);

    bool Done() const { return left_ == 0; }
    const std::string& Error() const { return error_; }  // not empty: the reply was refused
    const std::vector<ServedDevice>& Devices() const { return devices_; }

  private:
    std::optional<std::uint32_t> left_;  // devices to come, once the server has told
    std::string error_;
    std::vector<ServedDevice> devices_;
};

}  // namespace remote
