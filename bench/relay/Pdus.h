// Numbered PDUs, and what is measured with them. Their bytes follow from their number, so that a
// lost, doubled, cut or shifted one shows.
#pragma once

#include <array>
#include <cstring>

#include "bench/relay/Bytes.h"
#include "fakes/Messages.h"
#include "fakes/Patience.h"
#include "fakes/Traffic.h"

enum class Flow {
    kToRemote,  // commands that nobody answers
    kToKernel,  // replies that nobody has asked for
    kIn,        // commands, each answered with data
    kOut,       // commands with data, each answered
};

struct Cell {
    const char* name;
    Flow flow;
    std::uint32_t size;    // of an URB's data
    std::uint32_t window;  // URBs under way, over all devices
    std::uint32_t devices;

    bool Answered() const { return flow == Flow::kIn || flow == Flow::kOut; }
};

// All PDUs that one side of a cell sends: commands, or replies.
class Pdus {
  public:
    // `wrapped`: in a forward message, as on the stream.
    Pdus(const Cell& cell, bool commands, bool wrapped)
        : cell_(cell), commands_(commands), wrapped_(wrapped) {
        if (commands ? cell.flow != Flow::kIn : cell.flow != Flow::kOut) data_ = cell.size;
        block_ = Body(1, data_ + kBodies * kShift);
    }

    std::size_t Size() const {
        return sizeof(usbip_header) + data_ + (wrapped_ ? kForwardOverhead : 0);
    }
    bool Is(std::string_view bytes, std::uint32_t device, std::uint32_t index) const {
        const Head head = HeadOf(device, index);
        const std::string_view front = Front(head);
        const std::string_view back = wrapped_ ? kFiller : std::string_view{};
        return bytes.starts_with(front) && bytes.substr(front.size(), data_) == BodyOf(index) &&
               bytes.substr(front.size() + data_) == back;
    }

    // With one system call: so do the kernel and remote sides.
    void Send(int socket, std::uint32_t device, std::uint32_t index) const {
        const Head head = HeadOf(device, index);
        std::array<iovec, 3> pieces{};
        std::size_t count = 0;
        for (const std::string_view piece :
             {Front(head), BodyOf(index), wrapped_ ? kFiller : std::string_view{}})
            if (!piece.empty()) pieces[count++] = {const_cast<char*>(piece.data()), piece.size()};
        Require(SendAll(socket, std::span(pieces).first(count)), "the relay takes what is sent");
    }

  private:
    struct Head {
        usbip_forward forward;
        usbip_header header;
    };
    static_assert(sizeof(Head) == sizeof(usbip_forward) + sizeof(usbip_header));
    static constexpr std::string_view kFiller{"\0\0\0\0", kForwardFiller};
    static constexpr std::uint32_t kBodies = 64;
    static constexpr std::uint32_t kShift = 8;

    std::uint32_t Number(std::uint32_t index) const {
        // No more commands are remembered than a kernel has under way.
        if (cell_.flow == Flow::kToRemote) return index % kBodies;
        return cell_.flow == Flow::kToKernel ? kPeerSeq + index : index;
    }
    Head HeadOf(std::uint32_t device, std::uint32_t index) const {
        Head head{};
        head.forward = {MakeMessageHead(kUsbipForward, Size()), device,
                        static_cast<std::uint32_t>(sizeof(usbip_header) + data_), 0};
        head.header = PduHeader(commands_ ? USBIP_CMD_SUBMIT : USBIP_RET_SUBMIT, Number(index));
        if (!commands_) {
            head.header.u.ret_submit.actual_length = htobe32(cell_.size);
            return head;
        }
        head.header.devid = htobe32(0x00010004);
        head.header.direction = htobe32(cell_.flow == Flow::kIn ? USBIP_DIR_IN : USBIP_DIR_OUT);
        head.header.ep = htobe32(1);
        head.header.u.cmd_submit.transfer_buffer_length = htobe32(cell_.size);
        return head;
    }
    std::string_view Front(const Head& head) const {
        const std::string_view all(reinterpret_cast<const char*>(&head), sizeof head);
        return wrapped_ ? all : all.substr(sizeof head.forward);
    }
    std::string_view BodyOf(std::uint32_t index) const {
        return std::string_view(block_).substr(index % kBodies * kShift, data_);
    }

    const Cell cell_;
    const bool commands_;
    const bool wrapped_;
    std::size_t data_ = 0;  // in each
    std::string block_;     // every body is a part of it
};
