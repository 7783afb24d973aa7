// SPDX-License-Identifier: MIT
// A connection to nftables through libnftables: what it installs is gone when it closes.
#ifndef PMTUD_LINUX_NFT_CONNECTION_H
#define PMTUD_LINUX_NFT_CONNECTION_H

#include <nftables/libnftables.h>

#include <memory>
#include <string>
#include <string_view>

namespace pmtud_linux {

/// The errno value of what libnftables wrote about a failure: that of the first line's
/// last words, or EINVAL where they name none (libnftables refused the commands itself).
int errorOfMessage(std::string_view message);

/// Tables with `flags owner` belong to the connection: the kernel removes them when it
/// closes, that is with this object or with the process.
class NftConnection {
 public:
    /// 0 or a negative errno value.
    int open();

    void close() { m_context.reset(); }

    /// Runs the commands as one transaction, all or nothing.  0 or a negative errno value.
    int run(const std::string& commands);

    /// The same, except that the kernel only checks whether it would carry them out.
    int check(const std::string& commands);

    /// What libnftables said about the last failure, in one line.
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
