// Messages to the host. Pure: no descriptor, no thread.
#pragma once

#include <cstdint>

#include "remote/channel/Compressor.h"
#include "remote/device/Device.h"
#include "remote/io/Bytes.h"
#include "remote/io/OutputQueue.h"

namespace remote {

Bytes EncodeVersionReq(bool compress);
Bytes EncodeDevMap(std::uint32_t devid, std::uint32_t bus, std::uint32_t port,
                   const DeviceInfo& info);
Bytes EncodeDevUnmap(std::uint32_t devid);

// Queues a forward of `pdu`, compressed by `compressor`, if there is one, when the PDU is long
// enough and it pays. Returns whether it was.
bool PushForward(OutputQueue& output, std::uint32_t devid, Bytes pdu, Compressor* compressor);

}  // namespace remote
