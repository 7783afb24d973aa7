// SPDX-License-Identifier: MIT
// Tests of the binding of a frame handler to an object and its member function.
#include <memory>
#include <stdexcept>
#include <type_traits>

#include "shm_test.h"

namespace {

using shm_test::Bytes;
using shm_test::taggedFrame;

class Application {
 public:
    virtual ~Application() { ++destroyed; }

    bool accept(uint8_t& frame, size_t len) {
        seenFrame = &frame;
        seenLength = len;
        ++calls;
        return true;
    }
    bool refuse(uint8_t&, size_t) {
        ++calls;
        return false;
    }
    bool fail(uint8_t&, size_t) { throw std::runtime_error("from the bound function"); }
    bool overwrite(uint8_t& frame, size_t) {
        frame = 0xA5;
        return true;
    }
    virtual bool isDerived(uint8_t&, size_t) { return false; }

    static inline int destroyed = 0;
    uint8_t* seenFrame = nullptr;
    size_t seenLength = 0;
    int calls = 0;
};

class DerivedApplication : public Application {
 public:
    bool isDerived(uint8_t&, size_t) override { return true; }
};

using Binding = SHM_HandlerImpl<Application>;

TEST(SHM_HandlerTest, IsAnInterface) {
    EXPECT_TRUE(std::is_abstract_v<SHM_Handler>);
    EXPECT_TRUE(std::has_virtual_destructor_v<SHM_Handler>);
}

TEST(SHM_HandlerTest, HoldsNothing) { EXPECT_EQ(sizeof(SHM_Handler), sizeof(void*)); }

TEST(SHM_HandlerImplTest, HoldsTheObjectAndTheFunctionAndNothingElse) {
    EXPECT_EQ(sizeof(Binding), sizeof(SHM_Handler) + sizeof(void*) + sizeof(Binding::Handler));
}

TEST(SHM_HandlerTest, IsThePublicBaseOfABinding) {
    EXPECT_TRUE((std::is_convertible_v<Binding*, SHM_Handler*>));
}

TEST(SHM_HandlerTest, TakesNonConstBytesByReferenceAndALength) {
    using HandleFrame = bool (SHM_Handler::*)(uint8_t&, size_t);
    EXPECT_TRUE((std::is_same_v<decltype(&SHM_Handler::handleFrame), HandleFrame>));
}

// By the Itanium C++ ABI a virtual destructor takes two slots, and a pointer to a virtual
// function is 1 plus the slot's offset in bytes.
TEST(SHM_HandlerTest, HandleFrameFollowsTheDestructorInTheVirtualTable) {
    const auto function = &SHM_Handler::handleFrame;
    std::ptrdiff_t offset = 0;
    memcpy(&offset, &function, sizeof offset);
    EXPECT_EQ(offset, static_cast<std::ptrdiff_t>(2 * sizeof(void*) + 1));
}

TEST(SHM_HandlerImplTest, HandsOnTheFramesFirstByteAndTheLength) {
    Application application;
    Binding binding(&application, &Application::accept);
    Bytes frame = taggedFrame();
    binding.handleFrame(frame[0], 22);
    EXPECT_EQ(application.seenFrame, frame.data());
    EXPECT_EQ(application.seenLength, 22U);
}

TEST(SHM_HandlerImplTest, DoesNotTestTheLength) {
    Application application;
    Binding binding(&application, &Application::accept);
    uint8_t byte = 0;
    EXPECT_TRUE(binding.handleFrame(byte, 0));
    EXPECT_EQ(application.calls, 1);
    EXPECT_EQ(application.seenLength, 0U);
}

TEST(SHM_HandlerImplTest, LetsTheBoundFunctionWriteToTheFrame) {
    Application application;
    Binding binding(&application, &Application::overwrite);
    Bytes frame = taggedFrame();
    binding.handleFrame(frame[0], frame.size());
    EXPECT_EQ(frame[0], 0xA5);
}

TEST(SHM_HandlerImplTest, ReturnsTrueWhereTheBoundFunctionDoes) {
    Application application;
    Binding binding(&application, &Application::accept);
    uint8_t byte = 0;
    EXPECT_TRUE(binding.handleFrame(byte, 1));
}

TEST(SHM_HandlerImplTest, ReturnsFalseWhereTheBoundFunctionDoes) {
    Application application;
    Binding binding(&application, &Application::refuse);
    uint8_t byte = 0;
    EXPECT_FALSE(binding.handleFrame(byte, 1));
}

TEST(SHM_HandlerImplTest, CallsTheBoundFunctionOnceForEachFrame) {
    Application application;
    Binding binding(&application, &Application::accept);
    uint8_t byte = 0;
    binding.handleFrame(byte, 1);
    EXPECT_EQ(application.calls, 1);
    binding.handleFrame(byte, 1);
    EXPECT_EQ(application.calls, 2);
}

TEST(SHM_HandlerImplTest, CallsTheObjectThatItWasGiven) {
    Application first;
    Application second;
    Binding binding(&second, &Application::accept);
    uint8_t byte = 0;
    binding.handleFrame(byte, 1);
    EXPECT_EQ(first.calls, 0);
    EXPECT_EQ(second.calls, 1);
}

TEST(SHM_HandlerImplTest, DispatchesAVirtualFunctionThroughTheObject) {
    DerivedApplication application;
    Binding binding(&application, &Application::isDerived);
    uint8_t byte = 0;
    EXPECT_TRUE(binding.handleFrame(byte, 1));
}

TEST(SHM_HandlerImplTest, LetsAnExceptionOfTheBoundFunctionPass) {
    Application application;
    Binding binding(&application, &Application::fail);
    uint8_t byte = 0;
    EXPECT_THROW(binding.handleFrame(byte, 1), std::runtime_error);
}

TEST(SHM_HandlerImplTest, LeavesTheObjectUntouchedWhenDestroyed) {
    Application application;
    Application::destroyed = 0;
    std::unique_ptr<SHM_Handler> binding =
        std::make_unique<Binding>(&application, &Application::accept);
    binding.reset();
    EXPECT_EQ(Application::destroyed, 0);
    EXPECT_EQ(application.calls, 0);
    EXPECT_EQ(application.seenFrame, nullptr);
}

TEST(SHM_HandlerImplTest, BoundToARefusingFunctionHasEveryFrameDiscarded) {
    Application application;
    Binding binding(&application, &Application::refuse);
    SHM_Wrapper_App adapter;
    adapter.setHandler(&binding);
    adapter.setPostAction(SHM_Wrapper::eAccept);
    Bytes frame = taggedFrame();
    EXPECT_EQ(adapter.handleFrame(frame.data(), frame.size()), 7);
    EXPECT_EQ(adapter.handleFrame(frame.data(), frame.size()), 7);
    EXPECT_EQ(adapter.handleFrame(frame.data(), frame.size()), 7);
    EXPECT_EQ(application.calls, 3);
}

TEST(SHM_HandlerImplTest, BoundToAnAcceptingFunctionHasThePostActionApplied) {
    Application application;
    Binding binding(&application, &Application::accept);
    SHM_Wrapper_App adapter;
    adapter.setHandler(&binding);
    adapter.setPostAction(SHM_Wrapper::eAccept);
    Bytes frame = taggedFrame();
    EXPECT_EQ(adapter.handleFrame(frame.data(), frame.size()), 8);
}

class MortalHandler : public SHM_Handler {
 public:
    explicit MortalHandler(bool* destroyed) : m_destroyed(destroyed) {}
    ~MortalHandler() override { *m_destroyed = true; }
    bool handleFrame(uint8_t&, size_t) override { return true; }

 private:
    bool* m_destroyed;
};

TEST(SHM_HandlerTest, IsNotDeletedByTheAdapterThatBorrowsIt) {
    bool destroyed = false;
    auto handler = std::make_unique<MortalHandler>(&destroyed);
    {
        SHM_Wrapper_App adapter;
        adapter.setHandler(handler.get());
        adapter.setHandler(nullptr);
        adapter.setHandler(handler.get());
    }
    EXPECT_FALSE(destroyed);
}

TEST(SHM_HandlerTest, IsDestroyedThroughItsBase) {
    bool destroyed = false;
    std::unique_ptr<SHM_Handler> handler = std::make_unique<MortalHandler>(&destroyed);
    handler.reset();
    EXPECT_TRUE(destroyed);
}

}  // namespace
