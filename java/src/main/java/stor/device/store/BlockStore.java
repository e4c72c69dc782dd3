package stor.device.store;

import io.netty.buffer.ByteBuf;
import java.io.IOException;
import java.nio.file.Path;
import java.util.ArrayList;
import java.util.HashSet;
import java.util.List;
import java.util.Set;
import java.util.concurrent.locks.ReentrantLock;
import java.util.function.Consumer;
import stor.device.skiplist.FileLocation;
import stor.device.skiplist.MappedRange;
import stor.device.skiplist.NativeMemory;
import stor.device.skiplist.OffHeapRangeMap;
import stor.device.skiplist.Visitor;

/**
 * One logical device over a folder of segment files, log-structured: nothing is overwritten in
 * place. Its only index are range maps.
 *
 * <pre>
 *   write --&gt; active map --freeze--&gt; frozen map --flush--&gt; segment files &lt;--compact--+
 *             (buffers)              (buffers)              file map, journal ------+
 * </pre>
 *
 * <p>A read asks the active map, the frozen map, then the file map; what none of them knows is
 * zero. Promises:
 *
 * <ul>
 * <li>What was written or discarded is read at once, whatever fails meanwhile.
 * <li>What was written or discarded before {@link #flush} was called survives the process and a
 * power cut when that has returned. Before, each sector reads after a crash as it was or as it was
 * last written or discarded, or as something written in between.
 * <li>A snapshot does not change.
 * <li>A sector that is damaged on disk is an {@link IOException} that names it, never other bytes.
 * </ul>
 *
 * <p>The paths are told elsewhere: writing in {@link WriteBuffer} and {@link Flusher}, reading in
 * {@link ReadPlan}, reopening in {@link Recovery}, giving room back in {@link Compactor}.
 *
 * <h2>Threads</h2>
 *
 * <p>Any thread may call any method. {@code index} guards the maps and is never held while a file
 * is read or written. At most one flush and one compaction run at a time, also beside each other.
 * Locks are taken in this order: {@code flushing} or {@code compacting}, file map, {@code index},
 * segments. An interrupt ends nothing here, and is kept for whoever asks next. A store that is
 * closed, or being closed, refuses requests, snapshots, flushes and compactions with an
 * {@link IllegalStateException}.
 */
public final class BlockStore implements AutoCloseable {
    /** An insert makes up to three ranges before it drops what they replace. */
    private static final int INSERT_BYTES = 3 * (StoreStats.RANGE_BYTES + StoreStats.BUFFER_BYTES);

    private final StoreSettings settings;
    private final int sectorSize;
    private final Frames frames;
    private final Disk disk;
    private final SegmentFiles files;
    private final FileMap fileMap;
    private final DamagedSectors damaged = new DamagedSectors();

    private final ReentrantLock flushing = new ReentrantLock();
    private final ReentrantLock compacting = new ReentrantLock();
    private final SegmentWriter flushed;
    private final SegmentWriter compacted;
    private final Flusher flusher;
    private final Compactor compactor;

    private final Object index = new Object();

    // Under the lock of index.
    private boolean closed;
    private final WriteBuffer buffer;
    private final Set<Snapshot> snapshots = new HashSet<>();
    private long sequence;
    private StorePeaks peaks = new StorePeaks(0, 0, 0, 0, 0, 0, 0);
    private long refusedInserts;
    private long flushedBytes;
    private long movedBytes;

    /** The points at which a fault may be put in. */
    public enum Step {
        /** A flush has found something to write. */
        FLUSH_BEGUN,
        /** A flush has written sectors that the file map does not know yet. */
        APPENDED,
        /** The file map knows them, and what is wholly written has given its buffer back. */
        PUBLISHED,
        /** A compaction has copied sectors, and not redirected them yet. */
        COPIED
    }

    /**
     * Opens the store of a folder, or makes one if the folder is empty or missing. Reads the
     * checkpoint of the file map and what was changed since, and deletes what a store that was
     * killed has left half done.
     *
     * @param folder holds the store's files, and no one else's that are named alike
     * @param settings the sizes and limits; the sector size stays that of the first time
     * @return the store, for the caller to close
     * @throws IOException if the folder is in use by another store, and then which process has it;
     *     or if its files cannot be read or are damaged
     * @throws OutOfMemoryError if native memory has no room for the file map
     */
    public static BlockStore open(Path folder, StoreSettings settings) throws IOException {
        return open(new FolderDisk(folder), settings);
    }

    /** Opens the store of a disk, which is closed with it. */
    static BlockStore open(Disk disk, StoreSettings settings) throws IOException {
        Recovery recovery = new Recovery(disk, settings);
        try {
            recovery.run();
            return new BlockStore(disk, settings, recovery);
        } catch (IOException | RuntimeException | Error failure) {
            try (disk; recovery) {
                throw failure;
            }
        }
    }

    private BlockStore(Disk disk, StoreSettings settings, Recovery recovered) {
        this.disk = disk;
        this.settings = settings;
        sectorSize = settings.sectorSize();
        frames = new Frames(sectorSize);
        files = recovered.files();
        sequence = recovered.sequence();
        buffer = new WriteBuffer(settings);
        Reserve reserve = new Reserve(disk, settings);
        reserve.refill();
        fileMap = new FileMap(index, recovered.map(), recovered.journal(), reserve, files, sequence);
        fileMap.onApplied(this::note);
        flushed = new SegmentWriter(disk, files, frames, settings);
        compacted = new SegmentWriter(disk, files, frames, settings);
        flusher = new Flusher(index, buffer, fileMap, flushed, reserve, frames, sectorSize);
        compactor = new Compactor(
                index, fileMap, files, compacted, frames, damaged, reserve, sectorSize);
    }

    // --- Requests --------------------------------------------------------------------------------

    /**
     * Writes sectors. The store keeps a reference to the buffer until the sectors have reached a
     * file, so nobody may change its bytes. Flushes first if too much is buffered already.
     *
     * @param offset where to write; a multiple of the sector size
     * @param data the bytes: all that is readable, a positive multiple of the sector size. Its
     *     indices stay as they are; the caller keeps and releases his reference
     * @throws IOException if a flush failed; nothing was written
     * @throws OutOfMemoryError if the memory limit leaves no room and a flush does not help;
     *     nothing was written
     * @throws RuntimeException if somebody else has released a buffer that is overwritten. If that
     *     is overwritten as a whole, this write is done; if in part, nothing was written
     */
    public void write(long offset, ByteBuf data) throws IOException {
        int length = data.readableBytes();
        requireSectors(offset, length);
        if (isFull(length)) {
            flush();
        }
        insert("write", () -> buffer.write(offset, length, data, ++sequence));
    }

    /**
     * Reads sectors.
     *
     * @param offset the first byte; a multiple of the sector size
     * @param length how many bytes; a positive multiple of the sector size
     * @return the bytes, zeros where nothing was written
     * @throws IOException if a segment file cannot be read, or a sector in it is damaged
     */
    public byte[] read(long offset, int length) throws IOException {
        try (ReadPlan plan = newPlan(offset, length)) {
            synchronized (index) {
                requireOpen("read");
                plan.find(buffer.maps(), fileMap.map());
            }
            return plan.execute();
        }
    }

    /**
     * Forgets sectors: they are read as zeros afterwards.
     *
     * @param offset the first byte; a multiple of the sector size
     * @param length how many bytes; a positive multiple of the sector size
     * @throws IOException if a flush was needed for room, and failed; nothing was discarded
     * @throws OutOfMemoryError if the memory limit leaves no room and a flush does not help;
     *     nothing was discarded
     */
    public void discard(long offset, int length) throws IOException {
        requireSectors(offset, length);
        insert("discard", () -> buffer.discard(offset, length));
    }

    // --- Work in the background ------------------------------------------------------------------

    /**
     * Writes out all that was written and discarded before, so that it lasts. If it fails, what has
     * not reached a file stays buffered and goes out with the next flush.
     *
     * @return the bytes written
     * @throws IOException if a file cannot be written
     * @throws IllegalStateException if somebody else has released a buffer that was written: all
     *     the others went out, and its sectors are damaged ones, if the bytes are gone, until they
     *     are written anew
     */
    public long flush() throws IOException {
        begin("flush", flushing);
        try {
            requireOpen("flush");
            return flusher.flush();
        } finally {
            flushing.unlock();
        }
    }

    /**
     * Frees the segments in which nothing is live any more; then moves what is live out of those
     * that are less than half full of it, emptiest first, up to about a segment's worth, and frees
     * them, too. Needs no room on the disk but what the store keeps in reserve. Sectors that cannot
     * be read stay where they are and are named by {@link #stats}.
     *
     * @return the bytes moved, whether or not they were still wanted at the end of the move
     * @throws IOException if a file cannot be written or deleted; nothing is lost
     */
    public long compact() throws IOException {
        begin("compact", compacting);
        try {
            requireOpen("compact");
            return compactor.compact(capacity() / 2, capacity());
        } finally {
            compacting.unlock();
        }
    }

    /**
     * Moves everything that is live in the files. Written anew in the order of the device, it takes
     * the fewest ranges in the file map. Tries damaged sectors again, too.
     *
     * @return the bytes moved
     * @throws IOException as {@link #compact}
     */
    public long defragment() throws IOException {
        begin("defragment", flushing);
        try {
            requireOpen("defragment");
            flushed.finish();
        } finally {
            flushing.unlock();
        }
        begin("defragment", compacting);
        try {
            requireOpen("defragment");
            compacted.finish();
            damaged.clear();
            return compactor.compact(capacity(), Long.MAX_VALUE);
        } finally {
            compacting.unlock();
        }
    }

    /** Waits for its turn, which cannot come inside of itself or while the maps are visited. */
    private void begin(String operation, ReentrantLock turn) {
        if (turn.isHeldByCurrentThread() || Thread.holdsLock(index)) {
            throw new IllegalStateException(
                    operation + ": called back by the store (expected: called when that is done)");
        }
        turn.lock();
    }

    /**
     * Keeps the device as it is now, readable while the store goes on. Costs as much native memory
     * as the maps themselves.
     *
     * @return the snapshot, to be closed before the store
     * @throws OutOfMemoryError if the memory limit has no room for it
     */
    public Snapshot snapshot() {
        synchronized (index) {
            requireOpen("snapshot");
            if (!hasRoom(recordBytes(buffer.ranges(), fileMap.map().size()))) {
                throw new OutOfMemoryError("snapshot: memory limit: " + settings.memoryLimit()
                        + " (expected: room for a copy of the maps)");
            }
            List<OffHeapRangeMap> memory = buffer.copy();
            OffHeapRangeMap stored =
                    OffHeapRangeMap.create(settings.height(), settings.sectorSize());
            try {
                fileMap.map().copyTo(stored);
            } catch (RuntimeException | Error failure) {
                try (stored) {
                    Thoroughly.forEach(memory, OffHeapRangeMap::close);
                }
                throw failure;
            }
            Snapshot snapshot = new Snapshot(this, memory, stored, files);
            snapshots.add(snapshot);
            notePeaks();
            return snapshot;
        }
    }

    /**
     * Reads what the store holds and has done.
     *
     * @return the figures, all of one moment but for those of files
     */
    public StoreStats stats() {
        long journalBytes = fileMap.journalBytes();
        synchronized (index) {
            return new StoreStats(buffer.ranges(), fileMap.map().size(), allRanges(),
                    buffer.bytes(), recordBytes(), NativeMemory.bytesInUse(), files.count(),
                    refusedInserts, flusher.flushes(), flushedBytes, movedBytes, compactor.freedSegments(),
                    files.bytes(), files.appendedBytes(), journalBytes, damaged.offsets(),
                    peaks.and(0, 0, 0, 0, 0, files.peakCount(), files.peakBytes()));
        }
    }

    /**
     * Lists where the device's sectors are, by the file map alone.
     *
     * @return the stored ranges in order, holes among them
     */
    public List<MappedRange> layout() {
        synchronized (index) {
            List<MappedRange> layout = new ArrayList<>();
            fileMap.map().forEach(
                    (offset, len, number, fileOffset, majorVer, minorVer, range) ->
                            layout.add(new MappedRange(offset, len, range.isMemoryType(),
                                    new FileLocation(number, fileOffset, majorVer, minorVer))));
            return layout;
        }
    }

    /**
     * Visits where the device's sectors are, by the file map alone: in order, holes among them,
     * with no object made for any. The store waits meanwhile.
     *
     * @param visitor takes the ranges; may not call the store
     */
    public void forEachStored(Visitor visitor) {
        synchronized (index) {
            fileMap.map().forEach(visitor);
        }
    }

    /**
     * Refuses requests from now on, flushes, writes a checkpoint of the file map, so that the store
     * is reopened fast, and gives all memory and files back, even if it fails. Waits for a flush, a
     * compaction and reads in progress. Does nothing the second time.
     *
     * @throws IOException if the flush failed: what it has not written is lost
     * @throws IllegalStateException as {@link #flush}; or if called back by the store: nothing was
     *     done
     */
    @Override
    public void close() throws IOException {
        begin("close", flushing);
        try {
            closeAfterFlush();
        } finally {
            flushing.unlock();
        }
    }

    private void closeAfterFlush() throws IOException {
        begin("close", compacting);
        try {
            if (refuseRequests()) {
                try {
                    flusher.flush();
                } finally {
                    letGo();
                }
            }
        } finally {
            compacting.unlock();
        }
    }

    /** Tells whether it was not so before. */
    private boolean refuseRequests() {
        synchronized (index) {
            boolean first = !closed;
            closed = true;
            return first;
        }
    }

    private void letGo() throws IOException {
        fileMap.checkpoint();
        try (disk; fileMap; files) {
            synchronized (index) {
                Thoroughly.forEach(List.<Runnable>of(
                        this::closeSnapshots, flusher::close, buffer::close), Runnable::run);
            }
        }
    }

    private void closeSnapshots() {
        Thoroughly.forEach(List.copyOf(snapshots), Snapshot::close);
    }

    // --- For snapshots --------------------------------------------------------------------------

    ReadPlan newPlan(long offset, int length) {
        requireSectors(offset, length);
        return new ReadPlan(offset, length, settings, files, damaged);
    }

    void forget(Snapshot snapshot) {
        synchronized (index) {
            snapshots.remove(snapshot);
            try {
                Thoroughly.forEach(snapshot.memory(), OffHeapRangeMap::close);
            } finally {
                snapshot.fileMap().close();
            }
        }
    }

    /**
     * Has a flush or a compaction call back between its steps, for tests and drills. What the
     * callback throws ends the flush or the compaction there. It may call the store, but for what
     * calls it and {@link #close}, which then throw {@link IllegalStateException}.
     *
     * @param callback takes the step that was reached, on the thread that reached it
     */
    public void onStep(Consumer<Step> callback) {
        flusher.onStep(callback);
        compactor.onStep(callback);
    }

    // --- Room for writes and discards ------------------------------------------------------------

    private boolean isFull(int length) {
        synchronized (index) {
            return buffer.bytes() > 0 && buffer.bytes() + length > settings.bufferBytes();
        }
    }

    /** Changes the write buffer; makes room by flushes, and if need be in the file map. */
    private void insert(String operation, Runnable change) throws IOException {
        boolean done = tryInsert(operation, change);
        for (boolean more = true; !done && more;) {
            more = isBuffered();
            flush();
            done = tryInsert(operation, change);
        }
        if (!done) {
            // It is the file map that takes the memory: with holes, or with ranges in no order.
            fileMap.dropHoles();
            done = tryInsert(operation, change);
        }
        if (!done) {
            defragment();
            done = tryInsert(operation, change);
        }
        if (!done) {
            throw new OutOfMemoryError(operation + ": memory limit: " + settings.memoryLimit()
                    + " (expected: room for an insert when nothing is buffered): " + stats());
        }
    }

    private boolean isBuffered() {
        synchronized (index) {
            return buffer.ranges() > 0;
        }
    }

    /** Changes the write buffer unless the limit leaves no room. */
    private boolean tryInsert(String operation, Runnable change) {
        synchronized (index) {
            requireOpen(operation);
            if (hasRoom(INSERT_BYTES)) {
                try {
                    change.run();
                    notePeaks();
                    return true;
                } catch (OutOfMemoryError refused) {
                    // By the limit of the process, which has other users.
                }
            }
            refusedInserts++;
            return false;
        }
    }

    private void requireOpen(String operation) {
        synchronized (index) {
            if (closed) {
                throw new IllegalStateException(
                        operation + ": the store is closed (expected: open)");
            }
        }
    }

    private boolean hasRoom(long more) {
        return settings.memoryLimit() - recordBytes() >= more;
    }

    // --- Figures ---------------------------------------------------------------------------------

    /** Gives the logical bytes that fit a segment. */
    private int capacity() {
        return settings.segmentBytes() / frames.frameLength() * sectorSize;
    }

    /** Counts a change that the file map has taken. */
    private void note(Change change) {
        switch (change.kind()) {
            case WRITTEN -> flushedBytes += change.length();
            case MOVED -> movedBytes += change.length();
            default -> { }
        }
        notePeaks();
    }

    /** To be called after every change that makes a map grow. */
    private void notePeaks() {
        peaks = peaks.and(buffer.ranges(), fileMap.map().size(), buffer.bytes(), recordBytes(),
                allRanges(), 0, 0);
    }

    private int allRanges() {
        int sum = buffer.ranges() + fileMap.map().size();
        for (Snapshot snapshot : snapshots) {
            sum += sumOfSizes(snapshot.memory()) + snapshot.fileMap().size();
        }
        return sum;
    }

    private long recordBytes() {
        long sum = recordBytes(buffer.ranges(), fileMap.map().size());
        for (Snapshot snapshot : snapshots) {
            sum += recordBytes(sumOfSizes(snapshot.memory()), snapshot.fileMap().size());
        }
        return sum;
    }

    private static int sumOfSizes(List<OffHeapRangeMap> maps) {
        return maps.stream().mapToInt(OffHeapRangeMap::size).sum();
    }

    private static long recordBytes(int memoryRanges, int fileRanges) {
        return (long) fileRanges * StoreStats.RANGE_BYTES
                + (long) memoryRanges * (StoreStats.RANGE_BYTES + StoreStats.BUFFER_BYTES);
    }

    private void requireSectors(long offset, int length) {
        if (offset < 0 || offset % sectorSize != 0) {
            throw new IllegalArgumentException("offset: " + offset
                    + " (expected: a multiple of " + sectorSize + ", >= 0)");
        }
        if (length <= 0 || length % sectorSize != 0) {
            throw new IllegalArgumentException("length: " + length
                    + " (expected: a multiple of " + sectorSize + ", > 0)");
        }
        if (offset > Long.MAX_VALUE - length) {
            throw new IllegalArgumentException("offset: " + offset + " (expected: <= "
                    + (Long.MAX_VALUE - length) + ")");
        }
    }
}
