// SPDX-License-Identifier: MIT
// A connection to nftables through libnftables; what it installs disappears when it closes.
#ifndef PMTUD_LINUX_NFT_CONNECTION_H
#define PMTUD_LINUX_NFT_CONNECTION_H

#include <nftables/libnftables.h>

#include <memory>
#include <string>
#include <string_view>

namespace pmtud_linux {

/// The errno value in libnftables' message about a failure, whose first line ends with the error's
/// text. EINVAL if it does not: then libnftables itself refused the commands.
int errorOfMessage(std::string_view message);

/// Tables with `flags owner` belong to the connection: the kernel removes them when it closes, that
/// is, when this object is destroyed or the process ends.
class NftConnection {
 public:
    /// 0 or a negative errno value.
    int open();

    void close() { m_context.reset(); }

    /// Runs the commands as one transaction, all or nothing. 0 or a negative errno value.
    int run(const std::string& commands);

    /// The same, but the kernel only checks whether it would execute the commands.
    int check(const std::string& commands);

    /// libnftables' message about the last failure, in one line.
    const std::string& problem() const { return m_problem; }

 private:
    struct Free {
        void operator()(nft_ctx* context) const { nft_ctx_free(context); }
    };

    std::unique_ptr<nft_ctx, Free> m_context;
    std::string m_problem;
};

}  // namespace pmtud_linux

#endif
