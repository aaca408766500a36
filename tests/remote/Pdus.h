// The vocabulary of the remote side's tests: commands as the kernel makes them, replies as it reads
// them, CBWs as its storage driver fills them, and a disk image to work on.
#pragma once

#include <gtest/gtest.h>
#include <stdlib.h>

#include <algorithm>
#include <array>
#include <cstdint>
#include <filesystem>
#include <fstream>
#include <initializer_list>
#include <iterator>
#include <string>

#include "remote/Bytes.h"
#include "wire/UsbipPdu.h"

namespace remote::test {

inline constexpr std::uint32_t kIn = USBIP_DIR_IN;
inline constexpr std::uint32_t kOut = USBIP_DIR_OUT;
inline constexpr std::uint32_t kShortNotOk = 1;

// One URB as the kernel submits it. OUT data makes its own length.
struct Submit {
    std::uint32_t seqnum = 0;
    std::uint32_t endpoint = 0;
    std::uint32_t direction = kIn;
    std::uint32_t length = 0;
    Bytes data = {};
    std::array<std::uint8_t, 8> setup = {};
    std::uint32_t flags = 0;

    Bytes Pdu() const {
        usbip_header header{};
        header.command = htobe32(USBIP_CMD_SUBMIT);
        header.seqnum = htobe32(seqnum);
        header.direction = htobe32(direction);
        header.ep = htobe32(endpoint);
        header.u.cmd_submit.transfer_flags = htobe32(flags);
        header.u.cmd_submit.transfer_buffer_length =
            htobe32(direction == kOut ? static_cast<std::uint32_t>(data.size()) : length);
        std::copy(setup.begin(), setup.end(), header.u.cmd_submit.setup);
        Bytes pdu(sizeof header);
        StoreRaw(pdu.data(), header);
        pdu.insert(pdu.end(), data.begin(), data.end());
        return pdu;
    }
};

inline Bytes UnlinkPdu(std::uint32_t seqnum, std::uint32_t target) {
    usbip_header header{};
    header.command = htobe32(USBIP_CMD_UNLINK);
    header.seqnum = htobe32(seqnum);
    header.u.cmd_unlink.seqnum = htobe32(target);
    Bytes pdu(sizeof header);
    StoreRaw(pdu.data(), header);
    return pdu;
}

struct ReplyFields {
    std::uint32_t command;
    std::uint32_t seqnum;
    int status;
    std::uint32_t actual;  // of a RET_SUBMIT
    Bytes data;
};

inline ReplyFields ParseReply(ByteView pdu) {
    if (pdu.size() < sizeof(usbip_header)) {
        ADD_FAILURE() << "reply of " << pdu.size() << " bytes";
        return {};
    }
    const auto header = LoadRaw<usbip_header>(pdu.data());
    EXPECT_TRUE(header.devid == 0 && header.direction == 0 && header.ep == 0);
    EXPECT_EQ(header.u.ret_submit.number_of_packets, 0U);
    return {be32toh(header.command), be32toh(header.seqnum),
            static_cast<int>(be32toh(header.u.ret_submit.status)),
            be32toh(header.u.ret_submit.actual_length),
            Bytes(pdu.begin() + sizeof header, pdu.end())};
}

inline constexpr std::uint32_t kTag = 0x12345678;

// A CBW that announces `length` bytes in `direction` for this command block.
inline Bytes Cbw(std::uint32_t length, std::uint32_t direction, const Bytes& block) {
    Bytes cbw(31);
    StoreLe32(cbw.data(), 0x43425355);
    StoreLe32(&cbw[4], kTag);
    StoreLe32(&cbw[8], length);
    cbw[12] = direction == kIn ? 0x80 : 0;
    cbw[14] = static_cast<std::uint8_t>(block.size());
    std::copy(block.begin(), block.end(), cbw.begin() + 15);
    return cbw;
}

// READ(10) or WRITE(10), by `operation`.
inline Bytes Transfer10(std::uint8_t operation, std::uint32_t block, std::uint16_t blocks) {
    Bytes command(10);
    command[0] = operation;
    StoreBe32(&command[2], block);
    StoreBe16(&command[7], blocks);
    return command;
}
inline Bytes Read10(std::uint32_t block, std::uint16_t blocks) {
    return Transfer10(0x28, block, blocks);
}
inline Bytes Write10(std::uint32_t block, std::uint16_t blocks) {
    return Transfer10(0x2A, block, blocks);
}

// Bytes that differ from block to block.
inline Bytes Pattern(std::size_t size, std::size_t seed = 0) {
    Bytes bytes(size);
    for (std::size_t i = 0; i < size; ++i) {
        bytes[i] = static_cast<std::uint8_t>(seed + i + i / 512 * 7);
    }
    return bytes;
}

// A directory of its own with a disk image in it.
class Scratch {
  public:
    static constexpr std::uint32_t kBlocks = 256;

    Scratch() {
        std::string name = (std::filesystem::temp_directory_path() / "remote-XXXXXX").string();
        EXPECT_NE(mkdtemp(name.data()), nullptr);
        directory_ = name;
        Fill(kBlocks * 512);
    }
    ~Scratch() { std::filesystem::remove_all(directory_); }
    Scratch(const Scratch&) = delete;
    Scratch& operator=(const Scratch&) = delete;

    void Fill(std::size_t size) const {
        const Bytes content = Pattern(size);
        std::ofstream(Image(), std::ios::binary)
            .write(reinterpret_cast<const char*>(content.data()),
                   static_cast<std::streamsize>(content.size()));
    }
    Bytes Content(std::size_t offset, std::size_t size) const {
        std::ifstream file(Image(), std::ios::binary);
        const Bytes all{std::istreambuf_iterator<char>(file), {}};
        return {all.begin() + static_cast<std::ptrdiff_t>(offset),
                all.begin() + static_cast<std::ptrdiff_t>(offset + size)};
    }
    std::string Path(const char* name) const { return (directory_ / name).string(); }
    std::string Image() const { return Path("disk.img"); }

  private:
    std::filesystem::path directory_;
};

}  // namespace remote::test
