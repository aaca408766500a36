// xj-usbip-microphone: a microphone, which QEMU has not, so that this one shows isochronous IN
// transfers; and what becomes of a device whose replies lie.
#include <signal.h>

#include <cstdio>
#include <cstdlib>
#include <exception>
#include <stdexcept>
#include <string>

#include "posix/Listener.h"
#include "vm/microphone/Lies.h"
#include "vm/microphone/Services.h"

namespace {

constexpr const char* kUsage =
    "usage: xj-usbip-microphone [--lie NAME]... HOST:PORT\n"
    "           a server of the Linux USB/IP protocol, whose only device it is\n"
    "       xj-usbip-microphone --channel [--disk IMAGE] [--lie NAME]... HOST:PORT\n"
    "           a remote side; the microphone is its first device, and the disk its second one\n"
    "lies, told in turn: ";

void run(int argc, char** argv) {
    bool channel = false;
    std::string disk;
    remote::Lies lies;
    int at = 1;
    for (; at + 1 < argc; ++at) {
        const std::string option = argv[at];
        if (option == "--channel") {
            channel = true;
        } else if (option == "--disk") {
            disk = argv[++at];
        } else if (option == "--lie") {
            const remote::Lie* lie = remote::FindLie(argv[++at]);
            if (lie == nullptr) break;
            lies.push_back(lie);
        } else {
            break;
        }
    }
    if (at + 1 != argc || (!channel && !disk.empty())) {
        throw std::runtime_error(kUsage + remote::LieNames());
    }
    signal(SIGPIPE, SIG_IGN);  // a client that has gone is a failed write
    std::string error;
    const auto address = posix::ParseAddress(argv[at], posix::AddressUse::Listen, error);
    const auto listener = address ? posix::Listener::Open(*address, error) : nullptr;
    if (!listener) throw std::runtime_error("cannot listen: " + error);
    std::fprintf(stderr, "listening on %s\n", listener->Name().c_str());
    channel ? remote::ServeChannel(*listener, lies, disk) : remote::ServeUsbip(*listener, lies);
}

}  // namespace

int main(int argc, char** argv) {
    try {
        run(argc, argv);
    } catch (const std::exception& error) {
        std::fprintf(stderr, "%s\n", error.what());
        return EXIT_FAILURE;
    }
}
