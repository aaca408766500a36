// A file of what devices do, for Wireshark: pcapng, each URB as the kernel's usbmon would show it
// (link type USB_LINUX_MMAPPED).
//
// It holds all that passes, the keys of a keyboard and the files of a disk among it: nobody but its
// owner may read it.
#pragma once

#include <cstddef>
#include <cstdint>
#include <memory>
#include <string>

#include "xj-client-usbip/kit/Tap.h"

namespace xj_usbip {

class Capture {
  public:
    struct Options {
        std::string path;
        std::size_t most_data = 65'535;  // of each PDU; the rest is cut off
        // The file is not to be longer, in bytes: what is full becomes PATH.1, in the place of the
        // one before. 0: no limit.
        std::uint64_t most_size = 0;
    };
    struct Totals {
        std::uint64_t urbs = 0;     // events that are in the file or on their way
        std::uint64_t dropped = 0;  // that are not, since the file takes no more, or not so fast
        std::string error;          // of writing it; empty: none
    };

    // A file that is there is replaced. Null with an `error`.
    static std::unique_ptr<Capture> Open(const Options& options, std::string& error);
    ~Capture();  // writes what is on its way
    Capture(const Capture&) = delete;
    Capture& operator=(const Capture&) = delete;

    // To be called for every PDU, as from ITapEvents::OnPdu. Never waits for the file. Any thread.
    void Add(const TappedPdu& pdu);

    Totals Count() const;  // any thread

  private:
    class Urbs;
    class File;

    Capture();

    std::unique_ptr<Urbs> urbs_;
    std::unique_ptr<File> file_;
};

}  // namespace xj_usbip
