package stor.device.skiplist;

import static org.junit.jupiter.api.Assertions.assertEquals;
import static org.junit.jupiter.api.Assertions.assertThrows;
import static org.junit.jupiter.api.Assertions.assertTrue;

import io.netty.buffer.ByteBuf;
import io.netty.buffer.Unpooled;
import java.io.ByteArrayInputStream;
import java.io.ByteArrayOutputStream;
import java.io.IOException;
import java.nio.ByteBuffer;
import java.nio.channels.Channels;
import java.util.ArrayList;
import java.util.Arrays;
import java.util.List;
import java.util.Random;
import java.util.zip.CRC32C;
import org.junit.jupiter.api.Test;

/** Maps in files: what was saved is loaded, and what is damaged is refused. */
class MapFileTest {
    private static final int SECTOR = 512;
    private static final int MUTANTS = Integer.getInteger("skiplist.test.mutants", 100_000);

    private final Random random = new Random(13);

    @Test
    void whatWasSavedIsLoaded() throws IOException {
        int[] sizes = {0, 1, 30, 20_000};
        for (int size : sizes) {
            try (OffHeapRangeMap map = randomMap(size);
                    OffHeapRangeMap loaded = load(save(map))) {
                assertEquals(ranges(map), ranges(loaded));
                assertEquals(map.sectorSize(), loaded.sectorSize());
                loaded.checkInvariants();
            }
        }
        // One after another in a single channel, with something behind: nothing is read too much.
        try (OffHeapRangeMap map = randomMap(30)) {
            byte[] file = save(map);
            ByteArrayInputStream in = new ByteArrayInputStream(concat(file, file, new byte[5]));
            OffHeapRangeMap.load(Channels.newChannel(in)).close();
            try (OffHeapRangeMap second = OffHeapRangeMap.load(Channels.newChannel(in))) {
                assertEquals(ranges(map), ranges(second));
            }
            assertEquals(5, in.available());
        }
    }

    @Test
    void neighboursTakeFewBytes() throws IOException {
        try (OffHeapRangeMap map = OffHeapRangeMap.create(12, SECTOR)) {
            for (int i = 0; i < 10_000; i++) {
                map.insert(8L * SECTOR * i, 8 * SECTOR,
                        new FileLocation(random.nextInt(4), random.nextInt(1 << 13) * 520, 1, 0));
            }
            assertTrue(save(map).length < 7 * 10_000, "bytes: " + save(map).length);
        }
    }

    @Test
    void buffersAreRefusedOrLeftOut() throws IOException {
        ByteBuf bytes = Unpooled.buffer(SECTOR).writeZero(SECTOR);
        FileLocation place = new FileLocation(7, 0, 1, 2);
        try (OffHeapRangeMap map = OffHeapRangeMap.create(12, SECTOR)) {
            map.insert(SECTOR, SECTOR, place, bytes);
            ByteArrayOutputStream out = new ByteArrayOutputStream();
            IllegalStateException refused = assertThrows(IllegalStateException.class,
                    () -> map.save(Channels.newChannel(out)));
            assertTrue(refused.getMessage().contains("offset 512"), refused.getMessage());
            assertEquals(0, out.size());
            map.save(Channels.newChannel(out), BufferedRanges.KEEP_LOCATION);
            try (OffHeapRangeMap loaded = load(out.toByteArray())) {
                assertEquals(List.of(new MappedRange(SECTOR, SECTOR, false, place)),
                        ranges(loaded));
            }
            map.release();
            load(save(map)).close();
        }
        assertEquals(1, bytes.refCnt());
    }

    /** Half of the mutants get checksums that fit, so that what is behind these is tried, too. */
    @Test
    void whatIsDamagedIsRefusedAndLeavesNothing() throws Exception {
        long before = NativeMemory.openMaps();
        List<byte[]> files = new ArrayList<>();
        for (int size : new int[] {0, 1, 3, 40}) {
            try (OffHeapRangeMap map = randomMap(size)) {
                files.add(save(map));
            }
        }
        int refused = 0;
        for (int i = 0; i < MUTANTS; i++) {
            byte[] file = files.get(random.nextInt(files.size()));
            byte[] mutant = mutate(file);
            boolean sealed = random.nextBoolean();
            if (sealed) {
                seal(mutant);
            }
            try (OffHeapRangeMap loaded = load(mutant)) {
                boolean whole = mutant.length >= file.length
                        && Arrays.equals(file, Arrays.copyOf(mutant, file.length));
                assertTrue(sealed || whole, () -> "loaded: " + Arrays.toString(mutant));
                loaded.checkInvariants();
            } catch (IOException e) {
                refused++;
                assertTrue(e.getMessage().matches("load: block at byte \\d+: .*(?s)"),
                        e.getMessage());
            }
        }
        assertTrue(refused > MUTANTS / 2, "refused: " + refused);
        // Maps that other tests have lost may go meanwhile.
        long after = NativeMemory.openMaps();
        assertTrue(after <= before, after + " open maps (expected: at most " + before + ")");
    }

    private byte[] mutate(byte[] file) {
        int at = random.nextInt(file.length);
        int to = Math.min(file.length, at + random.nextInt(12));
        byte[] head = Arrays.copyOf(file, at);
        byte[] tail = Arrays.copyOfRange(file, to, file.length);
        switch (random.nextInt(5)) {
            case 0:
                return head;
            case 1:
                return concat(head, tail);
            case 2:
                return concat(Arrays.copyOf(file, to), file);
            case 3:
                byte[] noise = new byte[to - at];
                random.nextBytes(noise);
                return concat(head, noise, tail);
            default:
                byte[] flipped = file.clone();
                flipped[at] ^= (byte) (1 << random.nextInt(Byte.SIZE));
                return flipped;
        }
    }

    /** Writes fitting checksums as far as the lengths of the blocks make sense. */
    private static void seal(byte[] file) {
        ByteBuffer bytes = ByteBuffer.wrap(file);
        CRC32C checksum = new CRC32C();
        int end = MapFile.HEADER_BYTES;
        for (int start = 0; end >= start && end + Integer.BYTES <= file.length;) {
            checksum.update(file, start, end - start);
            bytes.putInt(end, (int) checksum.getValue());
            checksum.update(file, end, Integer.BYTES);
            start = end + Integer.BYTES;
            int length = start + Integer.BYTES <= file.length ? bytes.getInt(start) : 0;
            end = start + Integer.BYTES + (length == 0 ? Long.BYTES : length);
        }
    }

    private OffHeapRangeMap randomMap(int size) {
        OffHeapRangeMap map = OffHeapRangeMap.createUnaligned(1 + random.nextInt(12), SECTOR);
        for (int i = 0; i < size; i++) {
            FileLocation location = random.nextInt(8) == 0 ? FileLocation.EMPTY
                    : new FileLocation(random.nextInt(256), random.nextInt(), random.nextInt(3),
                            random.nextInt());
            long spread = 1L << 20 + random.nextInt(40);
            map.insert(random.nextLong() % spread * SECTOR / 1024, 1 + random.nextInt(SECTOR),
                    location);
        }
        return map;
    }

    private static List<MappedRange> ranges(OffHeapRangeMap map) {
        List<MappedRange> ranges = new ArrayList<>();
        map.forEach((offset, len, number, place, majorVer, minorVer, range) -> ranges.add(
                new MappedRange(offset, len, range.isMemoryType(),
                        new FileLocation(number, place, majorVer, minorVer))));
        return ranges;
    }

    private static byte[] save(OffHeapRangeMap map) throws IOException {
        ByteArrayOutputStream out = new ByteArrayOutputStream();
        map.save(Channels.newChannel(out));
        return out.toByteArray();
    }

    private static OffHeapRangeMap load(byte[] file) throws IOException {
        return OffHeapRangeMap.load(Channels.newChannel(new ByteArrayInputStream(file)));
    }

    private static byte[] concat(byte[]... parts) {
        ByteArrayOutputStream all = new ByteArrayOutputStream();
        for (byte[] part : parts) {
            all.writeBytes(part);
        }
        return all.toByteArray();
    }
}
