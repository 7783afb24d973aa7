// SPDX-License-Identifier: MIT
// What runs on the twins' machine: network namespaces, the daemon, and what it logs.
#ifndef PMTUD_TWIN_MACHINE_H
#define PMTUD_TWIN_MACHINE_H

#include <sys/types.h>

#include <functional>
#include <string>
#include <vector>

#include "descriptor.h"

namespace twin {

constexpr int kPatience = 20000;  ///< milliseconds to wait for anything

/// A network namespace that `ip` knows by its name; it ends with the object.
class Namespace {
 public:
    explicit Namespace(std::string name);
    ~Namespace();
    Namespace(const Namespace&) = delete;
    Namespace& operator=(const Namespace&) = delete;

    const std::string& name() const { return m_name; }

    /// Runs `action` in the namespace, then returns to the previous one.
    void run(const std::function<void()>& action) const;

    /// What the command printed; throws std::runtime_error with it if the command fails.
    std::string shell(const std::string& command) const;
    void ip(const std::string& batch) const;
    void nft(const std::string& rules) const;

    /// Waits until every interface that is up takes packets.
    void awaitLinks() const;

 private:
    std::string m_name;
};

/// A datagram socket in the file system, which collects what is sent to it.
class Mailbox {
 public:
    explicit Mailbox(std::string path);
    ~Mailbox();
    Mailbox(const Mailbox&) = delete;
    Mailbox& operator=(const Mailbox&) = delete;

    /// The messages since the last call.
    std::vector<std::string> take() const;

    /// Discards messages until this one arrives.
    void await(const std::string& message) const;

 private:
    std::string m_path;
    pmtud_linux::Descriptor m_socket;
};

/// Runs as long as this object exists. Its rules are installed when the constructor returns.
class Daemon {
 public:
    Daemon(const std::string& program, const Namespace& router, int processor);
    ~Daemon();
    Daemon(const Daemon&) = delete;
    Daemon& operator=(const Daemon&) = delete;

    bool isRunning() const;

 private:
    pid_t m_pid = -1;
};

}  // namespace twin

#endif
