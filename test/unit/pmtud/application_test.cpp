// SPDX-License-Identifier: MIT
// Tests of the application object: what it is made of, how it begins, runs and ends.
#include <array>
#include <functional>
#include <memory>
#include <stdexcept>
#include <tuple>
#include <type_traits>

#include "allocations.h"
#include "engine_test.h"

using engine_test::Bytes;
using engine_test::EngineTest;
using engine_test::frameOfType;
using engine_test::FreshFakes;
using engine_test::ipv4Frame;
using engine_test::ipv6Frame;
using engine_test::Journal;
using engine_test::Lines;
using engine_test::logAt;

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

/// An adapter whose init answers what the test says.
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
    bool handleFrame(uint8_t&, std::size_t) override {
        ++calls;
        return true;
    }
    int calls = 0;

 private:
    int* m_destroyed;
};

class ApplicationTest : public testing::Test {
 protected:
    FreshFakes fakes;
    VlanConfig cfg;
    ScriptedAdapter adapter;
};

// Construction.

TEST_F(ApplicationTest, KeepsTheConfigurationAndTheAdapter) {
    PMTUDApp app(&cfg, &adapter);
    EXPECT_EQ(Fields::cfg(app), &cfg);
    EXPECT_EQ(Fields::shm(app), &adapter);
}

class StorageTest : public ApplicationTest, public testing::WithParamInterface<int> {};

TEST_P(StorageTest, IsOverwrittenWithSpareBytesOfFFAndDescriptorMinusOne) {
    alignas(PMTUDApp) std::array<unsigned char, sizeof(PMTUDApp)> storage;
    storage.fill(static_cast<unsigned char>(GetParam()));
    auto* const app = new (storage.data()) PMTUDApp(&cfg, &adapter);
    Bytes spare(12);
    memcpy(spare.data(), &Fields::spare(*app), 12);
    EXPECT_EQ(spare, Bytes(12, 0xFF));
    EXPECT_EQ(Fields::fd(*app), -1);
    app->~PMTUDApp();
}

INSTANTIATE_TEST_SUITE_P(Fillings, StorageTest, testing::Values(0x00, 0xAA));

TEST_F(ApplicationTest, WritesToTheDebugProcessUnderModule89AsPmtudProt) {
    PMTUDApp app(&cfg, &adapter);
    EXPECT_EQ(Fields::logId(app), 89U);
    EXPECT_EQ(Fields::logName(app), "PMTUD-Prot");
}

TEST_F(ApplicationTest, HasItsFieldsInTheirOrder) {
    PMTUDApp app(&cfg, &adapter);
    const std::array<const void*, 7> places = {
        &Fields::cfg(app), &Fields::shm(app),   &Fields::handler(app), &Fields::spare(app),
        &Fields::fd(app),  &Fields::logId(app), &Fields::logName(app)};
    EXPECT_TRUE(std::is_sorted(places.begin(), places.end(), std::less<>()));
    EXPECT_EQ(places.front(), &app);
}

TEST_F(ApplicationTest, BindsAHandlerToItself) {
    PMTUDApp app(&cfg, &adapter);
    auto* const handler = dynamic_cast<SHM_HandlerImpl<PMTUDApp>*>(Fields::handler(app));
    ASSERT_NE(handler, nullptr);
    Bytes frame = frameOfType(0x0806);
    EXPECT_FALSE(handler->handleFrame(frame.front(), 33));
    EXPECT_EQ(fake::platform().debugTexts().at(0), " PMTUD-Prot: Received frame of size: 33");
}

TEST_F(ApplicationTest, RegistersItsHandlerWithTheAdapter) {
    PMTUDApp app(&cfg, &adapter);
    Bytes frame = ipv4Frame();
    adapter.handleFrame(frame.data(), 1600);
    EXPECT_EQ(fake::platform().debugTexts().at(0), " PMTUD-Prot: Received frame of size: 1600");
}

TEST_F(ApplicationTest, MakesTheHandlerItsOnlyAllocation) {
    const long before = allocations::alive();
    PMTUDApp app(&cfg, &adapter);
    EXPECT_EQ(allocations::alive() - before, 1);
}

TEST_F(ApplicationTest, LetsAFailedAllocationThrough) {
    allocations::failNext();
    EXPECT_THROW(PMTUDApp(&cfg, &adapter), std::bad_alloc);
}

TEST_F(ApplicationTest, RegistersNothingWhereTheAllocationFailed) {
    OtherHandler other;
    adapter.setHandler(&other);
    allocations::failNext();
    EXPECT_THROW(PMTUDApp(&cfg, &adapter), std::bad_alloc);
    Bytes frame = ipv4Frame();
    adapter.handleFrame(frame.data(), 1600);
    EXPECT_EQ(other.calls, 1);
}

TEST_F(ApplicationTest, IsMadeAndDestroyedInSilence) {
    Journal journal(qv::DEBUG4);
    { const PMTUDApp app(&cfg, &adapter); }
    EXPECT_EQ(journal.entries(), Lines{});
    EXPECT_EQ(adapter.inits, 0);
}

// Running.

constexpr char kStarting[] =
    "14:03:07.2 DEBUG: [PMTUDApp:69 | bool PMTUDApp::run() const] PMTUD starting...\r\n";
constexpr char kNotInitialised[] =
    "14:03:07.2 ERROR: [PMTUDApp:72 | bool PMTUDApp::run() const] Could not initialize SHM\r\n";

TEST_F(ApplicationTest, RunReturnsTrueAsSoonAsTheAdapterIsInitialised) {
    const PMTUDApp app(&cfg, &adapter);
    EXPECT_TRUE(app.run());
    EXPECT_EQ(adapter.inits, 1);
}

TEST_F(ApplicationTest, RunReturnsFalseWhereTheAdapterFails) {
    const PMTUDApp app(&cfg, &adapter);
    adapter.onInit = [] { return false; };
    EXPECT_FALSE(app.run());
    EXPECT_EQ(adapter.inits, 1);
}

TEST_F(ApplicationTest, RunSaysThatItStartsAndThenInitialises) {
    const PMTUDApp app(&cfg, &adapter);
    Journal journal(qv::DEBUG4);
    adapter.onInit = [&journal] {
        journal.note("init");
        return true;
    };
    app.run();
    EXPECT_EQ(journal.entries(), (Lines{kStarting, "init"}));
}

TEST_F(ApplicationTest, RunWritesTwoLinesAtDebugWhereTheAdapterFails) {
    const PMTUDApp app(&cfg, &adapter);
    Journal journal(qv::DEBUG);
    adapter.onInit = [&journal] {
        journal.note("init");
        return false;
    };
    app.run();
    EXPECT_EQ(journal.entries(), (Lines{kStarting, "init", kNotInitialised}));
}

class RunBelowDebugTest : public ApplicationTest, public testing::WithParamInterface<int32_t> {};

TEST_P(RunBelowDebugTest, WritesTheErrorAlone) {
    const PMTUDApp app(&cfg, &adapter);
    adapter.onInit = [] { return false; };
    EXPECT_EQ(logAt(GetParam(), [&app] { app.run(); }), Lines{kNotInitialised});
}

TEST_P(RunBelowDebugTest, IsSilentWhereTheAdapterIsInitialised) {
    const PMTUDApp app(&cfg, &adapter);
    EXPECT_EQ(logAt(GetParam(), [&app] { app.run(); }), Lines{});
}

INSTANTIATE_TEST_SUITE_P(Thresholds, RunBelowDebugTest,
                         testing::Values(qv::ERROR, qv::WARNING, qv::INFO));

TEST_F(ApplicationTest, RunIsSilentBelowError) {
    const PMTUDApp app(&cfg, &adapter);
    adapter.onInit = [] { return false; };
    EXPECT_EQ(logAt(-1, [&app] { app.run(); }), Lines{});
}

TEST_F(ApplicationTest, RunSaysNothingToTheDebugProcess) {
    const PMTUDApp app(&cfg, &adapter);
    adapter.onInit = [] { return false; };
    logAt(qv::DEBUG4, [&app] { app.run(); });
    EXPECT_EQ(fake::platform().debugTexts(), Lines{});
}

TEST_F(ApplicationTest, RunLetsAnExceptionOfTheAdapterThrough) {
    const PMTUDApp app(&cfg, &adapter);
    adapter.onInit = []() -> bool { throw std::runtime_error("no queue"); };
    EXPECT_THROW(app.run(), std::runtime_error);
}

TEST_F(ApplicationTest, RunAttachesTheQueuesOfTheRealAdapter) {
    SHM_Wrapper_App queues;
    const PMTUDApp app(&cfg, &queues);
    EXPECT_TRUE(app.run());
    EXPECT_EQ(fake::platform().calls,
              (Lines{"pktd_shm_queue_init(\"pmtud\", 0, 1, pktd_tx_queue_pool, pktd_rx_queue_pool)",
                     "pktd_shm_rx_thread_init(\"pmtud\", pktd_rx_queue_pool, pktd_rx_wl_pool, 32, "
                     "32, callback, 0)"}));
}

TEST_F(ApplicationTest, RunHasTheRealAdapterSayWhatFailedFirst) {
    fake::platform().queueInit = [] { return -19; };
    SHM_Wrapper_App queues;
    const PMTUDApp app(&cfg, &queues);
    EXPECT_EQ(logAt(qv::WARNING, [&app] { EXPECT_FALSE(app.run()); }),
              (Lines{"14:03:07.2 ERROR: [SHM_Wrapper:140 | virtual bool SHM_Wrapper_App::init()] "
                     "Could not initialize SHM queue, ret=-19\r\n",
                     kNotInitialised}));
}

// The object is read-only from then on.

class ReadOnlyTest : public EngineTest {};

TEST_F(ReadOnlyTest, RunningAndHandlingFramesLeaveTheObjectAsItWas) {
    const auto fields = [this] {
        return std::tuple(Fields::cfg(app), Fields::shm(app), Fields::handler(app),
                          Fields::spare(app), Fields::fd(app), Fields::logId(app),
                          Fields::logName(app));
    };
    const auto before = fields();
    app.run();
    handle(ipv4Frame());
    handle(ipv6Frame(1460));
    handle(frameOfType(0x0806));
    EXPECT_EQ(fields(), before);
}

// The end.

TEST_F(ApplicationTest, FreesItsHandler) {
    const long before = allocations::alive();
    { const PMTUDApp app(&cfg, &adapter); }
    EXPECT_EQ(allocations::alive(), before);
}

TEST_F(ApplicationTest, DestroysItsHandlerThroughTheVirtualDestructor) {
    int destroyed = 0;
    std::unique_ptr<SHM_Handler> own;
    {
        PMTUDApp app(&cfg, &adapter);
        own.reset(std::exchange(Fields::handler(app), new OtherHandler(&destroyed)));
    }
    EXPECT_EQ(destroyed, 1);
}

TEST_F(ApplicationTest, EndsWithoutAHandlerAsWell) {
    const long before = allocations::alive();
    {
        PMTUDApp app(&cfg, &adapter);
        delete std::exchange(Fields::handler(app), nullptr);
    }
    EXPECT_EQ(allocations::alive(), before);
}

TEST_F(ApplicationTest, LeavesTheAdaptersHandlerAloneAtItsEnd) {
    OtherHandler other;
    {
        const PMTUDApp app(&cfg, &adapter);
        adapter.setHandler(&other);
    }
    Bytes frame = ipv4Frame();
    adapter.handleFrame(frame.data(), 1600);
    EXPECT_EQ(other.calls, 1);
}

}  // namespace
