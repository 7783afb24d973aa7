// SPDX-License-Identifier: MIT
// A process that attaches to the packet-dispatch queue as the daemon does.
#ifndef PMTUD_TEST_LINUX_CLIENT_H
#define PMTUD_TEST_LINUX_CLIENT_H

#include <sys/types.h>

#include <cstdint>
#include <optional>

#include "descriptor.h"
#include "messages.h"
#include "pktd.h"

/// The MTU in the answers that the client sends; nothing else here has it.
constexpr uint16_t kAnsweredMtu = 1111;

/// What the receive callback was given.
struct Delivered {
    st_pktd_shm_queue_entry_ctrl_t control{};
    Bytes frame;
    bool zeroBehind = false;      ///< up to the largest frame that a reader may touch
    bool signalsBlocked = false;  ///< in the thread that called
};

struct ClientOptions {
    int verdict = PKTD_VERDICT_DISCARD;
    bool gated = false;          ///< the first callback waits for openGate
    bool countsOnly = false;     ///< the callback does not report its frames
    bool throws = false;         ///< the callback throws
    std::optional<int> without;  ///< a capability that the process does not have
};

/// Its callback answers the sender of an IPv4 or IPv6 frame before it returns.
class Client {
 public:
    explicit Client(const ClientOptions& wanted = {});
    Client(const Client&) = delete;
    Client& operator=(const Client&) = delete;

    /// Lets the process exit, where it is still there.
    ~Client();

    /// What pktd_shm_queue_init and pktd_shm_rx_thread_init returned; the second is 0
    /// where it was not called.
    int attached() const { return m_attached; }
    int started() const { return m_started; }

    /// The next frame; waits for it.
    Delivered next();

    void openGate();

    /// How many frames the callback was called for, where the client only counts them.
    uint64_t count();

    /// The process's resident anonymous memory, in KiB.
    long anonymousMemory() const;

    /// Has the process end by itself, by its static objects' destruction and all; its status.
    int stop();

    /// Kills it.
    void kill();

    /// Waits for its end; its status.
    int await();

 private:
    pmtud_linux::Descriptor m_channel;
    pid_t m_process = -1;
    int m_attached = -1;
    int m_started = -1;
};

#endif
