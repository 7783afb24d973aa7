// SPDX-License-Identifier: MIT
// The packet-queue adapter: returns a verdict for each received frame, and posts frames to the
// queue.
#include "SHM_Wrapper.h"

#include <cstring>

#include "EthVlanHeader.h"
#include "QVLog.h"
#include "dumps.h"
#include "pktd.h"

namespace {

constexpr char kClientName[] = "pmtud";
constexpr uint16_t kTpid8021Q = 0x8100;
constexpr size_t kTxQueueInPool = 8;
constexpr uint32_t kPostKind = 4;

/// The number shown on the front panel, which counts from 1; the record counts from 0.
int32_t countedFromOne(int32_t number) {
    return static_cast<int32_t>(static_cast<uint32_t>(number) + 1);
}

}  // namespace

PktdFrameInfo::PktdFrameInfo() { memset(this, 0xFF, sizeof *this); }

void SHM_Wrapper::setHandler(SHM_Handler* handler) { m_handler = handler; }

void SHM_Wrapper::setFrameInfo(int unit, int port, int tid, int vid, int proto, int egress) {
    m_frameInfo.unit = unit;
    m_frameInfo.port = port;
    m_frameInfo.tid = tid;
    m_frameInfo.vid = vid;
    m_frameInfo.proto = proto;
    m_frameInfo.egress = egress;
}

void SHM_Wrapper::setPostAction(SHM_Wrapper::eActions action) {
    // GCC 12 omits the class name from a parameter whose type belongs to that class.
    QV_LOG_IN(DEBUG, 71, "void SHM_Wrapper::setPostAction(SHM_Wrapper::eActions)")
        << "action " << int32_t{action};
    m_action = action;
}

int SHM_Wrapper::handleFrame(uint8_t* frame, size_t len) {
    bool handled = false;
    const EthVlanHeader eth(frame);
    QV_LOG(DEBUG1, 37) << eth;

    const uint16_t tpid = eth.vlan_tpid();
    if (tpid != kTpid8021Q) {
        QV_LOG(WARNING, 40) << "Warning! Invalid tpid " << decHex(tpid);
        return queueActionCode(eDiscard);
    }

    if (m_handler != nullptr) handled = m_handler->handleFrame(*frame, len);
    if (!handled) {
        QV_LOG(DEBUG, 49) << "Discarding packet";
        return queueActionCode(eDiscard);
    }

    switch (m_action) {
        case eAccept:
            QV_LOG(DEBUG1, 54) << "Accepting packet";
            break;
        case eDiscard:
            QV_LOG(DEBUG, 57) << "Discarding packet";
            break;
        case eRepost:
            QV_LOG(DEBUG, 60) << "Reposting packet";
            break;
        default:
            // DEBUG is intentional: an invalid code is logged only for those who look for it.
            QV_LOG(DEBUG, 63) << "Error! Invalid post action code " << int32_t{m_action};
            break;
    }
    // Intentionally not reset: the action applies to later frames until it is set again.
    return queueActionCode(m_action);
}

bool SHM_Wrapper_App::init() {
    QV_LOG(DEBUG, 135) << "initializing";

    const int queueResult =
        pktd_shm_queue_init(kClientName, 0, 1, pktd_tx_queue_pool, pktd_rx_queue_pool);
    if (queueResult != 0) {
        QV_LOG(ERROR, 140) << "Could not initialize SHM queue, ret=" << queueResult;
        return false;
    }

    const int threadResult = pktd_shm_rx_thread_init(kClientName, pktd_rx_queue_pool,
                                                     pktd_rx_wl_pool, 32, 32, pkt_rx_cb, nullptr);
    if (threadResult != 0) {
        QV_LOG(ERROR, 145) << "Could not initialize SHM thread, ret=" << threadResult;
        return false;
    }

    m_initialised = true;
    return m_initialised;
}

int SHM_Wrapper_App::queueActionCode(eActions action) {
    switch (action) {
        case eDiscard:
            return PKTD_VERDICT_DISCARD;
        case eAccept:
            return PKTD_VERDICT_ACCEPT;
        case eRepost:
            return PKTD_VERDICT_REPOST;
        default:
            return PKTD_VERDICT_INVALID;
    }
}

bool SHM_Wrapper_App::pktdTxQueuePost(const uint8_t* frame, size_t len, bool directed) {
    const PktdFrameInfo& info = frameInfo();
    QV_LOG(DEBUG, 157) << "Writing pkt: proto " << decHex(info.proto) << ", vid " << info.vid;

    st_pktd_shm_queue_entry_data_t entry;
    const int initResult =
        pktd_queue_entry_data_vlan_based_init(&entry, info.proto, info.vid, frame, len);
    if (initResult != 0) {
        QV_LOG(ERROR, 164) << "init error, ret " << initResult;
        return false;
    }

    if (directed) {
        entry.ctrl.dst_unit = info.unit;
        entry.ctrl.dst_port = info.port;
        entry.ctrl.dst_valid = 1;
    }
    entry.ctrl.post_kind = kPostKind;

    uint32_t posted = 0;
    const int postResult =
        shm_data_entry_post(pktd_tx_queue_pool + kTxQueueInPool, &entry, len, &posted);
    if (postResult != 0) {
        QV_LOG(ERROR, 179) << "post error, ret " << postResult;
        return false;
    }
    return true;
}

int SHM_Wrapper_App::pkt_rx_cb(const st_pktd_shm_queue_entry_data_t* pktd_entry_data,
                               uint8_t* frame, int len) {
    const st_pktd_shm_queue_entry_ctrl_t& ctrl = pktd_entry_data->ctrl;
    const int32_t unit = ctrl.unit;
    const int32_t port = ctrl.port;
    const bool isTrunk = ctrl.is_trunk != 0;
    const int32_t tid = isTrunk ? ctrl.tid : -1;
    const int32_t vid = ctrl.vid;
    const int32_t proto = ctrl.proto;
    const uint16_t vtag = ctrl.vtag;
    const int32_t egress = ctrl.egress;

    QV_LOG(DEBUG, 97) << "new pkt from unit " << countedFromOne(unit) << ", port "
                      << countedFromOne(port) << ", is_trunk " << isTrunk << ", tid "
                      << countedFromOne(tid) << ", vid " << vid << ", proto " << decHex(proto)
                      << ", vtag " << vtag << ", egress " << egress;
    QV_LOG(DEBUG1, 106) << "Dumping '"
                        << "&pktd_entry_data->ctrl"
                        << "' (" << sizeof ctrl << " bytes):\n[" << byteDump(&ctrl, sizeof ctrl)
                        << "]";

    getShmWrapperApp()->setFrameInfo(unit, port, tid, vid, proto, egress);
    const int verdict = getShmWrapperApp()->handleFrame(frame, static_cast<size_t>(len));
    QV_LOG(DEBUG, 112) << "handle frame ret " << verdict;
    return verdict;
}

SHM_Wrapper_App* getShmWrapperApp() {
    static SHM_Wrapper_App app;
    return &app;
}
