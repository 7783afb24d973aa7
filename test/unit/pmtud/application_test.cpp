// SPDX-License-Identifier: MIT
// Tests of the application object: its fields, its construction, its run and its destruction.
#include <gmock/gmock.h>

#include <algorithm>
#include <memory>
#include <new>
#include <tuple>
#include <type_traits>

#include "allocations.h"
#include "engine_test.h"

/// The application's fields.
struct PMTUDAppFields {
    static auto& cfg(PMTUDApp& app) { return app.m_cfg; }
    static auto& shm(PMTUDApp& app) { return app.m_shm; }
    static auto& handler(PMTUDApp& app) { return app.m_handler; }
    static auto& spare(PMTUDApp& app) { return app.m_spare; }
    static auto& fd(PMTUDApp& app) { return app.m_fd; }
    static auto& logId(PMTUDApp& app) { return app.m_logId; }
    static auto& logName(PMTUDApp& app) { return app.m_logName; }
};

namespace engine_test {
namespace {

using Fields = PMTUDAppFields;

static_assert(!std::is_polymorphic_v<PMTUDApp>, "no base class, no virtual operations");
static_assert(std::is_same_v<decltype(Fields::cfg(std::declval<PMTUDApp&>())), VlanConfig*&>);
static_assert(std::is_same_v<decltype(Fields::shm(std::declval<PMTUDApp&>())), SHM_Wrapper*&>);
static_assert(std::is_same_v<decltype(Fields::handler(std::declval<PMTUDApp&>())), SHM_Handler*&>);
static_assert(std::is_same_v<decltype(Fields::fd(std::declval<PMTUDApp&>())), int32_t&>);
static_assert(std::is_same_v<decltype(Fields::logId(std::declval<PMTUDApp&>())), uint32_t&>);
static_assert(std::is_same_v<decltype(Fields::logName(std::declval<PMTUDApp&>())), std::string&>);
static_assert(sizeof(Fields::spare(std::declval<PMTUDApp&>())) == 12);

/// An adapter whose init returns what the test sets.
class ScriptedAdapter : public SHM_Wrapper {
 public:
    bool init() override {
        ++inits;
        return onInit();
    }
    int queueActionCode(eActions action) override { return 1000 + action; }

    std::function<bool()> onInit = [] { return true; };
    int inits = 0;
};

/// Answers true and counts.
class OtherHandler : public SHM_Handler {
 public:
    explicit OtherHandler(int* destroyed = nullptr) : m_destroyed(destroyed) {}
    ~OtherHandler() override {
        if (m_destroyed != nullptr) ++*m_destroyed;
    }
    bool handleFrame(uint8_t&, size_t) override {
        ++calls;
        return true;
    }
    int calls = 0;

 private:
    int* m_destroyed;
};

class ApplicationTest : public daemon_test::FakesTest {
 protected:
    int deliver() {
        Bytes frame = ipv4Frame();
        return adapter.handleFrame(frame.data(), frame.size());
    }

    VlanConfig cfg;
    ScriptedAdapter adapter;
};

TEST_F(ApplicationTest, SetsEachFieldInStorageOfZerosAndOfOtherBytes) {
    for (const uint8_t filling : Bytes{0x00, 0xAA}) {
        alignas(PMTUDApp) std::array<uint8_t, sizeof(PMTUDApp)> storage;
        storage.fill(filling);
        auto* const app = new (storage.data()) PMTUDApp(&cfg, &adapter);
        EXPECT_EQ(Fields::cfg(*app), &cfg);
        EXPECT_EQ(Fields::shm(*app), &adapter);
        EXPECT_THAT(Fields::spare(*app), testing::Each(0xFF));
        EXPECT_EQ(Fields::fd(*app), -1);
        EXPECT_EQ(Fields::logId(*app), 89U);
        EXPECT_EQ(Fields::logName(*app), "PMTUD-Prot");
        app->~PMTUDApp();
    }
}

TEST_F(ApplicationTest, HasItsFieldsInTheirOrder) {
    PMTUDApp app(&cfg, &adapter);
    const std::array<const void*, 7> places = {
        &Fields::cfg(app), &Fields::shm(app),   &Fields::handler(app), &Fields::spare(app),
        &Fields::fd(app),  &Fields::logId(app), &Fields::logName(app)};
    EXPECT_TRUE(std::is_sorted(places.begin(), places.end(), std::less<>()));
    EXPECT_EQ(places.front(), &app);
}

TEST_F(ApplicationTest, RegistersAHandlerBoundToItselfWithTheAdapter) {
    PMTUDApp app(&cfg, &adapter);
    EXPECT_NE(dynamic_cast<SHM_HandlerImpl<PMTUDApp>*>(Fields::handler(app)), nullptr);
    deliver();
    EXPECT_EQ(fake::platform().debugTexts().at(0), " PMTUD-Prot: Received frame of size: 1600");
}

TEST_F(ApplicationTest, MakesAndFreesTheHandlerAsItsOnlyAllocation) {
    {
        const allocations::Counted counted;
        const PMTUDApp app(&cfg, &adapter);
        EXPECT_EQ(allocations::alive(), 1);
    }
    EXPECT_EQ(allocations::alive(), 0);
}

TEST_F(ApplicationTest, RegistersNothingIfTheAllocationFailed) {
    OtherHandler other;
    adapter.setHandler(&other);
    {
        const allocations::Counted counted(1);
        EXPECT_THROW(PMTUDApp(&cfg, &adapter), std::bad_alloc);
    }
    deliver();
    EXPECT_EQ(other.calls, 1);
}

TEST_F(ApplicationTest, LogsNothingWhenItIsMadeOrDestroyed) {
    Journal journal(qv::DEBUG4);
    { const PMTUDApp app(&cfg, &adapter); }
    EXPECT_EQ(journal.entries, Lines{});
    EXPECT_EQ(adapter.inits, 0);
}

// Running.

TEST_F(ApplicationTest, RunLogsItsStartInitialisesTheAdapterAndReturnsWhetherThatWorked) {
    const PMTUDApp app(&cfg, &adapter);
    const std::string starting =
        "14:03:07.2 DEBUG: [PMTUDApp:69 | bool PMTUDApp::run() const] PMTUD starting...\r\n";
    const std::string failed =
        "14:03:07.2 ERROR: [PMTUDApp:72 | bool PMTUDApp::run() const] Could not initialize SHM\r\n";
    for (const bool initialised : {true, false}) {
        Journal journal(qv::DEBUG4);
        adapter.onInit = [&] {
            journal.note("init");
            return initialised;
        };
        EXPECT_EQ(app.run(), initialised);
        EXPECT_EQ(journal.entries,
                  initialised ? (Lines{starting, "init"}) : (Lines{starting, "init", failed}));
    }
}

class ReadOnlyTest : public EngineTest {};

TEST_F(ReadOnlyTest, RunningAndHandlingFramesLeaveTheObjectAsItWas) {
    const auto fields = [this] {
        return std::tuple(Fields::cfg(app), Fields::shm(app), Fields::handler(app),
                          Fields::spare(app), Fields::fd(app), Fields::logId(app),
                          Fields::logName(app));
    };
    const auto before = fields();
    app.run();
    for (const Bytes& frame : {ipv4Frame(), ipv6Frame(1460), frameOfType(0x0806)}) handle(frame);
    EXPECT_EQ(fields(), before);
}

// The end.

TEST_F(ApplicationTest, DestroysItsHandlerThroughTheVirtualDestructor) {
    int destroyed = 0;
    std::unique_ptr<SHM_Handler> own;
    {
        PMTUDApp app(&cfg, &adapter);
        own.reset(std::exchange(Fields::handler(app), new OtherHandler(&destroyed)));
    }
    EXPECT_EQ(destroyed, 1);
}

TEST_F(ApplicationTest, EndsEvenWithoutAHandler) {
    PMTUDApp app(&cfg, &adapter);
    delete std::exchange(Fields::handler(app), nullptr);
}

TEST_F(ApplicationTest, LeavesTheAdaptersHandlerAloneAtItsEnd) {
    OtherHandler other;
    {
        const PMTUDApp app(&cfg, &adapter);
        adapter.setHandler(&other);
    }
    deliver();
    EXPECT_EQ(other.calls, 1);
}

}  // namespace
}  // namespace engine_test
