package stor.device.skiplist;

import static org.junit.jupiter.api.Assertions.assertEquals;

import java.util.List;
import java.util.stream.Stream;
import org.junit.jupiter.api.AfterEach;
import org.junit.jupiter.api.Test;
import stor.device.replay.CheckedMap;
import stor.device.replay.CountedBuffers;
import stor.device.replay.Location;
import stor.device.replay.Range;
import stor.device.replay.Timings;

/** Ranges of one continuous stretch, where a fused length just fits into 31 bits or just not. */
class LongRangesTest {
    private static final int MOST = Integer.MAX_VALUE;
    // Longer than any distance here: file offsets advance like logical ones.
    private static final int SECTOR_SIZE = Integer.MAX_VALUE;

    private final CheckedMap map =
            new CheckedMap(4, SECTOR_SIZE, new CountedBuffers(), new Timings());

    @AfterEach
    void compareAndDestroy() {
        map.checkAll();
        map.close();
    }

    @Test
    void theLeftNeighbourIsTriedBeforeTheRight() {
        store(0, MOST - 10);
        store(MOST, 5);
        store(MOST - 10, 10);
        assertLengths(MOST, 5);
    }

    @Test
    void theRightNeighbourMayFitWhereTheLeftDoesNot() {
        store(0, MOST);
        store(MOST + 10L, 5);
        store(MOST, 10);
        assertLengths(MOST, 15);
    }

    @Test
    void aRangeDoesNotGrowRightwardsToTheVeryLongestLength() {
        store(10, MOST - 10);
        store(0, 20);
        assertLengths(20, MOST - 20);
    }

    @Test
    void aRangeGrowsRightwardsToTheLengthBelowThat() {
        store(10, MOST - 11);
        store(0, 20);
        assertLengths(MOST - 1);
    }

    @Test
    void aRangeBetweenTwoGrowsToTheVeryLongestLength() {
        store(0, 10);
        store(MOST - 10, 10);
        store(5, MOST - 10);
        assertLengths(MOST);
    }

    @Test
    void aRangeBetweenTwoGrowsLeftwardsIfItCannotTakeBoth() {
        store(0, 10);
        store(MOST - 10, 11);
        store(5, MOST - 10);
        assertLengths(MOST - 5, 6);
    }

    @Test
    void aRangeBetweenTwoGrowsRightwardsIfTheLeftIsTooFar() {
        store(0, 200);
        store(MOST, 100);
        store(100, MOST - 50);
        assertLengths(100, MOST);
    }

    private void store(long start, int length) {
        map.insert(start, length, new Location(false, (byte) 1, (int) start, 1, 1));
    }

    private void assertLengths(Integer... lengths) {
        List<Integer> stored =
                StoredRanges.of(map.handle()).stream().map(Range::length).toList();
        assertEquals(Stream.of(lengths).toList(), stored);
    }
}
