// SPDX-License-Identifier: MIT
// A process that attaches to the packet-dispatch queue as the daemon does.
#ifndef PMTUD_TEST_LINUX_CLIENT_H
#define PMTUD_TEST_LINUX_CLIENT_H

#include <sys/types.h>

#include <cstdint>

#include "bytes.h"
#include "descriptor.h"
#include "pktd.h"

/// The MTU in the answers that the client sends; nothing else here has it.
constexpr uint16_t kAnsweredMtu = 1111;

/// What the receive callback was given.
struct Delivered {
    st_pktd_shm_queue_entry_ctrl_t control{};
    packets::Bytes frame = {};
    bool signalsBlocked = false;  ///< in the thread that called
};

struct ClientOptions {
    std::vector<int> verdicts = {PKTD_VERDICT_DISCARD};  ///< of the callbacks, in turn
    bool gated = false;                                  ///< the first callback waits for openGate
};

/// Its callback answers the sender of an IPv4 or IPv6 frame before it returns.
class Client {
 public:
    /// Fails the test unless the client attaches and starts its thread.
    explicit Client(const ClientOptions& wanted = {});
    Client(const Client&) = delete;
    Client& operator=(const Client&) = delete;

    /// Lets the process exit, if it still runs.
    ~Client();

    /// The next frame; waits for it.
    Delivered next();

    void openGate();

    /// The process's resident anonymous memory, in KiB.
    long anonymousMemory() const;

    /// Lets the process exit normally, which destroys its static objects; returns its status.
    int stop();

 private:
    pmtud_linux::Descriptor m_channel;
    pid_t m_process = -1;
};

#endif
