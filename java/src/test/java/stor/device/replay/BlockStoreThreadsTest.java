package stor.device.replay;

import static org.junit.jupiter.api.Assertions.assertArrayEquals;
import static org.junit.jupiter.api.Assertions.assertEquals;
import static org.junit.jupiter.api.Assertions.assertTrue;

import io.netty.buffer.ByteBuf;
import java.io.IOException;
import java.nio.file.Path;
import java.util.ArrayList;
import java.util.List;
import java.util.Random;
import java.util.concurrent.Callable;
import java.util.concurrent.ExecutorService;
import java.util.concurrent.Executors;
import java.util.concurrent.Future;
import java.util.concurrent.atomic.AtomicBoolean;
import org.junit.jupiter.api.Test;
import org.junit.jupiter.api.io.TempDir;
import stor.device.store.BlockStore;
import stor.device.store.Snapshot;
import stor.device.store.StoreSettings;

/** Writers, a flusher, a compactor and snapshots, all at once. */
class BlockStoreThreadsTest {
    private static final int SECTOR = 512;
    private static final int WRITERS = 2;
    private static final int SECTORS_A_WRITER = 200;
    private static final int REQUESTS = 4000;

    private final CountedBuffers buffers = new CountedBuffers();
    private final AtomicBoolean done = new AtomicBoolean();
    @TempDir
    private Path folder;

    @Test
    void everyWriterReadsItsOwnWritesAndSnapshotsAreWhole() throws Exception {
        StoreSettings settings = new StoreSettings(SECTOR, 64 << 10, 1 << 20, 1 << 30, 8);
        ExecutorService threads = Executors.newCachedThreadPool();
        try (BlockStore store = new BlockStore(folder, settings)) {
            List<Future<?>> writers = new ArrayList<>();
            for (int i = 0; i < WRITERS; i++) {
                int writer = i;
                writers.add(threads.submit(() -> write(store, writer)));
            }
            List<Future<?>> others = List.of(
                    threads.submit(untilDone(store::flush)),
                    threads.submit(untilDone(store::compact)),
                    threads.submit(untilDone(() -> readSnapshot(store))));
            for (Future<?> writer : writers) {
                writer.get();
            }
            done.set(true);
            for (Future<?> other : others) {
                other.get();
            }
            assertTrue(store.stats().freedSegments() > 0, store.stats().toString());
        } finally {
            done.set(true);
            threads.shutdown();
        }
        assertEquals(0, buffers.inUse());
    }

    /** Writes, discards and reads sectors of its own. */
    private Void write(BlockStore store, int writer) throws IOException {
        Random random = new Random(writer);
        Mirror mirror = new Mirror(folder, SECTOR, 0, false);
        long base = (long) writer * SECTORS_A_WRITER * SECTOR;
        for (int i = 1; i <= REQUESTS; i++) {
            long offset = base + random.nextInt(SECTORS_A_WRITER - 4) * SECTOR;
            int length = (1 + random.nextInt(4)) * SECTOR;
            int kind = random.nextInt(10);
            if (kind == 0) {
                store.discard(offset, length);
                mirror.discard(offset, length);
            } else if (kind < 6) {
                write(store, offset, length, i);
                mirror.write(offset, length, i);
            } else {
                mirror.check("read, seed " + writer, offset, store.read(offset, length));
            }
        }
        mirror.check("end", base, store.read(base, SECTORS_A_WRITER * SECTOR));
        mirror.close();
        return null;
    }

    private void write(BlockStore store, long offset, int length, long id) throws IOException {
        byte[] bytes = new byte[length];
        Pattern.fill(bytes, 0, length, offset, id);
        ByteBuf buffer = buffers.allocator().buffer(length).writeBytes(bytes);
        try {
            store.write(offset, buffer);
        } finally {
            buffer.release();
        }
    }

    /** Reads a snapshot twice while the store goes on. */
    private static Void readSnapshot(BlockStore store) throws IOException {
        int length = WRITERS * SECTORS_A_WRITER * SECTOR;
        try (Snapshot snapshot = store.snapshot()) {
            byte[] first = snapshot.read(0, length);
            Thread.yield();
            assertArrayEquals(first, snapshot.read(0, length));
        }
        return null;
    }

    private Callable<Void> untilDone(Callable<?> work) {
        return () -> {
            while (!done.get()) {
                work.call();
            }
            return null;
        };
    }
}
