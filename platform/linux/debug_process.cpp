// SPDX-License-Identifier: MIT
// The debug process: writes lines to the system log at debug priority.
#include <array>
#include <cerrno>
#include <cstdarg>
#include <cstdio>

#include "frame_lines.h"
#include "seam.h"
#include "system_log.h"

using pmtud_linux::LineFate;
using pmtud_linux::Priority;
using pmtud_linux::SystemLog;

int debug_process(uint32_t channel, const char* format, ...) {
    if (format == nullptr) return -EINVAL;
    const LineFate fate = pmtud_linux::lineFate();
    if (fate == LineFate::kIgnored) return 0;

    constexpr size_t kMaximumText = 1024;
    std::array<char, kMaximumText + 1> text;
    std::va_list arguments;
    va_start(arguments, format);
    const int length = std::vsnprintf(text.data(), text.size(), format, arguments);
    va_end(arguments);
    if (length < 0) {
        SystemLog::instance().lose();
        return -EINVAL;
    }
    if (fate == LineFate::kKept) return SystemLog::instance().keep(channel, text.data());
    return SystemLog::instance().write(Priority::kDebug, channel, text.data());
}
