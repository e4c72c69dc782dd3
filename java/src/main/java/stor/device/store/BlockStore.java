package stor.device.store;

import io.netty.buffer.ByteBuf;
import java.io.IOException;
import java.nio.ByteBuffer;
import java.nio.file.Path;
import java.util.ArrayList;
import java.util.Comparator;
import java.util.HashMap;
import java.util.HashSet;
import java.util.List;
import java.util.Map;
import java.util.Set;
import java.util.concurrent.locks.ReentrantLock;
import java.util.function.Consumer;
import stor.device.skiplist.FileLocation;
import stor.device.skiplist.MappedRange;
import stor.device.skiplist.OffHeapRangeMap;

/**
 * One logical device over a folder of segment files, log-structured: nothing is overwritten in
 * place. Its only index are range maps.
 *
 * <pre>
 *   write --&gt; active map --freeze--&gt; frozen map --flush--&gt; segment files &lt;--compact--+
 *             (buffers)              (buffers)              file map ---------------+
 * </pre>
 *
 * <p>A read asks the active map, the frozen map, then the file map; what none of them knows is
 * zero. Promises: a write that returned is read until it is overwritten, discarded or the store is
 * closed, whatever fails meanwhile; a snapshot does not change. Nothing outlives {@link #close}:
 * the maps are in memory, and the segment files are deleted with them.
 *
 * <h2>Threads</h2>
 *
 * <p>Any thread may call any method. {@code index} guards the maps and is never held while a file
 * is read or written. At most one flush and one compaction run at a time, also beside each other.
 * Locks are taken in this order: {@code flushing} or {@code compacting}, {@code index}, segments.
 */
public final class BlockStore implements AutoCloseable {
    private static final int CHUNK_BYTES = 1 << 20;

    private final StoreSettings settings;
    private final int sectorSize;
    private final Sectors sectors;
    private final SegmentFiles files;
    private final MemoryBudget budget;

    private final ReentrantLock flushing = new ReentrantLock();
    private final ReentrantLock compacting = new ReentrantLock();
    private final SegmentWriter flushed;
    private final SegmentWriter compacted;
    private Consumer<Step> onStep = step -> { };

    private final Object index = new Object();

    // Under the lock of index.
    private OffHeapRangeMap active;
    private OffHeapRangeMap frozen;
    private final OffHeapRangeMap fileMap;
    private final Set<Snapshot> snapshots = new HashSet<>();
    private long activeBytes;
    private long frozenBytes;
    private long sequence;
    private StorePeaks peaks = new StorePeaks(0, 0, 0, 0, 0, 0, 0);
    private long refusedInserts;
    private long flushes;
    private long flushedBytes;
    private long movedBytes;
    private int freedSegments;

    /** The points at which a fault may be put in. */
    public enum Step {
        /** A flush has found something to write. */
        FLUSH_BEGUN,
        /** A flush has written sectors that the file map does not know yet. */
        APPENDED,
        /** The file map knows them; their buffers are not given back yet. */
        PUBLISHED,
        /** A compaction has copied sectors, and not redirected them yet. */
        COPIED
    }

    /** A buffered range on its way to a file. */
    private record Piece(long offset, int length, FileLocation location, ByteBuf bytes) {
    }

    /**
     * Makes an empty store.
     *
     * @param folder takes the segment files; exists, and has none of another store
     * @param settings the sizes and limits
     */
    public BlockStore(Path folder, StoreSettings settings) {
        this.settings = settings;
        sectorSize = settings.sectorSize();
        sectors = new Sectors(sectorSize);
        files = new SegmentFiles(folder);
        budget = new MemoryBudget(settings.memoryLimit());
        flushed = new SegmentWriter(files, sectors, settings);
        compacted = new SegmentWriter(files, sectors, settings);
        active = newMap();
        fileMap = newMap();
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
     * @throws OutOfMemoryError if native memory is at its limit and a flush does not help; nothing
     *     was written
     */
    public void write(long offset, ByteBuf data) throws IOException {
        int length = data.readableBytes();
        requireSectors(offset, length);
        if (isFull(length)) {
            flush();
        }
        boolean stored = tryWrite(offset, length, data);
        for (long written = 1; !stored && written > 0;) {
            written = flush();
            stored = tryWrite(offset, length, data);
        }
        if (!stored) {
            // It is the file map that takes the memory.
            defragment();
            stored = tryWrite(offset, length, data);
        }
        if (!stored) {
            throw new OutOfMemoryError("write: memory limit: " + settings.memoryLimit()
                    + " (expected: room for an insert when nothing is buffered): " + stats());
        }
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
                plan.find(allMemoryMaps(), fileMap);
            }
            return plan.execute();
        }
    }

    /**
     * Forgets sectors: they are read as zeros afterwards.
     *
     * @param offset the first byte; a multiple of the sector size
     * @param length how many bytes; a positive multiple of the sector size
     */
    public void discard(long offset, int length) {
        requireSectors(offset, length);
        synchronized (index) {
            punch(fileMap, offset, length);
            if (frozen != null) {
                punch(frozen, offset, length);
            }
            punch(active, offset, length);
            notePeaks();
        }
    }

    // --- Work in the background ------------------------------------------------------------------

    /**
     * Writes out all that was buffered when it began. If it fails, what has not reached a file
     * stays buffered and goes out with the next flush.
     *
     * @return the bytes written
     * @throws IOException if a file cannot be written
     */
    public long flush() throws IOException {
        flushing.lock();
        try {
            // What an earlier flush has left behind is older, and so goes first.
            long written = writeOutFrozen();
            synchronized (index) {
                if (active.size() > 0) {
                    OffHeapRangeMap fresh = newMap();
                    frozen = active;
                    frozenBytes = activeBytes;
                    active = fresh;
                    activeBytes = 0;
                }
            }
            return written + writeOutFrozen();
        } finally {
            flushing.unlock();
        }
    }

    /**
     * Moves what is live out of the segments that are less than half full of it, emptiest first, up
     * to about a segment's worth, and frees the segments in which nothing is live any more.
     *
     * @return the bytes moved, whether or not they were still wanted at the end of the move
     * @throws IOException if a file cannot be read or written, or a sector is damaged; nothing is
     *     lost
     */
    public long compact() throws IOException {
        return compact(capacity() / 2, capacity());
    }

    /**
     * Moves everything that is live in the files. Written anew in the order of the device, it takes
     * the fewest ranges in the file map.
     *
     * @return the bytes moved
     * @throws IOException as {@link #compact}
     */
    public long defragment() throws IOException {
        flushing.lock();
        try {
            flushed.finish();
        } finally {
            flushing.unlock();
        }
        compacting.lock();
        try {
            compacted.finish();
        } finally {
            compacting.unlock();
        }
        return compact(capacity(), Long.MAX_VALUE);
    }

    /**
     * Keeps the device as it is now, readable while the store goes on. Costs as much native memory
     * as the maps themselves.
     *
     * @return the snapshot, to be closed before the store
     * @throws IOException if the copy failed, and a file could then not be deleted
     * @throws OutOfMemoryError if the memory limit has no room for it
     */
    public Snapshot snapshot() throws IOException {
        synchronized (index) {
            if (!budget.hasRoom(recordBytes(), recordBytes(allMemoryMaps(), fileMap))) {
                throw new OutOfMemoryError("snapshot: memory limit: " + settings.memoryLimit()
                        + " (expected: room for a copy of the maps): " + stats());
            }
            Snapshot snapshot = new Snapshot(this, newMap(), newMap(), files);
            snapshots.add(snapshot);
            try {
                snapshot.copy(allMemoryMaps(), fileMap);
                notePeaks();
                return snapshot;
            } catch (RuntimeException | Error failure) {
                snapshot.close();
                throw failure;
            }
        }
    }

    /**
     * Reads what the store holds and has done.
     *
     * @return the figures, all of one moment
     */
    public StoreStats stats() {
        synchronized (index) {
            return new StoreStats(memoryRanges(), fileMap.size(), allRanges(), bufferedBytes(),
                    recordBytes(), budget.sweptBytes(), files.count(), refusedInserts, flushes,
                    flushedBytes, movedBytes, freedSegments, files.bytes(), files.appendedBytes(),
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
            fileMap.forEach((offset, len, number, fileOffset, majorVer, minorVer, range) ->
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
    public void forEachStored(OffHeapRangeMap.Visitor visitor) {
        synchronized (index) {
            fileMap.forEach(visitor);
        }
    }

    /**
     * Waits for a flush or a compaction in progress, forgets everything and deletes the segment
     * files. Does nothing the second time.
     */
    @Override
    public void close() throws IOException {
        flushing.lock();
        compacting.lock();
        try {
            synchronized (index) {
                for (Snapshot snapshot : List.copyOf(snapshots)) {
                    snapshot.close();
                }
                allMemoryMaps().forEach(OffHeapRangeMap::close);
                fileMap.close();
            }
            files.deleteAll();
        } finally {
            compacting.unlock();
            flushing.unlock();
        }
    }

    // --- For snapshots --------------------------------------------------------------------------

    ReadPlan newPlan(long offset, int length) {
        requireSectors(offset, length);
        return new ReadPlan(offset, length, sectors, files);
    }

    void forget(Snapshot snapshot) {
        synchronized (index) {
            snapshots.remove(snapshot);
            snapshot.memory().close();
            snapshot.fileMap().close();
        }
    }

    /**
     * Has a flush or a compaction call back between its steps, for tests and drills. What the
     * callback throws ends the flush or the compaction there.
     *
     * @param callback takes the step that was reached, on the thread that reached it
     */
    public void onStep(Consumer<Step> callback) {
        onStep = callback;
    }

    // --- Write and discard -----------------------------------------------------------------------

    private boolean isFull(int length) {
        synchronized (index) {
            return bufferedBytes() > 0 && bufferedBytes() + length > settings.bufferBytes();
        }
    }

    /** Writes unless native memory is at its limit. */
    private boolean tryWrite(long offset, int length, ByteBuf data) {
        synchronized (index) {
            long inUse = recordBytes();
            long id = sequence + 1;
            // Unique, so that a flush gives back the buffers of this write and of no later one.
            FileLocation writeId = new FileLocation(0, 0, (int) (id >>> Integer.SIZE), (int) id);
            budget.admitWrite(inUse);
            try {
                active.insert(offset, length, writeId, data);
                sequence = id;
                activeBytes += length;
                notePeaks();
                return true;
            } catch (OutOfMemoryError refused) {
                refusedInserts++;
                return false;
            } finally {
                budget.admitAll();
            }
        }
    }

    /**
     * Puts one hole from the first data in a range to the last. Never one that covers an end of an
     * older hole: the two would be joined, to more than a length can say if holes are large.
     */
    private static void punch(OffHeapRangeMap map, long offset, int length) {
        long from = offset + length;
        long to = offset;
        for (MappedRange range : map.ranges(offset, length)) {
            if (!Holes.isHole(range.location().majorVer(), range.location().minorVer())) {
                from = Math.min(from, Math.max(offset, range.offset()));
                to = Math.min(offset + length, range.end());
            }
        }
        if (from < to) {
            map.insert(from, (int) (to - from), FileLocation.EMPTY);
        }
    }

    // --- Flush -----------------------------------------------------------------------------------

    private long writeOutFrozen() throws IOException {
        List<Piece> pieces = findBuffered();
        long written = 0;
        try {
            if (!pieces.isEmpty()) {
                onStep.accept(Step.FLUSH_BEGUN);
            }
            for (Piece piece : pieces) {
                writeOut(piece);
                written += piece.length;
            }
            synchronized (index) {
                if (frozen != null) {
                    frozen.close();
                    frozen = null;
                    frozenBytes = 0;
                    flushes += pieces.isEmpty() ? 0 : 1;
                }
            }
        } finally {
            flushed.sealFull();
            pieces.forEach(piece -> piece.bytes.release());
        }
        return written;
    }

    private List<Piece> findBuffered() {
        List<Piece> pieces = new ArrayList<>();
        synchronized (index) {
            if (frozen != null) {
                frozen.forEach((offset, len, number, fileOffset, majorVer, minorVer, range) -> {
                    ByteBuf bytes = range.retainedBuffer();
                    if (bytes != null) {
                        pieces.add(new Piece(offset, len,
                                new FileLocation(number, fileOffset, majorVer, minorVer), bytes));
                    }
                });
            }
        }
        return pieces;
    }

    private void writeOut(Piece piece) throws IOException {
        for (int done = 0; done < piece.length;) {
            int length = Math.min(
                    Math.min(piece.length - done, CHUNK_BYTES), flushed.room());
            ByteBuffer frames =
                    sectors.frame(piece.bytes, done, length, piece.location.minorVer());
            FileLocation place = flushed.append(frames);
            onStep.accept(Step.APPENDED);
            publish(piece, done, length, place);
            done += length;
        }
        synchronized (index) {
            // Whole ranges only: those that a discard has not cut, and what it has left of others.
            for (MappedRange range : frozen.ranges(piece.offset, piece.length)) {
                if (isPartOf(range, piece)) {
                    frozen.compareAndRelease(range.offset(), range.len(), range.location());
                }
            }
        }
    }

    /** Tells the file map where a part of a piece lies, but for what was discarded meanwhile. */
    private void publish(Piece piece, int done, int length, FileLocation place) {
        long start = piece.offset + done;
        synchronized (index) {
            for (MappedRange range : frozen.ranges(start, length)) {
                if (isPartOf(range, piece)) {
                    long from = Math.max(start, range.offset());
                    long to = Math.min(start + length, range.end());
                    fileMap.insert(from, (int) (to - from), place.plus(from - start, sectorSize));
                }
            }
            notePeaks();
            flushedBytes += length;
        }
        onStep.accept(Step.PUBLISHED);
    }

    private static boolean isPartOf(MappedRange range, Piece piece) {
        return range.location().majorVer() == piece.location.majorVer()
                && range.location().minorVer() == piece.location.minorVer();
    }

    // --- Compaction ------------------------------------------------------------------------------

    private long compact(long mostLive, long enough) throws IOException {
        compacting.lock();
        try {
            long moved = 0;
            for (MappedRange range : findMovable(mostLive, enough)) {
                move(range);
                moved += range.len();
            }
            compacted.sealFull();
            freeEmptySegments();
            return moved;
        } finally {
            compacting.unlock();
        }
    }

    /** Finds what is live in the emptiest segments, in the order of the device. */
    private List<MappedRange> findMovable(long mostLive, long enough) {
        synchronized (index) {
            Map<Long, Long> live = new HashMap<>();
            forEachLive((offset, len, number, fileOffset, majorVer, minorVer, range) ->
                    live.merge(SegmentFiles.id(number, majorVer), (long) len, Long::sum));
            List<Segment> candidates = new ArrayList<>(files.sealed());
            candidates.removeIf(segment -> live.getOrDefault(segment.id(), 0L) > mostLive);
            candidates.sort(
                    Comparator.comparingLong(segment -> live.getOrDefault(segment.id(), 0L)));
            Set<Long> chosen = new HashSet<>();
            long toMove = 0;
            for (Segment segment : candidates) {
                if (toMove < enough) {
                    chosen.add(segment.id());
                    toMove += live.getOrDefault(segment.id(), 0L);
                }
            }
            // Only now objects are made: all ranges would be too many for some heaps.
            List<MappedRange> movable = new ArrayList<>();
            forEachLive((offset, len, number, fileOffset, majorVer, minorVer, range) -> {
                if (chosen.contains(SegmentFiles.id(number, majorVer))) {
                    movable.add(new MappedRange(offset, len, range.isMemoryType(),
                            new FileLocation(number, fileOffset, majorVer, minorVer)));
                }
            });
            return movable;
        }
    }

    private void forEachLive(OffHeapRangeMap.Visitor visitor) {
        fileMap.forEach((offset, len, number, fileOffset, majorVer, minorVer, range) -> {
            if (!Holes.isHole(majorVer, minorVer)) {
                visitor.visit(offset, len, number, fileOffset, majorVer, minorVer, range);
            }
        });
    }

    private void move(MappedRange range) throws IOException {
        FileLocation old = range.location();
        for (int done = 0; done < range.len();) {
            int length = Math.min(Math.min(range.len() - done, CHUNK_BYTES), compacted.room());
            FileLocation from = old.plus(done, sectorSize);
            long offset = range.offset() + done;
            Segment source = files.pin(from.number(), from.majorVer());
            FileLocation to;
            try {
                ByteBuffer frames = source.read(from.offset(), sectors.framedLength(length));
                sectors.verify(frames, offset, source);
                to = compacted.append(frames);
            } finally {
                files.unpin(source);
            }
            onStep.accept(Step.COPIED);
            synchronized (index) {
                if (fileMap.compareAndSet(offset, length, from, to)) {
                    movedBytes += length;
                    notePeaks();
                }
            }
            done += length;
        }
    }

    private void freeEmptySegments() throws IOException {
        synchronized (index) {
            Set<Long> live = new HashSet<>();
            forEachLive((offset, len, number, fileOffset, majorVer, minorVer, range) ->
                    live.add(SegmentFiles.id(number, majorVer)));
            for (Segment segment : files.sealed()) {
                if (!live.contains(segment.id())) {
                    files.retire(segment);
                    freedSegments++;
                }
            }
        }
    }

    // --- All -------------------------------------------------------------------------------------

    /** Gives the logical bytes that fit a segment. */
    private int capacity() {
        return settings.segmentBytes() / sectors.frameLength() * sectorSize;
    }

    private OffHeapRangeMap newMap() {
        return OffHeapRangeMap.create(settings.height(), sectorSize);
    }

    /** Gives the memory maps, the newest first. */
    private List<OffHeapRangeMap> allMemoryMaps() {
        return frozen == null ? List.of(active) : List.of(active, frozen);
    }

    /** To be called after every change that makes a map grow. */
    private void notePeaks() {
        peaks = peaks.and(memoryRanges(), fileMap.size(), bufferedBytes(), recordBytes(),
                allRanges(), 0, 0);
    }

    private int memoryRanges() {
        return active.size() + (frozen == null ? 0 : frozen.size());
    }

    private int allRanges() {
        int sum = memoryRanges() + fileMap.size();
        for (Snapshot snapshot : snapshots) {
            sum += snapshot.memory().size() + snapshot.fileMap().size();
        }
        return sum;
    }

    /** Counts what was accepted, overwritten or not: all of it may still be held in buffers. */
    private long bufferedBytes() {
        return activeBytes + frozenBytes;
    }

    private long recordBytes() {
        long sum = recordBytes(allMemoryMaps(), fileMap);
        for (Snapshot snapshot : snapshots) {
            sum += recordBytes(List.of(snapshot.memory()), snapshot.fileMap());
        }
        return sum;
    }

    private static long recordBytes(List<OffHeapRangeMap> memoryMaps, OffHeapRangeMap fileMap) {
        long sum = (long) fileMap.size() * StoreStats.RANGE_BYTES;
        for (OffHeapRangeMap map : memoryMaps) {
            sum += (long) map.size() * (StoreStats.RANGE_BYTES + StoreStats.BUFFER_BYTES);
        }
        return sum;
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
    }
}
