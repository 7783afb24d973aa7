// SPDX-License-Identifier: MIT
// Preloaded into the daemon: makes the running kernel answer like one that lacks a feature.
//
// A request that uses the feature named by PMTUD_LACKING is changed to use one that no kernel has,
// so the kernel refuses it in its own way. The feature is "netfilter" (netfilter netlink),
// "nf_tables", "nfnetlink_log", "skuid" (a packet's sending user), or an expression of the rules,
// such as "log".
#include <arpa/inet.h>
#include <dlfcn.h>
#include <libmnl/libmnl.h>
#include <linux/netfilter/nf_tables.h>
#include <linux/netfilter/nfnetlink.h>
#include <linux/netlink.h>
#include <sys/socket.h>
#include <sys/uio.h>

#include <cstdint>
#include <cstdlib>
#include <cstring>
#include <string>
#include <string_view>
#include <vector>

namespace {

constexpr int kNoProtocol = 31;   // of netlink: the last, which does not exist
constexpr uint8_t kNoPart = 255;  // of nfnetlink: beyond all that exist
constexpr uint16_t kNoBatch = 0;  // of a batch: those beyond are another error

std::string_view lacking() {
    const char* const name = std::getenv("PMTUD_LACKING");
    return name != nullptr ? name : "";
}

int lackingPart() {
    if (lacking() == "nf_tables") return NFNL_SUBSYS_NFTABLES;
    if (lacking() == "nfnetlink_log") return NFNL_SUBSYS_ULOG;
    return -1;
}

void redirect(nlmsghdr& message) {
    if (NFNL_SUBSYS_ID(message.nlmsg_type) == lackingPart())
        message.nlmsg_type =
            static_cast<uint16_t>(kNoPart << 8 | NFNL_MSG_TYPE(message.nlmsg_type));
    auto& batch = *static_cast<nfgenmsg*>(mnl_nlmsg_get_payload(&message));
    if (message.nlmsg_type == NFNL_MSG_BATCH_BEGIN && ntohs(batch.res_id) == lackingPart())
        batch.res_id = htons(kNoBatch);
}

// An expression's name is a string attribute; with another first letter, it names none.
void rename(std::vector<char>& bytes) {
    const std::string_view name = lacking();
    if (lackingPart() >= 0 || name.empty()) return;
    const nlattr header{static_cast<uint16_t>(sizeof(nlattr) + name.size() + 1), NFTA_EXPR_NAME};
    std::string attribute(reinterpret_cast<const char*>(&header), sizeof header);
    attribute.append(name).push_back('\0');
    for (size_t at = 0; at + attribute.size() <= bytes.size(); ++at)
        if (memcmp(&bytes[at], attribute.data(), attribute.size()) == 0)
            bytes[at + sizeof header] = '-';
}

// Asks for a key that no kernel knows, instead of a packet's user.
void changeKey(std::vector<char>& bytes) {
    if (lacking() != "skuid") return;
    // The name "meta", and in the data that follow its padding the key in network byte order.
    constexpr std::string_view kName("\x09\0\x01\0meta\0", 9);
    constexpr std::string_view kKey("\x08\0\x02\0\0\0\0\x0a", 8);
    constexpr size_t kData = NLA_ALIGN(kName.size()) + sizeof(nlattr);
    for (size_t at = 0; at + kData + kKey.size() <= bytes.size(); ++at) {
        if (memcmp(&bytes[at], kName.data(), kName.size()) != 0) continue;
        if (memcmp(&bytes[at + kData], kKey.data(), kKey.size()) == 0)
            bytes[at + kData + kKey.size() - 1] = '\x7f';
    }
}

void change(std::vector<char>& bytes) {
    rename(bytes);
    changeKey(bytes);
    auto* message = reinterpret_cast<nlmsghdr*>(bytes.data());
    for (int left = static_cast<int>(bytes.size()); mnl_nlmsg_ok(message, left);
         message = mnl_nlmsg_next(message, &left))
        redirect(*message);
}

int optionOf(int fd, int name) {
    int value = -1;
    socklen_t size = sizeof value;
    getsockopt(fd, SOL_SOCKET, name, &value, &size);
    return value;
}

template <typename Function>
Function next(const char* name) {
    return reinterpret_cast<Function>(dlsym(RTLD_NEXT, name));
}

}  // namespace

extern "C" int socket(int domain, int type, int protocol) noexcept {
    static const auto real = next<int (*)(int, int, int)>("socket");
    const bool lacks = lacking() == "netfilter" && domain == AF_NETLINK;
    return real(domain, type, lacks && protocol == NETLINK_NETFILTER ? kNoProtocol : protocol);
}

extern "C" ssize_t sendmsg(int fd, const msghdr* message, int flags) {
    static const auto real = next<ssize_t (*)(int, const msghdr*, int)>("sendmsg");
    if (optionOf(fd, SO_DOMAIN) != AF_NETLINK || optionOf(fd, SO_PROTOCOL) != NETLINK_NETFILTER)
        return real(fd, message, flags);
    std::vector<char> bytes;
    for (size_t piece = 0; piece < message->msg_iovlen; ++piece) {
        const iovec& from = message->msg_iov[piece];
        const char* const start = static_cast<const char*>(from.iov_base);
        bytes.insert(bytes.end(), start, start + from.iov_len);
    }
    change(bytes);
    iovec changed{bytes.data(), bytes.size()};
    msghdr other = *message;
    other.msg_iov = &changed;
    other.msg_iovlen = 1;
    return real(fd, &other, flags);
}

extern "C" ssize_t sendto(int fd, const void* buf, size_t n, int flags, const sockaddr* addr,
                          socklen_t addrLen) {
    iovec piece{const_cast<void*>(buf), n};
    msghdr message{};
    message.msg_name = const_cast<sockaddr*>(addr);
    message.msg_namelen = addrLen;
    message.msg_iov = &piece;
    message.msg_iovlen = 1;
    return sendmsg(fd, &message, flags);
}
