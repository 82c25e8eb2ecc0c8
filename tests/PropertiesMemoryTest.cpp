#include <VelaHost_Utility/PropertiesEx.h>

#include "support/CapturedStdout.h"
#include "support/FailingAllocation.h"
#include "support/VirtualTable.h"

#include <gtest/gtest.h>

#include <functional>
#include <memory>
#include <new>
#include <optional>
#include <sstream>
#include <string>

namespace {

using namespace VelaHost_Utility;
using namespace velahost_test;

constexpr const char* s_LongText = "a text that is too long to be kept inside";

constexpr const char* s_Sample = "# sample\n"
                                 "A = 1\n"
                                 "A name that is too long to be kept inside = 2\n"
                                 "T = \"a text that is too long to be kept inside\"\n"
                                 "<Board with arguments, one_that_is_too_long_to_be_kept_inside>\n"
                                 "A = 3\n"
                                 "T = \"a text that is too long to be kept inside\"\n"
                                 "</Board>\n"
                                 "<A_type_that_is_too_long_to_be_kept_inside 1>\n"
                                 "</A_type_that_is_too_long_to_be_kept_inside>\n"
                                 "<Board 2>\n"
                                 "A = 4\n";

/// What ended one attempt.
enum class Outcome { Completed, Rejected, OutOfMemory };

/// Attempts `action` with its first allocation failing, its second, and so on until none is left
/// to fail; then it must end as `last`. Each attempt has a store from `makeStore`, which `check`
/// looks at afterwards; none may leave memory behind.
template <typename Store>
void FailEveryAllocation(const std::function<std::unique_ptr<Store>()>& makeStore,
                         const std::function<void(Store&)>& action, Outcome last,
                         const std::function<void(Store&, Outcome)>& check)
{
    unsigned int failures = 0;
    for (;; ++failures) {
        SCOPED_TRACE(failures + 1);
        const AllocationBalance balance;
        std::unique_ptr<Store> store = makeStore();
        Outcome outcome = Outcome::Completed;
        CapturedStdout output;
        bool wasHit = false;
        {
            const FailingAllocation failing(failures + 1);
            try {
                action(*store);
            } catch (const std::bad_alloc&) {
                outcome = Outcome::OutOfMemory;
            } catch (const PropertiesException&) {
                outcome = Outcome::Rejected;
            }
            wasHit = failing.WasHit();
        }
        const bool wasLogged = !output.Stop().empty();

        EXPECT_EQ(outcome, wasHit ? Outcome::OutOfMemory : last);
        // Memory may also run out when the failure is logged already.
        EXPECT_TRUE(outcome == Outcome::OutOfMemory || wasLogged == (last == Outcome::Rejected));
        check(*store, outcome);
        store.reset();
        EXPECT_EQ(balance.GetLiveCount(), 0);
        if (!wasHit || testing::Test::HasFailure()) {
            break;
        }
    }
    EXPECT_GT(failures, 0U);
}

/// Where an entry is at all, it is whole.
void ExpectWhole(Properties& table, unsigned int number)
{
    EXPECT_EQ(GetUIntPropertyValue(table, "A", number), number);
    const std::string longText = s_LongText;
    EXPECT_EQ(GetStringPropertyValue(table, "T", longText), longText);
}

/// The store takes more.
void ExpectUsable(Properties& store)
{
    store.AddProperty("After", 5U);
    EXPECT_EQ(GetUIntPropertyValue(store, "After", 0), 5U);
    store.AddProperty("After too", s_LongText);
    EXPECT_EQ(GetStringPropertyValue(store, "After too", ""), s_LongText);
}

TEST(OutOfMemory, EndsALoadOfSections)
{
    std::optional<std::istringstream> in;
    FailEveryAllocation<PropertiesEx>(
        [&] {
            in.emplace(s_Sample);
            return std::make_unique<PropertiesEx>();
        },
        [&](PropertiesEx& store) { store.Load(*in, true); }, Outcome::Completed,
        [&](PropertiesEx& store, Outcome outcome) {
            EXPECT_EQ(in->eof(), outcome == Outcome::Completed);
            EXPECT_FALSE(in->bad());
            in.reset();
            ExpectWhole(store, 1);
            for (int i = 0; PropertiesSection* section = store.GetSection("Board", i); ++i) {
                ExpectWhole(*section, i == 0 ? 3 : 4);
            }
            if (outcome == Outcome::Completed) {
                EXPECT_NE(store.GetSection("Board", 1), nullptr);
            }
            ExpectUsable(store);
        });
}

TEST(OutOfMemory, EndsALoadOfProperties)
{
    // The first line that is read in pieces: for its end, too, memory is needed.
    const std::string longerText(600, 'x');
    const std::string text = "A = 1\nT = \"" + std::string(s_LongText) + "\"\nL = \"" + longerText +
                             "\"\n#" + std::string(5000, 'x') + "\nB = 2\n";
    std::optional<std::istringstream> in;
    FailEveryAllocation<Properties>(
        [&] {
            in.emplace(text);
            return std::make_unique<Properties>();
        },
        [&](Properties& store) { store.Load(*in); }, Outcome::Completed,
        [&](Properties& store, Outcome outcome) {
            in.reset();
            ExpectWhole(store, 1);
            EXPECT_EQ(GetStringPropertyValue(store, "L", longerText), longerText);
            EXPECT_TRUE(outcome != Outcome::Completed || store.GetStringProperty("L") != nullptr);
            EXPECT_EQ(store.GetUIntProperty("B") != nullptr, outcome == Outcome::Completed);
            ExpectUsable(store);
        });
}

TEST(OutOfMemory, EndsALoadThatFailsAnyway)
{
    for (const char* text :
         {"B", "B = x", "B = \"", "B = \"\" x", "A = 1\nA = 1", "A = 1\nA = \"x\"", "</B>", "<B x",
          "<B>\nA = 1\nA = 2", "<B>\n</C>", "<B>\n<C>"}) {
        SCOPED_TRACE(text);
        std::optional<std::istringstream> in;
        FailEveryAllocation<PropertiesEx>(
            [&] {
                in.emplace(text);
                return std::make_unique<PropertiesEx>();
            },
            [&](PropertiesEx& store) { store.Load(*in, true); }, Outcome::Rejected,
            [&](PropertiesEx& store, Outcome /*outcome*/) {
                in.reset();
                ExpectUsable(store);
            });
    }
}

TEST(OutOfMemory, LeavesTheStoreAsBeforeAnAddition)
{
    const auto makeStore = [] {
        auto store = std::make_unique<Properties>();
        store->AddProperty("A", 1U);
        store->SetLastError("old", -1);
        return store;
    };
    const auto check = [](Properties& store, Outcome outcome) {
        EXPECT_EQ(store.GetProperty(s_LongText, Property::AnyType) != nullptr,
                  outcome == Outcome::Completed);
        EXPECT_EQ(GetUIntPropertyValue(store, "A", 0), 1U);
        EXPECT_EQ(store.GetLastError(), "old");
        ExpectUsable(store);
    };
    FailEveryAllocation<Properties>(
        makeStore, [](Properties& store) { store.AddProperty(s_LongText, 1U); }, Outcome::Completed,
        check);
    FailEveryAllocation<Properties>(
        makeStore, [](Properties& store) { store.AddProperty(s_LongText, s_LongText); },
        Outcome::Completed, check);
}

TEST(OutOfMemory, LeavesTheEntriesAsBeforeARejectedAddition)
{
    FailEveryAllocation<Properties>(
        [] {
            auto store = std::make_unique<Properties>();
            store->AddProperty("A", 1U);
            return store;
        },
        [](Properties& store) { store.AddProperty("A", s_LongText); }, Outcome::Rejected,
        [](Properties& store, Outcome /*outcome*/) {
            EXPECT_EQ(GetUIntPropertyValue(store, "A", 0), 1U);
            ExpectUsable(store);
        });
}

TEST(OutOfMemory, LeavesTheStoreAsBeforeAnAdditionOfASection)
{
    for (const char* type : {"A", "A type that is too long to be kept inside"}) {
        FailEveryAllocation<PropertiesEx>(
            [] {
                auto store = std::make_unique<PropertiesEx>();
                store->AddSection("A", "first");
                return store;
            },
            [&](PropertiesEx& store) {
                store.AddSection(type, "x argument_that_is_too_long_to_be_kept_inside y");
            },
            Outcome::Completed,
            [&](PropertiesEx& store, Outcome outcome) {
                EXPECT_STREQ(store.GetSection("A", 0)->GetArg(0), "first");
                PropertiesSection* const added =
                    store.GetSection(type, *type == 'A' && type[1] == '\0' ? 1 : 0);
                EXPECT_EQ(added != nullptr, outcome == Outcome::Completed);
                EXPECT_EQ(store.GetSection("A", 2), nullptr);
                store.AddSection(type, "again");
                ExpectUsable(store);
            });
    }
}

TEST(OutOfMemory, LeavesTheLastErrorAsItWas)
{
    FailEveryAllocation<Properties>(
        [] {
            auto store = std::make_unique<Properties>();
            store->SetLastError("old", -1);
            return store;
        },
        [](Properties& store) { store.SetLastError(s_LongText, 12345); }, Outcome::Completed,
        [](Properties& store, Outcome outcome) {
            EXPECT_EQ(store.GetLastError(), outcome == Outcome::Completed
                                                ? std::string(s_LongText) + " at line 12345"
                                                : "old");
        });
}

TEST(StoreMemory, IsReleasedByClear)
{
    PropertiesEx store;
    std::istringstream in(s_Sample);
    const AllocationBalance balance;
    store.Load(in, true);
    EXPECT_GT(balance.GetLiveCount(), 0);
    store.Clear();
    EXPECT_EQ(balance.GetLiveCount(), 0);
}

/// Proves that the first slot of `Store` destroys an object and the second frees it as well.
template <typename Store, typename... Arguments>
void ExpectDestructorsInTheFirstSlots(const std::function<void(Store&)>& fill,
                                      Arguments... arguments)
{
    const AllocationBalance balance;
    alignas(Store) unsigned char memory[sizeof(Store)];
    auto* const inPlace = new (memory) Store(arguments...);
    fill(*inPlace);
    EXPECT_GT(balance.GetLiveCount(), 0);
    CallVirtualSlot(inPlace, 0);
    EXPECT_EQ(balance.GetLiveCount(), 0);

    auto* const onHeap = new Store(arguments...);
    fill(*onHeap);
    CallVirtualSlot(onHeap, 1);
    EXPECT_EQ(balance.GetLiveCount(), 0);
}

TEST(StoreMemory, IsReleasedByTheDestructorsInTheFirstSlots)
{
    const auto fill = [](Properties& store) { store.AddProperty("A", s_LongText); };
    const auto fillSections = [](PropertiesEx& store) {
        store.AddProperty("A", s_LongText);
        store.AddSection("Board", s_LongText)->AddProperty("A", s_LongText);
    };
    ExpectDestructorsInTheFirstSlots<Properties>(fill);
    ExpectDestructorsInTheFirstSlots<PropertiesEx>(fillSections);
    ExpectDestructorsInTheFirstSlots<PropertiesSection>(fillSections, s_LongText);
}

TEST(StoreMemory, OfADerivedStoreIsReleasedThroughItsBase)
{
    const AllocationBalance balance;
    {
        std::unique_ptr<Properties> store = std::make_unique<PropertiesSection>(s_LongText);
        store->AddProperty("A", s_LongText);
        static_cast<PropertiesEx&>(*store).AddSection("Board", s_LongText);
    }
    EXPECT_EQ(balance.GetLiveCount(), 0);
}

} // namespace
