package stor.device.skiplist;

import static org.junit.jupiter.api.Assertions.assertEquals;
import static org.junit.jupiter.api.Assertions.assertTrue;

import org.junit.jupiter.api.Test;
import org.junit.jupiter.api.extension.ExtendWith;

/** Drops very many ranges in one call, on a small stack. */
@ExtendWith(LeakHunt.class)
class StackDepthTest {
    private static final long STACK_BYTES = 256 * 1024;
    private static final int MANY = 300_000;
    private static final int VERY_MANY = 1_000_000;
    private static final int LENGTH = 8;
    private static final int WHOLE = VERY_MANY * LENGTH;
    // No sector ends within a test: file offsets advance like logical ones.
    private static final int SECTOR_SIZE = 1 << 30;
    private static final byte FIRST = 1;
    private static final byte SECOND = 2;

    @Test
    void anInsertReplacesManyRangesAndFusesWithBothNeighbours() throws Exception {
        InThread.call(STACK_BYTES, () -> {
            int end = MANY * LENGTH;
            long map = alternating(MANY);
            JniSkipListNative.insert(map, -LENGTH, LENGTH, 0, 1, 1, FIRST);
            JniSkipListNative.insert(map, end, LENGTH, end + LENGTH, 1, 1, FIRST);
            JniSkipListNative.insert(map, 0, end, LENGTH, 1, 1, FIRST);
            assertEquals(1, JniSkipListNative.getSkipListSize(map));
            assertEquals(end + 2 * LENGTH, JniSkipListNative.getSkipListValidLen(map));
            JniSkipListNative.destorySkipList(map);
            return null;
        });
    }

    @Test
    void compareAndSetFusesManyPiecesWithTheirNeighbours() throws Exception {
        InThread.call(STACK_BYTES, () -> {
            long map = alternating(2 * MANY);
            assertTrue(JniSkipListNative.compareAndSet(
                    map, 0, WHOLE, 0, 1, 1, FIRST, 0, 1, 1, SECOND));
            assertEquals(1, JniSkipListNative.getSkipListSize(map));
            assertEquals(3 * MANY, JniSkipListNative.getSkipListRawCount(map));
            JniSkipListNative.destorySkipList(map);
            return null;
        });
    }

    @Test
    void aCopyDropsVeryManyRanges() throws Exception {
        InThread.call(STACK_BYTES, () -> {
            long source = JniSkipListNative.createSkipList(1, SECTOR_SIZE);
            JniSkipListNative.insert(source, 0, WHOLE, 0, 1, 1, FIRST);
            long map = alternating(VERY_MANY);
            JniSkipListNative.copySkipList(source, map);
            assertEquals(1, JniSkipListNative.getSkipListSize(map));
            JniSkipListNative.destorySkipList(source);
            JniSkipListNative.destorySkipList(map);
            return null;
        });
    }

    @Test
    void destroyingDropsVeryManyRanges() throws Exception {
        InThread.call(STACK_BYTES, () -> {
            long map = alternating(VERY_MANY);
            assertEquals(VERY_MANY, JniSkipListNative.getSkipListSize(map));
            JniSkipListNative.destorySkipList(map);
            return null;
        });
    }

    /**
     * Makes a map of adjacent ranges that lie in two files in turn. It has a single level: with
     * more, each range of a higher level is held by a second link, and no chain of ranges that
     * hang on one another is long. It is filled from its end, where no search has to walk.
     */
    private static long alternating(int count) {
        long map = JniSkipListNative.createSkipList(1, SECTOR_SIZE);
        for (int i = count - 1; i >= 0; i--) {
            byte number = i % 2 == 0 ? FIRST : SECOND;
            JniSkipListNative.insert(map, (long) i * LENGTH, LENGTH, i * LENGTH, 1, 1, number);
        }
        return map;
    }
}
