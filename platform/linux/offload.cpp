// SPDX-License-Identifier: MIT
// Receive offload: whether an interface merges packets before the kernel routes them.
#include "offload.h"

#include <linux/ethtool.h>
#include <linux/sockios.h>
#include <sys/ioctl.h>
#include <sys/socket.h>

#include <cerrno>

#include "say.h"
#include "vlan_name.h"

namespace pmtud_linux {

namespace {

// The flags that the command reads; 0 where the driver does not know it.
uint32_t ask(int socket, const std::string& name, uint32_t command) {
    ethtool_value value{};
    value.cmd = command;
    ifreq request{};
    if (!putName(request, name)) return 0;
    request.ifr_data = reinterpret_cast<char*>(&value);
    return ioctl(socket, SIOCETHTOOL, &request) == 0 ? value.data : 0;
}

}  // namespace

std::string offloadNote(const std::string& name, const std::string& options) {
    return name + ": receive offload is on; the packets that it merges are left to the kernel" +
           "; turn it off: ethtool -K " + name + " " + options;
}

int OffloadWatch::open() {
    m_socket.reset(socket(AF_INET, SOCK_DGRAM | SOCK_CLOEXEC, 0));
    return m_socket.valid() ? 0 : -errno;
}

void OffloadWatch::look(const Vlans& vlans) {
    forgetAllBut(vlans);
    for (const auto& [number, vlan] : vlans) {
        lookAt(vlan.ifindex);
        if (vlan.lower != 0) lookAt(vlan.lower);
    }
}

// The kernel gives every new interface a number of its own: without this, those that are
// long gone would add up.
void OffloadWatch::forgetAllBut(const Vlans& vlans) {
    std::unordered_set<uint32_t> present;
    for (const auto& [number, vlan] : vlans) present.insert({vlan.ifindex, vlan.lower});
    std::erase_if(m_seen, [&](uint32_t ifindex) { return !present.contains(ifindex); });
}

void OffloadWatch::lookAt(uint32_t ifindex) {
    if (!m_seen.insert(ifindex).second) return;
    const std::string name = nameOfInterface(m_socket.get(), static_cast<int>(ifindex));
    if (name.empty()) return;
    const bool gro = ask(m_socket.get(), name, ETHTOOL_GGRO) != 0;
    const bool lro = (ask(m_socket.get(), name, ETHTOOL_GFLAGS) & ETH_FLAG_LRO) != 0;
    if (!gro && !lro) return;
    std::string options = gro ? "gro off" : "";
    if (lro) options += gro ? " lro off" : "lro off";
    say(offloadNote(name, options));
}

}  // namespace pmtud_linux
