// SPDX-License-Identifier: MIT
// The script of the scripted platform: what it answers, and the frames that it delivers.
//
// One statement a line; blank lines and lines that begin with # are skipped.
//
//   answer CALL NUMBER           every CALL returns NUMBER (0 if nothing is stated, here or by vlan
//                                or mtu); a function of cfg, pktd or arpd, debug_process or usleep
//   vlan EGRESS VLAN             cfg_vlan_l3_get_dest_vlan(EGRESS) returns VLAN
//   mtu VLAN MTU                 cfg_vlan_l3_get_mtu(VLAN) returns MTU
//   throw CALL NTH KIND TEXT     the NTH CALL, counted from 1, throws; KIND is qv (qv::exception),
//                                std (std::runtime_error) or int (which TEXT then has to be);
//                                CALL as for answer, or new: what the daemon allocates after
//                                updateTZ
//   fail CALL NTH ERRNO          the NTH CALL is not made and fails with this number; open,
//                                flock or localtime_r
//   clock HH:MM:SS.mmm           the time of day that the daemon reads; the real one otherwise
//   arpd real                    ICMPv6 is sent by raw sockets instead of only being recorded
//   record FIELD=NUMBER ...      the record of the frames that follow; unit, port, trunk, tid, vid,
//                                proto, vtag and egress, 0 where not named
//   frame HEX ...                a frame to deliver, two digits a byte, blanks allowed
//   end                          the last line
//
// Numbers are decimal.
#ifndef PMTUD_TEST_SCRIPTED_SCRIPT_H
#define PMTUD_TEST_SCRIPTED_SCRIPT_H

#include <cstddef>
#include <cstdint>
#include <istream>
#include <map>
#include <optional>
#include <stdexcept>
#include <string>
#include <utility>
#include <vector>

#include "pktd_record.h"

namespace scripted {

/// The largest frame that a reader of one may touch: Ethernet header with a tag, and an IPv6
/// packet of the longest payload.
inline constexpr size_t kFrameBuffer = 18 + 40 + 65535;

/// What a call does instead of answering.
struct Incident {
    enum class Kind { kThrowQv, kThrowStd, kThrowInt, kFail };
    Kind kind;
    std::string text;  ///< of the exception
    int number;        ///< the int thrown, or the errno
};

struct Clock {
    int hour;
    int minute;
    int second;
    int millisecond;
};

struct Delivery {
    st_pktd_shm_queue_entry_ctrl_t ctrl;
    std::vector<uint8_t> frame;
};

struct Script {
    std::map<std::string, int> answers;
    std::map<int, int> vlans;
    std::map<int, uint32_t> mtus;
    /// By call and its count from 1.
    std::map<std::pair<std::string, int>, Incident> incidents;
    std::optional<Clock> clock;
    bool sendsIcmp6 = false;
    std::vector<Delivery> deliveries;
};

/// A line that is no statement; what() is "LINE: what is wrong with it".
class BadLine : public std::runtime_error {
 public:
    BadLine(int line, const std::string& fault)
        : std::runtime_error(std::to_string(line) + ": " + fault) {}
};

/// Throws BadLine.
Script readScript(std::istream& in);

}  // namespace scripted

#endif
