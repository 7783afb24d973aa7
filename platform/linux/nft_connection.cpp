// SPDX-License-Identifier: MIT
// A connection to nftables through libnftables; what it installs disappears when it closes.
#include "nft_connection.h"

#include <malloc.h>

#include <cerrno>
#include <cstring>

namespace pmtud_linux {

namespace {

// With all VLANs, the library temporarily uses some 100 MB, which malloc would keep. A little is
// kept because the next change needs it again.
void trimHeap() {
    constexpr size_t kKept = size_t{16} << 20;
    if (mallinfo2().fordblks > kKept) malloc_trim(0);
}

}  // namespace

// libnftables reports the kernel's answer only as text: errno is overwritten before it returns.
int errorOfMessage(std::string_view message) {
    constexpr int kLastError = 133;
    const std::string_view line = message.substr(0, message.find('\n'));
    for (int error = 1; error <= kLastError; ++error) {
        const char* const words = strerrordesc_np(error);
        if (words != nullptr && line.ends_with(std::string(": ") + words)) return error;
    }
    return EINVAL;
}

int NftConnection::open() {
    m_context.reset(nft_ctx_new(NFT_CTX_DEFAULT));
    if (!m_context) return -ENOMEM;
    // The library must not write to the daemon's standard output and error.
    if (nft_ctx_buffer_output(m_context.get()) != 0 || nft_ctx_buffer_error(m_context.get()) != 0)
        return -ENOMEM;
    return 0;
}

int NftConnection::run(const std::string& commands) {
    const int result = nft_run_cmd_from_buffer(m_context.get(), commands.c_str());
    trimHeap();
    if (result == 0) return 0;
    const std::string_view message = nft_ctx_get_error_buffer(m_context.get());
    m_problem = message.substr(0, message.find('\n'));
    return -errorOfMessage(message);
}

int NftConnection::check(const std::string& commands) {
    nft_ctx_set_dry_run(m_context.get(), true);
    const int result = run(commands);
    nft_ctx_set_dry_run(m_context.get(), false);
    return result;
}

}  // namespace pmtud_linux
