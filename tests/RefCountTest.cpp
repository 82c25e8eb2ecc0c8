#include <VelaHost_Utility/RefCount.h>

#include "support/VirtualTable.h"

#include <gtest/gtest.h>

#include <atomic>
#include <cstring>
#include <memory>
#include <stdexcept>
#include <thread>
#include <type_traits>
#include <utility>
#include <vector>

namespace {

using velahost_test::CallVirtualSlot;
using VelaHost_Utility::RefCount;

class Node : public virtual RefCount
{
public:
    explicit Node(int& destroyed) : m_Destroyed(destroyed) {}
    ~Node() noexcept(false) override { ++m_Destroyed; }

    SmartPointer<Node> next;
    int value = 0;

private:
    int& m_Destroyed;
};

class DerivedNode : public Node
{
public:
    explicit DerivedNode(int& destroyed, int& derivedDestroyed)
        : Node(destroyed), m_DerivedDestroyed(derivedDestroyed)
    {}
    ~DerivedNode() noexcept(false) override { ++m_DerivedDestroyed; }

private:
    int& m_DerivedDestroyed;
};

class Failing : public virtual RefCount
{
public:
    ~Failing() noexcept(false) override { throw std::runtime_error("failing"); }
};

TEST(RefCount, StartsAtZero)
{
    const RefCount counted;
    EXPECT_EQ(counted.GetRefCount(), 0);
}

TEST(RefCount, BelongsToTheObjectAndNotToItsValue)
{
    int destroyed = 0;
    const SmartPointer<Node> first(new Node(destroyed));
    const SmartPointer<Node> second(new Node(destroyed));
    const SmartPointer<Node> alias(second);
    const SmartPointer<Node> copy(new Node(*first));
    EXPECT_EQ(copy->GetRefCount(), 1);
    const Node plain(*second);
    EXPECT_EQ(plain.GetRefCount(), 0);

    RefCount a;
    const RefCount b;
    a = b;
    static_cast<RefCount&>(*first) = static_cast<RefCount&>(*second);
    EXPECT_EQ(first->GetRefCount(), 1);
    EXPECT_EQ(second->GetRefCount(), 2);
}

TEST(RefCount, HasItsDestructorInTheFirstSlots)
{
    int destroyed = 0;
    auto* const node = new Node(destroyed);
    RefCount* const counted = node;
    // The deleting one: the object must be gone completely, which the leak check sees.
    CallVirtualSlot(counted, 1);
    EXPECT_EQ(destroyed, 1);

    alignas(Node) unsigned char memory[sizeof(Node)];
    RefCount* const inPlace = new (memory) Node(destroyed);
    CallVirtualSlot(inPlace, 0);
    EXPECT_EQ(destroyed, 2);
}

TEST(RefCount, HasNoVirtualOperationsButItsDestructor)
{
    const RefCount counted;
    EXPECT_EQ(velahost_test::CountVirtualSlots(&counted), 2U);
}

TEST(RefCount, KeepsTheCountBehindTheVirtualTable)
{
    int destroyed = 0;
    const SmartPointer<Node> node(new Node(destroyed));
    const RefCount* const counted = node.Get();
    std::int32_t count = 0;
    std::memcpy(&count, reinterpret_cast<const char*>(counted) + sizeof(void*), sizeof count);
    EXPECT_EQ(count, 1);
    if (sizeof(void*) == 4) {
        EXPECT_EQ(sizeof(RefCount), 8U);
        EXPECT_EQ(sizeof(SmartPointer<Node>), 8U);
    }
}

TEST(SmartPointer, CountsEveryReference)
{
    int destroyed = 0;
    auto* const node = new Node(destroyed);
    {
        const SmartPointer<Node> first(node);
        EXPECT_EQ(node->GetRefCount(), 1);
        const SmartPointer<Node> second = first;
        EXPECT_EQ(node->GetRefCount(), 2);
        const SmartPointer<Node> third = node;
        EXPECT_EQ(node->GetRefCount(), 3);
        EXPECT_EQ(destroyed, 0);
    }
    EXPECT_EQ(destroyed, 1);
}

TEST(SmartPointer, DeletesTheMostDerivedObject)
{
    int destroyed = 0;
    int derivedDestroyed = 0;
    {
        const SmartPointer<RefCount> pointer(new DerivedNode(destroyed, derivedDestroyed));
    }
    EXPECT_EQ(destroyed, 1);
    EXPECT_EQ(derivedDestroyed, 1);
}

TEST(SmartPointer, ReleasesOnlyFromOneToZero)
{
    // An object that was never acquired, seen through a pointer that only releases: 0 to -1.
    int destroyed = 0;
    Node node(destroyed);
    alignas(SmartPointer<Node>) unsigned char memory[sizeof(SmartPointer<Node>)];
    auto* const pointer = new (memory) SmartPointer<Node>();
    Node* const address = &node;
    std::memcpy(memory + sizeof(void*), &address, sizeof address);
    CallVirtualSlot(pointer, 0);
    EXPECT_EQ(destroyed, 0);
    EXPECT_EQ(node.GetRefCount(), -1);
}

TEST(SmartPointer, HasItsDestructorInTheFirstSlots)
{
    static_assert(std::is_polymorphic_v<SmartPointer<Node>>);
    int destroyed = 0;
    const SmartPointer<Node> keep(new Node(destroyed));
    auto* const pointer = new SmartPointer<Node>(keep);
    CallVirtualSlot(pointer, 1);
    EXPECT_EQ(keep->GetRefCount(), 1);
}

TEST(SmartPointer, IsNullByDefault)
{
    const SmartPointer<Node> byDefault;
    const SmartPointer<Node> fromNull(nullptr);
    const SmartPointer<Node> copy(byDefault);
    EXPECT_FALSE(byDefault);
    EXPECT_FALSE(fromNull);
    EXPECT_FALSE(copy);
    EXPECT_EQ(byDefault.Get(), nullptr);
    EXPECT_TRUE(byDefault == nullptr);
    EXPECT_TRUE(nullptr == byDefault);
    EXPECT_FALSE(byDefault != nullptr);
}

TEST(SmartPointer, GivesTheObject)
{
    int destroyed = 0;
    auto* const node = new Node(destroyed);
    const SmartPointer<Node> pointer(node);
    EXPECT_TRUE(pointer);
    EXPECT_EQ(pointer.Get(), node);
    EXPECT_EQ(&*pointer, node);
    pointer->value = 5;
    EXPECT_EQ(node->value, 5);
    const SmartPointer<const Node> constant(pointer);
    EXPECT_EQ(constant->value, 5);
    EXPECT_EQ(node->GetRefCount(), 2);
}

TEST(SmartPointer, MovesWithoutCounting)
{
    int destroyed = 0;
    SmartPointer<Node> source(new Node(destroyed));
    Node* const node = source.Get();
    SmartPointer<Node> target(std::move(source));
    EXPECT_EQ(source.Get(), nullptr);
    EXPECT_EQ(target.Get(), node);
    EXPECT_EQ(node->GetRefCount(), 1);
    source = std::move(target);
    EXPECT_EQ(target.Get(), nullptr);
    EXPECT_EQ(node->GetRefCount(), 1);
    SmartPointer<RefCount> base(std::move(source));
    EXPECT_EQ(source.Get(), nullptr);
    EXPECT_EQ(node->GetRefCount(), 1);
    EXPECT_EQ(destroyed, 0);
}

TEST(SmartPointer, AssignmentReleasesTheOldObject)
{
    int destroyedFirst = 0;
    int destroyedSecond = 0;
    SmartPointer<Node> pointer(new Node(destroyedFirst));
    const SmartPointer<Node> other(new Node(destroyedSecond));
    pointer = other;
    EXPECT_EQ(destroyedFirst, 1);
    EXPECT_EQ(other->GetRefCount(), 2);
    pointer = nullptr;
    EXPECT_EQ(other->GetRefCount(), 1);
    pointer = other.Get();
    EXPECT_EQ(other->GetRefCount(), 2);
    pointer = SmartPointer<Node>();
    EXPECT_EQ(destroyedSecond, 0);
}

TEST(SmartPointer, SurvivesSelfAssignment)
{
    int destroyed = 0;
    SmartPointer<Node> pointer(new Node(destroyed));
    SmartPointer<Node>& alias = pointer;
    pointer = alias;
    EXPECT_EQ(pointer->GetRefCount(), 1);
    pointer = std::move(alias);
    EXPECT_EQ(pointer->GetRefCount(), 1);
    pointer = pointer.Get();
    EXPECT_EQ(pointer->GetRefCount(), 1);
    EXPECT_EQ(destroyed, 0);
}

TEST(SmartPointer, AssignmentMayFreeItsSource)
{
    int destroyed = 0;
    SmartPointer<Node> head(new Node(destroyed));
    head->next = new Node(destroyed);
    head->next->next = new Node(destroyed);
    Node* const last = head->next->next.Get();

    head = head->next;
    EXPECT_EQ(destroyed, 1);
    head = std::move(head->next);
    EXPECT_EQ(destroyed, 2);
    EXPECT_EQ(head.Get(), last);
    EXPECT_EQ(head->GetRefCount(), 1);
}

TEST(SmartPointer, ConvertsFromADerivedPointer)
{
    int destroyed = 0;
    int derivedDestroyed = 0;
    const SmartPointer<DerivedNode> derived(new DerivedNode(destroyed, derivedDestroyed));
    SmartPointer<Node> base(derived);
    EXPECT_EQ(derived->GetRefCount(), 2);
    EXPECT_TRUE(base == derived);
    base = nullptr;
    base = derived;
    EXPECT_EQ(base.Get(), derived.Get());
    static_assert(!std::is_constructible_v<SmartPointer<DerivedNode>, SmartPointer<Node>>);
    static_assert(std::is_convertible_v<SmartPointer<DerivedNode>, SmartPointer<RefCount>>);
}

TEST(SmartPointer, ComparesAsThePointersDo)
{
    int destroyed = 0;
    const SmartPointer<Node> a(new Node(destroyed));
    const SmartPointer<Node> sameAsA(a);
    const SmartPointer<Node> b(new Node(destroyed));
    EXPECT_TRUE(a == sameAsA);
    EXPECT_FALSE(a != sameAsA);
    EXPECT_TRUE(a != b);
    EXPECT_TRUE(a == a.Get());
    EXPECT_TRUE(a.Get() == a);
    EXPECT_TRUE(a != b.Get());
    EXPECT_TRUE(b.Get() != a);
    EXPECT_EQ(a < b, a.Get() < b.Get());
    EXPECT_FALSE(a < sameAsA);

    // A plain pointer that nobody holds is left alone.
    const auto unheld = std::make_unique<Node>(destroyed);
    EXPECT_FALSE(a == unheld.get());
    EXPECT_EQ(destroyed, 0);
}

TEST(SmartPointer, Swaps)
{
    int destroyed = 0;
    SmartPointer<Node> a(new Node(destroyed));
    SmartPointer<Node> b;
    Node* const node = a.Get();
    a.swap(b);
    EXPECT_EQ(b.Get(), node);
    using std::swap;
    swap(a, b);
    EXPECT_EQ(a.Get(), node);
    EXPECT_FALSE(b);
    EXPECT_EQ(node->GetRefCount(), 1);
}

TEST(SmartPointer, PassesOnWhatTheDestructorThrows)
{
    static_assert(!std::is_nothrow_destructible_v<SmartPointer<Failing>>);
    EXPECT_THROW({ const SmartPointer<Failing> pointer(new Failing); }, std::runtime_error);
    SmartPointer<Failing> pointer(new Failing);
    EXPECT_THROW(pointer = nullptr, std::runtime_error);
    EXPECT_FALSE(pointer);
}

TEST(SmartPointer, CanBeKeptInContainers)
{
    int destroyed = 0;
    std::vector<SmartPointer<Node>> nodes;
    for (int i = 0; i < 100; ++i) {
        nodes.emplace_back(new Node(destroyed));
    }
    nodes.erase(nodes.begin());
    EXPECT_EQ(destroyed, 1);
    for (const SmartPointer<Node>& node : nodes) {
        EXPECT_EQ(node->GetRefCount(), 1);
    }
    nodes.clear();
    EXPECT_EQ(destroyed, 100);
}

TEST(SmartPointer, IsSharedByThreads)
{
    int destroyed = 0;
    auto* const node = new Node(destroyed);
    std::atomic<int> ready{0};
    constexpr int threadCount = 4;
    {
        std::vector<SmartPointer<Node>> pointers(threadCount, SmartPointer<Node>(node));
        std::vector<std::thread> threads;
        for (int i = 0; i < threadCount; ++i) {
            threads.emplace_back([&ready, &own = pointers[static_cast<std::size_t>(i)], i] {
                ++ready;
                while (ready < threadCount) {
                    std::this_thread::yield();
                }
                for (int round = 0; round < 20'000; ++round) {
                    const SmartPointer<Node> copy(own);
                    SmartPointer<Node> moved(copy);
                    moved = own;
                }
                // What each thread did to the object must be done before one of them deletes it.
                if (i == 0) {
                    own->value = 1;
                }
                own = nullptr;
            });
        }
        for (std::thread& thread : threads) {
            thread.join();
        }
    }
    EXPECT_EQ(destroyed, 1);
}

} // namespace
