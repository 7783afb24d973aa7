// SPDX-License-Identifier: MIT
// The configuration service: answers from the kernel's configuration of the bcm0.N interfaces.
#include <fcntl.h>
#include <sys/ioctl.h>
#include <sys/socket.h>
#include <unistd.h>

#include <array>
#include <cerrno>
#include <ctime>
#include <optional>
#include <string>
#include <string_view>

#include "descriptor.h"
#include "interface_vlan.h"
#include "seam.h"
#include "vlan_name.h"

using pmtud_linux::Descriptor;

namespace {

// Opened by cfg_init before the receive thread exists, and never closed: that thread makes the
// queries and may outlive this library's static objects.
int querySocket = -1;

// The path of the registration's record; empty while the process is not registered. Not a string,
// for the same reason.
std::array<char, 128> registration{};

std::optional<uint32_t> mtuOf(int vlan) {
    if (vlan < pmtud_linux::kFirstVlan || vlan > pmtud_linux::kLastVlan) return std::nullopt;
    ifreq request{};
    if (!pmtud_linux::putName(request, pmtud_linux::nameOfVlan(vlan))) return std::nullopt;
    if (ioctl(querySocket, SIOCGIFMTU, &request) != 0) return std::nullopt;
    return static_cast<uint32_t>(request.ifr_mtu);
}

int writeRecord(const char* path, std::string_view text) {
    constexpr int kFlags = O_WRONLY | O_CREAT | O_EXCL | O_NOFOLLOW | O_CLOEXEC;
    Descriptor file(open(path, kFlags, 0644));
    if (!file.valid() && errno == EEXIST) {
        // Left by a process with the same PID that died between writing and renaming.
        if (unlink(path) != 0) return -errno;
        file.reset(open(path, kFlags, 0644));
    }
    if (!file.valid()) return -errno;
    const ssize_t written = write(file.get(), text.data(), text.size());
    if (written < 0) return -errno;
    return static_cast<size_t>(written) == text.size() ? 0 : -EIO;
}

std::string ownRecord() { return std::to_string(getpid()) + "\n"; }

}  // namespace

int cfg_init(void) {
    if (querySocket >= 0) return 0;
    querySocket = socket(AF_INET, SOCK_DGRAM | SOCK_CLOEXEC, 0);
    return querySocket >= 0 ? 0 : -errno;
}

// The record is /run/<process>.registered and contains the PID. It replaces any existing
// record; if that record's process still runs, it runs on without one.
int cfg_add_pid(const char* process) {
    if (process == nullptr) return -EINVAL;
    const std::string_view name(process);
    if (name.empty() || name.front() == '.' || name.find('/') != name.npos) return -EINVAL;
    const std::string path = "/run/" + std::string(name) + ".registered";
    if (path.size() >= registration.size()) return -ENAMETOOLONG;

    // Written to a temporary file and renamed, so that a reader never sees half a record.
    const std::string draft = "/run/." + std::string(name) + "." + std::to_string(getpid());
    int result = writeRecord(draft.c_str(), ownRecord());
    if (result == 0 && rename(draft.c_str(), path.c_str()) != 0) result = -errno;
    if (result != 0) {
        unlink(draft.c_str());
        return result;
    }
    path.copy(registration.data(), registration.size() - 1);
    registration[path.size()] = '\0';
    return 0;
}

int updateTZ(void) {
    tzset();
    return 0;
}

int cfg_clear_pid(void) {
    if (registration[0] == '\0') return -ENOENT;
    const Descriptor file(open(registration.data(), O_RDONLY | O_NOFOLLOW | O_CLOEXEC));
    if (!file.valid()) return -errno;
    std::array<char, 32> text{};
    const ssize_t length = read(file.get(), text.data(), text.size());
    if (length < 0) return -errno;
    // Another process has since registered under the name, and now owns the record.
    if (std::string_view(text.data(), static_cast<size_t>(length)) != ownRecord()) return -EEXIST;
    if (unlink(registration.data()) != 0) return -errno;
    registration[0] = '\0';
    return 0;
}

int cfg_vlan_l3_get_dest_vlan(int egress) {
    const int vlan = pmtud_linux::vlanOfInterface(querySocket, egress);
    return vlan != 0 ? vlan : -1;
}

uint32_t cfg_vlan_l3_get_mtu(int vlan) { return mtuOf(vlan).value_or(0); }

// Every VLAN has its own MTU setting: its interface's.
int cfg_vlan_l3_get_mtu_vlan(int vlan) { return mtuOf(vlan) ? vlan : -1; }
