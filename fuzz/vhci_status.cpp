// What the kernel's driver tells: texts with a NUL between them. In this order the number of ports,
// both controllers' status and the attributes of local device 1-1; a text too few is an attribute
// that is missing, an empty status the usual one.
#include <sys/socket.h>
#include <unistd.h>

#include <string>

#include "fakes/FakeController.h"
#include "fuzz/Target.h"
#include "vhci/USBVHCI_linux.h"

namespace {

constexpr char kController[] = "vhci_hcd.0";
constexpr char kLocalDevice[] = "1-1";
constexpr struct {
    const char* device;
    const char* name;
} kAttributes[] = {
    {kController, "nports"},
    {kController, "status"},
    {kController, "status.1"},
    {kLocalDevice, "speed"},
    {kLocalDevice, "bDeviceClass"},
    {kLocalDevice, "bDeviceSubClass"},
    {kLocalDevice, "bDeviceProtocol"},
    {kLocalDevice, "idVendor"},
    {kLocalDevice, "idProduct"},
    {kLocalDevice, "bcdDevice"},
    {kLocalDevice, "bConfigurationValue"},
    {kLocalDevice, "bNumConfigurations"},
    {kLocalDevice, "bNumInterfaces"},
    {kLocalDevice, "devnum"},
};

void attach(CLinuxVHCI& vhci, FakeController& controller, unsigned int speed) {
    int ends[2];
    Require(socketpair(AF_UNIX, SOCK_STREAM | SOCK_CLOEXEC, 0, ends) == 0, "a socket pair");
    unsigned char port = 0;
    if (vhci.Attach(ends[1], 1, 4, speed, &port)) {
        const auto kernel = controller.WaitForAttach();
        Require(kernel && kernel->port == port, "the port that was asked for");
    } else {
        close(ends[1]);
    }
    close(ends[0]);
}

}  // namespace

int LLVMFuzzerTestOneInput(const std::uint8_t* data, std::size_t size) {
    const NothingLeftBehind check;
    FakeController controller(2, 4);
    controller.status_pause = {};
    controller.AddUsbDevice(kLocalDevice);
    Input input(data, size);
    for (const auto& attribute : kAttributes) {
        std::optional<std::string> text;
        if (!input.Empty()) text = input.Text();
        controller.SetAttribute(attribute.device, attribute.name, text);
    }
    CLinuxVHCI vhci;
    if (vhci.Open()) {
        for (const unsigned int speed : {3U, 5U})
            attach(vhci, controller, speed);
    }
    return 0;
}
