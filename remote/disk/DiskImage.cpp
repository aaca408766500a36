#include "remote/disk/DiskImage.h"

#include <fcntl.h>
#include <sys/file.h>
#include <sys/stat.h>

#include <cerrno>
#include <utility>

#include "remote/io/Log.h"

namespace remote {
namespace {

// Calls `transfer(done)`, which moves bytes from `done` on and returns their count, until `size`
// bytes are moved.
template <typename Transfer>
bool transfer_all(const std::string& path, const char* action, std::size_t size,
                  Transfer transfer) {
    for (std::size_t done = 0; done < size;) {
        const ssize_t count = transfer(done);
        if (count > 0) {
            done += static_cast<std::size_t>(count);
        } else if (count == 0 || errno != EINTR) {
            // No bytes without an error: the file was cut short while it was in use.
            Log("%s: cannot %s: %s", path.c_str(), action,
                count == 0 ? "file has shrunk" : ErrorText(errno).c_str());
            return false;
        }
    }
    return true;
}

// Many may read an image; who writes to it must be alone. The lock ends with the descriptor. False:
// somebody else holds it.
bool lock(int file, const std::string& path, bool shared) {
    if (flock(file, (shared ? LOCK_SH : LOCK_EX) | LOCK_NB) == 0) return true;
    if (errno == EWOULDBLOCK) return false;
    Log("WARNING: %s cannot be locked (%s): make sure that nobody else uses it", path.c_str(),
        ErrorText(errno).c_str());  // some network file systems know no locks
    return true;
}

}  // namespace

DiskImage::DiskImage(std::string path, posix::UniqueFd file, std::uint64_t size, bool read_only)
    : path_(std::move(path)), file_(std::move(file)), size_(size), read_only_(read_only) {}

std::optional<DiskImage> DiskImage::Open(const std::string& path, bool read_only,
                                         std::string& error) {
    // Not blocking: opening a named pipe must come back to be refused.
    const int access = read_only ? O_RDONLY : O_RDWR;
    posix::UniqueFd file(open(path.c_str(), access | O_CLOEXEC | O_NONBLOCK));
    struct stat status {};
    if (!file || fstat(file.Get(), &status) != 0) {
        error = path + ": " + ErrorText(errno);
        std::string ignored;
        if (!read_only && Open(path, true, ignored)) error += "; it can be read: offer it with ,ro";
        return std::nullopt;
    }
    if (!S_ISREG(status.st_mode)) {
        error = path + ": not a plain file";
        return std::nullopt;
    }
    const auto size = static_cast<std::uint64_t>(status.st_size);
    if (size == 0 || size % kBlockSize != 0) {
        error = path + ": size " + std::to_string(size) + " is not a multiple of " +
                std::to_string(kBlockSize) + " bytes above 0";
        return std::nullopt;
    }
    if (!lock(file.Get(), path, read_only)) {
        error = path + (read_only ? ": in use by somebody who writes to it"
                                  : ": in use, by another program or as another disk of this one");
        return std::nullopt;
    }
    return DiskImage(path, std::move(file), size, read_only);
}

bool DiskImage::Read(std::uint64_t offset, ByteSpan into) const {
    return transfer_all(path_, "read", into.size(), [&](std::size_t done) {
        return pread(file_.Get(), into.data() + done, into.size() - done,
                     static_cast<off_t>(offset + done));
    });
}

bool DiskImage::Write(std::uint64_t offset, ByteView data) {
    dirty_ = true;
    return transfer_all(path_, "write", data.size(), [&](std::size_t done) {
        return pwrite(file_.Get(), data.data() + done, data.size() - done,
                      static_cast<off_t>(offset + done));
    });
}

bool DiskImage::Sync() {
    if (std::exchange(dirty_, false) && !lost_ && fdatasync(file_.Get()) != 0) {
        Log("%s: cannot sync: %s", path_.c_str(), ErrorText(errno).c_str());
        lost_ = true;
    }
    return !lost_;
}

}  // namespace remote
