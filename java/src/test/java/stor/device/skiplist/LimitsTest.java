package stor.device.skiplist;

import static org.junit.jupiter.api.Assertions.assertArrayEquals;
import static org.junit.jupiter.api.Assertions.assertEquals;
import static org.junit.jupiter.api.Assertions.assertThrows;
import static org.junit.jupiter.api.Assertions.assertTrue;

import io.netty.buffer.ByteBuf;
import io.netty.buffer.Unpooled;
import java.util.Arrays;
import org.junit.jupiter.api.AfterEach;
import org.junit.jupiter.api.Test;
import org.junit.jupiter.api.extension.ExtendWith;
import stor.device.replay.CheckedMap;
import stor.device.replay.CountedBuffers;
import stor.device.replay.Location;
import stor.device.replay.Timings;

/** Bad arguments and the limit of native memory. */
@ExtendWith(LeakHunt.class)
class LimitsTest {
    private static final long DEFAULT_LIMIT = 10L << 30;
    private static final int NATIVE_BYTES_INDEX = 6;
    private static final int INDEX_BYTES = 24;
    private static final int ENV_BYTES = 32;
    private static final int BUFF_BYTES = 32;

    @AfterEach
    void restoreTheLimit() {
        assertEquals(0, JniSkipListNative.init(DEFAULT_LIMIT));
    }

    @Test
    void aHeightOrSectorSizeBelowOneIsRefused() {
        assertEquals("height is invalid", refusal(0, 0));
        assertEquals("height is invalid", refusal(-1, 512));
        assertEquals("sectorSize is invalid", refusal(1, 0));
        assertTrue(destroyed(JniSkipListNative.createSkipList(1, 1)) > 0);
    }

    @Test
    void destroyingNoMapDoesNothing() {
        JniSkipListNative.destorySkipList(0);
        assertEquals(0, JniSkipListNative.tryTest());
    }

    @Test
    void theEndMarkIsTheLastNodeAndReadsAsEmpty() {
        long map = JniSkipListNative.createSkipList(4, 512);
        long[] all = JniSkipListNative.getAllNodes(map);
        assertArrayEquals(all, JniSkipListNative.getNodes(map, 0, 100));
        assertEquals(all[0], all[1]);
        assertEquals(Long.MAX_VALUE, JniSkipListNative.getNodeIndexOffset(all[1]));
        assertEquals(0, JniSkipListNative.getNodeIndexLen(all[1]));
        assertEquals(0, JniSkipListNative.nextNode(all[1]));
        destroyed(map);
    }

    @Test
    void statisticsAreSevenNumbersOfWhichOnlyTheLastIsSet() {
        long[] stats = JniSkipListNative.getStats();
        assertEquals(7, stats.length);
        assertArrayEquals(new long[6], Arrays.copyOf(stats, 6));
        assertTrue(stats[NATIVE_BYTES_INDEX] >= 0);
    }

    @Test
    void whatTheLimitRefusesLeavesTheMapAsItWas() {
        CountedBuffers buffers = new CountedBuffers();
        Location at = new Location(false, (byte) 7, 0, 1, 1);
        try (CheckedMap map = new CheckedMap(4, 512, buffers, new Timings());
                CheckedMap copy = new CheckedMap(4, 512, buffers, new Timings())) {
            map.insert(0, 4096, at);
            map.insertWithBuff(8192, 4096, at, 1);
            JniSkipListNative.init(0);
            assertRefused(INDEX_BYTES, () -> map.insert(1024, 512, at));
            assertRefused(BUFF_BYTES, () -> JniSkipListNative.insertWithBuff(
                    map.handle(), 1024, 512, 0, 1, 1, (byte) 7, Unpooled.buffer()));
            assertRefused(INDEX_BYTES, () -> map.compareAndSet(0, 4096, at, at));
            assertRefused(INDEX_BYTES, () -> map.compareAndRelease(0, 4096, at));
            assertRefused(INDEX_BYTES, () -> map.copyTo(copy));
            assertRefused(ENV_BYTES, () -> JniSkipListNative.createSkipList(4, 512));
            map.checkAll();
            copy.checkAll();
            map.release();
            JniSkipListNative.init(DEFAULT_LIMIT);
            map.insertWithBuff(1024, 8192, at, 3);
            map.checkAll();
        }
        assertEquals(0, buffers.inUse());
    }

    @Test
    void aLimitReachedInTheMiddleOfAnInsertLeavesTheMapAsItWas() {
        ByteBuf buffer = Unpooled.buffer().writeZero(100);
        long map = JniSkipListNative.createSkipList(4, 512);
        JniSkipListNative.insertWithBuff(map, 0, 100, 0, 1, 1, (byte) 1, buffer);
        // Index and location fit one by one, the node that is to hold them does not.
        JniSkipListNative.init(sweptBytes() + 40);
        assertThrows(OutOfMemoryError.class,
                () -> JniSkipListNative.insert(map, 40, 20, 0, 1, 1, (byte) 2));
        assertEquals(1, StoredRanges.of(map).size());
        assertEquals(2, buffer.refCnt());
        JniSkipListNative.init(DEFAULT_LIMIT);
        JniSkipListNative.insert(map, 40, 20, 0, 1, 1, (byte) 2);
        assertEquals(3, StoredRanges.of(map).size());
        destroyed(map);
        assertEquals(1, buffer.refCnt());
    }

    private static void assertRefused(int bytes, Runnable operation) {
        // Read first: this may sweep, and no other sweep is due for seconds.
        String expected = "JNI memory exceeds the set maximum. memMax: 0 old:" + sweptBytes()
                + " used:" + bytes;
        OutOfMemoryError error = assertThrows(OutOfMemoryError.class, operation::run);
        assertEquals(expected, error.getMessage());
    }

    private static long sweptBytes() {
        return JniSkipListNative.getStats()[NATIVE_BYTES_INDEX];
    }

    private static String refusal(int height, int sectorSize) {
        return assertThrows(RuntimeException.class,
                () -> JniSkipListNative.createSkipList(height, sectorSize)).getMessage();
    }

    private static long destroyed(long map) {
        JniSkipListNative.destorySkipList(map);
        return map;
    }
}
