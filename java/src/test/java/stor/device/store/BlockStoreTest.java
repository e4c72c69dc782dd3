package stor.device.store;

import static java.nio.charset.StandardCharsets.UTF_8;
import static org.junit.jupiter.api.Assertions.assertDoesNotThrow;
import static org.junit.jupiter.api.Assertions.assertEquals;
import static org.junit.jupiter.api.Assertions.assertThrows;
import static org.junit.jupiter.api.Assertions.assertTrue;

import io.netty.buffer.ByteBuf;
import io.netty.buffer.Unpooled;
import io.netty.util.IllegalReferenceCountException;
import java.io.File;
import java.io.IOException;
import java.lang.reflect.Constructor;
import java.lang.reflect.InvocationTargetException;
import java.net.URL;
import java.net.URLClassLoader;
import java.nio.file.Files;
import java.nio.file.Path;
import java.util.ArrayList;
import java.util.Arrays;
import java.util.List;
import java.util.Locale;
import java.util.Random;
import java.util.concurrent.FutureTask;
import java.util.concurrent.TimeUnit;
import java.util.concurrent.TimeoutException;
import org.junit.jupiter.api.AfterEach;
import org.junit.jupiter.api.Test;
import org.junit.jupiter.api.io.TempDir;
import stor.device.skiplist.NativeMemory;
import stor.device.store.BlockStore.Step;
import stor.device.store.DeviceModel.Request;

/** The promises of the store, on a device of a few sectors beside its model. */
class BlockStoreTest {
    private static final int SECTOR = DeviceModel.SECTOR;
    private static final int FRAME = SECTOR + Frames.TRAILER_BYTES;
    private static final int SECTORS = 256;
    private static final int SECTORS_IN_A_SEGMENT = 8;

    private static final int BUFFER_BYTES = 128 << 10;

    private final MemoryDisk memory = new MemoryDisk();
    private final FaultyDisk disk = new FaultyDisk(memory);
    private final DeviceModel model = new DeviceModel(0, SECTORS);
    private long id;
    private BlockStore store;

    @AfterEach
    void closingTwiceIsQuietAndReopeningFindsAll() throws IOException {
        store.close();
        store.close();
        assertThrows(IllegalStateException.class, () -> store.read(0, SECTOR));
        open(disk, 1 << 20);
        model.check(store::read);
        store.close();
    }

    @Test
    void whatHappensInTheMiddleOfAFlushOrACompactionHolds() throws IOException {
        open(disk, 1 << 20);
        for (Step step : Step.values()) {
            scatter();
            write(100, 10);
            boolean[] met = new boolean[1];
            store.onStep(now -> {
                if (now == step && !met[0]) {
                    met[0] = true;
                    assertThrows(IllegalStateException.class, store::close);
                    assertThrows(IllegalStateException.class, store::defragment);
                    assertDoesNotThrow(() -> {
                        write(2, 3);
                        discard(4, 30);
                        write(20, 40);
                    });
                }
            });
            store.flush();
            store.compact();
            assertTrue(met[0], step.toString());
            model.check(store::read);
            store.flush();
            store.compact();
            model.check(store::read);
        }
    }

    @Test
    void closeWaitsForReads(@TempDir Path folder) throws Exception {
        FaultyDisk files = new FaultyDisk(new FolderDisk(folder));
        open(files, 1 << 20);
        // The files that are read last are the first ones.
        for (int first : new int[] {SECTORS / 2, 0}) {
            write(first, SECTORS / 2);
            store.flush();
        }
        FutureTask<Void> closing = new FutureTask<>(() -> {
            store.close();
            return null;
        });
        files.onNextRead(() -> {
            new Thread(closing).start();
            assertThrows(TimeoutException.class, () -> closing.get(100, TimeUnit.MILLISECONDS));
        });
        model.check(store::read);
        closing.get();
        StoreStorm.requireNoneOpen(folder);
        open(disk, 1 << 20);
        write(0, SECTORS);
    }

    @Test
    void aSnapshotDoesNotChangeAndKeepsItsFiles() throws IOException {
        open(disk, 1 << 20);
        scatter();
        write(2, 3);
        discard(3, 1);
        disk.fail(1, 3);
        assertThrows(IOException.class, store::flush);
        disk.fail(Long.MAX_VALUE, 0);
        write(4, 1);
        discard(9, 2);
        DeviceModel then = model.copy();
        Snapshot snapshot = store.snapshot();
        write(0, SECTORS);
        store.flush();
        store.compact();
        then.check(snapshot::read);
        int kept = store.stats().segments();
        snapshot.close();
        snapshot.close();
        assertTrue(store.stats().segments() < kept, kept + " before");
        assertThrows(IllegalStateException.class, () -> snapshot.read(0, SECTOR));
    }

    @Test
    void holesOfAnyLengthMayMeetAndOverlap() throws IOException {
        open(disk, 1 << 20);
        int huge = Integer.MAX_VALUE / SECTOR * SECTOR;
        write(0, 40);
        for (long start : new long[] {0, huge - 4L * SECTOR, 3L * huge, 2L * huge - SECTOR, 0}) {
            ByteBuf far = Unpooled.buffer().writeZero(SECTOR);
            for (long end : new long[] {start, start + huge - SECTOR, start + huge}) {
                store.write(end, far);
            }
            store.flush();
            far.release();
            store.discard(start, huge);
            store.flush();
            store.discard(start + SECTOR, huge);
            store.discard(start, huge);
        }
        model.note(new Request(0, 1, 0));
        model.note(new Request(0, 40, 0));
        model.check(store::read);
        write(8, 3);
        discard(9, 1);
        store.flush();
        discard(8, 40);
        store.snapshot().close();
        model.check(store::read);
    }

    @Test
    void buffersAreGivenBackWhenTheirBytesHaveReachedAFile() throws IOException {
        open(disk, 1 << 20);
        ByteBuf large = Unpooled.buffer().writeZero(3 * SECTORS_IN_A_SEGMENT * SECTOR);
        ByteBuf small = Unpooled.buffer().writeZero(SECTOR);
        store.write(0, large);
        store.write(SECTOR, small);
        assertTrue(large.refCnt() > 1 && small.refCnt() == 2);
        store.onStep(step -> {
            if (step == Step.PUBLISHED) {
                throw new IllegalStateException("ended here");
            }
        });
        assertThrows(IllegalStateException.class, store::flush);
        assertEquals(1, small.refCnt());
        store.write(2 * SECTOR, small);
        assertEquals(large.readableBytes() + 2 * SECTOR, store.stats().bufferedBytes());
        store.onStep(step -> { });
        store.flush();
        assertEquals(1, large.refCnt());
        for (int i = 0; i < 40; i++) {
            store.write(0, large);
        }
        assertTrue(store.stats().peaks().bufferedBytes() <= BUFFER_BYTES);
        assertTrue(large.refCnt() <= 1 + BUFFER_BYTES / large.readableBytes());
    }

    @Test
    void aDamagedSectorIsNamedAndHoldsUpNothingElse() throws IOException {
        open(disk, 1 << 20);
        for (int i = 0; i < SECTORS; i += 4) {
            write(i, 4);
            store.flush();
        }
        // The bytes of one sector, and in place of two others a newer and an older neighbour's.
        byte[] segment = memory.bytes(SegmentFiles.name(0));
        segment[7] ^= 1;
        System.arraycopy(segment, 3 * FRAME, segment, 2 * FRAME, FRAME);
        System.arraycopy(segment, 4 * FRAME, segment, 5 * FRAME, FRAME);
        assertThrows(IOException.class, () -> store.read(0, SECTOR));
        discard(64, SECTORS - 64);
        for (int i = 8; i < 64; i += 2) {
            discard(i, 1);
        }
        store.flush();
        int before = store.stats().segments();
        compactAll();
        assertTrue(store.stats().segments() < before / 4, store.stats().toString());
        store.defragment();
        assertEquals(List.of(0L, 2L * SECTOR, 5L * SECTOR), store.stats().damagedSectors());
        model.check(store::read, 8, SECTORS - 8);
        for (int sector : new int[] {0, 2, 5}) {
            IOException found = assertThrows(
                    IOException.class, () -> store.read(sector * SECTOR, SECTOR));
            String expected = "offset " + sector * SECTOR + ", segment-000000 at byte "
                    + sector * FRAME;
            assertTrue(found.getMessage().contains(expected), found.getMessage());
        }
        write(0, 6);
        store.flush();
        compactAll();
        assertEquals(List.of(), store.stats().damagedSectors());
    }

    @Test
    void anOlderFrameOfTheSameSectorIsNoticed() throws IOException {
        open(disk, 1 << 20);
        for (int place = 1; place < 2 * SECTORS_IN_A_SEGMENT; place++) {
            write(0, 1);
            store.flush();
            byte[] oldest = memory.bytes(SegmentFiles.name(0));
            byte[] newest = memory.bytes(SegmentFiles.name((place - 1) / SECTORS_IN_A_SEGMENT));
            int at = (place - 1) % SECTORS_IN_A_SEGMENT * FRAME;
            byte[] right = Arrays.copyOfRange(newest, at, at + FRAME);
            System.arraycopy(oldest, 0, newest, at, FRAME);
            if (place > 1) {
                assertThrows(IOException.class, () -> store.read(0, SECTOR));
            }
            System.arraycopy(right, 0, newest, at, FRAME);
            model.check(store::read);
        }
    }

    @Test
    void aFullDiskLosesNothingAndGivesItsRoomBack() throws IOException {
        for (int live : new int[] {2, 3}) {
            disk.setCapacity(80_000L);
            open(disk, 1 << 20);
            compactAll();
            // Segments of which a part is live; then no room, however often one tries.
            IOException full = null;
            for (int i = 0; full == null; i = (i + SECTORS_IN_A_SEGMENT) % SECTORS) {
                int first = i;
                try {
                    write(first, SECTORS_IN_A_SEGMENT);
                    store.flush();
                    write(first, SECTORS_IN_A_SEGMENT - live);
                    store.flush();
                } catch (IOException e) {
                    full = e;
                }
            }
            for (int i = 0; i < 1500; i++) {
                assertThrows(IOException.class, store::flush);
            }
            model.check(store::read);
            compactAll();
            store.flush();
            discard(0, SECTORS / 2);
            assertDoesNotThrow(store::flush);
            compactAll();
            write(0, SECTORS_IN_A_SEGMENT);
            store.flush();
            model.check(store::read);
            disk.setCapacity(Long.MAX_VALUE);
            write(0, SECTORS);
            store.flush();
            compactAll();
            assertTrue(store.stats().segments() <= SECTORS / SECTORS_IN_A_SEGMENT + 2);
            discard(0, SECTORS);
            store.close();
        }
    }

    @Test
    void aFlushThatFailsInsideALargePieceGoesOnThere() throws IOException {
        open(disk, 1 << 20);
        write(0, SECTORS);
        int attempts = 1;
        for (boolean failed = true; failed; attempts++) {
            disk.fail(10, 10);
            try {
                store.flush();
                failed = false;
            } catch (IOException e) {
                assertTrue(disk.hasFailed(), e.toString());
            }
        }
        disk.fail(Long.MAX_VALUE, 0);
        assertTrue(attempts > 5 && attempts < 60, "attempts: " + attempts);
        assertEquals(SECTORS * FRAME, store.stats().fileBytes());
    }

    @Test
    void theMemoryLimitIsTheStoresOwn() throws IOException {
        long processLimit = NativeMemory.limit();
        open(disk, 8 << 10);
        Random random = new Random(1);
        for (int i = 0; i < 2000; i++) {
            int sector = random.nextInt(SECTORS / 4);
            model.serve(store, new Request(sector, 1, random.nextInt(5) == 0 ? 0 : ++id));
        }
        // Holes that nothing lies in, at more places than there is room for.
        for (long far = 1; far < 400; far++) {
            store.write(far << 20, Unpooled.wrappedBuffer(new byte[SECTOR]));
            store.flush();
            store.discard(far << 20, SECTOR);
        }
        assertTrue(store.stats().refusedInserts() > 50, store.stats().toString());
        model.check(store::read);
        OutOfMemoryError refused = assertThrows(OutOfMemoryError.class, () -> {
            for (int i = 0; i < SECTORS; i += 2) {
                write(i, 1);
            }
        });
        assertTrue(refused.getMessage().contains("memory limit: 8192"), refused.getMessage());
        assertThrows(OutOfMemoryError.class, store::snapshot);
        assertEquals(processLimit, NativeMemory.limit());
    }

    @Test
    void interruptsHurtNobody(@TempDir Path folder) throws IOException {
        for (int i = 0; i < 3; i++) {
            Thread.currentThread().interrupt();
            open(new FolderDisk(folder), 1 << 20);
            scatter();
            store.flush();
            model.check(store::read);
            store.compact();
            store.snapshot().close();
            store.close();
            assertTrue(Thread.interrupted());
            open(new FolderDisk(folder), 1 << 20);
            model.check(store::read);
            store.close();
        }
        open(disk, 1 << 20);
        write(0, SECTORS);
        discard(0, SECTORS);
    }

    /** Also for other class loaders and processes, and when the lock file was read or deleted. */
    @Test
    void aFolderIsForOneStore(@TempDir Path folder) throws Exception {
        open(new FolderDisk(folder), 1 << 20);
        String holder = "in use by process " + ProcessHandle.current().pid();
        List<URL> classes = new ArrayList<>();
        for (String path : System.getProperty("java.class.path").split(":")) {
            classes.add(Path.of(path).toUri().toURL());
        }
        try (URLClassLoader stranger = new URLClassLoader(
                classes.toArray(URL[]::new), ClassLoader.getPlatformClassLoader())) {
            for (ClassLoader loader : List.of(getClass().getClassLoader(), stranger)) {
                Constructor<?> take = Class.forName(FolderDisk.class.getName(), true, loader)
                        .getDeclaredConstructor(Path.class);
                take.setAccessible(true);
                Throwable refused = assertThrows(InvocationTargetException.class,
                        () -> take.newInstance(folder)).getCause();
                assertTrue(refused.getMessage().contains(holder), refused.toString());
            }
        }
        for (String look : List.of("reserve", FolderLock.NAME)) {
            Files.readAllBytes(folder.resolve(look));
            Process other = KilledStore.start(folder, 1, ProcessBuilder.Redirect.PIPE);
            String said = new String(other.getErrorStream().readAllBytes(), UTF_8);
            assertTrue(said.contains(holder), said);
        }
        Files.delete(folder.resolve(FolderLock.NAME));
        assertThrows(IOException.class, () -> new FolderDisk(folder));
        store.close();
        StoreStorm.requireNoneOpen(folder);
        open(disk, 1 << 20);
    }

    @Test
    void aBufferReleasedBySomebodyElseHoldsUpNothing() throws IOException {
        open(disk, 1 << 20);
        write(4, SECTORS - 4);
        for (Step moment : new Step[] {null, Step.FLUSH_BEGUN, Step.APPENDED}) {
            ByteBuf lent = lend();
            write(40, 1);
            discard(50, 3);
            store.onStep(step -> {
                if (step == moment) {
                    lent.release(lent.refCnt());
                }
            });
            if (moment == null) {
                lent.release(lent.refCnt());
            }
            String told = assertThrows(IllegalStateException.class, store::flush).getMessage();
            boolean lost = told.contains("from 0 to " + 2 * SECTOR);
            assertEquals(moment != Step.APPENDED, lost, told);
            if (lost) {
                assertThrows(IOException.class, () -> store.read(SECTOR, SECTOR));
                write(0, 2);
            }
            store.onStep(step -> { });
            store.flush();
            model.check(store::read);
        }
        ByteBuf lent = lend();
        lent.release(lent.refCnt());
        assertThrows(IllegalReferenceCountException.class, () -> write(0, 2));
        model.note(new Request(0, 2, id));
        assertEquals(4L * SECTOR, store.stats().bufferedBytes());
    }

    /** Has the store hold a buffer that is not released. */
    private ByteBuf lend() throws IOException {
        ByteBuf lent = Unpooled.buffer(2 * SECTOR).writeZero(2 * SECTOR);
        store.write(0, lent);
        model.note(new Request(0, 2, 0));
        return lent;
    }

    /** What is damaged is refused, or is the last batch, which a power cut may have torn. */
    @Test
    void aDamagedJournalIsRefused() throws IOException {
        open(disk, 1 << 20);
        scatter();
        store.close();
        open(disk, 1 << 20);
        DeviceModel[] states = new DeviceModel[3];
        long[] ends = new long[3];
        for (int i = 0; i < states.length; i++) {
            write(30 * i, 20);
            discard(30 * i + 4, 3);
            store.flush();
            states[i] = model.copy();
            ends[i] = store.stats().journalBytes();
        }
        byte[] journal = memory.bytes(Journal.NAME).clone();
        int torn = 0;
        for (int at = 0; at < journal.length; at++) {
            MemoryDisk copy = memory.afterPowerCut(new Random(at));
            copy.bytes(Journal.NAME)[at] ^= 4;
            try (BlockStore left = BlockStore.open(copy, settings(1 << 20))) {
                assertTrue(at >= ends[1], "byte " + at + " of " + journal.length);
                states[1].check(left::read, 0, 60);
                torn++;
            } catch (IOException e) {
                assertTrue(e.getMessage().matches("(?s)journal at byte.*|load: .*"),
                        "byte " + at + ": " + e.getMessage());
            }
        }
        assertTrue(torn > 0);
        IOException other = assertThrows(IOException.class, () -> BlockStore.open(
                memory.afterPowerCut(new Random(1)), new StoreSettings(4096, 8192, 8192, 9, 1)));
        assertTrue(other.getMessage().contains("512"), other.getMessage());
    }

    /** Whatever digits are usual, and however few files may be open. */
    @Test
    void filesAreNamedAlikeEverywhereAndClosedUnread(@TempDir Path folder) throws IOException {
        Locale usual = Locale.getDefault();
        Locale.setDefault(Locale.forLanguageTag("ar-EG"));
        try {
            open(new FolderDisk(folder), 1 << 20);
            for (int i = 0; i < 40; i++) {
                write(0, SECTORS / 4);
                store.flush();
            }
        } finally {
            Locale.setDefault(usual);
        }
        Path stray = Files.createFile(folder.resolve("segment-0000000"));
        int open = new File("/proc/self/fd").list().length;
        assertTrue(store.stats().segments() > 300);
        store.close();
        int left = new File("/proc/self/fd").list().length;
        assertTrue(open - left < 150, (open - left) + " files of the store");
        open(new FolderDisk(folder), 1 << 20);
        assertTrue(Files.exists(stray));
        model.check(store::read);
        write(0, SECTORS);
        store.close();
        open(disk, 1 << 20);
        write(0, SECTORS);
    }

    @Test
    void requestsAreWholeSectors() throws IOException {
        open(disk, 1 << 20);
        assertThrows(IllegalArgumentException.class, () -> store.read(1, SECTOR));
        assertThrows(IllegalArgumentException.class, () -> store.read(-SECTOR, SECTOR));
        assertThrows(IllegalArgumentException.class, () -> store.discard(0, 0));
        assertThrows(IllegalArgumentException.class, () -> store.discard(0, 100));
    }

    private void open(Disk on, long memoryLimit) throws IOException {
        store = BlockStore.open(on, settings(memoryLimit));
    }

    private static StoreSettings settings(long memoryLimit) {
        return new StoreSettings(
                SECTOR, SECTORS_IN_A_SEGMENT * FRAME, BUFFER_BYTES, memoryLimit, 8);
    }

    /** Leaves segments that are at most half live. */
    private void scatter() throws IOException {
        write(0, 64);
        store.flush();
        for (int i = 1; i < 64; i += 2) {
            write(i, 1);
            discard(i - 1, i % 4 / 2);
        }
        store.flush();
    }

    private void write(int sector, int count) throws IOException {
        model.serve(store, new Request(sector, count, ++id));
    }

    private void discard(int sector, int count) throws IOException {
        if (count > 0) {
            model.serve(store, new Request(sector, count, 0));
        }
    }

    private void compactAll() throws IOException {
        while (store.compact() > 0) {
            // Until nothing is left to move.
        }
    }
}
