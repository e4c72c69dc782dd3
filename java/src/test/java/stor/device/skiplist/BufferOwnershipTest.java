package stor.device.skiplist;

import static org.junit.jupiter.api.Assertions.assertEquals;
import static org.junit.jupiter.api.Assertions.assertNotNull;
import static org.junit.jupiter.api.Assertions.assertNull;
import static org.junit.jupiter.api.Assertions.assertSame;
import static org.junit.jupiter.api.Assertions.assertTrue;

import io.netty.buffer.ByteBuf;
import io.netty.buffer.Unpooled;
import java.lang.ref.Reference;
import java.lang.ref.ReferenceQueue;
import java.lang.ref.WeakReference;
import org.junit.jupiter.api.AfterEach;
import org.junit.jupiter.api.BeforeEach;
import org.junit.jupiter.api.Test;
import org.junit.jupiter.api.extension.ExtendWith;

/**
 * Counts the references to a buffer. Slices of an unpooled buffer share its count, so that each
 * slice that a map holds shows as one more.
 */
@ExtendWith(LeakHunt.class)
class BufferOwnershipTest {
    private static final int LENGTH = 100;
    private static final byte NUMBER = 3;
    private static final long COLLECTED_MILLIS = 10_000;

    private final ByteBuf buffer = Unpooled.buffer(LENGTH).writeZero(LENGTH);
    private long map;

    @BeforeEach
    void storeTheBuffer() {
        map = JniSkipListNative.createSkipList(4, 512);
        assertEquals(1, buffer.refCnt());
        JniSkipListNative.insertWithBuff(map, 0, LENGTH, 0, 1, 2, NUMBER, buffer);
        assertEquals(2, buffer.refCnt());
    }

    @AfterEach
    void destroyTheMap() {
        JniSkipListNative.destorySkipList(map);
        assertEquals(1, buffer.refCnt());
        assertTrue(buffer.release());
    }

    @Test
    void overwritingGivesTheBufferBack() {
        JniSkipListNative.insert(map, 0, LENGTH, 500, 1, 2, NUMBER);
        assertEquals(1, buffer.refCnt());
    }

    @Test
    void storingTheBufferAgainTakesTheNewSliceBeforeTheOldOneGoes() {
        JniSkipListNative.insertWithBuff(map, 0, LENGTH, 0, 1, 2, NUMBER, buffer);
        assertEquals(2, buffer.refCnt());
    }

    @Test
    void cuttingInTheMiddleLeavesASliceForEachPiece() {
        JniSkipListNative.insert(map, 40, 20, 500, 1, 2, NUMBER);
        assertEquals(3, buffer.refCnt());
        JniSkipListNative.insert(map, 0, 40, 500, 1, 2, NUMBER);
        assertEquals(2, buffer.refCnt());
    }

    @Test
    void compareAndReleaseGivesTheBufferBackWhereTheLocationIsStillTheExpectedOne() {
        assertEquals(0, JniSkipListNative.compareAndRelease(map, 0, LENGTH, 1, 1, 2, NUMBER));
        assertEquals(2, buffer.refCnt());
        long node = StoredRanges.nodes(map).get(0);
        assertEquals(
                LENGTH, JniSkipListNative.compareAndRelease(map, 0, LENGTH, 0, 1, 2, NUMBER));
        assertEquals(1, buffer.refCnt());
        assertNull(JniSkipListNative.getNodeFileBuff(node));
        assertTrue(JniSkipListNative.getNodeFileType(node));
        assertEquals(0, JniSkipListNative.compareAndRelease(map, 0, LENGTH, 0, 1, 2, NUMBER));
    }

    @Test
    void releaseGivesAllBuffersBackOnce() {
        JniSkipListNative.insertWithBuff(map, LENGTH, 10, 0, 1, 2, NUMBER, buffer);
        assertEquals(3, buffer.refCnt());
        assertEquals(LENGTH + 10, JniSkipListNative.release(map));
        assertEquals(1, buffer.refCnt());
        assertEquals(0, JniSkipListNative.release(map));
    }

    @Test
    void readingABufferBorrowsIt() {
        ByteBuf first = JniSkipListNative.getNodeFileBuff(StoredRanges.nodes(map).get(0));
        assertEquals(LENGTH, first.readableBytes());
        assertEquals(2, buffer.refCnt());
    }

    @Test
    void aSliceThatWasGivenBackCanBeCollected() throws InterruptedException {
        ReferenceQueue<ByteBuf> collected = new ReferenceQueue<>();
        Reference<ByteBuf> slice = new WeakReference<>(
                JniSkipListNative.getNodeFileBuff(StoredRanges.nodes(map).get(0)), collected);
        JniSkipListNative.release(map);
        System.gc();
        assertSame(slice, collected.remove(COLLECTED_MILLIS));
    }

    @Test
    void aNullBufferIsStoredAsMemoryTypeWithoutBuffer() {
        JniSkipListNative.insertWithBuff(map, LENGTH, 10, 0, 1, 2, NUMBER, null);
        long node = StoredRanges.nodes(map).get(1);
        assertTrue(JniSkipListNative.getNodeFileType(node));
        assertNull(JniSkipListNative.getNodeFileBuff(node));
        assertEquals(2, buffer.refCnt());
    }

    @Test
    void aCopyIsGivenBackThroughItsOwnMapOnAnyThread() throws Exception {
        long copy = JniSkipListNative.createSkipList(4, 512);
        JniSkipListNative.copySkipList(map, copy);
        assertEquals(3, buffer.refCnt());
        InThread.call(() -> overwrite(map));
        assertEquals(2, buffer.refCnt());
        assertNotNull(JniSkipListNative.getNodeFileBuff(StoredRanges.nodes(copy).get(0)));
        InThread.call(() -> {
            JniSkipListNative.destorySkipList(copy);
            return null;
        });
        assertEquals(1, buffer.refCnt());
    }

    @Test
    void aCopyOutlivesItsSource() throws Exception {
        long copy = JniSkipListNative.createSkipList(4, 512);
        JniSkipListNative.copySkipList(map, copy);
        InThread.call(() -> {
            JniSkipListNative.destorySkipList(map);
            return null;
        });
        assertEquals(2, buffer.refCnt());
        InThread.call(() -> overwrite(copy));
        assertEquals(1, buffer.refCnt());
        map = copy;
    }

    private static Void overwrite(long map) {
        JniSkipListNative.insert(map, 0, LENGTH, 500, 1, 2, NUMBER);
        return null;
    }
}
