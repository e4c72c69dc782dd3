// What the random harness does not show: the exact answers of single rules, the operations that
// only C++ callers have, and that no change needs much stack.

#include <gtest/gtest.h>
#include <pthread.h>

#include <limits>
#include <map>
#include <thread>

#include "support/Faults.h"
#include "support/TestMap.h"

namespace {

constexpr int longest = std::numeric_limits<int>::max();

class Map : public testing::Test {
  protected:
    FakeJava java;
    TestMap map{java};
};

TEST_F(Map, NeighboursFuseOnlyWhereFileAndDeviceRunTogether) {
    const Stored stored = inFile(100, 100, 1000);
    for (const Stored& apart :
         {inFile(200, 100, 1101), inFile(200, 100, 1100, 9), inFile(200, 100, 1100, 1, 9),
          inFile(200, 100, 1100, 1, 2, 9), inFile(201, 100, 1101), inFile(200, 9, -1, -1, -1)}) {
        TestMap fresh(java);
        fresh.insert(stored);
        fresh.insert(apart);
        EXPECT_EQ(fresh.all(), (Ranges{stored, apart}));
    }
    map.insert(stored);
    map.insert(inFile(200, 1, 1100));
    map.insert(inFile(50, 50, 950));
    EXPECT_EQ(map.all(), (Ranges{inFile(50, 151, 950)}));
    map.insert(inFile(100, 100, 0, 9));
    EXPECT_EQ(map.all(),
              (Ranges{inFile(50, 50, 950), inFile(100, 100, 0, 9), inFile(200, 1, 1100)}));
    EXPECT_EQ(map.counters().validLen, 151);
    EXPECT_EQ(map.counters().rawLen, 251);
    EXPECT_EQ(map.counters().rawCount, 4);
}

// A sector's end advances the file by eight bytes.
TEST_F(Map, ConditionalChangesSeeWhatLiesWhereExpected) {
    map.insert(inFile(0, 1024, 0));
    EXPECT_FALSE(map.compareAndSet(inFile(512, 256, 8), inFile(0, 0, 0, 5, 5, 7)));
    EXPECT_TRUE(map.compareAndSet(inFile(512, 256, 520), inFile(0, 0, 0, 5, 5, 7)));
    EXPECT_EQ(map.all(),
              (Ranges{inFile(0, 512, 0), inFile(512, 256, 0, 5, 5, 7), inFile(768, 256, 776)}));
    map.insert(buffered(java, inFile(2048, 1024, 0)));
    const Stored release = inFile(2048, 1024, 0);
    EXPECT_EQ(map.compareAndRelease(inFile(2048, 512, 0)), 0);
    EXPECT_EQ(map.compareAndRelease(release), 1024);
    EXPECT_EQ(map.compareAndRelease(release), 0);
}

TEST_F(Map, LengthsThatDoNotFitAreNotMade) {
    const auto empty = [](long long offset, long long len, int number) {
        return inFile(offset, static_cast<int>(len), -1, -1, -1, number);
    };
    struct Case {
        std::vector<Stored> inserted;
        int ranges;
    };
    const long long half = 1LL << 30;
    const std::vector<Case> cases{
        {{empty(0, longest - 5, 1), empty(longest - 5LL, 5, 2)}, 1},
        {{empty(0, longest - 5, 1), empty(longest - 5LL, 6, 2)}, 2},
        // The right neighbour fits although the left one does not.
        {{empty(0, longest, 1), empty(longest + 5LL, 5, 2), empty(longest, 5, 3)}, 2},
        // Covering the left part of a connected range refuses just the one length.
        {{empty(10, longest - 10, 1), empty(0, 20, 2)}, 2},
        {{empty(10, longest - 11, 1), empty(0, 20, 2)}, 1},
        // What sticks out on both sides is joined as far as it fits.
        {{empty(0, half, 1), empty(half + 10, half - 11, 2), empty(half - 5, 20, 3)}, 1},
        {{empty(0, half, 1), empty(half + 10, half - 10, 2), empty(half - 5, 20, 3)}, 2},
    };
    for (const Case& each : cases) {
        TestMap fresh(java, longest);
        MapModel model(longest);
        for (const Stored& range : each.inserted) {
            fresh.insert(range);
            model.insert(range);
        }
        EXPECT_EQ(fresh->size, each.ranges) << each.inserted.back();
        EXPECT_EQ(snapshotOf(*fresh), model.state) << textOf(snapshotOf(*fresh));
    }
}

TEST_F(Map, PlaceOfTheLastInsertIsNotTrustedAmongRangesOutOfOrder) {
    const Setting<bool> slabsOfOne(BlockPool::slabsOfOne, true);
    TestMap flat(java, 512, 1);
    flat.insert(inFile(0, 100, 0));
    flat.insert(inFile(50, -20, 7));  // ends at 30, behind a range that ends at 50
    {
        const faults::Fault fault(faults::Kind::allocation, 1);  // the node's
        flat.insert(inFile(60, 5, 8));
    }
    flat.insert(inFile(40, 5, 9));
    EXPECT_EQ(snapshotOf(*flat).ranges[1], inFile(40, 5, 9));
}

TEST_F(Map, RecordsServeLikeNumbers) {
    auto index = Index::create(0, 100);
    auto stored = Data::create(0, 0, 1, 2, 3);
    map->insert(index, stored);
    const auto expected = Data::create(0, 0, 1, 2, 3);
    auto same = Data::create(*expected);
    auto moved = Data::create(0, 500, 9, 2, 3);
    EXPECT_TRUE(map->compareAndSet(index, same, moved));
    EXPECT_EQ(map.all(), (Ranges{inFile(0, 100, 500, 9)}));
    EXPECT_FALSE(map->compareAndSet(index, same, moved));

    const auto empty = Data::createEmpty();
    for (const auto& [offset, touches] :
         {std::pair{100, true}, {101, false}, {-50, true}, {-51, false}}) {
        const auto other = Index::create(offset, 50);
        const auto location = Data::create(0, offset, 1, 2, 3);
        EXPECT_EQ(map->isDataConnected(other, location, index, expected), touches) << offset;
        EXPECT_EQ(map->isEmptyDataConnected(other, empty, index, empty), touches) << offset;
        EXPECT_EQ(map->isConnected(other, location, index, expected), touches) << offset;
    }
    EXPECT_FALSE(expected->equalsVer(std::move(moved)));
    EXPECT_TRUE(expected->equalsVer(Data::create(1, 9, 1, 2, 5)));
}

TEST_F(Map, SearchesFindTheRangeThatHoldsAKeyOrTheNextOne) {
    std::shared_ptr<Node> first;
    std::shared_ptr<Node> last;
    map->findAll(first, last);
    EXPECT_EQ(first, last);
    for (const long long start : {0, 200, 300}) map.insert(inFile(start, 100, 5));
    for (const auto& [key, start] : std::map<long long, long long>{
             {-5, 0}, {99, 0}, {100, 200}, {150, 200}, {300, 300}, {399, 300}}) {
        EXPECT_EQ(map->findEqualGreater(key)->getOffset(), start) << "key " << key;
    }
    map->find(50, 200, first, last);
    EXPECT_EQ(first->getOffset(), 0);
    EXPECT_EQ(last->getOffset(), 300);

    auto before = Node::createArr(4);
    auto after = Node::createArr(4);
    auto overlapped = Node::createList();
    map->findRange(50, 200, before, after, overlapped);
    EXPECT_EQ(overlapped->size(), 2U);
    EXPECT_EQ(before->front(), map->head);
    EXPECT_EQ(after->front(), last);
    auto tooShort = Node::createArr(3);
    EXPECT_THROW(map->findRange(0, 20, before, tooShort, overlapped), std::out_of_range);
    EXPECT_THROW(Node::clearArr(5, std::move(before)), std::out_of_range);
    EXPECT_THROW(Node::createArr(-1), std::bad_alloc);
}

// With and without signposts. Nothing but the sanitizer's eyes is needed to see a search that
// writes.
TEST_F(Map, SearchesMayRunAtTheSameTime) {
    constexpr int ranges = 400;
    const auto countAll = [this] {
        int found = 0;
        for (int i = 0; i < ranges; ++i) {
            const SkipList::Run run = map->runOver(i * 200, 300);
            for (const Node* node = run.first; node != run.last; node = node->linked(0).get())
                found += node->getFileBuff() == nullptr ? node->getFileNumber() : 0;
            found += map->findEqualGreater(i * 200) == map->tail ? 1 : 0;
        }
        return found;
    };
    for (const int end : {50, ranges}) {
        for (int i = map->size; i < end; ++i) map.insert(inFile(i * 200, 100, 5));
        const int expected = countAll();
        int others = 0;
        std::thread other([&] { others = countAll(); });
        EXPECT_EQ(countAll(), expected);
        other.join();
        EXPECT_EQ(others, expected);
    }
}

TEST_F(Map, LevelsComeFromTwoStepsOfTheEnginePerDraw) {
    TestMap flat(java, 512, 1);
    std::minstd_rand0 twin = *flat->engine;
    EXPECT_EQ(flat->randLevel(), 0);
    twin.discard(2);
    EXPECT_EQ(*flat->engine, twin);
    TestMap three(java, 512, 3);
    std::map<int, int> counts;
    for (int i = 0; i < 16000; ++i) ++counts[three->randLevel()];
    EXPECT_EQ(counts.size(), 3U);
    EXPECT_NEAR(counts[0], 12000, 300);
    EXPECT_NEAR(counts[1], 3000, 300);

    auto from = Node::create(Index(0, 1), 2);
    auto to = Node::create(Index(0, 1), 1);
    from->next(0) = from->next(2) = map->tail;
    map->link(from, to);
    EXPECT_EQ(*from->forward, (std::vector{map->tail, to, map->tail}));
}

// Runs `body` with 256 KiB of stack.
void onSmallStack(void* (*body)(void*)) {
    pthread_attr_t attributes;
    pthread_t thread;
    ASSERT_EQ(pthread_attr_init(&attributes), 0);
    ASSERT_EQ(pthread_attr_setstacksize(&attributes, 256 * 1024), 0);
    ASSERT_EQ(pthread_create(&thread, &attributes, body, nullptr), 0);
    ASSERT_EQ(pthread_join(thread, nullptr), 0);
}

// In maps of one level: at each further one a link would hold its nodes, and cut a chain of
// destructions short.
TEST(SmallStack, DropsVeryManyRanges) {
    onSmallStack([](void*) -> void* {
        constexpr int many = 100'000;
        FakeJava java;
        // Touching ranges of two files in turn. From the last to the first, so that the place of
        // each is found at once.
        const auto fill = [](TestMap& map, int first, int last) {
            for (int i = last - 1; i >= first; --i)
                map.insert(inFile(i * 10LL, 10, i * 10, 1, 2, i % 2));
        };
        {
            TestMap map(java, 1 << 30, 1);
            map.insert(inFile(many * 10LL, 10, many * 10, 7));
            fill(map, 1, many);
            map.insert(inFile(0, 10, 0, 7));
            EXPECT_EQ(map->size, many + 1);
            map.insert(inFile(10, (many - 1) * 10, 10, 7));  // fuses with both neighbours
            EXPECT_EQ(map->size, 1);
        }
        TestMap map(java, 1 << 30, 1);
        fill(map, 0, many);
        EXPECT_TRUE(map.compareAndSet(inFile(0, many * 10, 0, 1, 2, 1), inFile(0, 0, 0, 1, 2, 0)));
        EXPECT_EQ(map->size, 1);  // piece by piece, each fused with both neighbours
        TestMap destroyed(java, 1 << 30, 1);
        fill(destroyed, 0, many);
        fill(map, 0, many);
        TestMap source(java, 1 << 30, 1);
        source.insert(inFile(0, many * 10, 0, 9));
        source.copyTo(map);
        EXPECT_EQ(map->size, 1);
        return nullptr;
    });
}

}  // namespace
