// Preloaded into what is to be observed. Counts allocations; with XJ_STAMPS=FILE in the
// environment, notes when each process sends and has received, and writes that into FILE.PID when
// the process ends: a line `send` or `recv`, nanoseconds of the monotonic clock.
#include <sys/socket.h>
#include <sys/syscall.h>
#include <unistd.h>

#include <atomic>
#include <cstdio>
#include <cstdlib>
#include <ctime>
#include <string>

extern "C" {
void* __libc_malloc(std::size_t size);
void* __libc_calloc(std::size_t count, std::size_t size);
void* __libc_realloc(void* memory, std::size_t size);
void* __libc_memalign(std::size_t alignment, std::size_t size);
}

namespace {

struct Stamp {
    const char* what;
    long nanoseconds;
};
constexpr unsigned long kMostStamps = 1 << 18;
Stamp stamps[kMostStamps];
std::atomic<unsigned long> next_stamp{0};
const char* const stamp_file = std::getenv("XJ_STAMPS");

std::atomic<unsigned long> allocations{0};

void Note(const char* what) {
    if (stamp_file == nullptr) return;
    const unsigned long place = next_stamp++;
    timespec now{};
    clock_gettime(CLOCK_MONOTONIC, &now);
    if (place < kMostStamps) stamps[place] = {what, now.tv_sec * 1'000'000'000 + now.tv_nsec};
}

ssize_t Send(auto... arguments) {
    Note("send");
    return syscall(arguments...);
}

ssize_t Receive(auto... arguments) {
    const ssize_t count = syscall(arguments...);
    if (count > 0) Note("recv");
    return count;
}

const struct Report {
    ~Report() {
        if (stamp_file == nullptr) return;
        const std::string name = stamp_file + ('.' + std::to_string(getpid()));
        std::FILE* const file = std::fopen(name.c_str(), "w");
        if (file == nullptr) return;
        for (const Stamp& stamp : stamps)
            if (stamp.what != nullptr)
                std::fprintf(file, "%s %ld\n", stamp.what, stamp.nanoseconds);
        std::fclose(file);
    }
} report;

}  // namespace

#define EXPORTED extern "C" __attribute__((visibility("default")))

EXPORTED unsigned long observed_allocations() {
    return allocations;
}
EXPORTED void* malloc(std::size_t size) noexcept {
    ++allocations;
    return __libc_malloc(size);
}
EXPORTED void* calloc(std::size_t count, std::size_t size) noexcept {
    ++allocations;
    return __libc_calloc(count, size);
}
EXPORTED void* realloc(void* memory, std::size_t size) noexcept {
    ++allocations;
    return __libc_realloc(memory, size);
}
EXPORTED void* aligned_alloc(std::size_t alignment, std::size_t size) noexcept {
    ++allocations;
    return __libc_memalign(alignment, size);
}

EXPORTED ssize_t send(int socket, const void* data, std::size_t size, int flags) {
    return Send(SYS_sendto, socket, data, size, flags, nullptr, 0);
}
EXPORTED ssize_t sendmsg(int socket, const msghdr* message, int flags) {
    return Send(SYS_sendmsg, socket, message, flags);
}
EXPORTED ssize_t recv(int socket, void* data, std::size_t size, int flags) {
    return Receive(SYS_recvfrom, socket, data, size, flags, nullptr, nullptr);
}
EXPORTED ssize_t recvmsg(int socket, msghdr* message, int flags) {
    return Receive(SYS_recvmsg, socket, message, flags);
}
