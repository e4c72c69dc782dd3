package stor.device.replay;

import static org.junit.jupiter.api.Assertions.assertEquals;
import static org.junit.jupiter.api.Assertions.assertThrows;
import static org.junit.jupiter.api.Assertions.assertTrue;

import java.io.IOException;
import java.lang.management.ManagementFactory;
import java.nio.file.Path;
import java.util.Arrays;
import java.util.Random;
import org.junit.jupiter.api.Test;
import org.junit.jupiter.api.function.Executable;
import org.junit.jupiter.api.io.TempDir;

/** A check is worth what it finds. */
class MirrorTest {
    private static final int SECTOR = 512;
    private static final int SECTORS = 1 << 12;
    private static final long SEED = 5;
    private static final Mirror.Watcher NOBODY = (pages, of) -> { };

    @TempDir
    private Path folder;

    /** Random writes, discards and snapshots beside a plain copy; each byte of which matters. */
    @Test
    void everyWrongByteIsFound() throws IOException {
        byte[] device = new byte[SECTORS * SECTOR];
        byte[] before = device.clone();
        Random random = new Random(SEED);
        try (Mirror mirror = new Mirror(folder, SECTOR, SEED, false)) {
            mirror.takeSnapshot();
            for (int id = 1; id < 3000; id++) {
                int at = random.nextInt(SECTORS - 64) * SECTOR;
                int length = (1 + random.nextInt(64)) * SECTOR;
                if (random.nextInt(4) == 0) {
                    mirror.discard(at, length);
                    Arrays.fill(device, at, at + length, (byte) 0);
                } else {
                    mirror.write(at, length, id);
                    Pattern.fill(device, at, length, at, Mirror.patternOf(id, SEED));
                }
                if (id % 700 == 0) {
                    mirror.takeSnapshot();
                    before = device.clone();
                }
            }
            byte[] snapshot = before;
            mirror.check("read", 0, device);
            assertEquals(device.length, mirror.checkAll(source(device), NOBODY));
            assertEquals(device.length,
                    mirror.checkSnapshot(source(snapshot), Long.MAX_VALUE, NOBODY));
            assertTrue(mirror.checkSnapshot(source(snapshot), 1, NOBODY) > 0);
            assertEquals(SECTORS, mirror.touchedSectors());
            assertEquals(live(device), mirror.liveSectors());
            for (int i = 0; i < 100; i++) {
                int at = random.nextInt(device.length);
                device[at] ^= 1;
                snapshot[at] ^= 1;
                String where = "sector at offset " + at / SECTOR * SECTOR + ", byte " + at % SECTOR;
                assertFound("read: " + where, () -> mirror.check("read", 0, device));
                assertFound("device: " + where, () -> mirror.checkAll(source(device), NOBODY));
                assertFound("snapshot: " + where,
                        () -> mirror.checkSnapshot(source(snapshot), Long.MAX_VALUE, NOBODY));
                device[at] ^= 1;
                snapshot[at] ^= 1;
            }
        }
    }

    /** Scattered pages, so many that the table grows; a sample knows about one in 16 of them. */
    @Test
    void scatteredWritesTakeNoHeapAndASampleEstimatesThem() throws IOException {
        long heap = usedHeap();
        try (Mirror all = new Mirror(folder, SECTOR, SEED, false);
                Mirror sample = new Mirror(folder, SECTOR, SEED, true)) {
            Random random = new Random(SEED);
            for (int id = 1; id <= 100_000; id++) {
                long at = (random.nextLong() >>> 22) * SECTOR;
                all.write(at, SECTOR, id);
                sample.write(at, SECTOR, id);
            }
            assertTrue(usedHeap() - heap < 8 << 20, "bytes: " + (usedHeap() - heap));
            assertEquals(100_000, all.liveSectors());
            assertEquals(100_000, sample.liveSectors(), 5_000);
            all.discard(0, Long.MAX_VALUE - SECTOR);
            assertEquals(0, all.liveSectors());
        }
    }

    private static long usedHeap() {
        System.gc();
        return ManagementFactory.getMemoryMXBean().getHeapMemoryUsage().getUsed();
    }

    private static Mirror.Source source(byte[] device) {
        return (offset, length) -> Arrays.copyOfRange(device, (int) offset, (int) offset + length);
    }

    private static long live(byte[] device) {
        long live = 0;
        for (int at = 0; at < device.length; at += SECTOR) {
            live += Arrays.equals(device, at, at + SECTOR, new byte[SECTOR], 0, SECTOR) ? 0 : 1;
        }
        return live;
    }

    private static void assertFound(String where, Executable check) {
        String found = assertThrows(Difference.class, check).getMessage();
        assertTrue(found.contains(where), found);
    }
}
