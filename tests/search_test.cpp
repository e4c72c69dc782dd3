#include <gtest/gtest.h>

#include <map>
#include <random>

#include "support/Faults.h"
#include "support/TestMap.h"

namespace {

using Starts = std::vector<long long>;

// The starts of the nodes from `first` to `last`.
Starts startsOf(const std::shared_ptr<Node>& first, const std::shared_ptr<Node>& last) {
    Starts starts;
    for (const Node* node = first.get(); node != last.get(); node = node->next(0).get()) {
        starts.push_back(node->getOffset());
    }
    return starts;
}

Starts runOf(SkipList& map, long long offset, int len) {
    std::shared_ptr<Node> first;
    std::shared_ptr<Node> last;
    map.find(offset, len, first, last);
    return startsOf(first, last);
}

TEST(Search, NewMapIsEmptyAtEveryLevel) {
    FakeJava java;
    const long long before = faults::chargedBytes();
    {
        TestMap map(java);
        EXPECT_EQ(faults::chargedBytes() - before, 32 + 144 + 2 * (48 + 24 + 32));
        std::shared_ptr<Node> first;
        std::shared_ptr<Node> last;
        map->findAll(first, last);
        EXPECT_EQ(first, map->tail);
        EXPECT_EQ(last, map->tail);
        for (int i = 0; i < 4; ++i) EXPECT_EQ(map->head->next(i), map->tail);
        EXPECT_EQ(map->findEqualGreater(0), map->tail);
        EXPECT_EQ(snapshotOf(*map), Snapshot());
    }
    EXPECT_EQ(faults::chargedBytes(), before);
}

TEST(Search, FindsTheRangeThatHoldsAKeyOrTheNextOne) {
    FakeJava java;
    TestMap map(java);
    for (const long long start : {0, 200, 300}) map.insert(inFile(start, 100, 5));
    const std::map<long long, long long> startByKey{{-5, 0},    {99, 0},    {100, 200},
                                                    {150, 200}, {300, 300}, {399, 300}};
    for (const auto& [key, start] : startByKey) {
        EXPECT_EQ(map->findEqualGreater(key)->getOffset(), start) << "key " << key;
    }
    EXPECT_EQ(map->findEqualGreater(400), map->tail);

    EXPECT_EQ(runOf(*map, 100, 100), Starts());
    EXPECT_EQ(runOf(*map, 50, 200), (Starts{0, 200}));
    EXPECT_EQ(runOf(*map, 250, 0), (Starts{200}));
    EXPECT_EQ(runOf(*map, 350, 100), (Starts{300}));
    EXPECT_EQ(runOf(*map, 400, 100), Starts());
}

TEST(Search, ZeroLengthRangeAtTheEndOfAQueryIsInItsRunButIsNotOverlapped) {
    FakeJava java;
    TestMap map(java);
    map.insert(inFile(0, 10, 0, 1));
    map.insert(inFile(20, 0, 0, 2));
    map.insert(inFile(30, 10, 0, 3));
    EXPECT_EQ(runOf(*map, 0, 20), (Starts{0, 20}));

    auto before = Node::createArr(4);
    auto after = Node::createArr(4);
    auto overlapped = Node::createList();
    map->findRange(0, 20, before, after, overlapped);
    EXPECT_EQ(overlapped->size(), 1U);
    EXPECT_EQ(after->front()->getOffset(), 20);
    auto tooShort = Node::createArr(3);
    EXPECT_THROW(map->findRange(0, 20, before, tooShort, overlapped), std::out_of_range);
}

TEST(Search, ShortAndLongRunsAgreeWithAScan) {
    FakeJava java;
    TestMap map(java, 512, 6);
    MapModel model(512);
    for (int i = 0; i < 300; ++i) {
        const Stored range = inFile(i * 10LL, 3 + i % 8, 0, i);
        map.insert(range);
        model.insert(range);
    }
    std::minstd_rand random(1);
    for (int i = 0; i < 2000; ++i) {
        const auto offset = static_cast<long long>(random() % 3100) - 50;
        const int len = static_cast<int>(random() % (i % 2 == 0 ? 40 : 3000));
        Starts expected;
        for (const Stored& each : model.find(offset, len)) expected.push_back(each.offset);
        ASSERT_EQ(runOf(*map, offset, len), expected) << offset << " +" << len;
    }
}

TEST(Search, LevelsComeFromTwoStepsOfTheEnginePerDraw) {
    FakeJava java;
    TestMap flat(java, 512, 1);
    std::minstd_rand0 twin = *flat->engine;
    EXPECT_EQ(flat->randLevel(), 0);
    twin.discard(2);
    EXPECT_EQ(*flat->engine, twin);

    TestMap map(java, 512, 3);
    std::map<int, int> counts;
    for (int i = 0; i < 16000; ++i) ++counts[map->randLevel()];
    EXPECT_EQ(counts.size(), 3U);
    EXPECT_NEAR(counts[0], 12000, 300);
    EXPECT_NEAR(counts[1], 3000, 300);
    EXPECT_NEAR(counts[2], 1000, 200);
}

TEST(Search, LinkFillsEmptyEntriesOnly) {
    FakeJava java;
    TestMap map(java);
    const auto node = [](int level) {
        return Node::create(Index::create(0, 1), Data::createEmpty(), level);
    };
    auto from = node(2);
    auto to = node(1);
    const auto other = node(0);
    from->next(0) = other;
    map->link(from, to);
    EXPECT_EQ(from->next(0), other);
    EXPECT_EQ(from->next(1), to);
    EXPECT_EQ(from->next(2), nullptr);
}

}  // namespace
