// SPDX-License-Identifier: MIT
// Lists the kernel's interfaces and follows their changes, through link messages (rtnetlink).
#ifndef PMTUD_LINUX_LINK_MONITOR_H
#define PMTUD_LINUX_LINK_MONITOR_H

#include <linux/netlink.h>

#include <functional>
#include <memory>

#include "mnl_socket.h"
#include "vlan_table.h"

namespace pmtud_linux {

class LinkMonitor {
 public:
    LinkMonitor();

    /// Subscribes to link changes. 0 or a negative errno value.
    int open();

    /// Readable when there are changes to follow.
    int fd() const { return mnl_socket_get_fd(m_socket.get()); }

    /// Requests all interfaces and refills the table. If they change too fast for a consistent
    /// list, fills it with what is known; if the kernel does not finish its list, leaves it
    /// unchanged. In both cases becomes stale. 0 or a negative errno value.
    int list(VlanTable& table);

    /// Applies all changes that have arrived to the table, without waiting for more; if some were
    /// lost, refills it. True if the table may have changed. Throws std::system_error if the socket
    /// fails.
    bool follow(VlanTable& table);

    /// The table may be incomplete: call follow again soon, whether or not there are changes.
    bool stale() const { return m_stale; }

 private:
    enum class Read { kSome, kNone, kLost, kFailed };
    Read read(const std::function<void(const nlmsghdr&)>& take) const;
    int dropStale() const;
    int listOnce(VlanTable& table);
    int requestList();
    int receiveList(VlanTable& table, bool& doubtful);

    MnlSocket m_socket;
    std::unique_ptr<char[]> m_buffer;  // reused by every read
    unsigned int m_sequence = 0;
    bool m_stale = false;
};

}  // namespace pmtud_linux

#endif
