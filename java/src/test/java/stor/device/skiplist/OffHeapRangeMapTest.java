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
import java.util.stream.Stream;
import org.junit.jupiter.api.AfterEach;
import org.junit.jupiter.api.Test;
import org.junit.jupiter.api.extension.ExtendWith;

/** What random operations do not show: buffers in the caller's hands, garbage, memory, stacks. */
@ExtendWith(LeakHunt.class)
class OffHeapRangeMapTest {
    private static final int SECTOR = 512;
    private static final FileLocation AT = new FileLocation(200, 0, 1, 0);

    private final OffHeapRangeMap map = OffHeapRangeMap.createUnaligned(12, SECTOR);

    @AfterEach
    void checkAndClose() {
        map.checkInvariants();
        map.close();
    }

    /** With signposts, where no node may be looked for behind the last one. */
    @Test
    void bothEndsOfThePositionsAreFoundAmongManyRanges() {
        try (OffHeapRangeMap map = OffHeapRangeMap.createUnaligned(12, 1)) {
            long first = Long.MIN_VALUE + 1;
            long last = Long.MAX_VALUE - 1;
            map.insert(first, 8, new FileLocation(1, 0, 1, 0));
            map.insert(last - 8, 8, new FileLocation(1, 0, 2, 0));
            for (int i = 0; i < 600; i++) {
                map.insert(i * 16, 8, new FileLocation(1, i * 99, 3, i));
            }
            assertEquals(List.of(first, last - 1, last - 8, last - 8, first, first, 0L, last - 8),
                    Stream.of(map.get(first), map.get(last - 1), map.floor(last + 1), map.lower(last),
                            map.floor(first), map.ceiling(first - 1), map.higher(first),
                            map.last())
                            .map(range -> range.orElseThrow().offset()).toList());
            for (Optional<MappedRange> none : List.of(map.get(last + 1), map.get(last),
                    map.lower(first), map.lower(first - 1), map.ceiling(last + 1),
                    map.higher(last + 1), map.higher(last - 8))) {
                assertEquals(Optional.empty(), none);
            }
            assertEquals(8, map.remove(last - 8, 8));
        }
    }

    @Test
    void emptyRangesThatCopiesBringAreNotJoinedTooLong() {
        int most = Integer.MAX_VALUE / SECTOR * SECTOR;
        try (OffHeapRangeMap one = OffHeapRangeMap.create(4, SECTOR);
                OffHeapRangeMap other = OffHeapRangeMap.create(4, SECTOR)) {
            one.insert(0, most, FileLocation.EMPTY);
            other.insert(SECTOR - most, most, FileLocation.EMPTY);
            one.copyTo(map);
            assertThrows(IllegalArgumentException.class, () -> other.copyTo(map));
            map.checkInvariants();
        }
    }

    @Test
    void sectorsMayHaveAnyLength() {
        try (OffHeapRangeMap odd = OffHeapRangeMap.create(4, 500)) {
            odd.insert(500, 1000, AT);
            assertThrows(IllegalArgumentException.class, () -> odd.insert(500, 100, AT));
            assertThrows(IllegalArgumentException.class, () -> odd.insert(100, 500, AT));
        }
    }

    /** Each cut inside a sector, joined again, moves what follows by 8 bytes in its file. */
    @Test
    void rangesThatBuffersMoveInTheirFileAreNotJoinedTooLong() {
        int sector = 1 << 29;
        long second = sector;
        long third = 2L * sector;
        ByteBuf one = Unpooled.wrappedBuffer(new byte[1]);
        try (OffHeapRangeMap map = OffHeapRangeMap.createUnaligned(4, sector)) {
            map.insert(Long.MIN_VALUE + sector, sector, AT);
            map.insert(Long.MAX_VALUE - third + 1, sector, AT);
            int inFile = 2 * sector - 17;
            map.insert(third, 2 * sector, new FileLocation(1, inFile, 1, 1));
            for (int i = 0; i < 5; i++, inFile += 8) {
                FileLocation before = new FileLocation(1, inFile - sector, 1, 1);
                map.insert(second, sector, before);
                map.insert(second, 1, AT, one);
                map.insert(third, sector, new FileLocation(1, inFile, 1, 1));
                map.insert(second, sector, before);
                map.insert(third - 1, 1, AT, one);
            }
            map.insert(second, sector, new FileLocation(1, inFile - sector - 8, 1, 1));
            FileLocation first = new FileLocation(1, inFile - 2 * sector - 16, 1, 1);
            assertThrows(IllegalArgumentException.class, () -> map.insert(0, 2 * sector, first));
            map.checkInvariants();
        }
    }

    /** Otherwise all tests are of the queries by native methods, which one has for itself. */
    @Test
    void nativeMemoryIsReadInPlace() {
        assertTrue(NativeLayout.IS_TRUSTED);
    }

    @Test
    void aVisitMakesNoObjectForARange() {
        for (int i = 0; i < 10_000; i++) {
            map.insert(2L * i * SECTOR, SECTOR, AT);
        }
        long[] sum = new long[1];
        Visitor visitor = (offset, len, number, fileOffset, major, minor, range) ->
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
    void exactlyTheFirstBytesOfALongerBufferAreStored() {
        ByteBuf buffer = Unpooled.wrappedBuffer(new byte[] {9, 1, 2, 3, 9}).skipBytes(1);
        map.insert(0, 3, AT, buffer);
        assertEquals(4, buffer.readableBytes());
        assertEquals(List.of("[1, 2, 3]"), storedBytes());
        // Reading moved the indices of the borrowed buffer only: the map's own still cut and copy.
        map.insert(1, 1, AT);
        assertEquals(List.of("[1]", "none", "[3]"), storedBytes());
        assertEquals(2, map.release());
        assertEquals(1, buffer.refCnt());
        buffer.release();
    }

    @Test
    void aRetainedBufferOutlivesItsMap() {
        List<ByteBuf> retained = new ArrayList<>();
        try (OffHeapRangeMap shortLived = OffHeapRangeMap.createUnaligned(1, SECTOR)) {
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
    void theRestOfACutEmptyRangeIsUnversionedButNotEmpty() {
        map.insert(0, 4 * SECTOR, FileLocation.EMPTY);
        map.insert(SECTOR, SECTOR, AT);
        RangeBatch batch = new RangeBatch(3);
        assertFalse(map.read(0, 4 * SECTOR, batch));
        FileLocation rest = batch.range(2).location();
        assertEquals(new FileLocation(0, -1 + 2 * SECTOR + 16, -1, -1), rest);
        assertTrue(rest.isUnversioned());
        assertFalse(rest.isEmpty());
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
            OutOfMemoryError error = assertThrows(
                    OutOfMemoryError.class, () -> map.insert(0, SECTOR, AT));
            assertTrue(error.getMessage().startsWith(
                    "JNI memory exceeds the set maximum. memMax: 1 old:"), error.getMessage());
            assertEquals(Optional.empty(), map.first());
        } finally {
            NativeMemory.setLimit(limit);
        }
        map.insert(0, SECTOR, AT);
    }

    @Test
    void theStackOfASmallThreadIsEnoughToDropAMillionRanges() throws Exception {
        int many = 1_000_000;
        InThread.call(256 * 1024, () -> {
            // With more than one level, chains of ranges that hang on one another are short.
            try (OffHeapRangeMap overwritten = OffHeapRangeMap.createUnaligned(1, 1 << 30);
                    OffHeapRangeMap closed = OffHeapRangeMap.createUnaligned(1, 1 << 30)) {
                for (int i = many; i > 0; i--) {
                    FileLocation apart = new FileLocation(i % 2, 0, 1, 0);
                    overwritten.insert(8L * i, 8, apart);
                    closed.insert(8L * i, 8, apart);
                }
                assertEquals(many, overwritten.size());
                overwritten.insert(0, 8 * (many + 1), AT);
                assertEquals(1, overwritten.size());
            }
            return null;
        });
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
