// SPDX-License-Identifier: MIT
// The packet-dispatch queue: the kernel selects and copies the packets, a thread delivers them.
#include <netinet/in.h>
#include <signal.h>
#include <sys/prctl.h>
#include <sys/socket.h>

#include <cerrno>
#include <memory>
#include <new>
#include <system_error>
#include <thread>

#include "descriptor.h"
#include "dispatcher.h"
#include "say.h"
#include "seam.h"
#include "start_problem.h"
#include "tx_queue.h"

using pmtud_linux::Descriptor;
using pmtud_linux::Dispatcher;
using pmtud_linux::Priority;
using pmtud_linux::say;
using pmtud_linux::startProblem;
using pmtud_linux::threadProblem;
using pmtud_linux::TxQueue;

uint8_t pktd_tx_queue_pool[25980];
uint8_t pktd_rx_queue_pool[25980];
uint8_t pktd_rx_wl_pool[25980];

namespace {

constexpr size_t kQueueOffset = 8;  // of the transmit queue in its pool

struct Client {
    Dispatcher dispatcher;
    TxQueue txQueue;
    bool running = false;
};

// Never destroyed: the receive thread uses it until the process ends, even while static objects are
// being destroyed.
Client* attached = nullptr;

// A process that cannot answer must not withdraw the kernel's answers.
int checkRightToAnswer() {
    const Descriptor raw(socket(AF_INET, SOCK_RAW | SOCK_CLOEXEC, IPPROTO_ICMP));
    if (raw.valid()) return 0;
    const int result = -errno;
    say(Priority::kError, startProblem(result));
    return result;
}

int attach() {
    if (const int result = checkRightToAnswer(); result != 0) return result;
    auto fresh = std::make_unique<Client>();
    if (const int result = fresh->dispatcher.attach(); result != 0) return result;
    attached = fresh.release();
    return 0;
}

// Signals are blocked in the new thread: they must be delivered only to the main thread.
int startThread(Dispatcher& dispatcher, pktd_rx_cb_t callback) {
    sigset_t all;
    sigset_t before;
    sigfillset(&all);
    if (const int error = pthread_sigmask(SIG_SETMASK, &all, &before); error != 0) return -error;
    int result = 0;
    try {
        std::thread([&dispatcher, callback] { dispatcher.run(callback); }).detach();
    } catch (const std::system_error& error) {
        result = -error.code().value();
    } catch (const std::bad_alloc&) {
        result = -ENOMEM;
    }
    pthread_sigmask(SIG_SETMASK, &before, nullptr);
    return result;
}

// From now on the daemon's main thread only sleeps, in steps of half a millisecond: 2,000 wake-ups
// per second. With this slack, the kernel delays each wake-up until the CPU is awake anyway, by a
// tenth of a second at most. The receive thread was started earlier and keeps its precision.
void sleepLongSteps() {
    constexpr unsigned long kSlack = 100'000'000;  // nanoseconds
    prctl(PR_SET_TIMERSLACK, kSlack, 0, 0, 0);
}

// Without a receive thread, the rules would withdraw answers that nobody replaces.
int detach(int result) {
    say(Priority::kError, threadProblem(result));
    delete attached;
    attached = nullptr;
    return result;
}

}  // namespace

int pktd_shm_queue_init(const char* client, int, int, void*, void*) {
    if (client == nullptr) return -EINVAL;
    if (attached != nullptr) return -EALREADY;
    try {
        return attach();
    } catch (const std::bad_alloc&) {
        return -ENOMEM;
    }
}

int pktd_shm_rx_thread_init(const char* client, void*, void*, int, int, pktd_rx_cb_t callback,
                            void*) {
    if (attached == nullptr) return -ENOTCONN;
    if (attached->running) return -EALREADY;
    if (client == nullptr || callback == nullptr) return detach(-EINVAL);
    if (const int result = startThread(attached->dispatcher, callback); result != 0)
        return detach(result);
    attached->running = true;
    sleepLongSteps();
    return 0;
}

int pktd_queue_entry_data_vlan_based_init(st_pktd_shm_queue_entry_data_t* entry, int proto, int vid,
                                          const uint8_t* frame, size_t len) {
    return pmtud_linux::fillRecord(entry, proto, vid, frame, len);
}

int shm_data_entry_post(void* queue, st_pktd_shm_queue_entry_data_t* entry, size_t len,
                        uint32_t* out) {
    if (queue != pktd_tx_queue_pool + kQueueOffset || entry == nullptr) return -EINVAL;
    if (attached == nullptr) return -ENOTCONN;
    return attached->txQueue.post(*entry, len, out);
}
