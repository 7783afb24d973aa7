// SPDX-License-Identifier: MIT
// All that the daemon calls, made of functions that fail where they are told to, in one journal.
#include "world.h"

#include <arpa/inet.h>
#include <fcntl.h>
#include <net/if.h>
#include <sys/file.h>
#include <sys/socket.h>
#include <sys/time.h>
#include <sys/uio.h>
#include <unistd.h>

#include <cerrno>
#include <cstdarg>
#include <ctime>
#include <sstream>
#include <utility>

#include "QVLog.h"
#include "allocations.h"
#include "arpd.h"
#include "cfg.h"
#include "debug_process.h"

using allocations::Paused;
using faults::Failure;

namespace {

faults::World* current = nullptr;

void noteFailedAllocation() {
    const Paused paused;
    if (current != nullptr) current->journal.emplace_back("operator new fails");
}

template <typename... Arguments>
std::string list(const Arguments&... arguments) {
    std::ostringstream os;
    [[maybe_unused]] const char* separator = "";
    ((os << separator << arguments, separator = ", "), ...);
    return os.str();
}

std::string hex(const void* start, std::size_t count) {
    constexpr char kDigits[] = "0123456789abcdef";
    const auto* const bytes = static_cast<const uint8_t*>(start);
    std::string text;
    for (std::size_t i = 0; i < count; ++i) {
        text += kDigits[bytes[i] / 16];
        text += kDigits[bytes[i] % 16];
    }
    return text;
}

/// For calls whose result is 0 where they succeed.
int status(const char* call, const std::string& arguments) {
    const std::optional<Failure> failure = current->play(call, arguments);
    return failure ? static_cast<int>(failure->result) : 0;
}

std::string pool(const void* address) {
    if (address == pktd_tx_queue_pool) return "tx pool";
    if (address == pktd_tx_queue_pool + 8) return "tx pool + 8";
    if (address == pktd_rx_queue_pool) return "rx pool";
    if (address == pktd_rx_wl_pool) return "rx wl pool";
    return address == nullptr ? "0" : "?";
}

}  // namespace

namespace faults {

FILE* fileChannel() { return stdin; }

World::World(int32_t level) : m_level(qv::reportingLevel()), m_stream(qv::stream()) {
    qv::reportingLevel() = level;
    qv::stream() = fileChannel();
    current = this;
    allocations::onFailure(noteFailedAllocation);
}

World::~World() {
    current = nullptr;
    qv::reportingLevel() = m_level;
    qv::stream() = m_stream;
}

void World::fail(const std::string& call, Failure failure, int times, int before) {
    std::deque<std::optional<Failure>>& store = m_store[call];
    store.insert(store.end(), static_cast<std::size_t>(before), std::nullopt);
    store.insert(store.end(), static_cast<std::size_t>(times), failure);
}

Lines World::takeJournal() { return std::exchange(journal, {}); }

std::optional<Failure> World::next(const std::string& call) {
    std::deque<std::optional<Failure>>& store = m_store[call];
    if (store.empty()) return std::nullopt;
    const std::optional<Failure> failure = store.front();
    store.pop_front();
    if (failure) errno = failure->error;
    return failure;
}

std::optional<Failure> World::play(const std::string& call, const std::string& arguments) {
    journal.push_back(call + "(" + arguments + ")");
    if (const auto hook = hooks.find(call); hook != hooks.end()) hook->second();
    return next(call);
}

int World::openDescriptor() {
    int fd = lowest;
    while (open.contains(fd)) ++fd;
    open.insert(fd);
    return fd;
}

}  // namespace faults

extern "C" {

// ---- the platform

uint8_t pktd_tx_queue_pool[25980];
uint8_t pktd_rx_queue_pool[25980];
uint8_t pktd_rx_wl_pool[25980];

int cfg_init(void) {
    const Paused paused;
    return status("cfg_init", "");
}

int cfg_add_pid(const char* process) {
    const Paused paused;
    return status("cfg_add_pid", process);
}

int updateTZ(void) {
    const Paused paused;
    return status("updateTZ", "");
}

int cfg_clear_pid(void) {
    const Paused paused;
    return status("cfg_clear_pid", "");
}

int cfg_vlan_l3_get_dest_vlan(int egress) {
    const Paused paused;
    const auto failure = current->play("cfg_vlan_l3_get_dest_vlan", list(egress));
    return failure ? static_cast<int>(failure->result) : 100;
}

uint32_t cfg_vlan_l3_get_mtu(int vlan) {
    const Paused paused;
    const auto failure = current->play("cfg_vlan_l3_get_mtu", list(vlan));
    return failure ? static_cast<uint32_t>(failure->result) : 1400;
}

int cfg_vlan_l3_get_mtu_vlan(int vlan) {
    const Paused paused;
    return status("cfg_vlan_l3_get_mtu_vlan", list(vlan));
}

int pktd_shm_queue_init(const char* client, int first, int second, void* tx_pool, void* rx_pool) {
    const Paused paused;
    return status("pktd_shm_queue_init", list(client, first, second, pool(tx_pool), pool(rx_pool)));
}

int pktd_shm_rx_thread_init(const char* client, void* rx_pool, void* rx_wl_pool, int first,
                            int second, pktd_rx_cb_t callback, void* user) {
    const Paused paused;
    current->callback = callback;
    return status("pktd_shm_rx_thread_init",
                  list(client, pool(rx_pool), pool(rx_wl_pool), first, second,
                       callback == nullptr ? "0" : "callback", pool(user)));
}

int pktd_queue_entry_data_vlan_based_init(st_pktd_shm_queue_entry_data_t*, int proto, int vid,
                                          const uint8_t* frame, size_t len) {
    const Paused paused;
    return status("pktd_queue_entry_data_vlan_based_init",
                  list(proto, vid, frame == nullptr ? "0" : "frame", len));
}

int shm_data_entry_post(void* queue, st_pktd_shm_queue_entry_data_t* entry, size_t len,
                        uint32_t* out) {
    const Paused paused;
    *out = 0;
    return status("shm_data_entry_post", list(pool(queue), entry->ctrl.post_kind, len));
}

int arpd_icmp6_socket_create(int32_t* fd, const char* ifname) {
    const Paused paused;
    const int result = status("arpd_icmp6_socket_create", ifname);
    if (result == 0) *fd = current->openDescriptor();
    return result;
}

int arpd_ipv6_pkt_send(int32_t fd, const struct sockaddr_in6* to, const struct iovec* iov,
                       int iovcnt, uint32_t ifindex) {
    const Paused paused;
    return status("arpd_ipv6_pkt_send", list(fd, hex(&to->sin6_addr, sizeof to->sin6_addr), iovcnt,
                                             hex(iov->iov_base, iov->iov_len), ifindex));
}

/// A line has an entry of its own form, with the format where it is not the usual one.
int debug_process(uint32_t channel, const char* format, ...) {
    const Paused paused;
    char text[4096];
    va_list arguments;
    va_start(arguments, format);
    // Clang 14 does not see through va_start. NOLINTNEXTLINE(clang-analyzer-valist.Uninitialized)
    vsnprintf(text, sizeof text, format, arguments);
    va_end(arguments);
    const bool isUsual = std::string(format) == "%s";
    current->journal.push_back(std::to_string(channel) + (isUsual ? "" : format) + text);
    const std::optional<Failure> failure = current->next("debug_process");
    return failure ? static_cast<int>(failure->result) : 0;
}

// ---- the system

int __real_socket(int domain, int type, int protocol);
int __real_setsockopt(int fd, int level, int option, const void* value, socklen_t length);
ssize_t __real_sendto(int fd, const void* message, size_t length, int flags,
                      const struct sockaddr* to, socklen_t addressLength);
int __real_close(int fd);
unsigned __real_if_nametoindex(const char* name);
int __real_open(const char* path, int flags, mode_t mode);
int __real_flock(int fd, int operation);
int __real_usleep(useconds_t microseconds);

int __wrap_socket(int domain, int type, int protocol) {
    if (current == nullptr) return __real_socket(domain, type, protocol);
    const Paused paused;
    const auto failure = current->play("socket", list(domain, type, protocol));
    return failure ? static_cast<int>(failure->result) : current->openDescriptor();
}

int __wrap_setsockopt(int fd, int level, int option, const void* value, socklen_t length) {
    if (current == nullptr) return __real_setsockopt(fd, level, option, value, length);
    const Paused paused;
    return status("setsockopt", list(fd, level, option, hex(value, length)));
}

ssize_t __wrap_sendto(int fd, const void* message, size_t length, int flags,
                      const struct sockaddr* to, socklen_t addressLength) {
    if (current == nullptr) return __real_sendto(fd, message, length, flags, to, addressLength);
    const Paused paused;
    const auto* const address = reinterpret_cast<const sockaddr_in*>(to);
    const auto failure = current->play(
        "sendto", list(fd, hex(message, length), flags,
                       hex(&address->sin_addr, sizeof address->sin_addr), addressLength));
    return failure ? static_cast<ssize_t>(failure->result) : static_cast<ssize_t>(length);
}

/// As the kernel has it, the descriptor is gone also where the call says that it failed; EBADF
/// alone says that there was none.
int __wrap_close(int fd) {
    if (current == nullptr) return __real_close(fd);
    const Paused paused;
    const int result = status("close", list(fd));
    if (result == 0 || errno != EBADF) current->open.erase(fd);
    return result;
}

unsigned __wrap_if_nametoindex(const char* name) {
    if (current == nullptr) return __real_if_nametoindex(name);
    const Paused paused;
    const auto failure = current->play("if_nametoindex", name);
    return failure ? static_cast<unsigned>(failure->result) : 7;
}

int __wrap_open(const char* path, int flags, mode_t mode) {
    if (current == nullptr) return __real_open(path, flags, mode);
    const Paused paused;
    const auto failure = current->play("open", list(path, flags, mode));
    return failure ? static_cast<int>(failure->result) : current->openDescriptor();
}

int __wrap_flock(int fd, int operation) {
    if (current == nullptr) return __real_flock(fd, operation);
    const Paused paused;
    return status("flock", list(fd, operation));
}

int __wrap_usleep(useconds_t microseconds) {
    if (current == nullptr) return __real_usleep(microseconds);
    const Paused paused;
    return status("usleep", list(microseconds));
}

// ---- the C library

time_t __real_time(time_t* out);
struct tm* __real_localtime_r(const time_t* seconds, struct tm* local);
size_t __real_strftime(char* text, size_t size, const char* format, const struct tm* local);
int __real_gettimeofday(struct timeval* now, void* zone);
const char* __real_inet_ntop(int family, const void* address, char* text, socklen_t size);
int __real_fputs(const char* text, FILE* file);
int __real_fflush(FILE* file);

time_t __wrap_time(time_t* out) {
    if (current == nullptr) return __real_time(out);
    const Paused paused;
    const auto failure = current->next("time");
    return failure ? static_cast<time_t>(failure->result) : 14 * 3600 + 3 * 60 + 7;
}

/// The time zone is UTC, whatever the machine's.
struct tm* __wrap_localtime_r(const time_t* seconds, struct tm* local) {
    if (current == nullptr) return __real_localtime_r(seconds, local);
    const Paused paused;
    if (current->next("localtime_r")) return nullptr;
    return gmtime_r(seconds, local);
}

size_t __wrap_strftime(char* text, size_t size, const char* format, const struct tm* local) {
    if (current == nullptr) return __real_strftime(text, size, format, local);
    const Paused paused;
    if (current->next("strftime")) return 0;
    return __real_strftime(text, size, format, local);
}

int __wrap_gettimeofday(struct timeval* now, void* zone) {
    if (current == nullptr) return __real_gettimeofday(now, zone);
    const Paused paused;
    if (const auto failure = current->next("gettimeofday")) {
        return static_cast<int>(failure->result);
    }
    now->tv_sec = 14 * 3600 + 3 * 60 + 7;
    now->tv_usec = 245000;
    return 0;
}

const char* __wrap_inet_ntop(int family, const void* address, char* text, socklen_t size) {
    if (current == nullptr) return __real_inet_ntop(family, address, text, size);
    const Paused paused;
    if (current->next("inet_ntop")) return nullptr;
    return __real_inet_ntop(family, address, text, size);
}

int __wrap_fputs(const char* text, FILE* file) {
    if (current == nullptr || file != faults::fileChannel()) return __real_fputs(text, file);
    const Paused paused;
    std::string line = text;
#ifdef __clang__
    // Clang writes a blank before an asterisk or an ampersand.
    for (const char* const apart : {"_t *", "_t &"}) {
        for (auto at = line.find(apart); at != line.npos; at = line.find(apart, at)) {
            line.erase(at + 2, 1);
        }
    }
#endif
    current->journal.push_back(line);
    const auto failure = current->next("fputs");
    return failure ? static_cast<int>(failure->result) : 1;
}

int __wrap_fflush(FILE* file) {
    if (current == nullptr || file != faults::fileChannel()) return __real_fflush(file);
    const Paused paused;
    const auto failure = current->next("fflush");
    return failure ? static_cast<int>(failure->result) : 0;
}

}  // extern "C"
