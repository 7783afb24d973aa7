// SPDX-License-Identifier: MIT
// What must always hold for the dispatcher: each withdrawn message is answered or given back
// exactly once, and each line is due.
#include "dispatcher_world.h"

#include "frame_lines.h"

namespace fuzz {

using pmtud_linux::LineFate;
using pmtud_linux::Priority;
using namespace std::chrono_literals;

World* world = nullptr;

bool Withdrawn::isNear() const {
    if (!copy || egress != copy->ingress) return false;
    return std::any_of(copy->addresses.begin() + 6, copy->addresses.end(),
                       [](uint8_t byte) { return byte != 0; });
}

// What arrives.

namespace {

// The MTU in a "too big" message.
uint32_t mtuIn(Span error) {
    const size_t header = headerOf(error);
    if (header == 0 || error.size() < header + 8) return 0;
    return header == 40 ? bigEndian(error.subspan(44, 4))
                        : static_cast<uint32_t>(get16(error, header + 6));
}

}  // namespace

void World::expect(const Message& message) {
    if (message.sequence) {
        m_counted[kLost] += *message.sequence - m_nextSequence;
        m_nextSequence = *message.sequence + 1;
    }
    const int vlan = vlanOfPrefix(message.prefix);
    const bool isRefusal = message.prefix == "pmtud:refused";
    if (!isRefusal || message.mark < 1 || message.mark > 4094) {
        if (isRefusal || vlan == 0 || !m_copies.keep(message, vlan)) ++m_counted[kForeign];
        return;
    }
    Withdrawn withdrawn;
    const Span quote = quotedBy(message.payload);
    withdrawn.quote = cut(quote, 0, quote.size());
    withdrawn.answer = cut(message.payload, 0, message.payload.size());
    withdrawn.egress = message.egress;
    if (const Kept* const kept = m_copies.take(quote)) {
        withdrawn.copy = *kept;
        const auto egress = links.vlans().find(kept->egressVlan);
        if (egress != links.vlans().end() && egress->second.mtu == mtuIn(message.payload)) {
            withdrawn.ingressVlan = vlanOf(links.vlans(), kept->ingress);
            withdrawn.vlanEgress = egress->second.ifindex;
        }
    }
    m_expected.push_back(std::move(withdrawn));
}

void World::drawDatagram(mmsghdr& header) {
    const uint8_t choice = input.byte();
    Bytes datagram;
    if (choice >= 0xC0) m_traffic.addRefused(1 + choice % 32, links.vlans(), datagram);
    for (int left = choice / 16 % 4; left >= 0; --left) {
        m_traffic.add(input, links.vlans(), datagram);
        if (left > 0) datagram.resize(Netlink::aligned(datagram.size()));
    }
    msghdr& how = header.msg_hdr;
    const iovec& room = how.msg_iov[0];
    const size_t taken = std::min(datagram.size(), room.iov_len);
    datagram.resize(std::min(Netlink::aligned(taken), room.iov_len));
    std::copy(datagram.begin(), datagram.end(), static_cast<uint8_t*>(room.iov_base));
    header.msg_len = static_cast<unsigned>(taken);
    const bool isCut = choice % 16 == 14 || taken == room.iov_len;
    how.msg_flags = isCut ? MSG_TRUNC : 0;
    const Sender sender = choice % 16 == 13   ? Sender::kNobody
                          : choice % 16 == 15 ? Sender::kProcess
                                              : Sender::kKernel;
    how.msg_namelen = putSender(how.msg_name, sender);
    if (isCut || sender != Sender::kKernel) {
        ++m_counted[kForeign];
        return;
    }
    for (const Span bytes : messagesOf(datagram, taken)) {
        if (load<uint16_t>(bytes, 4) != kLoggedPacket) continue;
        if (const auto message = expectedMessage(bytes))
            expect(*message);
        else
            ++m_counted[kForeign];
    }
}

// What becomes of withdrawn messages.

Withdrawn& World::next() {
    finishCurrent();
    require(!m_expected.empty(), "only refused packets are handed over or given back, and once");
    m_current = std::move(m_expected.front());
    m_expected.pop_front();
    return *m_current;
}

int World::handOver(const st_pktd_shm_queue_entry_data_t& record, const uint8_t* frame,
                    size_t size) {
    Withdrawn& current = next();
    current.isHandedOver = true;
    require(current.ingressVlan != 0, "only packets from one VLAN to another are handed over");
    checkFrame(record, frame, size, *current.copy, current.quote);
    require(record.ctrl.vid == current.ingressVlan, "ingress in the record");
    require(record.ctrl.egress == static_cast<int32_t>(current.vlanEgress), "egress");
    const LineFate fate = pmtud_linux::lineFate();
    require(fate != LineFate::kWritten, "lines of a frame are not written one by one");
    if (fate == LineFate::kIgnored) ++m_counted[kUnlogged];
    // A hundred, and one more every 50 ms since the start.
    if (fate == LineFate::kKept) ++m_framesLogged;
    require(m_framesLogged <= 100 + (now - 1h) / 50ms,
            "no more lines are logged than the budget allows");
    require(fate == LineFate::kKept || m_framesLogged >= 100,
            "lines are ignored only beyond the budget");

    const uint8_t choice = input.byte();
    if (choice == 0xFF) return choice;
    if (choice >= 0xC0) now += choice >= 0xE0 ? 49ms : 1000ms;
    if (choice % 4 != 1) ++answersThatLeft;
    return choice;
}

void World::readCounter(std::optional<uint64_t> reading) {
    const bool isSame = reading && *reading == m_lastReading;
    if (reading) m_lastReading = *reading;
    if (m_current && m_current->isHandedOver && !m_current->isRead) {
        m_current->isRead = true;
        m_current->isLost = isSame;
        return;
    }
    // The message was given back, whether or not it then passed the rules.
    Withdrawn& current = givenBack();
    require(!current.isGivenBack, "a message is given back once");
    current.isGivenBack = true;
    if (current.sent == 0) ++m_counted[kUnanswered];
}

Withdrawn& World::givenBack() {
    if (m_current && !m_current->isGivenBack && (m_current->isLost || !m_current->isHandedOver))
        return *m_current;
    require(next().ingressVlan == 0, "only what was not answered is given back");
    return *m_current;
}

void World::send(bool isNear, bool succeeds) {
    Withdrawn& current = givenBack();
    require(current.isNear() || !isNear, "only a near answer goes to the packet's station");
    require((isNear ? current.triesNear : current.triesFar)++ == 0, "each way is tried once");
    require(current.sent == 0, "an answer is given back once");
    current.sent += succeeds ? 1 : 0;
}

void World::leaveToKernel(bool succeeds) {
    require(m_current && m_current->isGivenBack && m_current->sent == 0,
            "only packets that nobody answered are left to the kernel");
    auto& until = m_leftToKernel[m_current->egress];
    require(now >= until, "an interface is left to the kernel once at a time");
    until = now + (succeeds ? 30s : 1s);
}

void World::finishCurrent() {
    if (!m_current) return;
    const Withdrawn& last = *m_current;
    require(!last.isHandedOver || last.isRead, "the counter is read after each frame");
    require(last.isGivenBack == (last.isLost || !last.isHandedOver),
            "a message is given back if it was not answered, and only then");
    if (last.isGivenBack) {
        const bool isSendable = headerOf(last.answer) != 0;
        require(last.sent != 0 || m_leftToKernel.contains(last.egress),
                "the kernel answers if nobody else can");
        require(last.triesNear == (isSendable && last.isNear() ? 1 : 0), "the packet's station");
        require(last.sent + last.triesFar != 0 || !isSendable, "each way is tried");
    }
    m_current.reset();
}

void World::settle() {
    finishCurrent();
    require(pmtud_linux::lineFate() == LineFate::kWritten, "lines are kept only during a frame");
    require(m_expected.empty(), "every refused packet is handed over or given back");
}

// Lines.

void World::takeLine(Priority priority, const std::string& line) {
    require(line.find('\n') == line.npos, "a line is one line");
    struct Known {
        Priority priority;
        const char* start;
        int count = -1;
    };
    constexpr Known kKnown[] = {
        {Priority::kWarning, "the receive queue overran, messages lost: ", kLost},
        {Priority::kWarning, "refused packets that nobody answered: ", kUnanswered},
        {Priority::kWarning,
         "log group 89: ignored messages that this table did not log: ", kForeign},
        {Priority::kInfo, "frames answered but not logged: ", kUnlogged},
        {Priority::kWarning, "the receive queue overran; the next message will show"},
        {Priority::kWarning, "the verdict "},
        {Priority::kWarning, "nothing to serve: "},
        {Priority::kError, "nothing is served ("},
        {Priority::kError, "cannot install the rules: "},
        {Priority::kError, "cannot change the rules, retrying: "},
        {Priority::kError, "cannot leave the answers to the kernel: "}};
    const auto* const known = std::ranges::find_if(kKnown, [&](const Known& one) {
        return one.priority == priority && line.starts_with(one.start);
    });
    if (known == std::end(kKnown)) {
        require(priority == Priority::kWarning, "every line is known");
        if (line.ends_with("; only the lower VLAN is served, so remove one of the names")) return;
        const bool isLoss = line.find(": the answers do not leave this router") != line.npos;
        const bool isReturn = line.ends_with(": the answers leave this router again");
        require(m_current && m_current->isHandedOver,
                "answers are reported only for a frame that was handed over");
        require(isAnswerLost() ? isLoss : isReturn && !isLoss,
                "a line reports whether the answer left");
    } else if (known->count >= 0) {
        const std::string number = line.substr(strlen(known->start));
        require(number.find_first_not_of("0123456789") == number.npos && number != "0", "a count");
        if (!logIsDown) m_logged[static_cast<size_t>(known->count)] += std::stoull(number);
    } else if (line.starts_with("the verdict ")) {
        require(m_linesOfVerdict.insert(line).second, "a verdict is logged once");
    } else if (line.starts_with("the receive queue overran; ")) {
        require(++m_linesOfOverrun <= overruns, "only an overrun is logged as one");
    } else if (line.starts_with("nothing is served") ||
               line.starts_with("cannot install the rules")) {
        require(!isRunning, "a start fails before it runs");
        ++startLines;
    }
}

}  // namespace fuzz
