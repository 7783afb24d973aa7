// SPDX-License-Identifier: MIT
// A socket such as the system log's, which the test reads.
#include "log_daemon.h"

#include <sys/socket.h>
#include <sys/un.h>
#include <unistd.h>

#include <cerrno>
#include <cstring>
#include <regex>
#include <system_error>

#include "world.h"

DatagramSocket::DatagramSocket(const char* path)
    : m_path(path), m_socket(socket(AF_UNIX, SOCK_DGRAM | SOCK_CLOEXEC, 0)) {
    sockaddr_un address{};
    address.sun_family = AF_UNIX;
    std::strcpy(address.sun_path, path);
    if (bind(m_socket.get(), reinterpret_cast<const sockaddr*>(&address), sizeof address) != 0)
        throw std::system_error(errno, std::generic_category(), path);
}

DatagramSocket::~DatagramSocket() { unlink(m_path); }

std::string DatagramSocket::next() {
    awaitReadable(m_socket.get(), m_path);
    return *poll();
}

std::optional<std::string> DatagramSocket::poll() {
    std::string line(65536, '\0');
    const ssize_t length = recv(m_socket.get(), line.data(), line.size(), MSG_DONTWAIT);
    if (length < 0) return std::nullopt;
    line.resize(static_cast<size_t>(length));
    return line;
}

std::string lineOf(const std::string& datagram) {
    static const std::regex start(
        "<(27|28|30|31)>(Jan|Feb|Mar|Apr|May|Jun|Jul|Aug|Sep|Oct|Nov|Dec) [ 123][0-9] "
        "[0-2][0-9]:[0-5][0-9]:[0-6][0-9] linux_(kernel|parts)_test\\[[0-9]+\\]: ");
    std::smatch match;
    if (!std::regex_search(datagram, match, start, std::regex_constants::match_continuous))
        return datagram;
    return match.suffix();
}

std::string priorityOf(const std::string& datagram) {
    return datagram.substr(0, datagram.find('>') + 1);
}
