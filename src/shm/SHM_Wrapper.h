// SPDX-License-Identifier: MIT
// The packet-queue adapter: returns a verdict for each received frame, and posts frames to the
// queue.
#ifndef PMTUD_SHM_WRAPPER_H
#define PMTUD_SHM_WRAPPER_H

#include <cstddef>
#include <cstdint>

#include "SHM_Handler.h"
#include "pktd_record.h"

/// Where the frame being handled came from, according to its queue record. All fields are -1 until
/// the first frame arrives.
struct PktdFrameInfo {
    PktdFrameInfo();

    int32_t unit;    ///< counted from 0
    int32_t port;    ///< ingress port, counted from 0
    int32_t tid;     ///< trunk id, counted from 0; -1: not from a trunk
    int32_t vid;     ///< VLAN id
    int32_t proto;   ///< the dispatch service's protocol identifier
    int32_t egress;  ///< egress identifier, a key for the configuration service
};

/// Decides what happens to a received frame. Frames are handled one at a time on the queue
/// library's receive thread, so nothing here is locked; call setHandler before it starts.
class SHM_Wrapper {
 public:
    /// What happens to a frame that the handler has accepted.
    enum eActions : int32_t {
        eDiscard = 0,  ///< drop it
        eAccept = 1,   ///< let it through
        eRepost = 2    ///< put it back into the queue
    };

    SHM_Wrapper() = default;
    SHM_Wrapper(const SHM_Wrapper&) = delete;
    SHM_Wrapper& operator=(const SHM_Wrapper&) = delete;
    virtual ~SHM_Wrapper() = default;

    /// Attaches the queues and starts the receive thread. False: failed and logged.
    virtual bool init() = 0;

    /// The queue library's verdict code for an action.
    virtual int queueActionCode(eActions action) = 0;

    /// The handler is borrowed and must outlive the receive thread.
    void setHandler(SHM_Handler* handler);

    void setFrameInfo(int unit, int port, int tid, int vid, int proto, int egress);
    const PktdFrameInfo& frameInfo() const { return m_frameInfo; }

    /// Sets the action for this and all later frames that the handler accepts.
    void setPostAction(SHM_Wrapper::eActions action);

    /// Passes the frame to the handler if it carries an 802.1Q tag, and returns its verdict code.
    /// At least the 18 bytes of a tagged Ethernet header must be readable.
    int handleFrame(uint8_t* frame, size_t len);

 protected:
    bool m_initialised = false;

 private:
    SHM_Handler* m_handler = nullptr;
    PktdFrameInfo m_frameInfo;
    eActions m_action = eDiscard;
};

/// The adapter for the platform's packet-dispatch queue library.
class SHM_Wrapper_App : public SHM_Wrapper {
 public:
    bool init() override;

    /// 7 discard, 8 accept, 9 repost, 1 for any other action.
    int queueActionCode(eActions action) override;

    /// Posts a frame to the transmit queue, tagged for the VLAN of the frame being handled. If
    /// `directed`, it leaves via the unit and port on which that frame arrived. True: posted. Call
    /// this on the receive thread while a frame is being handled.
    bool pktdTxQueuePost(const uint8_t* frame, size_t len, bool directed);

    /// The queue library's receive callback (pktd_rx_cb_t): returns the frame's verdict code.
    static int pkt_rx_cb(const st_pktd_shm_queue_entry_data_t* pktd_entry_data, uint8_t* frame,
                         int len);
};

/// The process's only adapter, created on the first call and destroyed at normal exit.
SHM_Wrapper_App* getShmWrapperApp();

#endif
