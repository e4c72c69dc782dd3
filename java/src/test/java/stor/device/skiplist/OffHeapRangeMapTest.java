package stor.device.skiplist;

import static org.junit.jupiter.api.Assertions.assertEquals;
import static org.junit.jupiter.api.Assertions.assertFalse;
import static org.junit.jupiter.api.Assertions.assertThrows;
import static org.junit.jupiter.api.Assertions.assertTrue;

import com.sun.management.ThreadMXBean;
import io.netty.buffer.ByteBuf;
import io.netty.buffer.PooledByteBufAllocator;
import io.netty.buffer.Unpooled;
import java.lang.management.ManagementFactory;
import java.util.ArrayList;
import java.util.Arrays;
import java.util.List;
import java.util.Optional;
import java.util.Random;
import org.junit.jupiter.api.AfterEach;
import org.junit.jupiter.api.Test;
import org.junit.jupiter.api.extension.ExtendWith;
import org.junit.jupiter.params.ParameterizedTest;
import org.junit.jupiter.params.provider.ValueSource;

/** What a map answers, on a few ranges of sectors of 512 bytes. */
@ExtendWith(LeakHunt.class)
class OffHeapRangeMapTest {
    private static final int MOST = Integer.MAX_VALUE;
    private static final int SECTOR = 512;
    private static final FileLocation AT = new FileLocation(200, 0, 1, 0);
    private static final FileLocation ELSEWHERE = new FileLocation(3, 7, 2, 0);

    private final OffHeapRangeMap map = OffHeapRangeMap.create(12, SECTOR);

    @AfterEach
    void checkAndClose() {
        map.checkInvariants();
        map.close();
    }

    @Test
    void neighboursAreFoundFromEverywhere() {
        assertEquals(List.of("-", "-", "-", "-"), neighbours(0));
        map.insert(-SECTOR, SECTOR, AT);
        map.insert(1L << 40, SECTOR, ELSEWHERE);
        map.insert((1L << 40) + SECTOR, SECTOR, AT);
        String a = "-512";
        String b = String.valueOf(1L << 40);
        String c = String.valueOf((1L << 40) + SECTOR);
        assertEquals(List.of("-", a, a, c), neighbours(Long.MIN_VALUE));
        assertEquals(List.of("-", a, a, c), neighbours(-SECTOR - 1));
        assertEquals(List.of(a, a, a, c), neighbours(-SECTOR));
        assertEquals(List.of(a, b, a, c), neighbours(-1));
        assertEquals(List.of(a, b, a, c), neighbours(0));
        assertEquals(List.of(a, b, a, c), neighbours((1L << 40) - 1));
        assertEquals(List.of(b, b, a, c), neighbours(1L << 40));
        assertEquals(List.of(b, c, a, c), neighbours((1L << 40) + SECTOR - 1));
        assertEquals(List.of(c, "-", a, c), neighbours(Long.MAX_VALUE - 1));
        assertEquals(List.of(c, "-", a, c), neighbours(Long.MAX_VALUE));
    }

    @Test
    void rangesAtBothEndsOfAllOffsetsAreFound() {
        map.insert(Long.MIN_VALUE + 1, 1, AT);
        map.insert(Long.MAX_VALUE - 2, 1, AT);
        assertEquals(Long.MIN_VALUE + 1, map.floor(Long.MAX_VALUE - 3).orElseThrow().offset());
        assertEquals(Long.MAX_VALUE - 2, map.ceiling(Long.MIN_VALUE + 2).orElseThrow().offset());
        assertEquals(Long.MAX_VALUE - 2, map.last().orElseThrow().offset());
    }

    @Test
    void aVisitGivesEveryFieldInOrder() {
        map.insert(0, SECTOR, AT);
        map.insert(SECTOR, SECTOR, ELSEWHERE);
        List<String> visits = new ArrayList<>();
        map.forEach((offset, len, number, fileOffset, major, minor, range) -> visits.add(
                offset + " " + len + " " + number + " " + fileOffset + " " + major + " " + minor
                        + " " + range.isMemoryType() + " " + range.buffer()));
        assertEquals(
                List.of("0 512 200 0 1 0 false null", "512 512 3 7 2 0 false null"), visits);
    }

    @Test
    void aVisitMakesNoObjectForARange() {
        for (int i = 0; i < 10_000; i++) {
            map.insert(2L * i * SECTOR, SECTOR, AT);
        }
        long[] sum = new long[1];
        OffHeapRangeMap.Visitor visitor = (offset, len, number, fileOffset, major, minor, range) ->
                sum[0] += offset + len + number + fileOffset + major + minor;
        map.forEach(visitor);
        ThreadMXBean thread = (ThreadMXBean) ManagementFactory.getThreadMXBean();
        long id = Thread.currentThread().getId();
        long before = thread.getThreadAllocatedBytes(id);
        map.forEach(visitor);
        long allocated = thread.getThreadAllocatedBytes(id) - before;
        assertTrue(allocated < 1000, allocated + " bytes for 10000 ranges");
    }

    @Test
    void countersTellWhatWasInsertedAndWhatIsLeft() {
        map.insert(0, 2 * SECTOR, AT);
        map.insert(SECTOR, 2 * SECTOR, ELSEWHERE);
        assertEquals(2, map.size());
        assertEquals(3 * SECTOR, map.coveredBytes());
        assertEquals(4 * SECTOR, map.insertedBytes());
        assertEquals(2, map.insertCount());
    }

    @Test
    void exactlyTheFirstBytesOfALongerBufferAreStored() {
        ByteBuf buffer = Unpooled.wrappedBuffer(new byte[] {9, 1, 2, 3, 9}).skipBytes(1);
        map.insert(0, 3, AT, buffer);
        assertEquals(4, buffer.readableBytes());
        assertEquals(List.of("[1, 2, 3]"), storedBytes());
        map.insert(1, 1, AT);
        assertEquals(List.of("[1]", "none", "[3]"), storedBytes());
        assertEquals(2, map.release());
        assertEquals(1, buffer.refCnt());
        buffer.release();
    }

    @Test
    void movingTheIndicesOfABorrowedBufferDoesNotHarmTheMap() {
        ByteBuf buffer = Unpooled.wrappedBuffer(new byte[] {1, 2, 3});
        map.insert(0, 3, AT, buffer);
        buffer.release();
        map.forEach((o, l, n, f, major, minor, range) -> range.buffer().skipBytes(2));
        try (OffHeapRangeMap copy = OffHeapRangeMap.create(1, SECTOR)) {
            map.copyTo(copy);
            copy.checkInvariants();
        }
    }

    @Test
    void aRetainedBufferOutlivesItsMap() {
        List<ByteBuf> retained = new ArrayList<>();
        try (OffHeapRangeMap shortLived = OffHeapRangeMap.create(1, SECTOR)) {
            ByteBuf buffer = PooledByteBufAllocator.DEFAULT.buffer().writeLong(42);
            shortLived.insert(0, Long.BYTES, AT, buffer);
            buffer.release();
            shortLived.forEach(
                    (o, l, n, f, major, minor, range) -> retained.add(range.retainedBuffer()));
        }
        assertEquals(42, retained.get(0).readLong());
        assertTrue(retained.get(0).release());
    }

    @Test
    void aFreshThreadMayCopyBuffers() throws Exception {
        ByteBuf buffer = Unpooled.wrappedBuffer(new byte[] {1, 2, 3});
        OffHeapRangeMap copy = InThread.call(() -> {
            map.insert(0, 3, AT, buffer);
            return OffHeapRangeMap.create(4, SECTOR);
        });
        try (copy) {
            InThread.call(() -> {
                map.copyTo(copy);
                return null;
            });
            assertEquals(3, buffer.refCnt());
            assertEquals(map.ranges(0, SECTOR), copy.ranges(0, SECTOR));
            assertEquals(3, InThread.call(map::release));
            copy.checkInvariants();
        }
        assertEquals(1, buffer.refCnt());
        buffer.release();
    }

    @Test
    void compareAndSetRedirectsOnlyWhatIsStillThere() {
        map.insert(0, 4 * SECTOR, AT);
        map.insert(SECTOR, SECTOR, ELSEWHERE);
        FileLocation moved = new FileLocation(5, 0, 1, 0);
        assertTrue(map.compareAndSet(0, 4 * SECTOR, AT, moved));
        assertFalse(map.compareAndSet(0, 4 * SECTOR, AT, moved));
        assertEquals(List.of(moved, ELSEWHERE, moved.plus(2 * SECTOR, SECTOR)),
                map.ranges(0, 4 * SECTOR).stream().map(MappedRange::location).toList());
    }

    @Test
    void anEmptyLocationMayBeExpectedAndSet() {
        map.insert(0, 4 * SECTOR, FileLocation.EMPTY);
        assertTrue(map.compareAndSet(3 * SECTOR, SECTOR, FileLocation.EMPTY, AT));
        assertEquals(2, map.size());
        assertTrue(map.compareAndSet(3 * SECTOR, SECTOR, AT, FileLocation.EMPTY));
        assertEquals(3, map.insertCount());
        assertEquals(
                List.of(new MappedRange(0, 4 * SECTOR, false, FileLocation.EMPTY)),
                map.ranges(0, 4 * SECTOR));
    }

    @Test
    void theRestOfACutEmptyRangeIsUnversionedButNotEmpty() {
        map.insert(0, 4 * SECTOR, FileLocation.EMPTY);
        map.insert(SECTOR, SECTOR, AT);
        FileLocation rest = map.last().orElseThrow().location();
        assertEquals(new FileLocation(0, -1 + 2 * SECTOR + 16, -1, -1), rest);
        assertTrue(rest.isUnversioned());
        assertFalse(rest.isEmpty());
    }

    @Test
    void emptyRangesAreNotJoinedPastTheLongestLength() {
        map.insert(100, MOST, FileLocation.EMPTY);
        assertTooLong(100L + MOST, () -> map.insert(0, 200, FileLocation.EMPTY));
        assertTooLong(MOST + 1L,
                () -> map.insert(MOST - 100L, 201, FileLocation.EMPTY));
        map.insert(100L + MOST, 1, FileLocation.EMPTY);
        assertEquals(2, map.size());
    }

    @Test
    void continuedRangesAreNotJoinedPastTheLongestLength() {
        // The file goes on through negative offsets, as far as 32 bits tell.
        try (OffHeapRangeMap wide = OffHeapRangeMap.create(4, 1 << 30)) {
            FileLocation start = new FileLocation(1, -2_000_000_000, 1, 0);
            wide.insert(0, 100, start);
            wide.insert(200, MOST, start.plus(200, 1 << 30));
            FileLocation at100 = start.plus(100, 1 << 30);
            // Touches the left range, which it joins, and covers the start of the right one.
            assertTooLong(200L + MOST, () -> wide.insert(100, 200, at100));
            assertEquals(2, wide.size());
            wide.insert(100, 100, at100);
            assertEquals(List.of(200, MOST),
                    wide.ranges(0, MOST).stream().map(MappedRange::len).toList());
            FileLocation nearTheEnd = start.plus(MOST, 1 << 30);
            assertTooLong(MOST + 1L, () -> wide.insert(MOST, 201, nearTheEnd));
            assertTrue(wide.compareAndSet(200, 100, start.plus(200, 1 << 30), AT));
            wide.checkInvariants();
        }
    }

    @Test
    void aCopyIsNotJoinedPastTheLongestLength() {
        map.insert(0, MOST, FileLocation.EMPTY);
        try (OffHeapRangeMap other = OffHeapRangeMap.create(4, SECTOR)) {
            other.insert(MOST - 1L, 2, FileLocation.EMPTY);
            assertTooLong("copyTo", MOST + 1L, () -> other.copyTo(map));
        }
        assertEquals(1, map.size());
    }

    @ParameterizedTest
    @ValueSource(ints = {SECTOR, 1 << 29, 1 << 30})
    void noRandomInsertsOfLongRangesMakeOneTooLong(int sectorSize) {
        Random random = new Random(sectorSize);
        int refused = 0;
        for (int round = 0; round < 50; round++) {
            try (OffHeapRangeMap wide = OffHeapRangeMap.create(4, sectorSize)) {
                FileLocation origin = new FileLocation(1, -(1 << 30), 1, 0);
                for (int i = 0; i < 100; i++) {
                    long unit = 1L << 28;
                    long offset = unit * random.nextInt(24) + random.nextInt(2);
                    int len = (int) Math.min(MOST, unit * (1 + random.nextInt(8)));
                    FileLocation place = random.nextInt(3) == 0
                            ? FileLocation.EMPTY : origin.plus(offset, sectorSize);
                    try {
                        if (random.nextInt(4) > 0) {
                            wide.insert(offset, len, place);
                        } else {
                            wide.compareAndSet(offset, len, FileLocation.EMPTY, place);
                        }
                    } catch (IllegalArgumentException e) {
                        refused++;
                    }
                    wide.checkInvariants();
                }
            }
        }
        assertTrue(refused > 0, "nothing was refused");
    }

    @Test
    void nativeMemoryIsCountedAndLimited() {
        long limit = NativeMemory.limit();
        assertTrue(NativeMemory.bytesInUse() >= 0);
        long age = NativeMemory.millisSinceSweep();
        assertTrue(age >= 0 && age <= 6000, "age " + age);
        try {
            NativeMemory.setLimit(1);
            assertEquals(1, NativeMemory.limit());
            assertThrows(OutOfMemoryError.class, () -> map.insert(0, SECTOR, AT));
            assertEquals(Optional.empty(), map.first());
        } finally {
            NativeMemory.setLimit(limit);
        }
        map.insert(0, SECTOR, AT);
    }

    private static void assertTooLong(long length, Runnable insert) {
        assertTooLong("insert", length, insert);
    }

    private static void assertTooLong(String operation, long length, Runnable insert) {
        String message =
                assertThrows(IllegalArgumentException.class, insert::run).getMessage();
        assertTrue(message.startsWith(operation + ": offset: ") && message.endsWith(
                ": continues stored ranges to " + length + " bytes (expected: <= " + MOST + ")"),
                message);
    }

    private List<String> neighbours(long position) {
        return List.of(start(map.floor(position)), start(map.ceiling(position)),
                start(map.first()), start(map.last()));
    }

    private static String start(Optional<MappedRange> range) {
        return range.map(found -> String.valueOf(found.offset())).orElse("-");
    }

    private List<String> storedBytes() {
        List<String> bytes = new ArrayList<>();
        map.forEach((o, l, n, f, major, minor, range) -> {
            ByteBuf buffer = range.buffer();
            byte[] copy = new byte[buffer == null ? 0 : buffer.readableBytes()];
            if (buffer != null) {
                buffer.readBytes(copy);
            }
            bytes.add(buffer == null ? "none" : Arrays.toString(copy));
        });
        return bytes;
    }
}
