package stor.device.replay;

import io.netty.buffer.ByteBuf;
import java.io.IOException;
import java.nio.file.DirectoryStream;
import java.nio.file.Files;
import java.nio.file.Path;
import java.util.ArrayList;
import java.util.List;
import java.util.concurrent.atomic.AtomicLong;
import stor.device.replay.FlushFaults.InjectedFault;
import stor.device.replay.Latencies.Operation;
import stor.device.store.BlockStore;
import stor.device.store.Snapshot;
import stor.device.store.StoreStats;

/**
 * Serves the requests of a trace with a {@link BlockStore} and checks what is read against a {@link
 * Mirror}. One thread makes the requests and takes the snapshots; a second one flushes and a third
 * one compacts.
 *
 * <p>Every method throws a {@link Difference} if a byte is wrong, and {@link StopSignal.Stopped}
 * soon after a stop was requested.
 */
public final class Replay implements AutoCloseable {
    /** Longer requests are served in pieces, so that none takes much memory. */
    private static final int MAX_PIECE = 1 << 20;
    private static final long MAX_DISCARD = 1 << 30;
    /** Compaction starts by itself when files take so many times what is live. */
    private static final int MAX_FILE_SHARE = 3;
    private static final long SPARE_BYTES = 64 << 20;
    private static final int LAST_COMPACTIONS = 64;

    private final ReplayOptions options;
    private final StopSignal stop;
    private final int sectorSize;
    private final CountedBuffers buffers = new CountedBuffers();
    private final Latencies latencies = new Latencies();
    private final Mirror mirror;
    private final Path storeFolder;
    private BlockStore store;
    private StoreStats lastStats;
    private final StoreSamples samples;
    private final BackgroundWorker flusher;
    private final BackgroundWorker compactor;
    private final AtomicLong killedFlushes = new AtomicLong();
    private final byte[] written = new byte[MAX_PIECE];
    private Snapshot snapshot;
    private long nextSnapshot;
    private volatile long requests;
    private long writeId;
    private long writtenBytes;
    private long peakRecordBytes;
    private long checkedBytes;
    private long snapshots;
    private long snapshotsGivenUp;
    private int readBacks;

    /**
     * Makes a store that nothing stops.
     *
     * @param options says how requests are served
     * @param folder where the store keeps its files; has to be empty
     * @throws IOException if a file cannot be made
     */
    public Replay(ReplayOptions options, Path folder) throws IOException {
        this(options, folder, never());
    }

    /** Makes a signal that does not wait for Ctrl-C, and does not hold up the end of the JVM. */
    private static StopSignal never() {
        StopSignal signal = new StopSignal();
        signal.close();
        return signal;
    }

    /** Makes a store and all else in a folder, which has to be empty. */
    Replay(ReplayOptions options, Path folder, StopSignal stop) throws IOException {
        this.options = options;
        this.stop = stop;
        sectorSize = options.store().sectorSize();
        nextSnapshot = options.snapshotEvery();
        mirror = new Mirror(folder, sectorSize, options.seed(), options.sampled());
        storeFolder = Files.createDirectory(folder.resolve("store"));
        store = BlockStore.open(storeFolder, options.store());
        FlushFaults faults = new FlushFaults(options.failFlushEvery(), options.seed());
        store.onStep(step -> {
            stop.check();
            faults.at(step);
        });
        flusher = new BackgroundWorker("flusher", options.foreground());
        compactor = new BackgroundWorker("compactor", options.foreground());
        samples = new StoreSamples(store::stats, () -> requests);
    }

    /**
     * Serves one request and, when it is their turn, starts the work in the background.
     *
     * @param request a request
     * @throws IOException if a file cannot be read or written
     */
    public void serve(Request request) throws IOException {
        stop.check();
        long end = request.end();
        switch (request.kind()) {
            case READ -> read(floor(request.offset()), ceil(end));
            case WRITE -> write(floor(request.offset()), ceil(end));
            case DISCARD -> discard(ceil(request.offset()), floor(end));
            default -> throw new AssertionError(request);
        }
        requests++;
        if (requests % options.flushEvery() == 0) {
            flusher.start(this::flush);
        }
        if (requests % options.compactEvery() == 0) {
            compactor.start(this::compact);
        }
        if (requests % options.flushEvery() == 0 && options.compacts()) {
            makeSpace();
        }
        if (requests >= nextSnapshot) {
            takeSnapshot();
        }
    }

    /**
     * Reads all back, compacts, reads all back again, and once more from the store that was closed
     * and opened again. Gives the layout before and after compaction.
     */
    List<AddressPicture> checkAll(Progress progress) throws IOException {
        settle();
        readBack(progress);
        List<AddressPicture> pictures = new ArrayList<>(List.of(picture()));
        if (options.compacts()) {
            progress.begin("compacting", "rounds");
            for (int round = 0; round < LAST_COMPACTIONS && compact() > 0; round++) {
                stop.check();
                progress.update(Double.NaN, round);
            }
            pictures.add(picture());
        }
        readBack(progress);
        closeSnapshot();
        reopen();
        readBack(progress);
        return pictures;
    }

    /** Ends with the store, and goes on with what its files hold. */
    private void reopen() throws IOException {
        samples.close();
        lastStats = store.stats();
        closeStore();
        store = BlockStore.open(storeFolder, options.store());
    }

    /** Closes the store with a last flush, which nothing ends. */
    private void closeStore() throws IOException {
        store.onStep(step -> { });
        store.close();
    }

    /** Ends with the store, files and all; the buffers can be counted afterwards. */
    @Override
    public void close() throws IOException {
        samples.close();
        flusher.close();
        compactor.close();
        peakRecordBytes = stats().peaks().recordBytes();
        closeStore();
        mirror.close();
        try (DirectoryStream<Path> files = Files.newDirectoryStream(storeFolder)) {
            for (Path file : files) {
                Files.delete(file);
            }
        }
        Files.delete(storeFolder);
    }

    /**
     * Reads the store, still owned by this object.
     *
     * @return the store, still owned by this object
     */
    public BlockStore store() {
        return store;
    }

    /** Gives the figures of the store that served the requests. */
    StoreStats stats() {
        return lastStats == null ? store.stats() : lastStats;
    }

    Mirror mirror() {
        return mirror;
    }

    /**
     * Reads the pool of all buffers.
     *
     * @return the pool of all buffers
     */
    public CountedBuffers buffers() {
        return buffers;
    }

    Latencies latencies() {
        return latencies;
    }

    StoreSamples samples() {
        return samples;
    }

    /** Gives the most native memory, also after the end. */
    long peakRecordBytes() {
        return peakRecordBytes;
    }

    long requests() {
        return requests;
    }

    /** Counts what was handed to the store, in whole sectors. */
    long writtenBytes() {
        return writtenBytes;
    }

    long checkedBytes() {
        return checkedBytes;
    }

    /** Counts how often the whole device was read back. */
    int readBacks() {
        return readBacks;
    }

    /**
     * Reads how many flushes were ended in their middle.
     *
     * @return how many flushes were ended in their middle
     */
    public long killedFlushes() {
        return killedFlushes.get();
    }

    /**
     * Reads how many snapshots were taken.
     *
     * @return how many snapshots were taken
     */
    public long snapshots() {
        return snapshots;
    }

    /**
     * Reads how many snapshots were given up for want of memory.
     *
     * @return how many snapshots were given up for want of memory
     */
    public long snapshotsGivenUp() {
        return snapshotsGivenUp;
    }

    // --- Requests --------------------------------------------------------------------------------

    private void read(long from, long to) throws IOException {
        for (long at = from; at < to; at += MAX_PIECE) {
            long start = at;
            int length = (int) Math.min(MAX_PIECE, to - at);
            byte[] bytes = latencies.measure(Operation.READ, () -> store.read(start, length));
            checkedBytes += mirror.check("read", start, bytes);
        }
    }

    private void write(long from, long to) throws IOException {
        writeId++;
        for (long at = from; at < to; at += MAX_PIECE) {
            long start = at;
            int length = (int) Math.min(MAX_PIECE, to - at);
            Pattern.fill(written, 0, length, at, Mirror.patternOf(writeId, options.seed()));
            ByteBuf buffer = buffers.allocator().buffer(length).writeBytes(written, 0, length);
            try {
                insist(Operation.WRITE, () -> store.write(start, buffer));
            } finally {
                buffer.release();
            }
            mirror.write(at, length, writeId);
            writtenBytes += length;
        }
    }

    /** Something that the store may refuse to do. */
    private interface Work {
        void run() throws IOException;
    }

    /** Does it in spite of what stands against it: a killed flush, or a snapshot's memory. */
    private void insist(Operation operation, Work work) throws IOException {
        while (true) {
            try {
                latencies.measure(operation, () -> {
                    work.run();
                    return null;
                });
                return;
            } catch (InjectedFault e) {
                killedFlushes.incrementAndGet();
            } catch (OutOfMemoryError e) {
                if (snapshot == null) {
                    throw e;
                }
                snapshotsGivenUp++;
                closeSnapshot();
            }
        }
    }

    private void discard(long from, long to) throws IOException {
        if (from >= to) {
            return;
        }
        for (long at = from; at < to; at += MAX_DISCARD) {
            stop.check();
            long start = at;
            int length = (int) Math.min(MAX_DISCARD, to - at);
            insist(Operation.DISCARD, () -> store.discard(start, length));
        }
        mirror.discard(from, to - from);
    }

    // --- Work beside them ------------------------------------------------------------------------

    /**
     * Waits for the work in the background and flushes.
     *
     * @throws IOException if a file cannot be read or written
     */
    public void settle() throws IOException {
        flusher.await();
        compactor.await();
        while (flush() < 0) {
            // Killed: what is left goes out with the next one.
        }
    }

    /** Gives the bytes written, or -1 if the flush was killed. */
    private long flush() throws IOException {
        try {
            return latencies.measure(Operation.FLUSH, store::flush);
        } catch (InjectedFault e) {
            killedFlushes.incrementAndGet();
            return -1;
        }
    }

    private long compact() throws IOException {
        return latencies.measure(Operation.COMPACT, store::compact);
    }

    /** Compacts when most of the files is dead, and waits for it when nearly all is. */
    private void makeSpace() throws IOException {
        long live = mirror.liveSectors() * sectorSize + SPARE_BYTES;
        long files = store.stats().fileBytes();
        if (files > MAX_FILE_SHARE * live) {
            compactor.start(() -> compactTo(MAX_FILE_SHARE * live));
        }
        if (files > 2 * MAX_FILE_SHARE * live) {
            compactor.await();
        }
    }

    private long compactTo(long fileBytes) throws IOException {
        long moved = compact();
        while (moved > 0 && store.stats().fileBytes() > fileBytes) {
            moved = compact();
        }
        return moved;
    }

    /** Checks the last snapshot, which is as old as can be, and takes another. */
    private void takeSnapshot() throws IOException {
        if (snapshot != null) {
            // What has changed since, and as much again of what has not.
            checkedBytes += mirror.checkSnapshot(
                    snapshot::read, options.snapshotEvery(), (done, of) -> stop.check());
            closeSnapshot();
        }
        // A copy costs as many steps as there are ranges: take it the less often the more they are.
        nextSnapshot = requests + Math.max(options.snapshotEvery(), store.stats().fileRanges());
        try {
            snapshot = latencies.measure(Operation.SNAPSHOT, store::snapshot);
            mirror.takeSnapshot();
            snapshots++;
        } catch (OutOfMemoryError e) {
            snapshotsGivenUp++;
        }
    }

    private void closeSnapshot() throws IOException {
        if (snapshot != null) {
            snapshot.close();
            snapshot = null;
        }
    }

    // --- Reading back ----------------------------------------------------------------------------

    private void readBack(Progress progress) throws IOException {
        progress.begin("read back", "pages");
        checkedBytes += mirror.checkAll(store::read, watched(progress));
        if (snapshot != null) {
            progress.begin("snapshot", "pages");
            checkedBytes +=
                    mirror.checkSnapshot(snapshot::read, Long.MAX_VALUE, watched(progress));
        }
        readBacks++;
    }

    private Mirror.Watcher watched(Progress progress) {
        return (pages, of) -> {
            stop.check();
            progress.update((double) pages / of, pages);
        };
    }

    private AddressPicture picture() {
        return new AddressPicture(store::forEachStored, sectorSize);
    }

    private long floor(long offset) {
        return offset / sectorSize * sectorSize;
    }

    private long ceil(long offset) {
        return floor(offset + sectorSize - 1);
    }
}
