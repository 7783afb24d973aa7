// SPDX-License-Identifier: MIT
// Fuzzes the dispatcher of the platform for stock Linux: everything that the kernel and libnftables
// tell it comes from the input.  Its rules, what it hands to the receive callback, and when it
// gives an answer back to the kernel are compared with models.
#include <arpa/inet.h>
#include <libmnl/libmnl.h>
#include <linux/if_packet.h>
#include <linux/netfilter.h>
#include <linux/netfilter/nf_tables.h>
#include <linux/rtnetlink.h>
#include <net/if.h>
#include <netinet/in.h>
#include <nftables/libnftables.h>
#include <poll.h>
#include <sys/ioctl.h>
#include <sys/socket.h>
#include <unistd.h>

#include <algorithm>
#include <array>
#include <cerrno>
#include <chrono>
#include <cstddef>
#include <cstdint>
#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <deque>
#include <memory>
#include <optional>
#include <set>
#include <string>
#include <string_view>
#include <system_error>
#include <utility>

#include "answers_model.h"
#include "copies_model.h"
#include "dispatcher.h"
#include "frame_lines.h"
#include "input.h"
#include "link_list_model.h"
#include "link_message.h"
#include "log_message.h"
#include "netlink_message.h"
#include "pktd.h"
#include "rules_model.h"
#include "say.h"

using fuzz::AnswersModel;
using fuzz::Built;
using fuzz::Bytes;
using fuzz::CopiesModel;
using fuzz::Input;
using fuzz::Kept;
using fuzz::LinkListModel;
using fuzz::Message;
using fuzz::require;
using fuzz::RulesModel;
using fuzz::Span;
using pmtud_linux::LineFate;
using pmtud_linux::Priority;
using pmtud_linux::Vlans;

namespace {

constexpr int kPacketSocket = 900;
constexpr int kPlaceholder = 899;
constexpr int kRawSocket4 = 904;
constexpr int kRawSocket6 = 906;
constexpr uint32_t kPortId = 77;

/// What the callback throws.
struct Stop {};

/// A netlink socket.
struct Socket {
    int fd;
    bool isOpen = false;
};

/// A connection to nftables.
struct Context {
    bool isOpen = false;
    bool isDry = false;
    std::string refusal;
};

/// Who a datagram comes from.
enum class Sender { kKernel, kProcess, kNobody };

/// A refused packet: it is handed over if there is a copy and its VLANs are served, and its answer
/// given back if not.
struct Refused {
    bool isServed = false;
    Built frame;
    uint32_t ingress = 0;
    uint32_t vlanEgress = 0;  // interface that the packet was to leave by
    Bytes station;            // that the packet came from; empty: unknown
    uint32_t egress = 0;
    Bytes answer;  // the kernel's
    std::chrono::nanoseconds handedOver{};
};

/// How far the dispatcher is with the packet.
enum class Stage { kHandedOver, kGivingBack, kSent };

/// Which frames are logged: a hundred, and one more every 50 ms.
class LinesModel {
 public:
    bool take(std::chrono::nanoseconds now) {
        m_saved = std::min(m_saved + (now - m_last), kMost);
        m_last = now;
        if (m_saved < kPrice) return false;
        m_saved -= kPrice;
        return true;
    }

 private:
    static constexpr std::chrono::nanoseconds kPrice = std::chrono::milliseconds(50);
    static constexpr std::chrono::nanoseconds kMost = 100 * kPrice;
    std::chrono::nanoseconds m_saved = kMost;
    std::chrono::nanoseconds m_last{};
};

/// What the dispatcher did after it handed a packet over.
struct Deeds {
    bool answerLeft = false;
    int toStation = 0;
    int byRoute = 0;
    int sent = 0;
    bool isUnanswered = false;
    int leftToKernel = 0;
    bool isRefused = false;  // the rule for that
    int linesOfLoss = 0;
    int linesOfReturn = 0;
};

/// What the kernel says of the interface that a packet was to leave by.
struct Egress {
    std::string name;                 // empty: it is gone
    bool hasAlternativeName = false;  // that of the VLAN
    int mtu = 0;                      // 0: it is gone
};

/// Events that are counted and logged in bursts.
struct Counts {
    uint64_t lost = 0;
    uint64_t unanswered = 0;
    uint64_t foreign = 0;
    uint64_t unlogged = 0;

    bool operator==(const Counts&) const = default;
};

// The kernel and libnftables, as far as the dispatcher sees them, and what is expected of it.
struct World {
    explicit World(Input given) : input(given) {}

    Input input;
    fuzz::Traffic traffic;
    std::chrono::nanoseconds now = std::chrono::hours(1);
    int callsUntilFailure = 0;  // 0: none fails
    bool logIsDown = false;
    bool isEnding = false;

    Socket group{901};
    Socket links{902};
    Socket answers{903};
    uint32_t groupSequence = 0;  // of the last request about the group
    std::set<int> descriptors;   // that are open, but for those of libmnl
    Context rulesContext;
    Context checkContext;  // for one question about the kernel
    bool isLacking = false;
    bool isTaken = false;  // there is a table of that name

    LinkListModel list;
    std::optional<RulesModel> rules;  // nothing: there is no table
    Vlans installed;
    bool rulesRefused = false;
    bool isServing = false;
    bool isRunning = false;

    CopiesModel copies;
    std::deque<Refused> expected;
    std::optional<Refused> current;
    Stage stage = Stage::kHandedOver;
    Egress egress;
    bool isLost = false;  // the daemon's answer
    Deeds deeds;

    uint64_t answersThatLeft = 0;
    uint8_t counterStyle = 0;
    struct Answer {
        std::optional<Bytes> datagram;  // nothing: the socket has lost something
        Sender sender = Sender::kKernel;
    };
    std::deque<Answer> counterAnswers;
    AnswersModel watch;
    LinesModel lines;
    std::optional<std::chrono::nanoseconds> lineOfUnlogged;  // last

    uint32_t nextSequence = 0;
    Counts counted;
    Counts logged;
    int overruns = 0;
    int linesOfOverrun = 0;
    int timesOfNothing = 0;  // to serve
    int linesOfNothing = 0;
    int problem = 0;  // that the line about a failed start names
    int linesOfProblem = 0;
    int linesOfRefusal = 0;  // of the last rules that were refused
    std::set<int> verdicts;
    std::set<std::string> linesOfVerdict;
};

World* world = nullptr;

int fail(int error) {
    errno = error;
    return -1;
}

bool failsNow() { return world->callsUntilFailure != 0 && --world->callsUntilFailure == 0; }

int answerOrFail() { return failsNow() ? fail(EPERM) : 0; }

// Netlink messages.

Bytes answerOf(uint32_t sequence, int error) {
    Bytes message(fuzz::kMessageHeader + sizeof(nlmsgerr));
    fuzz::store(message, 0, static_cast<uint32_t>(message.size()));
    fuzz::store(message, 4, uint16_t{NLMSG_ERROR});
    fuzz::store(message, 8, sequence);
    fuzz::store(message, 12, kPortId);
    fuzz::store(message, fuzz::kMessageHeader, error);
    return message;
}

Bytes endOfList(bool isInterrupted) {
    Bytes message(fuzz::kMessageHeader + 4);
    fuzz::store(message, 0, static_cast<uint32_t>(message.size()));
    fuzz::store(message, 4, uint16_t{NLMSG_DONE});
    fuzz::store(message, 6, static_cast<uint16_t>(isInterrupted ? NLM_F_DUMP_INTR : 0));
    fuzz::store(message, 8, world->list.sequence());
    return message;
}

// With zeros up to the next boundary, if there is room.
std::size_t copyInto(void* buffer, std::size_t size, const Bytes& datagram) {
    const std::size_t taken = std::min(datagram.size(), size);
    if (taken != 0) memcpy(buffer, datagram.data(), taken);
    memset(static_cast<char*>(buffer) + taken, 0, std::min(size, fuzz::aligned(taken)) - taken);
    return taken;
}

ssize_t deliver(const Bytes& datagram, void* buffer, std::size_t size) {
    return static_cast<ssize_t>(copyInto(buffer, size, datagram));
}

/// Where a socket call says who has sent.
struct From {
    sockaddr* address;
    socklen_t* size;

    void set(Sender sender) const {
        require(address != nullptr && *size >= sizeof(sockaddr_nl), "the sender is asked for");
        sockaddr_nl name{};
        name.nl_family = AF_NETLINK;
        name.nl_pid = sender == Sender::kProcess ? kPortId + 1 : 0;
        memcpy(address, &name, sizeof name);
        *size = sender == Sender::kNobody ? 0 : sizeof name;
    }
};

// Links.

ssize_t deliverLinks(const Bytes& datagram, Sender sender, void* buffer, std::size_t size) {
    const std::size_t taken = copyInto(buffer, size, datagram);
    if (sender != Sender::kKernel) return static_cast<ssize_t>(datagram.size());
    if (taken < datagram.size()) {
        world->list.takeLoss();
    } else {
        const auto* const start = static_cast<const uint8_t*>(buffer);
        world->list.take(fuzz::messagesOf({start, fuzz::aligned(taken)}, taken));
    }
    return static_cast<ssize_t>(datagram.size());
}

int failLinks(int error) {
    if (error == ENOBUFS) world->list.takeLoss();
    if (error == EAGAIN || error == EINTR) world->list.takeNothing();
    return fail(error);
}

Bytes drawLinks(unsigned count) {
    Bytes datagram;
    for (; count > 0; --count) {
        const Bytes message = fuzz::drawLinkMessage(world->input);
        datagram.insert(datagram.end(), message.begin(), message.end());
        if (count > 1) datagram.resize(fuzz::aligned(datagram.size()));
    }
    return datagram;
}

ssize_t receiveLinks(void* buffer, std::size_t size, const From& from) {
    const uint8_t drawn = world->input.byte();
    const uint8_t choice = drawn % 16;
    Sender sender = Sender::kKernel;
    if (drawn / 16 == 15) sender = Sender::kProcess;
    if (drawn / 16 == 14) sender = Sender::kNobody;
    from.set(sender);
    const auto give = [&](const Bytes& datagram) {
        return deliverLinks(datagram, sender, buffer, size);
    };
    const bool isListing = world->list.phase() == LinkListModel::Phase::kListing;
    // Without input every list ends, and nothing else comes.
    if (choice == 0 && isListing) return give(endOfList(false));
    if (choice == 0) return failLinks(EAGAIN);
    if (choice == 1) return failLinks(isListing ? EAGAIN : EINTR);
    if (choice == 2) return failLinks(ENOBUFS);
    if (choice == 3) return failLinks(EBADF);
    if (choice == 4 && isListing) return give(answerOf(world->list.sequence(), -EPERM));
    if (choice == 5 && isListing) return give(endOfList(true));
    Bytes datagram = drawLinks(1 + choice % 4);
    if (choice >= 12 && isListing) {
        datagram.resize(fuzz::aligned(datagram.size()));
        const Bytes end = endOfList(false);
        datagram.insert(datagram.end(), end.begin(), end.end());
    }
    return give(datagram);
}

// The log group.

void addStation(const Kept& kept, Refused& refused) {
    refused.ingress = kept.ingress;
    const auto source = kept.addresses.begin() + 6;
    const bool isKnown =
        std::any_of(source, kept.addresses.end(), [](uint8_t byte) { return byte != 0; });
    if (isKnown) refused.station.assign(source, kept.addresses.end());
}

void addFrame(const Kept& kept, int ingressVlan, Span quote, Refused& refused) {
    refused.isServed = true;
    refused.vlanEgress = world->list.vlans().at(kept.egressVlan).ifindex;
    refused.frame = fuzz::expectedFrame(kept, ingressVlan, refused.vlanEgress, quote);
}

void expectRefused(const Message& message) {
    if (message.mark < 1 || message.mark > 4094) {
        ++world->counted.foreign;
        return;
    }
    const Span quote = fuzz::quotedBy(message.payload);
    const Kept* const kept = world->copies.take(quote);
    const Vlans& vlans = world->list.vlans();
    const int ingressVlan = kept == nullptr ? 0 : fuzz::vlanOf(vlans, kept->ingress);
    Refused refused;
    if (kept != nullptr) addStation(*kept, refused);
    if (ingressVlan != 0 && vlans.contains(kept->egressVlan))
        addFrame(*kept, ingressVlan, quote, refused);
    refused.egress = message.egress;
    refused.answer.assign(message.payload.begin(), message.payload.end());
    world->expected.push_back(std::move(refused));
}

void expect(const Message& message) {
    if (message.sequence) {
        world->counted.lost += *message.sequence - world->nextSequence;
        world->nextSequence = *message.sequence + 1;
    }
    if (message.prefix == "pmtud:refused") return expectRefused(message);
    const int vlan = fuzz::vlanOfPrefix(message.prefix);
    if (vlan == 0 || !world->copies.keep(message, vlan)) ++world->counted.foreign;
}

void expectAll(const uint8_t* datagram, std::size_t size) {
    for (const Span bytes : fuzz::messagesOf({datagram, fuzz::aligned(size)}, size)) {
        if (fuzz::load<uint16_t>(bytes, 4) != fuzz::kLogPacketType) continue;
        if (const auto message = fuzz::expectedMessage(bytes))
            expect(*message);
        else
            ++world->counted.foreign;
    }
}

void drawDatagram(mmsghdr& header) {
    const uint8_t choice = world->input.byte();
    Bytes datagram;
    if (choice >= 0xC0) world->traffic.addRefused(1 + choice % 32, datagram);
    for (int left = choice / 16 % 4; left >= 0; --left) {
        world->traffic.add(world->input, datagram);
        if (left > 0) datagram.resize(fuzz::aligned(datagram.size()));
    }
    msghdr& how = header.msg_hdr;
    auto* const buffer = static_cast<uint8_t*>(how.msg_iov[0].iov_base);
    const std::size_t taken = copyInto(buffer, how.msg_iov[0].iov_len, datagram);
    header.msg_len = static_cast<unsigned>(taken);
    const bool isCut = choice % 16 == 14 || taken < datagram.size();
    how.msg_flags = isCut ? MSG_TRUNC : 0;
    sockaddr_nl sender{};
    sender.nl_family = AF_NETLINK;
    sender.nl_pid = choice % 16 == 15 ? 1 + choice : 0;
    memcpy(how.msg_name, &sender, sizeof sender);
    const bool isNameless = choice % 16 == 13;
    how.msg_namelen = isNameless ? 0 : sizeof sender;
    if (isCut || isNameless || sender.nl_pid != 0)
        ++world->counted.foreign;
    else
        expectAll(buffer, taken);
}

int drawDatagrams(mmsghdr* headers, unsigned room) {
    const uint8_t choice = world->input.byte();
    constexpr std::array<int, 8> kErrors = {EAGAIN, EINTR,  ENOBUFS, EBADF,
                                            EAGAIN, EAGAIN, EAGAIN,  EAGAIN};
    if (choice < 8) {
        if (kErrors[choice] == ENOBUFS) ++world->overruns;
        return fail(kErrors[choice]);
    }
    const unsigned wanted = choice >= 0xF0 ? room : std::min(room, choice % 4U + 1);
    unsigned count = 0;
    for (; count < wanted && !world->input.exhausted(); ++count) drawDatagram(headers[count]);
    return count == 0 ? fail(EAGAIN) : static_cast<int>(count);
}

// What follows a frame, and a message without a copy.

std::string nameOf(uint32_t ifindex) {
    const int vlan = fuzz::vlanOf(world->list.vlans(), ifindex);
    return vlan != 0 ? "bcm0." + std::to_string(vlan) : "interface " + std::to_string(ifindex);
}

// As the daemon sees it, from the kernel's answers.
bool isRefusedStill(const Refused& refused) {
    const Egress& egress = world->egress;
    const bool isVlan = egress.name == nameOf(refused.vlanEgress) || egress.hasAlternativeName;
    if (!isVlan || egress.mtu < 576 || egress.mtu > 16383) return false;
    return refused.frame.bytes.size() > static_cast<std::size_t>(egress.mtu) + 18;
}

bool isSendable(const Refused& refused) { return fuzz::headerOf(refused.answer) != 0; }

void checkGivenBack(const Refused& refused, const Deeds& done) {
    require(world->stage == Stage::kSent, "a withdrawn answer is given back");
    const bool isNear =
        isSendable(refused) && refused.egress == refused.ingress && !refused.station.empty();
    require(done.toStation == (isNear ? 1 : 0), "which answers go to the packet's station");
    const bool isFar = isSendable(refused) && (!isNear || done.sent == 0 || done.byRoute != 0);
    require(done.byRoute == (isFar ? 1 : 0), "which answers go by the routes");
    require(done.sent <= 1, "an answer is given back once");
}

// The dispatcher has gone on to something else.
void settle() {
    if (!world->current) return;
    const Refused refused = std::move(*world->current);
    world->current.reset();
    const Deeds done = std::exchange(world->deeds, Deeds());
    const bool isGivenBack = world->isLost || !refused.isServed;
    require(world->stage != Stage::kHandedOver || !isGivenBack, "the counter is read");
    if (isGivenBack) checkGivenBack(refused, done);
    require(!isGivenBack || !done.answerLeft, "no sender is answered twice");
    AnswersModel& watch = world->watch;
    const bool isNews = world->isLost && isRefusedStill(refused) &&
                        watch.isFirstLost(refused.egress, refused.handedOver);
    require(done.linesOfLoss == (isNews ? 1 : 0), "the first loss is logged");
    const bool isBack = !isGivenBack && watch.leavesAgain(refused.egress, refused.handedOver);
    require(done.linesOfReturn == (isBack ? 1 : 0), "that answers leave is logged");
    const bool isLeft = done.isUnanswered && watch.leavesToKernel(refused.egress, world->now);
    require(done.leftToKernel == (isLeft ? 1 : 0), "when the kernel is left to answer");
    if (done.isRefused) watch.isRefused(refused.egress, world->now);
}

// What the dispatcher gives back to the kernel now.
const Refused& givenBack() {
    if (world->current && world->stage == Stage::kGivingBack) return *world->current;
    settle();
    require(!world->expected.empty() && !world->expected.front().isServed,
            "only what was not answered is given back");
    world->current = std::move(world->expected.front());
    world->expected.pop_front();
    world->stage = Stage::kGivingBack;
    world->isLost = false;
    return *world->current;
}

// The counter was read.
void takeReading(std::optional<uint64_t> reading) {
    if (world->current && world->stage == Stage::kHandedOver) {
        world->isLost = world->watch.isLost(reading);
        world->stage = world->isLost ? Stage::kGivingBack : Stage::kSent;
        return;
    }
    givenBack();
    world->watch.isLost(reading);
    world->stage = Stage::kSent;
    if (world->deeds.sent != 0) return;
    world->deeds.isUnanswered = true;
    ++world->counted.unanswered;
}

void settleAll() {
    settle();
    require(pmtud_linux::lineFate() == LineFate::kWritten, "lines are kept only during a frame");
    require(world->expected.empty(), "every refused packet is handed over or given back");
}

// The counter of the answers.

Bytes counterMessage(uint32_t sequence, uint64_t packets, uint8_t style) {
    Bytes message(fuzz::kMessageHeader + sizeof(nfgenmsg));
    fuzz::store(message, 4, static_cast<uint16_t>(NFNL_SUBSYS_NFTABLES << 8 | NFT_MSG_NEWOBJ));
    fuzz::store(message, 8, sequence);
    fuzz::store(message, 12, kPortId);
    fuzz::addText(message, NFTA_OBJ_TABLE, "pmtud");
    fuzz::addText(message, NFTA_OBJ_NAME, "answers");
    fuzz::addNumber(message, NFTA_OBJ_TYPE, NFT_OBJECT_COUNTER);
    Bytes number;
    for (int shift = 56; shift >= 0; shift -= 8)
        number.push_back(static_cast<uint8_t>(packets >> shift));
    Bytes data;
    fuzz::addAttribute(data, NFTA_COUNTER_BYTES, Bytes(8, 0x99));
    if (style == 3) number.resize(4);
    fuzz::addAttribute(data, NFTA_COUNTER_PACKETS, number);
    if (style != 4) fuzz::addAttribute(message, NLA_F_NESTED | NFTA_OBJ_DATA, data);
    fuzz::store(message, 0, style == 6 ? 0x80000010U : static_cast<uint32_t>(message.size()));
    return message;
}

void requireRequestOfCounter(Span request) {
    require(fuzz::load<uint32_t>(request) == request.size(), "length of the request");
    require(fuzz::load<uint16_t>(request, 4) == (NFNL_SUBSYS_NFTABLES << 8 | NFT_MSG_GETOBJ),
            "the counter is asked for");
    require(fuzz::load<uint16_t>(request, 6) == NLM_F_REQUEST, "and nothing but its value");
    require(request[fuzz::kMessageHeader] == NFPROTO_INET, "family of the table");
    std::string table;
    std::string name;
    uint32_t type = 0;
    fuzz::forEachAttribute(request.subspan(fuzz::kLogHeaders), [&](uint16_t kind, Span payload) {
        if (kind == NFTA_OBJ_TABLE) table = fuzz::textOf(payload);
        if (kind == NFTA_OBJ_NAME) name = fuzz::textOf(payload);
        if (kind == NFTA_OBJ_TYPE) type = fuzz::bigEndian(payload);
        return true;
    });
    require(table == "pmtud" && name == "answers" && type == NFT_OBJECT_COUNTER, "which counter");
}

// As the kernel answers, or in one of the ways that it could fail.
ssize_t askForCounter(Span request) {
    requireRequestOfCounter(request);
    const uint8_t style = std::exchange(world->counterStyle, uint8_t{0});
    if (style == 7 || failsNow()) {
        takeReading(std::nullopt);
        return fail(ENOBUFS);
    }
    const auto sequence = fuzz::load<uint32_t>(request, 8);
    auto& answers = world->counterAnswers;
    if (style == 1) {
        answers.push_back(
            {counterMessage(sequence, world->answersThatLeft + 1, 0), Sender::kProcess});
        answers.push_back({answerOf(sequence, -EPERM), Sender::kNobody});
    }
    if (style == 5) answers.emplace_back();
    if (style == 2)
        answers.push_back({answerOf(sequence, -ENOENT)});
    else
        answers.push_back({counterMessage(sequence, world->answersThatLeft, style)});
    const bool isRead = style < 2;
    takeReading(isRead ? std::optional(world->answersThatLeft) : std::nullopt);
    return static_cast<ssize_t>(request.size());
}

ssize_t receiveCounter(void* buffer, std::size_t size, const From& from) {
    if (world->counterAnswers.empty()) return fail(EAGAIN);
    const auto next = std::move(world->counterAnswers.front());
    world->counterAnswers.pop_front();
    from.set(next.sender);
    return next.datagram ? deliver(*next.datagram, buffer, size) : fail(ENOBUFS);
}

ssize_t receiveAnswerOfGroup(void* buffer, std::size_t size, const From& from) {
    constexpr std::array<int, 8> kErrors = {0, 0, 0, 0, -EPERM, -EBUSY};
    const uint8_t drawn = world->input.byte();
    const uint8_t choice = drawn % 8;
    from.set(drawn >= 0xF0 ? Sender::kProcess : Sender::kKernel);
    if (choice == 7) return fail(ENOBUFS);
    if (choice < 6) return deliver(answerOf(world->groupSequence, kErrors[choice]), buffer, size);
    const uint8_t kind = world->input.byte();
    return deliver(fuzz::Traffic::drawArbitrary(world->input, kind), buffer, size);
}

// The callback.

// The interface may be gone by now, or have another name or MTU.
void drawEgress(const Refused& refused) {
    const uint8_t choice = world->input.byte();
    constexpr std::array<const char*, 4> kNames = {"", "eth0", "bcm0.0", "bcm0.4095"};
    const int vlan = fuzz::vlanOf(world->list.vlans(), refused.vlanEgress);
    world->egress.name = choice % 8 < 4 ? "bcm0." + std::to_string(vlan) : kNames[choice % 8 - 4];
    world->egress.hasAlternativeName = choice % 8 > 4 && choice >= 0x80;
    constexpr std::array<int, 8> kMtus = {576, 576, 1280, 1499, 1500, 575, 16384, 0};
    world->egress.mtu = choice < 0xF0 ? kMtus[choice / 8 % 8] : world->input.number<uint16_t>();
}

int callback(const st_pktd_shm_queue_entry_data_t* record, uint8_t* frame, int size) {
    settle();
    require(!world->expected.empty() && world->expected.front().isServed,
            "only refused packets are handed over, and once");
    Refused refused = std::move(world->expected.front());
    world->expected.pop_front();
    refused.handedOver = world->now;
    const bool isLogged = world->lines.take(world->now);
    if (!isLogged) ++world->counted.unlogged;
    require(pmtud_linux::lineFate() == (isLogged ? LineFate::kKept : LineFate::kIgnored),
            "which frames are logged");
    fuzz::checkFrame(*record, frame, static_cast<std::size_t>(size), refused.frame);
    const uint8_t choice = world->input.byte();
    if (choice == 0xFF) throw Stop();
    if (choice >= 0xC0) world->now += std::chrono::milliseconds(choice >= 0xE0 ? 49 : 1000);
    world->deeds.answerLeft = choice % 4 != 1;
    if (world->deeds.answerLeft)
        ++world->answersThatLeft;
    else
        drawEgress(refused);
    world->current = std::move(refused);
    world->stage = Stage::kHandedOver;
    world->isLost = false;
    constexpr std::array<int, 8> kVerdicts = {7, 7, 7, 8, 9, 1, 0, -1};
    const int verdict = kVerdicts[choice / 4 % 8];
    if (verdict != 7) world->verdicts.insert(verdict > 7 ? verdict : 1);
    return verdict;
}

// Lines.

bool takeNumber(std::string_view line, std::string_view begin, uint64_t& sum) {
    if (!line.starts_with(begin)) return false;
    const std::string digits(line.substr(begin.size()));
    require(!digits.empty() && digits.find_first_not_of("0123456789") == digits.npos, "a count");
    const uint64_t count = std::strtoull(digits.c_str(), nullptr, 10);
    require(count != 0, "what did not happen is not logged");
    if (!world->logIsDown) sum += count;
    return true;
}

bool takeLineOfAnswers(std::string_view line) {
    if (!world->current) return false;
    const std::string name = nameOf(world->current->egress);
    if (line == name + ": the answers leave this router again") {
        ++world->deeds.linesOfReturn;
        return true;
    }
    const std::string loss = name + ": the answers do not leave this router, so the kernel answers";
    if (!line.starts_with(loss)) return false;
    ++world->deeds.linesOfLoss;
    return true;
}

bool takeLineOfCounts(std::string_view line) {
    Counts& sums = world->logged;
    return takeNumber(line, "the receive queue overran, messages lost: ", sums.lost) ||
           takeNumber(line, "refused packets that nobody answered: ", sums.unanswered) ||
           takeNumber(line, "log group 89: messages not from this table, ignored: ", sums.foreign);
}

bool isOfTwoNames(std::string_view line) {
    const Vlans& vlans = world->list.vlans();
    return std::any_of(vlans.begin(), vlans.end(), [&](const auto& one) {
        return line == "bcm0." + std::to_string(one.first) + ": the interface is also named bcm0." +
                           std::to_string(one.second.alsoNamed) +
                           "; only the lower VLAN is served, so remove one of the names";
    });
}

bool takeWarning(std::string_view line) {
    if (isOfTwoNames(line)) return true;
    if (takeLineOfCounts(line)) return true;
    if (line.starts_with("the verdict ")) {
        require(world->linesOfVerdict.emplace(line).second, "a verdict is logged once");
        return true;
    }
    if (line.starts_with("the receive queue overran; ")) {
        require(++world->linesOfOverrun <= world->overruns, "only an overrun is logged as one");
        return true;
    }
    if (line.starts_with("nothing to serve: ")) {
        require(++world->linesOfNothing <= world->timesOfNothing, "what is served is not denied");
        return true;
    }
    return takeLineOfAnswers(line);
}

bool takeInfo(std::string_view line) {
    using namespace std::chrono_literals;
    if (!takeNumber(line, "answered without log lines, frames: ", world->logged.unlogged))
        return false;
    require(!world->lineOfUnlogged || world->now - *world->lineOfUnlogged >= 1s,
            "a line that is to spare lines comes once a second at most");
    world->lineOfUnlogged = world->now;
    return true;
}

std::string firstLine(const std::string& text) { return text.substr(0, text.find('\n')); }

bool takeError(std::string_view line) {
    constexpr std::string_view kUnserved = "nothing is served (";
    if (line.starts_with(kUnserved)) {
        world->problem = std::atoi(std::string(line.substr(kUnserved.size())).c_str());
        ++world->linesOfProblem;
        return !world->isRunning;
    }
    const std::string& refusal = world->rulesContext.refusal;
    const std::string begin = "the rules could not be installed: ";
    if (line.starts_with(begin)) {
        ++world->linesOfProblem;
        const std::string_view why = line.substr(begin.size());
        constexpr std::string_view kLack = "this kernel lacks ";
        if (world->isTaken)
            require(why.starts_with("there is a table inet pmtud already; "), "the name is taken");
        else
            require(world->isLacking ? why.starts_with(kLack) && why.size() > kLack.size()
                                     : why == firstLine(refusal),
                    "why the rules were refused");
        return !world->isRunning;
    }
    if (line == "the rules could not be changed, trying again: " + firstLine(refusal)) {
        require(++world->linesOfRefusal == 1, "of several refusals the first is logged");
        return world->rulesRefused;
    }
    return line == "the kernel could not be left to answer: " + firstLine(refusal);
}

bool takeLine(Priority priority, std::string_view line) {
    switch (priority) {
        case Priority::kError:
            return takeError(line);
        case Priority::kWarning:
            return takeWarning(line);
        case Priority::kInfo:
            return takeInfo(line);
        default:
            return false;
    }
}

// The wait.

// What the rules depend on.
Vlans asRulesSeeIt(const Vlans& vlans) {
    Vlans seen = vlans;
    for (auto& [number, vlan] : seen) {
        if (vlan.mtu < 576 || vlan.mtu > 16383) vlan.mtu = 0;
        vlan.alsoNamed = 0;
    }
    return seen;
}

void checkWait(int timeout) {
    const bool fits = asRulesSeeIt(world->list.vlans()) == asRulesSeeIt(world->installed);
    require(fits || world->rulesRefused, "the rules follow the links");
    if (fits) world->linesOfRefusal = 0;
    require(world->linesOfNothing == world->timesOfNothing, "that nothing is served is logged");
    const bool isIdle = fits && !world->list.isStale() && world->logged == world->counted;
    require(timeout == (isIdle ? -1 : 1000), "the wait ends if there is something to do");
}

void end() {
    require(world->logged == world->counted, "everything that was counted is logged");
    require(world->linesOfVerdict.size() == world->verdicts.size(), "each odd verdict is logged");
    require(world->overruns == 0 || world->linesOfOverrun != 0 || world->counted.lost != 0,
            "an overrun is logged");
}

int happen(uint8_t choice, pollfd* ready) {
    using namespace std::chrono_literals;
    switch (choice % 8) {
        case 4:
            world->now += 1s;
            return 0;
        case 5:
            world->callsUntilFailure = 1 + choice / 8 % 4;
            return 0;
        case 6:
            world->counterStyle = choice / 8 % 8;
            return 0;
        case 7:
            if (choice < 0x40) return fail(EINTR);
            if (choice < 0x80) world->logIsDown = !world->logIsDown;
            if (choice >= 0x80) world->now += choice < 0xC0 ? 29s : 999ms;
            return 0;
        default:
            ready[0].revents = choice % 8 != 2 ? POLLIN : 0;
            ready[1].revents = choice % 8 >= 2 ? POLLIN : 0;
            return 1;
    }
}

// The rules.

// Whether anything is served; that nothing is any more is logged.
void followService(const Vlans& vlans) {
    const bool wasServing = std::exchange(
        world->isServing, std::any_of(vlans.begin(), vlans.end(), [](const auto& one) {
            return one.second.mtu >= 576 && one.second.mtu <= 16383;
        }));
    if (world->isRunning && wasServing && !world->isServing) ++world->timesOfNothing;
}

void change(std::string_view commands) {
    RulesModel changed = world->rules.value_or(RulesModel());
    if (!world->rules) {
        constexpr std::string_view kLast = "\n}\n";
        const std::size_t end = commands.find(kLast);
        require(end != commands.npos, "the table comes first");
        const std::string_view table = commands.substr(0, end + kLast.size());
        require(table.find("meta skuid 0-4294967295 counter name answers accept ") != table.npos,
                "the answers of processes are counted");
        changed.install(table);
        commands.remove_prefix(table.size());
    }
    changed.run(commands);
    changed.requireFitsTo(world->list.vlans());
    if (world->rules) changed.requireKept(*world->rules);
    world->rules = std::move(changed);
    world->installed = world->list.vlans();
    followService(world->installed);
}

int refuse(Context& context) {
    constexpr std::array<const char*, 4> kRefusals = {
        "Error: Could not process rule: Operation not permitted\nadd rule\n^^^^\n",
        "Error: Could not process rule: No such file or directory", "", "Error: syntax error\n"};
    context.refusal = world->input.oneOf(kRefusals);
    return -1;
}

// One of the questions that follow refused rules.
int check(Context& context, std::string_view commands) {
    require(context.isDry && world->rulesRefused && !world->isRunning, "what is only checked");
    require(commands.starts_with("table inet pmtud-check {\n") && commands.ends_with("\n}\n"),
            "a table that is never there");
    require(!world->isLacking, "what is missing is found once");
    world->isLacking = world->input.byte() % 8 == 7;
    return world->isLacking ? refuse(context) : 0;
}

// With the first interfaces.
void start() {
    world->isRunning = true;
    if (!world->isServing) ++world->timesOfNothing;
}

}  // namespace

// In place of std::chrono::steady_clock::now().
std::chrono::steady_clock::time_point scriptedNow() asm(
    "__wrap__ZNSt6chrono3_V212steady_clock3nowEv");

std::chrono::steady_clock::time_point scriptedNow() {
    return std::chrono::steady_clock::time_point(world->now);
}

extern "C" {

int __real_open(const char* path, int flags, mode_t mode);

mnl_socket* __wrap_mnl_socket_open2(int bus, int) {
    if (failsNow()) {
        errno = EMFILE;
        return nullptr;
    }
    Socket& other = world->group.isOpen ? world->answers : world->group;
    Socket& opened = bus == NETLINK_ROUTE ? world->links : other;
    require(!opened.isOpen, "a socket is opened once");
    opened.isOpen = true;
    return reinterpret_cast<mnl_socket*>(&opened);
}

int __wrap_mnl_socket_get_fd(const mnl_socket* socket) {
    return reinterpret_cast<const Socket*>(socket)->fd;
}

unsigned int __wrap_mnl_socket_get_portid(const mnl_socket*) { return kPortId; }

int __wrap_mnl_socket_bind(mnl_socket*, unsigned int, pid_t) { return answerOrFail(); }

int __wrap_mnl_socket_close(mnl_socket* socket) {
    bool& isOpen = reinterpret_cast<Socket*>(socket)->isOpen;
    require(isOpen, "a socket is closed once");
    isOpen = false;
    return 0;
}

ssize_t __wrap_mnl_socket_sendto(const mnl_socket* socket, const void* message, size_t size) {
    const int fd = __wrap_mnl_socket_get_fd(socket);
    if (fd == world->answers.fd) return askForCounter({static_cast<const uint8_t*>(message), size});
    if (answerOrFail() < 0) return -1;
    const uint32_t sequence = static_cast<const nlmsghdr*>(message)->nlmsg_seq;
    if (fd == world->links.fd)
        world->list.request(sequence);
    else
        world->groupSequence = sequence;
    return static_cast<ssize_t>(size);
}

ssize_t __wrap_recvfrom(int fd, void* buffer, size_t size, int flags, sockaddr* address,
                        socklen_t* addressSize) {
    const From from{address, addressSize};
    if (fd == world->links.fd) {
        require(flags == (MSG_DONTWAIT | MSG_TRUNC), "link messages");
        return receiveLinks(buffer, size, from);
    }
    require(flags == 0, "the socket does not wait");
    if (fd == world->answers.fd) return receiveCounter(buffer, size, from);
    require(fd == world->group.fd, "which socket is read");
    return receiveAnswerOfGroup(buffer, size, from);
}

// What a hardened build calls.
ssize_t __wrap___recvfrom_chk(int fd, void* buffer, size_t size, size_t room, int flags,
                              sockaddr* address, socklen_t* addressSize) {
    require(size <= room, "the buffer has room");
    return __wrap_recvfrom(fd, buffer, size, flags, address, addressSize);
}

int __wrap_recvmmsg(int fd, mmsghdr* headers, unsigned room, int flags, timespec*) {
    require(fd == world->group.fd && (flags & MSG_DONTWAIT) != 0, "messages of the group");
    settleAll();
    return drawDatagrams(headers, room);
}

// Without input everything is logged in one last round, and then the wait fails for good.
int __wrap_poll(pollfd* ready, nfds_t count, int timeout) {
    const bool over = world->input.exhausted();
    if (count == 1) {
        if (!over && world->input.byte() % 4 != 3) return 1;
        world->list.timeOut();
        return 0;
    }
    settleAll();
    checkWait(timeout);
    require(ready[0].fd == world->group.fd && ready[1].fd == world->links.fd, "what is awaited");
    if (!over) return happen(world->input.byte(), ready);
    world->logIsDown = false;
    world->now += std::chrono::seconds(1);
    if (!std::exchange(world->isEnding, true)) return 0;
    end();
    return fail(EBADF);
}

int __wrap___poll_chk(pollfd* ready, nfds_t count, int timeout, size_t room) {
    require(count * sizeof(pollfd) <= room, "the array has room");
    return __wrap_poll(ready, count, timeout);
}

int __wrap_setsockopt(int fd, int level, int name, const void* value, socklen_t size) {
    if (fd != kRawSocket6) return answerOrFail();
    require(level == IPPROTO_IPV6 && name == IPV6_UNICAST_IF && size == sizeof(uint32_t),
            "the interface of an answer is set");
    require(fuzz::bigEndian({static_cast<const uint8_t*>(value), size}) == givenBack().egress,
            "an answer leaves where it was to leave");
    if (!failsNow()) return 0;
    ++world->deeds.byRoute;
    return fail(ENOBUFS);
}

int __wrap_socket(int family, int type, int protocol) {
    const bool isPackets = family == AF_PACKET;
    const int fd = isPackets ? kPacketSocket : family == AF_INET ? kRawSocket4 : kRawSocket6;
    require(isPackets ? protocol == 0 : protocol == IPPROTO_RAW, "the socket only sends");
    require((type & SOCK_CLOEXEC) != 0, "no other program inherits it");
    givenBack();
    require(!world->descriptors.contains(fd), "it is opened when it is needed");
    if (failsNow()) {
        ++(isPackets ? world->deeds.toStation : world->deeds.byRoute);
        return fail(EPERM);
    }
    world->descriptors.insert(fd);
    return fd;
}

ssize_t __wrap_sendto(int fd, const void* bytes, size_t size, int flags, const sockaddr* address,
                      socklen_t) {
    const Refused& refused = givenBack();
    require(world->descriptors.contains(fd), "which socket sends");
    require(fuzz::same({static_cast<const uint8_t*>(bytes), size}, refused.answer),
            "the kernel's own answer is sent");
    require((flags & MSG_DONTWAIT) != 0, "nothing waits");
    const bool isIpv4 = refused.answer[0] / 16 == 4;
    if (fd == kPacketSocket) {
        ++world->deeds.toStation;
        sockaddr_ll to;
        memcpy(&to, address, sizeof to);
        require(to.sll_family == AF_PACKET && to.sll_halen == 6, "a station is addressed");
        require(static_cast<uint32_t>(to.sll_ifindex) == refused.ingress,
                "the packet's own interface");
        require(fuzz::same({to.sll_addr, 6}, refused.station), "the station the packet came from");
        require(ntohs(to.sll_protocol) == (isIpv4 ? 0x0800 : 0x86DD), "EtherType");
    } else if (isIpv4) {
        ++world->deeds.byRoute;
        sockaddr_in to;
        memcpy(&to, address, sizeof to);
        require(fd == kRawSocket4 && to.sin_family == AF_INET, "IPv4 goes by an IPv4 socket");
        require(memcmp(&to.sin_addr, &refused.answer[16], 4) == 0, "the answer's own receiver");
    } else {
        ++world->deeds.byRoute;
        sockaddr_in6 to;
        memcpy(&to, address, sizeof to);
        require(fd == kRawSocket6 && to.sin6_family == AF_INET6, "IPv6 goes by an IPv6 socket");
        require(memcmp(&to.sin6_addr, &refused.answer[24], 16) == 0, "the answer's own receiver");
    }
    if (failsNow()) return fail(ENOBUFS);
    ++world->deeds.sent;
    // What goes by the routes passes the rules, which count it.
    if (fd != kPacketSocket) ++world->answersThatLeft;
    return static_cast<ssize_t>(size);
}

int __wrap_ioctl(int, unsigned long request, void* argument) {
    require(world->current && world->isLost, "the interface is asked about after a loss");
    auto& answer = *static_cast<ifreq*>(argument);
    const Egress& egress = world->egress;
    if (request == SIOCGIFNAME) {
        require(static_cast<uint32_t>(answer.ifr_ifindex) == world->current->vlanEgress,
                "which interface");
        if (egress.name.empty()) return fail(ENODEV);
        memset(answer.ifr_name, 0, sizeof answer.ifr_name);
        egress.name.copy(answer.ifr_name, sizeof answer.ifr_name - 1);
        return 0;
    }
    if (request == SIOCGIFINDEX) {
        require(answer.ifr_name == nameOf(world->current->vlanEgress), "which VLAN");
        if (!egress.hasAlternativeName) return fail(ENODEV);
        answer.ifr_ifindex = static_cast<int>(world->current->vlanEgress);
        return 0;
    }
    require(request == SIOCGIFMTU && answer.ifr_name == nameOf(world->current->vlanEgress),
            "the MTU of the VLAN");
    if (egress.mtu == 0) return fail(ENODEV);
    answer.ifr_mtu = egress.mtu;
    return 0;
}

// What keeps a low descriptor free while the group is opened; the rest are the fuzzer's own.
int __wrap_open(const char* path, int flags, mode_t mode) {
    if (std::string_view(path) != "/dev/null") return __real_open(path, flags, mode);
    if (world->input.byte() % 8 == 7) return fail(EMFILE);
    require(!world->group.isOpen && world->descriptors.insert(kPlaceholder).second,
            "the placeholder is older than the group");
    return kPlaceholder;
}

int __wrap_close(int fd) {
    require(world != nullptr && world->descriptors.erase(fd) == 1, "what is closed was open");
    return 0;
}

nft_ctx* __wrap_nft_ctx_new(uint32_t) {
    require(world->group.isOpen && !world->descriptors.contains(kPlaceholder),
            "the rules take the placeholder's descriptor");
    if (failsNow()) return nullptr;
    Context& opened = world->rulesContext.isOpen ? world->checkContext : world->rulesContext;
    require(!opened.isOpen, "there is one connection to nftables, and one to check");
    opened = {};
    opened.isOpen = true;
    return reinterpret_cast<nft_ctx*>(&opened);
}

// The table goes with the connection that owns it.
void __wrap_nft_ctx_free(nft_ctx* context) {
    auto& closed = *reinterpret_cast<Context*>(context);
    require(closed.isOpen, "a connection to nftables is closed once");
    closed.isOpen = false;
    if (&closed == &world->rulesContext) world->rules.reset();
}

void __wrap_nft_ctx_set_dry_run(nft_ctx* context, bool isDry) {
    reinterpret_cast<Context*>(context)->isDry = isDry;
}

int __wrap_nft_ctx_buffer_output(nft_ctx*) { return answerOrFail(); }

int __wrap_nft_ctx_buffer_error(nft_ctx*) { return answerOrFail(); }

int __wrap_nft_run_cmd_from_buffer(nft_ctx* to, const char* commands) {
    auto& context = *reinterpret_cast<Context*>(to);
    require(context.isOpen, "rules go to an open connection");
    require(commands[0] != '\0', "no change without commands");
    require(world->group.isOpen, "no rules without a group");
    if (&context == &world->checkContext) return check(context, commands);
    require(!context.isDry, "rules are not only checked");
    const std::string_view leave = "add element inet pmtud left-to-kernel { ";
    if (std::string_view(commands).starts_with(leave)) {
        require(world->current.has_value(), "the kernel is left to answer after a packet");
        std::array<char, 96> expected{};
        snprintf(expected.data(), expected.size(),
                 "add element inet pmtud left-to-kernel { \"%016u\" timeout 30s }\n",
                 world->current->egress);
        require(std::string_view(commands) == expected.data(), "which interface, and how long");
        ++world->deeds.leftToKernel;
        world->deeds.isRefused = failsNow();
        return world->deeds.isRefused ? refuse(context) : 0;
    }
    if (std::string_view(commands) == "list table inet pmtud\n") {
        require(world->rulesRefused && !world->isRunning, "what is there is asked after a refusal");
        world->isTaken = world->input.byte() % 8 == 7;
        return world->isTaken ? 0 : -1;
    }
    world->rulesRefused = failsNow();
    if (world->rulesRefused) return refuse(context);
    change(commands);
    world->linesOfRefusal = 0;
    return 0;
}

const char* __wrap_nft_ctx_get_error_buffer(nft_ctx* context) {
    return reinterpret_cast<const Context*>(context)->refusal.c_str();
}

}  // extern "C"

// In place of pmtud_linux::say().
bool scriptedSay(Priority priority, const std::string& line) asm(
    "__wrap__ZN11pmtud_linux3sayENS_8PriorityERKNSt7__cxx1112basic_stringIcSt11char_"
    "traitsIcESaIcEEE");

bool scriptedSay(Priority priority, const std::string& line) {
    require(line.find('\n') == line.npos, "a line is one line");
    require(takeLine(priority, line), "every line is known, with its priority, and in its place");
    return !world->logIsDown;
}

extern "C" int LLVMFuzzerTestOneInput(const uint8_t* data, size_t size) {
    World made{Input(data, size)};
    world = &made;
    made.callsUntilFailure = made.input.byte() % 64;
    {
        const auto dispatcher = std::make_unique<pmtud_linux::Dispatcher>();
        const int attached = dispatcher->attach();
        require(attached <= 0, "attaching answers 0 or a negative error");
        require(made.linesOfProblem == (attached == 0 ? 0 : 1), "a start that failed is explained");
        require(made.problem == 0 || made.problem == attached, "the error is named");
        if (attached == 0) {
            start();
            try {
                dispatcher->run(callback);
            } catch (const std::system_error&) {
            } catch (const Stop&) {
            }
            require(made.group.isOpen && made.rules, "group and rules are there while it runs");
            dispatcher->detach();
        }
        require(!made.group.isOpen && !made.rulesContext.isOpen && !made.rules,
                "group and rules are given up");
        require(!made.checkContext.isOpen, "nothing is left of a check");
    }
    require(!made.links.isOpen && !made.answers.isOpen && made.descriptors.empty(),
            "every socket is closed");
    world = nullptr;
    return 0;
}
