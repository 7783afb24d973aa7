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

    /// Handles the frame of `len` bytes that begins at `frame`. True: handled; the current post
    /// action applies. False: discard the frame.
    virtual bool handleFrame(uint8_t& frame, size_t len) = 0;
};

/// A handler that calls a member function of an object. It does not own the object.
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
