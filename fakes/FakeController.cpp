#include "fakes/FakeController.h"

#include <dirent.h>
#include <fcntl.h>
#include <libudev.h>
#include <sys/stat.h>
#include <sys/uio.h>
#include <unistd.h>

#include <cerrno>
#include <cstdarg>
#include <cstdio>
#include <cstdlib>
#include <fstream>

namespace fs = std::filesystem;

namespace {

constexpr int kFree = 4;         // VDEV_ST_NULL
constexpr int kNotAssigned = 5;  // VDEV_ST_NOTASSIGNED
constexpr std::string_view kRecordDirectory = "/var/run/vhci_hcd";

fs::path make_root() {
    std::string name = (fs::canonical(fs::temp_directory_path()) / "fake-vhci.XXXXXX").string();
    if (mkdtemp(name.data()) == nullptr) std::abort();
    return name;
}

// The path itself, or where one under the record directory leads. Without a controller the way
// leads to a directory that does not exist.
std::string redirected(const char* path) {
    std::string name(path);
    if (!name.starts_with(kRecordDirectory)) return name;
    const FakeController* controller = FakeController::Current();
    return name.replace(
        0, kRecordDirectory.size(),
        controller != nullptr ? controller->record_directory.string() : "/nonexistent/vhci_hcd");
}

}  // namespace

// --- KernelEnd ---

KernelEnd::KernelEnd(FakeController& controller, unsigned the_port, int socket,
                     std::string the_request)
    : port(the_port), request(std::move(the_request)), controller_(controller), socket_(socket) {
    const timeval patience{kPatience.count(), 0};
    setsockopt(socket, SOL_SOCKET, SO_RCVTIMEO, &patience, sizeof patience);
}

void KernelEnd::Close() {
    if (socket_ < 0) return;
    close(socket_);
    socket_ = -1;
    controller_.Free(port);
}

bool KernelEnd::Send(std::string_view bytes) {
    while (!bytes.empty()) {
        const ssize_t sent =
            TEMP_FAILURE_RETRY(send(socket_, bytes.data(), bytes.size(), MSG_NOSIGNAL));
        if (sent < 0) return false;
        bytes.remove_prefix(static_cast<std::size_t>(sent));
    }
    return true;
}

std::string KernelEnd::Receive(std::size_t size) {
    std::string bytes(size, '\0');
    std::size_t got = 0;
    // Not recv(), which a test may have replaced. A signal does not end the wait.
    for (long count = 1; got < size && count > 0; got += static_cast<std::size_t>(count))
        count = std::max(TEMP_FAILURE_RETRY(read(socket_, &bytes[got], size - got)), 0L);
    bytes.resize(got);
    return bytes;
}

bool KernelEnd::WaitForEnd() {
    do
        errno = 0;
    while (!Receive(4096).empty());
    return errno != EAGAIN;
}

// --- FakeController ---

FakeController::FakeController(int controllers, int ports_each)
    : root(make_root()),
      record_directory(root / "record"),
      ports_each_(ports_each),
      ports_(static_cast<std::size_t>(controllers * ports_each)) {
    for (int i = 0; i < controllers; ++i) {
        fs::create_directories(root / "platform" / ("vhci_hcd." + std::to_string(i)));
        const std::string status = i == 0 ? "status" : "status." + std::to_string(i);
        attributes_["vhci_hcd.0/" + status] = "";  // present; its text is generated
    }
    attributes_["vhci_hcd.0/nports"] = std::to_string(controllers * ports_each);
    std::ofstream(root / "platform" / "vhci_hcd.0" / "attach").put('\n');
    if (current_.exchange(this) != nullptr) std::abort();
}

FakeController::~FakeController() {
    current_ = nullptr;
    attaches_.clear();
    fs::remove_all(root);
}

std::unique_ptr<KernelEnd> FakeController::WaitForAttach() {
    std::unique_lock lock(mutex_);
    if (!changed_.wait_for(lock, kPatience, [&] { return !attaches_.empty(); })) return nullptr;
    std::unique_ptr<KernelEnd> end = std::move(attaches_.front());
    attaches_.pop_front();
    return end;
}

std::optional<std::string> FakeController::Attribute(const std::string& device,
                                                     const std::string& name) const {
    const std::lock_guard lock(mutex_);
    const auto found = attributes_.find(device + '/' + name);
    if (found == attributes_.end()) return std::nullopt;
    if (found->second != "" || !name.starts_with("status")) return found->second;
    return status_text(name == "status" ? 0 : std::stoi(name.substr(sizeof "status")));
}

// As the driver prints it; libudev takes the last newline away.
std::string FakeController::status_text(int controller) const {
    std::string text = "hub port sta spd dev      sockfd local_busid";
    for (int i = controller * ports_each_; i < (controller + 1) * ports_each_; ++i) {
        const Port& port = ports_[static_cast<std::size_t>(i)];
        const bool in_use = port.state > kNotAssigned;
        char line[100];
        std::snprintf(line, sizeof line, "\n%s  %04d %03d %03d %08x %06u %s",
                      i % ports_each_ < ports_each_ / 2 ? "hs" : "ss", i, port.state,
                      in_use ? 3 : 0, in_use ? 0x00010004U : 0U, 0U, port.local_busid.c_str());
        text += line;
    }
    return text;
}

bool FakeController::IsAttachFile(int fd) const {
    std::error_code none_open;
    return fs::read_symlink("/proc/self/fd/" + std::to_string(fd), none_open) ==
           root / "platform/vhci_hcd.0/attach";
}

// The checks of the driver's attach_store, in its order.
int FakeController::Attach(std::string_view request_bytes) {
    std::string request(request_bytes);
    Under(mutex_, [&] { requests_.push_back(request); });
    if (refusal != 0) return refusal;
    unsigned port = 0, devid = 0, speed = 0;
    int fd = -1, type = 0;
    socklen_t size = sizeof type;
    if (std::sscanf(request.c_str(), "%u %d %u %u", &port, &fd, &devid, &speed) != 4 ||
        port >= ports_.size() || speed < 1 || speed > 5 ||
        getsockopt(fd, SOL_SOCKET, SO_TYPE, &type, &size) != 0 || type != SOCK_STREAM) {
        return EINVAL;
    }
    Eventually([&] { return held_port != static_cast<int>(port); });
    const std::lock_guard lock(mutex_);
    if (ports_[port].state != kFree) return EBUSY;
    ports_[port].state = kNotAssigned;
    const int socket = fcntl(fd, F_DUPFD_CLOEXEC, 0);
    attaches_.push_back(std::make_unique<KernelEnd>(*this, port, socket, std::move(request)));
    changed_.notify_all();
    return 0;
}

// --- libudev ---

struct udev {};

struct udev_device {
    fs::path syspath;
    std::string sysname;
    std::unique_ptr<udev_device> parent;
    std::map<std::string, std::string> read_attributes;  // as libudev, texts live with the device
};

#define EXPORTED extern "C" __attribute__((visibility("default")))

EXPORTED udev* udev_new() {
    udev* context =
        new udev;  // no tail call: to the fault test it would look like the module's own
    ++FakeController::live_udev_objects;
    return context;
}

EXPORTED udev* udev_unref(udev* context) {
    --FakeController::live_udev_objects;
    delete context;
    return nullptr;
}

EXPORTED udev_device* udev_device_new_from_subsystem_sysname(udev*, const char* subsystem,
                                                             const char* sysname) {
    const FakeController* controller = FakeController::Current();
    if (controller == nullptr) return nullptr;
    const fs::path path = controller->root / subsystem / sysname;
    if (!fs::is_directory(path)) return nullptr;
    ++FakeController::live_udev_objects;
    auto parent = std::make_unique<udev_device>(udev_device{path.parent_path(), {}, {}, {}});
    return new udev_device{path, sysname, std::move(parent), {}};
}

EXPORTED udev_device* udev_device_unref(udev_device* device) {
    if (device != nullptr) --FakeController::live_udev_objects;
    delete device;
    return nullptr;
}

EXPORTED udev_device* udev_device_get_parent(udev_device* device) {
    return device->parent.get();
}

EXPORTED const char* udev_device_get_syspath(udev_device* device) {
    return device->syspath.c_str();
}

EXPORTED const char* udev_device_get_sysname(udev_device* device) {
    return device->sysname.c_str();
}

EXPORTED const char* udev_device_get_sysattr_value(udev_device* device, const char* name) {
    const auto known = device->read_attributes.find(name);
    if (known != device->read_attributes.end()) return known->second.c_str();
    const FakeController* controller = FakeController::Current();
    if (controller == nullptr) return nullptr;
    const auto text = controller->Attribute(device->sysname, name);
    if (!text) return nullptr;
    if (std::string_view(name).starts_with("status")) nanosleep(&controller->status_pause, nullptr);
    return device->read_attributes.emplace(name, *text).first->second.c_str();
}

// --- the C library, by way of the operations that take a directory or a list ---

EXPORTED ssize_t write(int fd, const void* data, size_t size) {
    FakeController* controller = FakeController::Current();
    if (controller == nullptr || !controller->IsAttachFile(fd)) {
        const iovec part{const_cast<void*>(data), size};
        return writev(fd, &part, 1);
    }
    errno = controller->Attach({static_cast<const char*>(data), size});
    return errno == 0 ? static_cast<ssize_t>(size) : -1;
}

EXPORTED int mkdir(const char* path, mode_t mode) noexcept {
    return mkdirat(AT_FDCWD, redirected(path).c_str(), mode);
}

EXPORTED int stat(const char* path, struct stat* result) noexcept {
    return fstatat(AT_FDCWD, redirected(path).c_str(), result, 0);
}

EXPORTED int open(const char* path, int flags, ...) {
    va_list arguments;
    va_start(arguments, flags);
    const mode_t mode = (flags & O_CREAT) != 0 ? va_arg(arguments, mode_t) : 0;
    va_end(arguments);
    return openat(AT_FDCWD, redirected(path).c_str(), flags, mode);
}
