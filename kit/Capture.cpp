#include "xj-client-usbip/kit/Capture.h"

#include <fcntl.h>
#include <unistd.h>

#include <algorithm>
#include <cerrno>
#include <condition_variable>
#include <cstdio>
#include <system_error>
#include <thread>
#include <utility>

#include "kit/CapturedUrbs.h"

namespace xj_usbip {
namespace {

// What may be on its way: a second or two of a disk at full speed.
constexpr std::size_t kMostWaiting = std::size_t{32} << 20;

}  // namespace

// Writes packets on a thread of its own.
class Capture::File {
  public:
    File(Options options, int file)
        : options_(std::move(options)), file_(file), writer_([this] { Write(); }) {}
    ~File() {
        {
            const std::lock_guard lock(mutex_);
            closing_ = true;
        }
        more_.notify_one();
        writer_.join();
        ::close(file_);
    }
    File(const File&) = delete;
    File& operator=(const File&) = delete;

    static int Create(const std::string& path) {
        constexpr mode_t kOwnerOnly = 0600;
        return ::open(path.c_str(), O_WRONLY | O_CREAT | O_TRUNC | O_NOFOLLOW | O_CLOEXEC,
                      kOwnerOnly);
    }

    void Add(std::string_view packet) {
        const std::lock_guard lock(mutex_);
        if (!totals_.error.empty() || waiting_.size() + packet.size() > kMostWaiting) {
            ++totals_.dropped;
            return;
        }
        ++totals_.urbs;
        const bool idle = waiting_.empty();
        waiting_ += packet;
        if (idle) more_.notify_one();
    }

    Totals Count() const {
        const std::lock_guard lock(mutex_);
        return totals_;
    }

  private:
    void Write() {
        std::string packets;
        int error = Put(head_);
        for (bool open = true; open || !packets.empty();) {
            if (error == 0) error = Save(packets);
            packets.clear();
            std::unique_lock lock(mutex_);
            if (error != 0) totals_.error = std::generic_category().message(error);
            more_.wait(lock, [&] { return closing_ || !waiting_.empty(); });
            packets.swap(waiting_);
            open = !closing_;
        }
    }

    // These return an errno value; 0: done.
    int Save(std::string_view packets) {
        while (!packets.empty()) {
            std::size_t size = Fitting(packets);
            if (size == 0 && size_ > head_.size()) {
                if (const int error = Rotate()) return error;
                size = Fitting(packets);
            }
            if (size == 0) size = PcapngBlockSize(packets);  // one that is too long for any file
            if (const int error = Put(packets.substr(0, size))) return error;
            packets.remove_prefix(size);
        }
        return 0;
    }
    int Put(std::string_view bytes) {
        while (!bytes.empty()) {
            const ssize_t count = ::write(file_, bytes.data(), bytes.size());
            if (count < 0 && errno == EINTR) continue;
            if (count < 0) return errno;
            bytes.remove_prefix(static_cast<std::size_t>(count));
            size_ += static_cast<std::uint64_t>(count);
        }
        return 0;
    }
    int Rotate() {
        const std::string before = options_.path + ".1";
        if (::rename(options_.path.c_str(), before.c_str()) != 0) return errno;
        const int next = Create(options_.path);
        if (next < 0) return errno;
        ::close(std::exchange(file_, next));
        size_ = 0;
        return Put(head_);
    }

    // How much of `packets`, in whole ones, the file may still take.
    std::size_t Fitting(std::string_view packets) const {
        if (options_.most_size == 0) return packets.size();
        const std::uint64_t room = options_.most_size - std::min(size_, options_.most_size);
        std::size_t size = 0;
        while (size < packets.size()) {
            const std::size_t next = PcapngBlockSize(packets.substr(size));
            if (next > room - size) break;
            size += next;
        }
        return size;
    }

    const Options options_;
    const std::string head_ = PcapngHead(static_cast<std::uint32_t>(
        std::min<std::size_t>(options_.most_data, INT32_MAX) + sizeof(UsbmonPacket)));

    mutable std::mutex mutex_;
    std::condition_variable more_;
    std::string waiting_;   // guarded by mutex_
    Totals totals_;         // guarded by mutex_
    bool closing_ = false;  // guarded by mutex_

    // The writer's.
    int file_;
    std::uint64_t size_ = 0;

    std::thread writer_;  // last: it uses all the others
};

Capture::Capture() : urbs_(std::make_unique<Urbs>()) {}
Capture::~Capture() = default;

std::unique_ptr<Capture> Capture::Open(const Options& options, std::string& error) {
    const int file = File::Create(options.path);
    if (file < 0) {
        error = "cannot write " + options.path + ": " + std::generic_category().message(errno);
        return nullptr;
    }
    std::unique_ptr<Capture> capture(new Capture);
    capture->file_ = std::make_unique<File>(options, file);
    return capture;
}

void Capture::Add(const TappedPdu& pdu) {
    const std::string packet = urbs_->Packet(pdu);
    if (!packet.empty()) file_->Add(packet);
}

Capture::Totals Capture::Count() const {
    return file_->Count();
}

}  // namespace xj_usbip
