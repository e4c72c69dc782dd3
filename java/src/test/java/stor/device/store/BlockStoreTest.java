package stor.device.store;

import static org.junit.jupiter.api.Assertions.assertArrayEquals;
import static org.junit.jupiter.api.Assertions.assertDoesNotThrow;
import static org.junit.jupiter.api.Assertions.assertEquals;
import static org.junit.jupiter.api.Assertions.assertThrows;
import static org.junit.jupiter.api.Assertions.assertTrue;

import io.netty.buffer.ByteBuf;
import java.io.IOException;
import java.nio.file.Files;
import java.nio.file.Path;
import java.util.Arrays;
import java.util.List;
import java.util.Random;
import java.util.stream.Stream;
import org.junit.jupiter.api.AfterEach;
import org.junit.jupiter.api.Test;
import org.junit.jupiter.api.io.TempDir;
import stor.device.replay.CountedBuffers;
import stor.device.store.BlockStore.Step;

/**
 * The promises of the store, on a device of a few sectors. A device is written down as one digit a
 * sector: the byte that fills it, 0 for zeros.
 */
class BlockStoreTest {
    private static final int SECTOR = 512;
    private static final long NO_LIMIT = 1 << 30;
    private static final int SECTORS_IN_A_SEGMENT = 8;

    private final CountedBuffers buffers = new CountedBuffers();
    @TempDir
    private Path folder;
    private BlockStore store;

    @AfterEach
    void closingLeavesNothing() throws IOException {
        store.close();
        store.close();
        assertEquals(0, buffers.inUse());
        assertEquals(List.of(), segmentFiles());
        assertThrows(IllegalStateException.class, () -> write(0, "1"));
        assertThrows(IllegalStateException.class, () -> store.read(0, SECTOR));
    }

    @Test
    void whatWasWrittenIsReadWhereverItIs() throws IOException {
        open(NO_LIMIT);
        write(1, "11111111");
        assertHolds("0111111110");
        store.flush();
        write(2, "22");
        store.discard(5 * SECTOR, SECTOR);
        assertHolds("0122101110");
        // In the file map, in the frozen map and in the active one.
        killFlush(1, Step.FLUSH_BEGUN);
        write(3, "3");
        store.discard(2 * SECTOR, SECTOR);
        assertHolds("0103101110");
        store.flush();
        assertHolds("0103101110");
        assertArrayEquals(fill("31"), store.read(3 * SECTOR, 2 * SECTOR));
    }

    @Test
    void aHoleThatIsCutStaysAHole() throws IOException {
        open(NO_LIMIT);
        write(0, "1111111111");
        store.flush();
        store.discard(0, 9 * SECTOR);
        write(4, "2");
        store.flush();
        assertHolds("0000200001");
        store.discard(2 * SECTOR, 4 * SECTOR);
        assertHolds("0000000001");
        write(1, "3");
        assertHolds("0300000001");
    }

    @Test
    void aDiscardAndAWriteInTheMiddleOfAFlushHold() throws IOException {
        for (Step step : List.of(Step.FLUSH_BEGUN, Step.APPENDED, Step.PUBLISHED)) {
            open(NO_LIMIT);
            write(0, "1111111111");
            store.onStep(now -> {
                if (now == step) {
                    store.onStep(later -> { });
                    store.discard(3 * SECTOR, 4 * SECTOR);
                    assertDoesNotThrow(() -> write(6, "22"));
                }
            });
            store.flush();
            assertHolds("1110002211");
            store.flush();
            assertHolds("1110002211");
            store.close();
        }
    }

    @Test
    void aDamagedSectorIsNamed() throws IOException {
        open(NO_LIMIT);
        write(4, "123");
        store.flush();
        byte[] bytes = Files.readAllBytes(segmentFiles().get(0));
        bytes[SECTOR + Sectors.TRAILER_BYTES + 7] ^= 1;
        Files.write(segmentFiles().get(0), bytes);
        assertArrayEquals(fill("1"), store.read(4 * SECTOR, SECTOR));
        IOException found =
                assertThrows(IOException.class, () -> store.read(4 * SECTOR, 3 * SECTOR));
        assertTrue(found.getMessage().contains("offset 2560, segment 0"), found.getMessage());
    }

    @Test
    void requestsAreWholeSectors() {
        open(NO_LIMIT);
        assertThrows(IllegalArgumentException.class, () -> store.read(1, SECTOR));
        assertThrows(IllegalArgumentException.class, () -> store.read(-SECTOR, SECTOR));
        assertThrows(IllegalArgumentException.class, () -> store.discard(0, 0));
        assertThrows(IllegalArgumentException.class, () -> store.discard(0, 100));
    }

    @Test
    void compactionFreesSegmentsAndKeepsTheirData() throws IOException {
        open(NO_LIMIT);
        scatter();
        int before = segmentFiles().size();
        while (store.compact() > 0) {
            assertHolds("1919191919191919");
        }
        assertHolds("1919191919191919");
        assertTrue(segmentFiles().size() < before, before + " segments before");
    }

    @Test
    void onlyWhatIsUnchangedIsRedirected() throws IOException {
        open(NO_LIMIT);
        scatter();
        boolean[] interfered = new boolean[1];
        store.onStep(step -> {
            if (step == Step.COPIED && !interfered[0]) {
                interfered[0] = true;
                overwriteAll();
            }
        });
        while (store.compact() > 0) {
            assertHolds("0555555555555559");
        }
        assertTrue(interfered[0]);
        assertHolds("0555555555555559");
    }

    @Test
    void aSnapshotDoesNotChange() throws IOException {
        open(NO_LIMIT);
        scatter();
        write(2, "777");
        killFlush(1, Step.FLUSH_BEGUN);
        write(3, "8");
        Snapshot snapshot = store.snapshot();
        String then = "1978791919191919";
        overwriteAll();
        store.flush();
        while (store.compact() > 0) {
            assertArrayEquals(fill(then), snapshot.read(0, 16 * SECTOR));
        }
        assertArrayEquals(fill(then), snapshot.read(0, 16 * SECTOR));
        assertHolds("0555555555555559");
        int kept = segmentFiles().size();
        snapshot.close();
        snapshot.close();
        assertTrue(segmentFiles().size() < kept, kept + " segments before");
        assertHolds("0555555555555559");
        assertThrows(IllegalStateException.class, () -> snapshot.read(0, SECTOR));
    }

    @Test
    void aRefusedWriteIsDoneAfterAFlush() throws IOException {
        open(8 << 10);
        Random random = new Random(1);
        char[] device = "0".repeat(64).toCharArray();
        for (int i = 0; i < 5000; i++) {
            int sector = random.nextInt(device.length);
            device[sector] = (char) ('1' + random.nextInt(9));
            write(sector, String.valueOf(device[sector]));
            if (i % 50 == 0) {
                store.compact();
            }
        }
        assertHolds(new String(device));
        StoreStats stats = store.stats();
        assertTrue(stats.refusedInserts() > 100, stats.toString());
    }

    @Test
    void aLimitThatNoFlushCanMeetLeavesWhatWasThere() throws IOException {
        open(3 << 10);
        write(0, "1");
        OutOfMemoryError refused = assertThrows(OutOfMemoryError.class, () -> {
            // Every second sector: ranges that nothing can fuse.
            for (int i = 2; i < 100; i += 2) {
                write(i, "2");
            }
        });
        assertTrue(refused.getMessage().contains("memory limit: 3072"), refused.getMessage());
        assertHolds("1020202020");
        assertThrows(OutOfMemoryError.class, store::snapshot);
        store.discard(0, 100 * SECTOR);
        store.flush();
        write(5, "3");
        assertHolds("0000030000");
    }

    @Test
    void noWriteIsLostWhereverAFlushIsKilled() throws IOException {
        open(NO_LIMIT);
        int kills = 0;
        boolean killed = true;
        while (killed) {
            write(0, "1111111111");
            write(3, "23");
            write(20, "4");
            killed = killFlush(kills + 1, Step.APPENDED, Step.PUBLISHED);
            assertHolds("11123111110000000000400");
            write(1, "5");
            store.discard(4 * SECTOR, SECTOR);
            assertHolds("15120111110000000000400");
            store.flush();
            assertHolds("15120111110000000000400");
            kills += killed ? 1 : 0;
        }
        assertTrue(kills >= 8, "killed at " + kills + " steps");
    }

    private void open(long memoryLimit) {
        int segmentBytes = SECTORS_IN_A_SEGMENT * (SECTOR + Sectors.TRAILER_BYTES);
        store = new BlockStore(
                folder, new StoreSettings(SECTOR, segmentBytes, 1 << 20, memoryLimit, 8));
    }

    /** Leaves a device of 1919191919191919 in segments that are at most half full. */
    private void scatter() throws IOException {
        write(0, "1111111111111111");
        store.flush();
        for (int i = 1; i < 16; i += 2) {
            write(i, "2");
            store.flush();
        }
        for (int i = 1; i < 16; i += 2) {
            write(i, "9");
        }
        store.flush();
    }

    private void overwriteAll() {
        try {
            write(1, "55555555555555");
            store.flush();
            store.discard(0, SECTOR);
        } catch (IOException e) {
            throw new IllegalStateException(e);
        }
    }

    /** Flushes, and ends the flush when one of the steps comes up for the nth time. */
    private boolean killFlush(int n, Step... steps) throws IOException {
        int[] count = new int[1];
        store.onStep(step -> {
            if (Arrays.asList(steps).contains(step) && ++count[0] == n) {
                throw new InjectedFault();
            }
        });
        try {
            store.flush();
            return false;
        } catch (InjectedFault e) {
            return true;
        } finally {
            store.onStep(step -> { });
        }
    }

    private void write(int sector, String digits) throws IOException {
        ByteBuf buffer =
                buffers.allocator().buffer(digits.length() * SECTOR).writeBytes(fill(digits));
        try {
            store.write((long) sector * SECTOR, buffer);
        } finally {
            assertTrue(buffer.refCnt() <= 2, "references: " + buffer.refCnt());
            buffer.release();
        }
    }

    private void assertHolds(String digits) throws IOException {
        byte[] found = store.read(0, digits.length() * SECTOR);
        StringBuilder shown = new StringBuilder();
        for (int at = 0; at < found.length; at += SECTOR) {
            shown.append(found[at]);
        }
        assertEquals(digits, shown.toString());
        assertArrayEquals(fill(digits), found);
    }

    private static byte[] fill(String digits) {
        byte[] bytes = new byte[digits.length() * SECTOR];
        for (int i = 0; i < bytes.length; i++) {
            bytes[i] = (byte) (digits.charAt(i / SECTOR) - '0');
        }
        return bytes;
    }

    private List<Path> segmentFiles() throws IOException {
        try (Stream<Path> files = Files.list(folder)) {
            return files.sorted().toList();
        }
    }

    /** What ends a flush. */
    private static final class InjectedFault extends RuntimeException {
        private static final long serialVersionUID = 1L;
    }
}
