// SPDX-License-Identifier: MIT
// Preloaded into the daemon: makes the running kernel answer as one does that lacks a part.
//
// What is asked of the part that PMTUD_LACKING names is asked of one that no kernel has, so the
// answer is the kernel's own: "netfilter" (no netfilter netlink), "nf_tables", "nfnetlink_log",
// "skuid" (a packet's sending user), or the name of an expression of the rules, such as "log" and
// "fib".
#include <arpa/inet.h>
#include <dlfcn.h>
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

constexpr int kNoProtocol = 31;   // of netlink: the last, which nobody has
constexpr uint8_t kNoPart = 255;  // of nfnetlink: beyond all that there are
constexpr uint16_t kNoBatch = 0;  // of a batch, where those beyond are another error

std::string_view lacking() {
    const char* const name = std::getenv("PMTUD_LACKING");
    return name != nullptr ? name : "";
}

int lackingPart() {
    if (lacking() == "nf_tables") return NFNL_SUBSYS_NFTABLES;
    if (lacking() == "nfnetlink_log") return NFNL_SUBSYS_ULOG;
    return -1;
}

void redirect(nlmsghdr& message, char* payload) {
    if (NFNL_SUBSYS_ID(message.nlmsg_type) == lackingPart())
        message.nlmsg_type =
            static_cast<uint16_t>(kNoPart << 8 | NFNL_MSG_TYPE(message.nlmsg_type));
    if (message.nlmsg_type != NFNL_MSG_BATCH_BEGIN) return;
    nfgenmsg batch;
    memcpy(&batch, payload, sizeof batch);
    if (ntohs(batch.res_id) == lackingPart()) batch.res_id = htons(kNoBatch);
    memcpy(payload, &batch, sizeof batch);
}

// An expression's name is a string attribute; one with another first letter is nobody's.
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

// Asks for another thing than the user, one that no kernel knows.
void changeKey(std::vector<char>& bytes) {
    if (lacking() != "skuid") return;
    // The name "meta", and in the data that follow its padding the key in network byte order.
    constexpr std::string_view kName("\x09\0\x01\0meta\0", 9);
    constexpr std::string_view kEy("\x08\0\x02\0\0\0\0\x0a", 8);
    constexpr size_t kData = NLA_ALIGN(kName.size()) + sizeof(nlattr);
    for (size_t at = 0; at + kData + kEy.size() <= bytes.size(); ++at) {
        if (memcmp(&bytes[at], kName.data(), kName.size()) != 0) continue;
        if (memcmp(&bytes[at + kData], kEy.data(), kEy.size()) == 0)
            bytes[at + kData + kEy.size() - 1] = '\x7f';
    }
}

void change(std::vector<char>& bytes) {
    rename(bytes);
    changeKey(bytes);
    size_t at = 0;
    while (at + sizeof(nlmsghdr) + sizeof(nfgenmsg) <= bytes.size()) {
        nlmsghdr message;
        memcpy(&message, &bytes[at], sizeof message);
        if (message.nlmsg_len < sizeof message) return;
        redirect(message, &bytes[at + sizeof message]);
        memcpy(&bytes[at], &message, sizeof message);
        at += NLMSG_ALIGN(message.nlmsg_len);
    }
}

bool isNetfilter(int fd) {
    int domain = 0;
    int protocol = 0;
    socklen_t size = sizeof domain;
    if (getsockopt(fd, SOL_SOCKET, SO_DOMAIN, &domain, &size) != 0) return false;
    size = sizeof protocol;
    if (getsockopt(fd, SOL_SOCKET, SO_PROTOCOL, &protocol, &size) != 0) return false;
    return domain == AF_NETLINK && protocol == NETLINK_NETFILTER;
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
    if (!isNetfilter(fd)) return real(fd, message, flags);
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
    static const auto real =
        next<ssize_t (*)(int, const void*, size_t, int, const sockaddr*, socklen_t)>("sendto");
    if (!isNetfilter(fd)) return real(fd, buf, n, flags, addr, addrLen);
    const char* const start = static_cast<const char*>(buf);
    std::vector<char> bytes(start, start + n);
    change(bytes);
    return real(fd, bytes.data(), bytes.size(), flags, addr, addrLen);
}
