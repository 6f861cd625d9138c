// Entries whose encoder cannot be built while their device is missing: how
// they are served while pending, and how they are built once it appears.
#include <gtest/gtest.h>

#include <algorithm>
#include <random>

#include <nlohmann/json.hpp>

#include "DaemonTestSupport.h"
#include "EventLoop.h"
#include "ModbusServer.h"
#include "SignalPipe.h"

namespace tarsel::daemon {
namespace {

using testing::request;
using testing::TestDaemon;

// "model" and "power" find their device by name; only "Card" (device 2, whose
// operating status opens the map) is there at start.
char const* const kMap = R"({"entries": [
  {"name": "t", "table": "holding-registers", "address": 0, "encoder": "int16",
   "source": {"device": 2, "channel": "T"}},
  {"name": "model", "table": "holding-registers", "address": 1, "encoder": "string", "size": 4,
   "source": {"device": "UPS", "attribute": "model"}},
  {"name": "power", "table": "holding-registers", "address": 5, "encoder": "numeric-string",
   "unavailable": {"mode": "exception", "code": 11},
   "source": {"device": "UPS", "attribute": "nominal-power"}}
]})";

// "model" alone.
char const* const kModelOnly = R"({"entries": [
  {"name": "model", "table": "holding-registers", "address": 1, "encoder": "string", "size": 4,
   "source": {"device": "UPS", "attribute": "model"}}
]})";

char const* const kCardOnly = R"({"devices": [{"id": 2, "name": "Card", "channels": {
  "PowerDistribution.Status.OperatingStatus": {"uint32": 16}, "T": 5}}]})";

constexpr cdshost::Id kUps = 7;
constexpr std::uint16_t kSentinel = 0xFFFF;

char const* const kModelWarning =
    "warning: entries[1] \"model\" cannot be built yet: no device named \"UPS\"; served as "
    "unavailable, retried every second";

/* The UPS appears in the store, as the card detects it. */
void addUps() {
    auto& store = cdshost::Store::instance();
    store.addDevice("UPS", kUps, 0, false);
    store.setDeviceAttribute(kUps, cdsapi::AttributeModel, "RT 3000", false);
    store.setDeviceAttribute(kUps, cdsapi::AttributeNominalPower, "3000", false);
    store.notifyDevice(kUps, kq::sub::DeviceCreated);
}

ServedEntry const& entryNamed(DaemonCore& core, std::string const& name) {
    for (auto const& entry : core.map().entries()) {
        if (entry->definition.name == name) {
            return *entry;
        }
    }
    throw std::out_of_range(name);
}

std::size_t occurrences(std::string const& text, std::string const& part) {
    std::size_t count = 0;
    for (auto at = text.find(part); at != std::string::npos; at = text.find(part, at + 1)) {
        ++count;
    }
    return count;
}

TEST(ServedMapTest, EntryWhoseDeviceIsMissingAtStartIsPendingAndTheCoreStarts) {
    TestDaemon daemon(kMap, kCardOnly);
    EXPECT_TRUE(daemon.core().hasPendingEntries());
    EXPECT_EQ(daemon.core().map().pendingCount(), 2u);
    EXPECT_FALSE(entryNamed(daemon.core(), "model").built());
    EXPECT_TRUE(entryNamed(daemon.core(), "t").built());
    EXPECT_EQ(occurrences(daemon.logText(), kModelWarning), 1u) << daemon.logText();
    EXPECT_NE(daemon.logText().find("register map: 3 entries (2 pending)"), std::string::npos);
}

TEST(ServedMapTest, PendingEntryReadsAsTheSentinelOfItsPolicy) {
    TestDaemon daemon(kMap, kCardOnly);
    Answer const answer = daemon.ask(request(3, 0, 5));
    ASSERT_EQ(answer.exception, 0);
    EXPECT_EQ(answer.registers,
              (std::vector<uint16_t>{5, kSentinel, kSentinel, kSentinel, kSentinel}));
}

TEST(ServedMapTest, PendingEntryWithTheExceptionPolicyAnswersItsCode) {
    TestDaemon daemon(kMap, kCardOnly);
    EXPECT_EQ(daemon.ask(request(3, 5, 1)).exception, 11);
    EXPECT_EQ(daemon.ask(request(3, 0, 6)).exception, 11);
}

TEST(ServedMapTest, PendingEntryKeepsItsAddresses) {
    TestDaemon daemon(kMap, kCardOnly);
    EXPECT_EQ(daemon.ask(request(3, 2, 2)).exception, 2);  // starts inside "model"
    EXPECT_EQ(daemon.ask(request(3, 0, 2)).exception, 2);  // ends inside "model"
}

TEST(ServedMapTest, WriteToAPendingEntryIsRefusedAndWritesNothing) {
    TestDaemon daemon(kMap, kCardOnly);
    EXPECT_EQ(daemon.ask(testing::writeRegisters(0, {9, 0x4142, 0, 0, 0})).exception, 4);
    EXPECT_EQ(daemon.ask(request(6, 5, 1)).exception, 11);
    EXPECT_EQ(TestDaemon::channel(2, "T"), kq::CValue(5));
}

TEST(ServedMapTest, DescriptionShowsAPendingEntryWithAnEmptyValueAndWhy) {
    TestDaemon daemon(kMap, kCardOnly);
    auto const root = nlohmann::json::parse(daemon.core().describe(DescribeFormat::Json));
    auto const& model = root["entries"][1];
    EXPECT_EQ(model["name"], "model");
    EXPECT_EQ(model["address"], 1);
    EXPECT_EQ(model["size"], 4);
    EXPECT_EQ(model["value"], "");
    EXPECT_EQ(model["representation"], "");
    EXPECT_FALSE(model["available"].get<bool>());
    EXPECT_TRUE(model["image"].is_null());
    EXPECT_EQ(model["source"], "device \"UPS\" attribute model");
    EXPECT_EQ(model["note"], "pending: no device named \"UPS\"");
    EXPECT_EQ(root["entries"][0]["note"], "");

    std::string const markdown = daemon.core().describe(DescribeFormat::Markdown);
    EXPECT_NE(markdown.find("| holding-registers | 1 | 4 | model | string 8 chars |  | 1 | 0 | RW "
                            "| 0xFFFF in all 4 registers |  |  | device \"UPS\" attribute "
                            "model | - | 0 | pending: no device named \"UPS\" |"),
              std::string::npos)
        << markdown;
    std::string const csv = daemon.core().describe(DescribeFormat::Csv);
    EXPECT_NE(csv.find("holding-registers,1,4,model,string 8 chars,,1,0,RW,0xFFFF in all 4 "
                       "registers,,,\"device \"\"UPS\"\" attribute model\",-,0,"
                       "\"pending: no device named \"\"UPS\"\"\"\r\n"),
              std::string::npos)
        << csv;
}

TEST(ServedMapTest, RetryThatFailsAgainKeepsTheEntryPendingWithoutAnotherWarning) {
    TestDaemon daemon(kMap, kCardOnly);
    EXPECT_EQ(daemon.core().buildPendingEntries(), 0u);
    EXPECT_EQ(daemon.core().buildPendingEntries(), 0u);
    EXPECT_EQ(daemon.core().map().pendingCount(), 2u);
    EXPECT_EQ(occurrences(daemon.logText(), kModelWarning), 1u) << daemon.logText();
}

TEST(ServedMapTest, PendingEntryIsBuiltOnceItsDeviceExistsAndServesTheAttribute) {
    TestDaemon daemon(kMap, kCardOnly);
    EXPECT_NE(daemon.core().map().pendingReason(entryNamed(daemon.core(), "model")), "");
    addUps();
    EXPECT_EQ(daemon.core().buildPendingEntries(), 2u);
    EXPECT_FALSE(daemon.core().hasPendingEntries());
    EXPECT_NE(daemon.logText().find("entries[1] \"model\" built; served from now on"),
              std::string::npos)
        << daemon.logText();
    Answer const answer = daemon.ask(request(3, 0, 6));
    ASSERT_EQ(answer.exception, 0);
    // "RT 3000" fitted to 4 registers, then the nominal power as a number
    EXPECT_EQ(answer.registers, (std::vector<uint16_t>{5, 0x5254, 0x2033, 0x3030, 0x3000, 3000}));
    ServedEntry const& model = entryNamed(daemon.core(), "model");
    EXPECT_TRUE(model.image.known());
    EXPECT_EQ(model.image.words, (std::vector<uint16_t>{0x5254, 0x2033, 0x3030, 0x3000}));
    EXPECT_EQ(model.image.pushes, 0u);
    EXPECT_EQ(daemon.core().map().pendingReason(model), "");
}

TEST(ServedMapTest, CoverIntoAKeptCoverageKeepsNothingOfTheRangeBefore) {
    TestDaemon daemon(kMap, kCardOnly);
    ServedMap const& map = daemon.core().map();
    Coverage kept;
    map.cover(Table::HoldingRegisters, 0, 6, false, kept);
    EXPECT_EQ(kept.exception, 0);
    EXPECT_EQ(kept.entries.size(), 3u);
    map.cover(Table::HoldingRegisters, 2, 2, false, kept);  // starts inside "model"
    EXPECT_EQ(kept.exception, 2);
    EXPECT_TRUE(kept.entries.empty());
    map.cover(Table::HoldingRegisters, 1, 4, false, kept);
    Coverage const fresh = map.cover(Table::HoldingRegisters, 1, 4, false);
    EXPECT_EQ(kept.exception, 0);
    EXPECT_EQ(kept.entries, fresh.entries);
    ASSERT_EQ(kept.entries.size(), 1u);
    EXPECT_EQ(kept.entries[0]->definition.name, "model");
    map.cover(Table::Coils, 0, 1, false, kept);  // a table without entries
    EXPECT_EQ(kept.exception, 2);
    EXPECT_TRUE(kept.entries.empty());
}

TEST(ServedMapTest, RangeOverOneRegisterEntriesCoversOneEntryPerRegister) {
    // Entries at every address: each search must stop at the range's end,
    // neither short of it nor past it, wherever the range lies in the table.
    std::string map = R"({"entries": [)";
    for (int address = 0; address < 9; ++address) {
        map += (address > 0 ? "," : "") + std::string(R"({"name": "r)") + std::to_string(address) +
               R"(", "table": "holding-registers", "address": )" + std::to_string(address) +
               R"(, "encoder": "int16", "source": {"device": 2, "channel": "T"}})";
    }
    map += "]}";
    TestDaemon daemon(map.c_str(), kCardOnly);
    ServedMap const& served = daemon.core().map();
    for (std::uint16_t address = 0; address < 9; ++address) {
        for (std::uint16_t quantity = 1; address + quantity <= 9; ++quantity) {
            Coverage const coverage =
                served.cover(Table::HoldingRegisters, address, quantity, true);
            ASSERT_EQ(coverage.exception, 0) << address << "+" << quantity;
            ASSERT_EQ(coverage.entries.size(), quantity) << address << "+" << quantity;
            EXPECT_EQ(coverage.entries.front()->definition.address, address);
            EXPECT_EQ(coverage.entries.back()->definition.address, address + quantity - 1);
        }
    }
}

/* What cover() answers, worked out entry by entry over the whole list. */
struct Span {
    std::uint32_t address;
    std::uint32_t end;
};
std::vector<std::uint32_t> coveredByScan(std::vector<Span> const& spans, std::uint32_t address,
                                         std::uint32_t quantity, bool write) {
    std::uint32_t const end = address + quantity;
    std::vector<std::uint32_t> covered;
    for (Span const& span : spans) {
        if (span.address < address && span.end > address) {
            return {};  // starts inside an entry
        }
        if (span.address >= address && span.address < end) {
            covered.push_back(span.address);
        }
    }
    if (quantity == 0 || covered.empty()) {
        return {};
    }
    std::uint32_t expected = address;
    for (Span const& span : spans) {
        if (span.address < address || span.address >= end) {
            continue;
        }
        if (span.end > end || (write && span.address != expected)) {
            return {};
        }
        expected = span.end;
    }
    if (write && expected != end) {
        return {};
    }
    return covered;
}

TEST(ServedMapTest, CoverAgreesWithAScanOfEveryEntryOnMapsWithGapsAndWideEntries) {
    // Entries of one to four registers with gaps of up to two, in three runs,
    // the last ending at the last address of the table: every range over and
    // around them.
    std::mt19937 random(20261124);
    std::vector<std::uint32_t> const bases = {0, 1000, 65536 - 40};
    std::vector<Span> spans;
    std::string map = R"({"entries": [)";
    for (std::uint32_t const base : bases) {
        std::uint32_t at = base;
        while (true) {
            std::uint32_t const size = 1 + random() % 4;
            if (at + size > base + 40) {
                break;
            }
            map += (spans.empty() ? "" : ",") + std::string(R"({"name": "e)") + std::to_string(at) +
                   R"(", "table": "holding-registers", "address": )" + std::to_string(at) +
                   R"(, "encoder": "string", "size": )" + std::to_string(size) +
                   R"(, "source": {"device": 2, "channel": "T"}})";
            spans.push_back({at, at + size});
            at += size + random() % 3;
        }
    }
    map += "]}";
    ASSERT_GE(spans.size(), 30u);
    ASSERT_EQ(spans.back().end, 65536u) << "the seed no longer reaches the table's end";
    TestDaemon daemon(map.c_str(), kCardOnly);
    ServedMap const& served = daemon.core().map();
    for (std::uint32_t const base : bases) {
        std::uint32_t const first = base >= 3 ? base - 3 : 0;
        std::uint32_t const last = std::min<std::uint32_t>(base + 43, 65536);
        for (std::uint32_t address = first; address < last; ++address) {
            for (std::uint32_t quantity = 0; quantity <= 20 && address + quantity <= 65536;
                 ++quantity) {
                for (bool const write : {false, true}) {
                    Coverage const coverage =
                        served.cover(Table::HoldingRegisters, static_cast<std::uint16_t>(address),
                                     static_cast<std::uint16_t>(quantity), write);
                    std::vector<std::uint32_t> starts;
                    for (ServedEntry const* entry : coverage.entries) {
                        starts.push_back(entry->definition.address);
                    }
                    std::vector<std::uint32_t> const expected =
                        coveredByScan(spans, address, quantity, write);
                    ASSERT_EQ(starts, expected) << address << "+" << quantity << " " << write;
                    ASSERT_EQ(coverage.exception, expected.empty() ? 2 : 0)
                        << address << "+" << quantity << " " << write;
                }
            }
        }
    }
}

TEST(ServedMapTest, RangeThatEndsInsideAnEntryIsIllegalDataAddressForReadsAndWrites) {
    TestDaemon daemon(kMap, kCardOnly);
    ServedMap const& map = daemon.core().map();
    for (bool const write : {false, true}) {
        Coverage const coverage = map.cover(Table::HoldingRegisters, 0, 3, write);  // into "model"
        EXPECT_EQ(coverage.exception, 2) << write;
        EXPECT_TRUE(coverage.entries.empty()) << write;
    }
}

TEST(ServedMapTest, RangeWithAHoleIsServedToReadsButIllegalForWrites) {
    char const* const holed = R"({"entries": [
      {"name": "a", "table": "holding-registers", "address": 0, "encoder": "int16",
       "source": {"device": 2, "channel": "T"}},
      {"name": "b", "table": "holding-registers", "address": 3, "encoder": "int16",
       "source": {"device": 2, "channel": "T"}}
    ]})";
    TestDaemon daemon(holed, kCardOnly);
    ServedMap const& map = daemon.core().map();
    Coverage const read = map.cover(Table::HoldingRegisters, 0, 4, false);
    EXPECT_EQ(read.exception, 0);
    ASSERT_EQ(read.entries.size(), 2u);
    EXPECT_EQ(read.entries[0]->definition.name, "a");
    EXPECT_EQ(read.entries[1]->definition.name, "b");
    EXPECT_EQ(map.cover(Table::HoldingRegisters, 0, 4, true).exception, 2);
    EXPECT_EQ(map.cover(Table::HoldingRegisters, 0, 5, false).exception, 0);  // a hole at the end
    EXPECT_EQ(map.cover(Table::HoldingRegisters, 0, 5, true).exception, 2);
    EXPECT_EQ(map.cover(Table::HoldingRegisters, 3, 1, true).exception, 0);
}

TEST(ServedMapTest, ReadListsAreKnownPerTableOfTheEntriesThatHaveThem) {
    char const* const listed = R"({"entries": [
      {"name": "a", "table": "holding-registers", "address": 0, "encoder": "int16",
       "source": {"device": 2, "channel": "T"}, "allowRead": ["127.0.0.1"]},
      {"name": "b", "table": "input-registers", "address": 0, "encoder": "int16",
       "source": {"device": 2, "channel": "T"}}
    ]})";
    TestDaemon daemon(listed, kCardOnly);
    ServedMap const& map = daemon.core().map();
    EXPECT_TRUE(map.hasReadLists(Table::HoldingRegisters));
    EXPECT_FALSE(map.hasReadLists(Table::InputRegisters));
    EXPECT_FALSE(map.hasReadLists(Table::Coils));
}

TEST(ServedMapTest, HoldsItsEntriesWithoutSpareCapacity) {
    // Kept for as long as the map is served: sized once, not grown by doubling.
    TestDaemon daemon(kMap, kCardOnly);
    auto const& entries = daemon.core().map().entries();
    EXPECT_EQ(entries.size(), 3u);
    EXPECT_EQ(entries.capacity(), entries.size());
}

TEST(ServedMapTest, DescriptionBuildsWhatCanBeBuiltFirst) {
    TestDaemon daemon(kMap, kCardOnly);
    addUps();
    auto const root = nlohmann::json::parse(daemon.core().describe(DescribeFormat::Json));
    EXPECT_EQ(root["entries"][1]["value"], "RT 3000");
    EXPECT_EQ(root["entries"][1]["note"], "");
    EXPECT_FALSE(daemon.core().hasPendingEntries());
}

TEST(ServedMapTest, PushesOfALaterBuiltEntryReachItsImage) {
    TestDaemon daemon(kMap, kCardOnly);
    addUps();
    ASSERT_EQ(daemon.core().buildPendingEntries(), 2u);
    cdshost::Store::instance().setDeviceAttribute(kUps, cdsapi::AttributeModel, "XYZ");
    ServedEntry const& model = entryNamed(daemon.core(), "model");
    EXPECT_EQ(model.image.words, (std::vector<uint16_t>{0x5859, 0x5A00, 0, 0}));
    EXPECT_GE(model.image.pushes, 1u);
    EXPECT_NE(daemon.logText().find("push holding-registers 1 \"model\" [0x5859 0x5A00"),
              std::string::npos)
        << daemon.logText();
}

TEST(ServedMapTest, PushesStayCountedWhenARebuildFails) {
    TestDaemon daemon(kModelOnly, kCardOnly);
    addUps();
    ASSERT_EQ(daemon.core().buildPendingEntries(), 1u);
    auto& store = cdshost::Store::instance();
    store.setDeviceAttribute(kUps, cdsapi::AttributeModel, "XYZ");
    ServedEntry const& model = entryNamed(daemon.core(), "model");
    std::uint64_t const modelPushes = model.image.pushes;
    std::uint64_t const total = daemon.core().map().totalPushes();
    ASSERT_GE(modelPushes, 1u);
    store.removeDevice(kUps);
    daemon.core().map().rebuild(const_cast<ServedEntry&>(model));
    ASSERT_FALSE(model.built());
    ASSERT_NE(daemon.logText().find("\"model\" cannot be built again"), std::string::npos)
        << daemon.logText();
    // A counter never goes down: the pushes the entry received stay counted.
    EXPECT_GE(model.image.pushes, modelPushes);
    EXPECT_GE(daemon.core().map().totalPushes(), total);
    EXPECT_FALSE(model.image.known());
}

TEST(ServedMapTest, APendingReasonIsKeptUntilARebuildSucceeds) {
    TestDaemon daemon(kModelOnly, kCardOnly);
    addUps();
    ASSERT_EQ(daemon.core().buildPendingEntries(), 1u);
    ServedMap& served = daemon.core().map();
    auto& model = const_cast<ServedEntry&>(entryNamed(daemon.core(), "model"));
    EXPECT_EQ(served.pendingReason(model), "");
    cdshost::Store::instance().removeDevice(kUps);
    served.rebuild(model);
    ASSERT_FALSE(model.built());
    EXPECT_NE(served.pendingReason(model), "");
    EXPECT_EQ(served.pendingCount(), 1u);
    addUps();
    served.rebuild(model);
    ASSERT_TRUE(model.built()) << daemon.logText();
    EXPECT_EQ(served.pendingReason(model), "");
    EXPECT_EQ(served.pendingCount(), 0u);
}

TEST(ServedMapTest, TeardownClosesTheSubscriptionsOfLaterBuiltAndNeverBuiltEntries) {
    std::string const map = R"({"entries": [
      {"name": "model", "table": "input-registers", "address": 0, "encoder": "string", "size": 4,
       "source": {"device": "UPS", "attribute": "model"}},
      {"name": "bypass", "table": "input-registers", "address": 4, "encoder": "string", "size": 4,
       "source": {"device": "Bypass", "attribute": "model"}},
      {"name": "t", "table": "holding-registers", "address": 0, "encoder": "int16",
       "source": {"device": 2, "channel": "T"}}]})";
    TestDaemon daemon(map, kCardOnly);
    auto& store = cdshost::Store::instance();
    std::size_t const before = store.subscriptionCount();
    addUps();
    ASSERT_EQ(daemon.core().buildPendingEntries(), 1u);
    ASSERT_GT(store.subscriptionCount(), before);  // the built entry listens to the UPS
    EXPECT_FALSE(entryNamed(daemon.core(), "bypass").built());
    daemon.stop();
    EXPECT_EQ(store.subscriptionCount(), 0u);
}

TEST(ServedMapTest, ForeignExceptionWhileBuildingLeavesTheEntryPendingToo) {
    auto& store = cdshost::Store::instance();
    addUps();
    store.failNext("getDeviceByName", 1, std::nullopt, cdshost::FaultKind::NonStandard);
    TestDaemon daemon(kMap, kCardOnly);
    ServedEntry const& model = entryNamed(daemon.core(), "model");
    EXPECT_FALSE(model.built());
    EXPECT_EQ(daemon.core().map().pendingReason(model),
              "an exception that is not a std::exception");
    EXPECT_TRUE(entryNamed(daemon.core(), "power").built());
    EXPECT_EQ(daemon.core().buildPendingEntries(), 1u);
    EXPECT_EQ(daemon.ask(request(3, 1, 4)).registers,
              (std::vector<uint16_t>{0x5254, 0x2033, 0x3030, 0x3000}));
}

/* Runs the daemon's event loop over the core for `seconds`. */
void runLoop(TestDaemon& daemon, double seconds) {
    SignalPipe signals;
    ModbusServer server({"127.0.0.1", 0, AccessRules{}, nullptr}, ClientLimits{},
                        daemon.core().handler(), daemon.log());
    ASSERT_EQ(runEventLoop(daemon.core(), {&server}, signals, daemon.log(), seconds), 0);
}

TEST(ServedMapTest, EventLoopBuildsAPendingEntryRightAfterTheScenarioEventThatAddsItsDevice) {
    std::string const scenario = R"({"devices": [{"id": 2, "name": "Card", "channels": {
      "PowerDistribution.Status.OperatingStatus": {"uint32": 16}, "T": 5}}],
      "events": [{"at": 0.1, "do": "add-device", "device": {"id": 7, "name": "UPS",
                  "attributes": {"model": "RT 3000", "nominal-power": "3000"}}}]})";
    TestDaemon daemon(kMap, scenario);
    // Shorter than the retry period: only the retry after the event can build it.
    runLoop(daemon, 0.5);
    EXPECT_FALSE(daemon.core().hasPendingEntries()) << daemon.logText();
    EXPECT_EQ(daemon.ask(request(3, 5, 1)).registers, (std::vector<uint16_t>{3000}));
}

TEST(ServedMapTest, EventLoopRetriesPendingEntriesAboutOnceASecond) {
    TestDaemon daemon(kMap, kCardOnly);
    addUps();  // not through the scenario: no event triggers a retry
    runLoop(daemon, 0.5);
    EXPECT_TRUE(daemon.core().hasPendingEntries());  // not retried on every wake-up
    runLoop(daemon, 1.5);
    EXPECT_FALSE(daemon.core().hasPendingEntries()) << daemon.logText();
    EXPECT_EQ(daemon.ask(request(3, 5, 1)).registers, (std::vector<uint16_t>{3000}));
}

TEST(ServedEntryTest, StaysWithinTheAllocatorsOneHundredNinetyTwoByteClass) {
    // The map keeps one on the heap per entry for as long as it is served:
    // one byte more and mimalloc rounds it up to its next class (224 bytes),
    // 32 bytes an entry.
    EXPECT_LE(sizeof(ServedEntry), 192u);
}

TEST(ServedEntryTest, SourceDefinitionStaysWithinTheEightyByteClass) {
    // An entry's one source is its own heap block, rounded up to 96 bytes
    // past 80.
    EXPECT_LE(sizeof(SourceDefinition), 80u);
}

}  // namespace
}  // namespace tarsel::daemon
