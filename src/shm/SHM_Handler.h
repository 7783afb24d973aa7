// SPDX-License-Identifier: MIT
// The interface through which received frames reach the application.
#ifndef PMTUD_SHM_HANDLER_H
#define PMTUD_SHM_HANDLER_H

#include <cstddef>
#include <cstdint>

class SHM_Handler {
 public:
    SHM_Handler() = default;
    SHM_Handler(const SHM_Handler&) = delete;
    SHM_Handler& operator=(const SHM_Handler&) = delete;
    virtual ~SHM_Handler() = default;

    /// Handles the frame that begins at `frame` and is `len` bytes long.  True: handled, the
    /// post action that is set applies.  False: the frame is to be discarded.
    virtual bool handleFrame(uint8_t& frame, size_t len) = 0;
};

/// Makes a handler of an object, which it does not own, and one of its member functions.
template <typename T>
class SHM_HandlerImpl : public SHM_Handler {
 public:
    using Handler = bool (T::*)(uint8_t&, size_t);

    SHM_HandlerImpl(T* object, Handler handler) : m_object(object), m_handler(handler) {}

    bool handleFrame(uint8_t& frame, size_t len) override {
        return (m_object->*m_handler)(frame, len);
    }

 private:
    T* m_object;
    Handler m_handler;
};

#endif
