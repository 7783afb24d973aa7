// SPDX-License-Identifier: MIT
// The network that replies are sent into: bcm0.10 here, its peer in another namespace.
#ifndef PMTUD_BENCH_NETWORK_H
#define PMTUD_BENCH_NETWORK_H

#include <sys/types.h>

namespace bench {

/// Moves this process into a new network namespace. A veth pair, bcm0.10 on this side, connects it
/// to a peer namespace that lives as long as this object. Addresses: here 10.0.10.1 and fd00:10::1,
/// the peer 10.0.10.2 and fd00:10::2. Throws std::runtime_error, with the reason, if that
/// fails.
class Network {
 public:
    Network();
    Network(const Network&) = delete;
    Network& operator=(const Network&) = delete;
    ~Network();

 private:
    pid_t m_peer;
};

}  // namespace bench

#endif
