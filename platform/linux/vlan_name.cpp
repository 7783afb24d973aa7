// SPDX-License-Identifier: MIT
// The names of layer-3 VLAN interfaces: "bcm0." and the VLAN.
#include "vlan_name.h"

#include <sys/ioctl.h>

#include <charconv>
#include <cstring>

namespace pmtud_linux {

namespace {
constexpr std::string_view kPrefix = "bcm0.";
}

int vlanOfNumber(std::string_view digits) {
    if (digits.empty() || digits.front() == '0') return 0;
    int vlan = 0;
    const char* const end = digits.data() + digits.size();
    const auto [stop, error] = std::from_chars(digits.data(), end, vlan);
    if (error != std::errc{} || stop != end) return 0;
    return vlan >= kFirstVlan && vlan <= kLastVlan ? vlan : 0;
}

int vlanOfName(std::string_view name) {
    return name.starts_with(kPrefix) ? vlanOfNumber(name.substr(kPrefix.size())) : 0;
}

std::string nameOfVlan(int vlan) { return std::string(kPrefix) + std::to_string(vlan); }

std::string nameOfInterface(int socket, int ifindex) {
    ifreq request{};
    request.ifr_ifindex = ifindex;
    if (ioctl(socket, SIOCGIFNAME, &request) != 0) return {};
    return {request.ifr_name, strnlen(request.ifr_name, sizeof request.ifr_name)};
}

int indexOfInterface(int socket, std::string_view name) {
    ifreq request{};
    if (!putName(request, name)) return 0;
    return ioctl(socket, SIOCGIFINDEX, &request) == 0 ? request.ifr_ifindex : 0;
}

bool putName(ifreq& request, std::string_view name) {
    if (name.size() >= sizeof request.ifr_name) return false;
    memset(request.ifr_name, 0, sizeof request.ifr_name);
    memcpy(request.ifr_name, name.data(), name.size());
    return true;
}

}  // namespace pmtud_linux
