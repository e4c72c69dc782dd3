package stor.device.skiplist;

import static org.junit.jupiter.api.Assertions.assertEquals;
import static org.junit.jupiter.api.Assertions.assertThrows;

import io.netty.buffer.ByteBuf;
import io.netty.buffer.Unpooled;
import io.netty.util.IllegalReferenceCountException;
import java.util.List;
import org.junit.jupiter.api.AfterEach;
import org.junit.jupiter.api.Test;
import org.junit.jupiter.api.extension.ExtendWith;
import stor.device.replay.Range;

/** Lets methods of a buffer throw while the native side is in the middle of an operation. */
@ExtendWith(LeakHunt.class)
class BufferFailureTest {
    private static final String SLICE_FAILED =
            "Buff::Buff JNI CallObjectMethod(byte_buf_retained_slice) failed";
    private static final String SUB_SLICE_FAILED =
            "Buff::Buff JNI CallObjectMethod(byte_buf_retained_slice_params) failed";
    private static final int LENGTH = 100;
    private static final byte NUMBER = 3;

    private final long map = JniSkipListNative.createSkipList(4, 512);
    private final long other = JniSkipListNative.createSkipList(4, 512);

    @AfterEach
    void destroyTheMaps() {
        JniSkipListNative.destorySkipList(map);
        JniSkipListNative.destorySkipList(other);
    }

    @Test
    void aRangeWhoseBufferIsTooShortForAnyPieceStaysWhole() {
        ByteBuf buffer = Unpooled.buffer().writeZero(30);
        assertCutFailsAndChangesNothing(buffer);
    }

    @Test
    void aRangeWhoseBufferIsTooShortForTheSecondPieceStaysWhole() {
        ByteBuf buffer = Unpooled.buffer().writeZero(70);
        assertCutFailsAndChangesNothing(buffer);
    }

    @Test
    void aReleasedBufferIsNotStored() {
        ByteBuf buffer = Unpooled.buffer().writeZero(LENGTH);
        buffer.release();
        assertFails(SLICE_FAILED, () -> store(buffer));
        assertEquals(List.of(), StoredRanges.of(map));
        assertEquals(0, JniSkipListNative.getSkipListRawCount(map));
        assertMapWorks();
    }

    @Test
    void aRangeWhoseSliceWasReleasedBehindTheMapsBackCanStillBeOverwritten() {
        ByteBuf buffer = storeAndReleaseBehindTheMapsBack();
        // The range is dropped as asked; what its buffer threw is left for the caller to see.
        assertThrows(IllegalReferenceCountException.class,
                () -> JniSkipListNative.insert(map, 0, LENGTH, 7, 1, 2, NUMBER));
        assertEquals(0, buffer.refCnt());
        assertEquals(7, StoredRanges.of(map).get(0).location().offset());
        assertMapWorks();
    }

    @Test
    void aRangeWhoseSliceWasReleasedBehindTheMapsBackIsNotCopied() {
        storeAndReleaseBehindTheMapsBack();
        assertFails(SLICE_FAILED, () -> JniSkipListNative.copySkipList(map, other));
        assertEquals(List.of(), StoredRanges.of(other));
        assertThrows(IllegalReferenceCountException.class, () -> JniSkipListNative.release(map));
        assertMapWorks();
    }

    @Test
    void aMapWhoseSliceWasReleasedBehindItsBackCanBeDestroyed() {
        long doomed = JniSkipListNative.createSkipList(4, 512);
        ByteBuf buffer = Unpooled.buffer().writeZero(LENGTH);
        JniSkipListNative.insertWithBuff(doomed, 0, LENGTH, 0, 1, 2, NUMBER, buffer);
        buffer.release(2);
        assertThrows(IllegalReferenceCountException.class,
                () -> JniSkipListNative.destorySkipList(doomed));
        assertMapWorks();
    }

    /** Stores 100 bytes with a shorter buffer and cuts them into [0, 40) and [60, 100). */
    private void assertCutFailsAndChangesNothing(ByteBuf buffer) {
        store(buffer);
        List<Range> before = StoredRanges.of(map);
        assertFails(SUB_SLICE_FAILED,
                () -> JniSkipListNative.insert(map, 40, 20, 0, 1, 2, NUMBER));
        assertEquals(before, StoredRanges.of(map));
        assertEquals(1, JniSkipListNative.getSkipListSize(map));
        assertEquals(LENGTH, JniSkipListNative.getSkipListValidLen(map));
        assertEquals(1, JniSkipListNative.getSkipListRawCount(map));
        long node = StoredRanges.nodes(map).get(0);
        assertEquals(buffer, JniSkipListNative.getNodeFileBuff(node));
        JniSkipListNative.release(map);
        assertEquals(1, buffer.refCnt());
        buffer.release();
        assertMapWorks();
    }

    private void assertMapWorks() {
        ByteBuf buffer = Unpooled.buffer().writeZero(LENGTH);
        JniSkipListNative.insertWithBuff(map, 0, LENGTH, 0, 1, 2, NUMBER, buffer);
        JniSkipListNative.insert(map, 40, 20, 0, 1, 2, NUMBER);
        assertEquals(3, StoredRanges.of(map).size());
        JniSkipListNative.release(map);
        assertEquals(1, buffer.refCnt());
        buffer.release();
    }

    private void store(ByteBuf buffer) {
        JniSkipListNative.insertWithBuff(map, 0, LENGTH, 0, 1, 2, NUMBER, buffer);
    }

    private ByteBuf storeAndReleaseBehindTheMapsBack() {
        ByteBuf buffer = Unpooled.buffer().writeZero(LENGTH);
        store(buffer);
        buffer.release(2);
        return buffer;
    }

    private static void assertFails(String message, Runnable operation) {
        RuntimeException thrown = assertThrows(RuntimeException.class, operation::run);
        assertEquals(message, thrown.getMessage());
    }
}
