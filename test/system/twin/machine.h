// SPDX-License-Identifier: MIT
// Private mount and network namespaces, and commands that run in them.
#ifndef PMTUD_TWIN_MACHINE_H
#define PMTUD_TWIN_MACHINE_H

#include <functional>
#include <string>

#include "descriptor.h"

namespace twin {

/// Moves the process into private mount and network namespaces, with an empty /run and a /dev
/// without the machine's sockets. Throws std::system_error if that is not allowed.
void isolate();

/// A network namespace that `ip` knows by its name; it ends with the object.
class Namespace {
 public:
    explicit Namespace(std::string name);
    ~Namespace();
    Namespace(const Namespace&) = delete;
    Namespace& operator=(const Namespace&) = delete;

    const std::string& name() const { return m_name; }

    /// Runs `action` in the namespace and comes back.
    void run(const std::function<void()>& action) const;

    // Each throws std::runtime_error with what the command printed if it fails.
    /// What the command printed.
    std::string shell(const std::string& command) const;
    void ip(const std::string& batch) const;
    void nft(const std::string& rules) const;

    /// The name is below /proc/sys/net, with slashes.
    void sysctl(const std::string& name, const std::string& value) const;

    /// Waits until every interface that is up takes packets.
    void awaitLinks() const;

 private:
    std::string m_name;
    pmtud_linux::Descriptor m_descriptor;
};

/// Whether the command succeeds, in the namespace that the process is in.
bool succeeds(const std::string& command);

}  // namespace twin

#endif
