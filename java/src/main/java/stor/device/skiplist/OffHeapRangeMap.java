package stor.device.skiplist;

import io.netty.buffer.ByteBuf;
import java.io.IOException;
import java.lang.ref.Cleaner;
import java.lang.ref.Reference;
import java.nio.channels.ReadableByteChannel;
import java.nio.channels.WritableByteChannel;
import java.util.ArrayList;
import java.util.ConcurrentModificationException;
import java.util.List;
import java.util.Optional;
import java.util.concurrent.atomic.AtomicLong;
import java.util.concurrent.locks.ReentrantLock;

/**
 * Maps disjoint, non-empty byte ranges of a storage device to the places in files where the bytes
 * lie, in native memory and in the order of their offsets.
 *
 * <p>A new range takes what it covers away from the ranges stored before, and is joined with those
 * that it continues in the same file:
 *
 * <pre>
 *   stored   [0 ----------------------- 100)
 *   insert            [40 ---- 60)
 *   result   [0 -- 40)[40 ---- 60)[60 - 100)     and one range again where the places in the
 *                                                file follow on each other
 * </pre>
 *
 * <p>Differs from a general range map in that: ranges <em>are</em> joined, so a lookup may find a
 * longer range than was inserted; and a range that is cut keeps its place in the file, its later
 * parts a {@linkplain FileLocation distance} further along.
 *
 * <h2>Who owns a buffer</h2>
 *
 * <table>
 * <caption>Reference counts</caption>
 * <tr><th>operation</th><th>buffer</th></tr>
 * <tr><td>{@link #insert(long, int, FileLocation, ByteBuf) insert}</td><td>the map retains a slice
 * of its own; the caller keeps and releases his reference</td></tr>
 * <tr><td>lookup, {@link Visited#buffer()}</td><td>borrowed: nobody releases it, and it ends with
 * the visit</td></tr>
 * <tr><td>lookup, {@link Visited#retainedBuffer()}</td><td>the caller's to release, whatever
 * becomes of the map</td></tr>
 * <tr><td>a range is overwritten or dropped</td><td>the map releases its slice</td></tr>
 * <tr><td>a range is cut</td><td>the map retains a slice for each piece left and releases that of
 * the whole</td></tr>
 * <tr><td>{@link #compareAndRelease}, {@link #release}</td><td>the map releases the slice of each
 * range found</td></tr>
 * <tr><td>{@link #copyTo}</td><td>the destination retains a slice for each range</td></tr>
 * <tr><td>{@link #close}, or the loss of an open map</td><td>the map releases all its
 * slices</td></tr>
 * <tr><td>an insert that fails</td><td>unchanged</td></tr>
 * </table>
 *
 * <p>A map {@linkplain ByteBuf#touch touches} the buffers it takes, so that Netty's leak reports
 * name it. Nobody writes to the bytes of a buffer that a map holds.
 *
 * <h2>Threads</h2>
 *
 * <p>Any thread may call any method at any time, virtual threads included: each map runs one call
 * after another under a lock of its own, and {@link #close} waits for the call in progress. A
 * visitor runs inside that lock. It may query the map that it visits, but an attempt to change or
 * close that map, like one from inside a callback of a buffer, throws a
 * {@link ConcurrentModificationException} and changes nothing. A visitor that calls another map
 * holds both locks: two threads that do this in opposite orders block each other, and so does a
 * visitor that waits for another thread which uses the visited map.
 *
 * <h2>Failure</h2>
 *
 * <p>All methods check their arguments before they change anything and throw
 * {@link NullPointerException}, or {@link IllegalArgumentException} with what was expected. On a
 * closed map all but {@link #isClosed}, {@link #close} and {@link #toString} throw
 * {@link IllegalStateException}. Native memory that is used up is an {@link OutOfMemoryError}, and
 * any other native failure a {@link RuntimeException}; an insert has then changed nothing.
 *
 * <h2>Closing</h2>
 *
 * <p>A map is to be closed. One that is lost instead is freed after it has been garbage collected,
 * at a time that nobody knows, and logged as a warning. The system property
 * {@code skiplist.leakDetection} says how: {@code sampled} (default: with the place of creation of
 * one map in 64), {@code always} (of each) or {@code off} (freed without a word).
 */
public final class OffHeapRangeMap implements AutoCloseable {
    /** The most levels that a map may have. */
    public static final int MAX_HEIGHT = 64;
    /** The most logical bytes that a sector may have. */
    public static final int MAX_SECTOR_SIZE = 1 << 30;

    private static final Cleaner CLEANER = Cleaner.create();
    private static final AtomicLong CREATED = new AtomicLong();

    private final long id = CREATED.incrementAndGet();
    private final ReentrantLock lock = new ReentrantLock();
    private final NativeMap nativeMap;
    private final Cleaner.Cleanable cleanable;
    private final long handle;
    private final int height;
    private final int sectorSize;
    private final FusionGuard fusions;

    // Under the lock.
    private boolean changing;
    private int walks;
    private String closedBy;

    /**
     * Takes the ranges of a walk one by one, in order, with no object made for any of them.
     */
    @FunctionalInterface
    public interface Visitor {
        /**
         * Takes a range. What this throws ends the walk and is passed on.
         *
         * @param offset the first byte
         * @param len the length in bytes, at least 1
         * @param fileNumber the file number, 0 to 255
         * @param fileOffset the offset of the range's first byte in the file, in bytes
         * @param majorVer the major version of the file location
         * @param minorVer the minor version of the file location
         * @param range says more about the range; the same object for all ranges of a walk
         */
        void visit(long offset, int len, int fileNumber, int fileOffset, int majorVer, int minorVer,
                Visited range);
    }

    /**
     * Says more about the range that is being visited. Belongs to the visiting thread and ends with
     * the walk; its methods throw {@link ConcurrentModificationException} anywhere else.
     */
    public static final class Visited {
        private final Thread visitor = Thread.currentThread();
        private volatile long node;

        private Visited() {
        }

        /**
         * Tells whether the range was inserted with a buffer, even if that has been given back.
         *
         * @return whether it was
         */
        public boolean isMemoryType() {
            return JniSkipListNative.getNodeFileType(node());
        }

        /**
         * Borrows the buffer with the bytes of the range. The caller neither releases nor changes
         * it, and does not use it after the visit. Makes one small object, with indices of its own,
         * if there is a buffer.
         *
         * @return a buffer with as many readable bytes as the range is long, or null
         */
        public ByteBuf buffer() {
            ByteBuf held = JniSkipListNative.getNodeFileBuff(node());
            return held == null ? null : held.slice();
        }

        /**
         * Takes a reference to the bytes of the range, which outlives the visit and the map.
         *
         * @return a buffer with as many readable bytes as the range is long, for the caller to
         *     release, or null
         */
        public ByteBuf retainedBuffer() {
            ByteBuf held = JniSkipListNative.getNodeFileBuff(node());
            return held == null ? null : held.retainedSlice();
        }

        private long node() {
            long current = node;
            if (current == 0 || Thread.currentThread() != visitor) {
                throw new ConcurrentModificationException(
                        "visited range: used outside its visit (expected: only in visit())");
            }
            return current;
        }
    }

    private OffHeapRangeMap(int height, int sectorSize) {
        this.height = height;
        this.sectorSize = sectorSize;
        handle = JniSkipListNative.createSkipList(height, sectorSize);
        nativeMap = new NativeMap(handle, toString());
        cleanable = CLEANER.register(this, nativeMap);
        fusions = new FusionGuard(handle, sectorSize);
    }

    /**
     * Makes an empty map, which the caller closes.
     *
     * @param height the number of levels, 1 to {@link #MAX_HEIGHT}; 12 serve 16 million ranges
     * @param sectorSize the logical bytes of a sector, 1 to {@link #MAX_SECTOR_SIZE}
     * @return the map
     * @throws IllegalArgumentException if an argument is out of its bounds
     * @throws OutOfMemoryError if native memory is exhausted or at its limit
     */
    public static OffHeapRangeMap create(int height, int sectorSize) {
        Arguments.within("create", "height", height, 1, MAX_HEIGHT);
        Arguments.within("create", "sectorSize", sectorSize, 1, MAX_SECTOR_SIZE);
        return new OffHeapRangeMap(height, sectorSize);
    }

    /**
     * Reads a map that {@link #save} has written. Reads exactly to its end, so that more may follow
     * in the channel.
     *
     * @param channel where the map begins; blocking
     * @return the map, with the height, the sector size and the ranges of the one saved, for the
     *     caller to close
     * @throws IOException if the channel cannot be read, or what it has is damaged, cut, no map or
     *     of a later version; says where, and what was expected. Nothing is left behind
     * @throws OutOfMemoryError if native memory is exhausted or at its limit; nothing is left behind
     */
    public static OffHeapRangeMap load(ReadableByteChannel channel) throws IOException {
        return new MapFileReader(Arguments.notNull("load", "channel", channel)).read();
    }

    /**
     * Reads the sector size that the map was made with.
     *
     * @return the logical bytes of a sector
     */
    public int sectorSize() {
        return sectorSize;
    }

    // --- Changes ---------------------------------------------------------------------------------

    /**
     * Stores a range of file type: afterwards every lookup in it finds its location, and none
     * outside it finds anything new.
     *
     * @param offset the first byte
     * @param len the length in bytes, more than 0
     * @param location where the first byte lies; {@link FileLocation#EMPTY} for nowhere
     * @throws IllegalArgumentException if the range is empty or leaves the 64 bits of an offset, or
     *     if it covers one end of a stored range that it continues, to more than 2^31-1 bytes in
     *     all
     * @throws IllegalStateException if the map is closed
     * @throws ConcurrentModificationException if the map is being visited by this thread
     * @throws OutOfMemoryError if native memory is exhausted or at its limit; nothing has changed
     */
    public void insert(long offset, int len, FileLocation location) {
        Arguments.range("insert", offset, len);
        Arguments.notNull("insert", "location", location);
        beginChange("insert");
        try {
            if (fusions.noteInserts(offset, len, location)) {
                fusions.check("insert", offset, len, location);
            }
            insertNative(offset, len, location);
        } finally {
            endChange();
        }
    }

    /**
     * Stores a range of memory type with the buffer that has its bytes. Such a range is never
     * joined to another.
     *
     * @param offset the first byte
     * @param len the length in bytes, more than 0
     * @param location where the first byte will lie; at least one version is not -1, since ranges
     *     at the {@linkplain FileLocation#EMPTY empty} location are joined and a buffer could not
     *     say the bytes of both
     * @param buffer the bytes of the range are its first {@code len} readable ones; remains the
     *     caller's, indices and reference included
     * @throws IllegalArgumentException if the range is empty or leaves the 64 bits of an offset, if
     *     both versions are -1, if the buffer has been released, or if it has fewer than
     *     {@code len} readable bytes
     * @throws IllegalStateException if the map is closed
     * @throws ConcurrentModificationException if the map is being visited by this thread
     * @throws OutOfMemoryError if native memory is exhausted or at its limit; nothing has changed
     */
    public void insert(long offset, int len, FileLocation location, ByteBuf buffer) {
        Arguments.range("insert", offset, len);
        Arguments.notNull("insert", "location", location);
        if (location.isUnversioned()) {
            throw Arguments.illegal("insert", "location: " + location + " with a buffer",
                    "a version other than -1, or no buffer");
        }
        ByteBuf bytes = Arguments.bytes("insert", buffer, len);
        buffer.touch(this);
        beginChange("insert");
        try {
            fusions.noteCut(offset, len);
            insertNative(offset, len, location, bytes);
        } finally {
            endChange();
            Reference.reachabilityFence(buffer);
        }
    }

    /**
     * Redirects those parts of a range whose location is still the expected one. Ranges of memory
     * type never match, unless they and the expected location are empty.
     *
     * @param offset the first byte
     * @param len the length in bytes, more than 0
     * @param expected where the byte at {@code offset} is expected to lie
     * @param replacement where it lies from now on
     * @return whether any part matched
     * @throws IllegalArgumentException as {@link #insert(long, int, FileLocation)}; parts may have
     *     been redirected if it is for the length of a joined range
     * @throws IllegalStateException if the map is closed
     * @throws ConcurrentModificationException if the map is being visited by this thread
     * @throws OutOfMemoryError if native memory is exhausted or at its limit; the parts redirected
     *     so far stay so
     */
    public boolean compareAndSet(
            long offset, int len, FileLocation expected, FileLocation replacement) {
        Arguments.range("compareAndSet", offset, len);
        Arguments.notNull("compareAndSet", "expected", expected);
        Arguments.notNull("compareAndSet", "replacement", replacement);
        beginChange("compareAndSet");
        try {
            if (fusions.noteInserts(offset, len, replacement)) {
                return compareAndSetChecked(offset, len, expected, replacement);
            }
            return JniSkipListNative.compareAndSet(handle, offset, len,
                    expected.offset(), expected.majorVer(), expected.minorVer(),
                    (byte) expected.number(), replacement.offset(), replacement.majorVer(),
                    replacement.minorVer(), (byte) replacement.number());
        } finally {
            endChange();
        }
    }

    /**
     * Gives back the buffers of those ranges that lie wholly inside a range and still have the
     * expected location. They keep everything else.
     *
     * @param offset the first byte
     * @param len the length in bytes, more than 0
     * @param expected where the byte at {@code offset} is expected to lie
     * @return the summed lengths in bytes of the ranges whose buffer was given back
     * @throws IllegalArgumentException if the range is empty or leaves the 64 bits of an offset
     * @throws IllegalStateException if the map is closed
     * @throws ConcurrentModificationException if the map is being visited by this thread
     */
    public long compareAndRelease(long offset, int len, FileLocation expected) {
        Arguments.range("compareAndRelease", offset, len);
        Arguments.notNull("compareAndRelease", "expected", expected);
        beginChange("compareAndRelease");
        try {
            return JniSkipListNative.compareAndRelease(handle, offset, len, expected.offset(),
                    expected.majorVer(), expected.minorVer(), (byte) expected.number());
        } finally {
            endChange();
        }
    }

    /**
     * Gives back all buffers. The ranges keep everything else.
     *
     * @return the summed lengths in bytes of the ranges whose buffer was given back
     * @throws IllegalStateException if the map is closed
     * @throws ConcurrentModificationException if the map is being visited by this thread
     */
    public long release() {
        beginChange("release");
        try {
            return JniSkipListNative.release(handle);
        } finally {
            endChange();
        }
    }

    /**
     * Inserts a copy of every range into another map, in order, over whatever that one holds. Takes
     * the locks of both maps, always in the same order.
     *
     * @param destination another map
     * @throws IllegalArgumentException if {@code destination} is this map, or as
     *     {@link #insert(long, int, FileLocation)} for the length of a joined range; the ranges
     *     copied so far stay in the destination
     * @throws IllegalStateException if either map is closed
     * @throws ConcurrentModificationException if the destination is being visited by this thread
     * @throws OutOfMemoryError if native memory is exhausted or at its limit; the ranges copied so
     *     far stay in the destination
     */
    public void copyTo(OffHeapRangeMap destination) {
        Arguments.notNull("copyTo", "destination", destination);
        if (destination == this) {
            throw Arguments.illegal("copyTo", "destination: " + this, "another map");
        }
        OffHeapRangeMap earlier = id < destination.id ? this : destination;
        OffHeapRangeMap later = earlier == this ? destination : this;
        earlier.lock.lock();
        later.lock.lock();
        try {
            requireReadable("copyTo");
            destination.requireChangeable("copyTo");
            changing = true;
            destination.changing = true;
            try {
                copyLocked(destination);
            } finally {
                changing = false;
                destination.changing = false;
            }
        } finally {
            later.lock.unlock();
            earlier.lock.unlock();
            Reference.reachabilityFence(destination);
            Reference.reachabilityFence(this);
        }
    }

    // --- Queries ---------------------------------------------------------------------------------

    /**
     * Visits all ranges in order.
     *
     * @param visitor takes them
     * @throws IllegalStateException if the map is closed
     */
    public void forEach(Visitor visitor) {
        Arguments.notNull("forEach", "visitor", visitor);
        beginQuery("forEach");
        try {
            walk(JniSkipListNative.getAllNodes(handle), visitor);
        } finally {
            endQuery();
        }
    }

    /**
     * Visits the ranges that share at least one byte with a range, whole and in order.
     *
     * @param offset the first byte
     * @param len the length in bytes, more than 0
     * @param visitor takes them
     * @throws IllegalArgumentException if the range is empty or leaves the 64 bits of an offset
     * @throws IllegalStateException if the map is closed
     */
    public void forEach(long offset, int len, Visitor visitor) {
        Arguments.range("forEach", offset, len);
        Arguments.notNull("forEach", "visitor", visitor);
        beginQuery("forEach");
        try {
            walk(JniSkipListNative.getNodes(handle, offset, len), visitor);
        } finally {
            endQuery();
        }
    }

    /**
     * Lists the ranges that share at least one byte with a range, whole and in order.
     *
     * @param offset the first byte
     * @param len the length in bytes, more than 0
     * @return a copy that cannot be changed
     * @throws IllegalArgumentException if the range is empty or leaves the 64 bits of an offset
     * @throws IllegalStateException if the map is closed
     */
    public List<MappedRange> ranges(long offset, int len) {
        Arguments.range("ranges", offset, len);
        List<MappedRange> found = new ArrayList<>();
        beginQuery("ranges");
        try {
            long[] run = JniSkipListNative.getNodes(handle, offset, len);
            for (long node = run[0]; node != run[1]; node = JniSkipListNative.nextNode(node)) {
                found.add(MappedRange.read(node));
            }
        } finally {
            endQuery();
        }
        return List.copyOf(found);
    }

    /**
     * Finds the last range that starts at or before a position. One query if that range contains
     * the position, otherwise up to 64 more that narrow down where it ends.
     *
     * @param position any position
     * @return the range, or nothing if all ranges start after {@code position}
     * @throws IllegalStateException if the map is closed
     */
    public Optional<MappedRange> floor(long position) {
        // The end mark starts at the last position of all.
        long start = Math.min(position, Long.MAX_VALUE - 1);
        beginQuery("floor");
        try {
            long node = firstEndingAfter(start);
            return found(JniSkipListNative.getNodeIndexOffset(node) <= start
                    ? node : lastBefore(node, start));
        } finally {
            endQuery();
        }
    }

    /**
     * Finds the first range that starts at or after a position, with one query.
     *
     * @param position any position
     * @return the range, or nothing if all ranges start before {@code position}
     * @throws IllegalStateException if the map is closed
     */
    public Optional<MappedRange> ceiling(long position) {
        beginQuery("ceiling");
        try {
            long node = firstEndingAfter(position);
            return found(JniSkipListNative.getNodeIndexOffset(node) >= position
                    ? node : JniSkipListNative.nextNode(node));
        } finally {
            endQuery();
        }
    }

    /**
     * Finds the first range, with one query.
     *
     * @return the range, or nothing if the map is empty
     * @throws IllegalStateException if the map is closed
     */
    public Optional<MappedRange> first() {
        beginQuery("first");
        try {
            return found(JniSkipListNative.getAllNodes(handle)[0]);
        } finally {
            endQuery();
        }
    }

    /**
     * Finds the last range, with up to 64 queries.
     *
     * @return the range, or nothing if the map is empty
     * @throws IllegalStateException if the map is closed
     */
    public Optional<MappedRange> last() {
        beginQuery("last");
        try {
            return found(lastBefore(JniSkipListNative.getAllNodes(handle)[1], Long.MAX_VALUE));
        } finally {
            endQuery();
        }
    }

    /**
     * Reads the number of stored ranges.
     *
     * @return the number of ranges
     * @throws IllegalStateException if the map is closed
     */
    public int size() {
        beginQuery("size");
        try {
            return JniSkipListNative.getSkipListSize(handle);
        } finally {
            endQuery();
        }
    }

    /**
     * Reads how many bytes are covered, as counted by the inserts: without the gaps between stored
     * ranges that an insert closed which reached beyond one side of them only.
     *
     * @return the number of bytes
     * @throws IllegalStateException if the map is closed
     */
    public long coveredBytes() {
        beginQuery("coveredBytes");
        try {
            return JniSkipListNative.getSkipListValidLen(handle);
        } finally {
            endQuery();
        }
    }

    /**
     * Reads how many bytes were ever inserted, redirected or copied into the map.
     *
     * @return the number of bytes
     * @throws IllegalStateException if the map is closed
     */
    public long insertedBytes() {
        beginQuery("insertedBytes");
        try {
            return JniSkipListNative.getSkipLIstRawLen(handle);
        } finally {
            endQuery();
        }
    }

    /**
     * Reads how many ranges were ever inserted, redirected or copied into the map. Wraps at 2^31.
     *
     * @return the number of inserts
     * @throws IllegalStateException if the map is closed
     */
    public int insertCount() {
        beginQuery("insertCount");
        try {
            return JniSkipListNative.getSkipListRawCount(handle);
        } finally {
            endQuery();
        }
    }

    /**
     * Walks the whole map and compares: ranges are not empty, in order and disjoint; their number
     * is {@link #size}; {@link #coveredBytes} is not more than the sum of their lengths; each
     * buffer has the bytes of its range.
     *
     * @throws AssertionError if something does not hold, with the numbers for a report
     * @throws IllegalStateException if the map is closed
     */
    public void checkInvariants() {
        beginQuery("checkInvariants");
        try {
            InvariantCheck.run(handle);
        } finally {
            endQuery();
        }
    }

    /**
     * Writes the map in a form that {@link #load} reads, in this process or another, on any
     * machine. All ranges are those of one moment: they are first put together in the heap, a few
     * bytes each, while others wait, and then written while the map is used again.
     *
     * @param channel takes the map; blocking
     * @param buffered what becomes of ranges that hold a buffer
     * @throws IOException if the channel cannot be written
     * @throws IllegalStateException if the map is closed, or if a range holds a buffer and
     *     {@code buffered} refuses that; nothing was written
     */
    public void save(WritableByteChannel channel, BufferedRanges buffered) throws IOException {
        Arguments.notNull("save", "channel", channel);
        Arguments.notNull("save", "buffered", buffered);
        MapFileWriter writer = new MapFileWriter(height, sectorSize);
        beginQuery("save");
        try {
            writer.encode(handle, buffered);
        } finally {
            endQuery();
        }
        writer.writeTo(channel);
    }

    /**
     * Writes the map like {@link #save(WritableByteChannel, BufferedRanges)}, refusing ranges that
     * hold a buffer.
     *
     * @param channel takes the map; blocking
     * @throws IOException if the channel cannot be written
     * @throws IllegalStateException if the map is closed, or if a range holds a buffer; nothing was
     *     written
     */
    public void save(WritableByteChannel channel) throws IOException {
        save(channel, BufferedRanges.REFUSE);
    }

    /**
     * Tells whether the map is closed. Does not wait for a call in progress.
     *
     * @return whether it is
     */
    public boolean isClosed() {
        return nativeMap.isClosed();
    }

    // --- End -------------------------------------------------------------------------------------

    /**
     * Waits for the call in progress, frees the native memory and gives back all buffers. Does
     * nothing the second time.
     *
     * @throws ConcurrentModificationException if the map is being visited by this thread; the map
     *     stays open
     * @throws RuntimeException if a buffer that the map held fails to be given back; the map is
     *     closed all the same
     */
    @Override
    public void close() {
        lock.lock();
        try {
            if (closedBy == null) {
                requireChangeable("close");
                closedBy = Thread.currentThread().getName();
                nativeMap.markClosed();
                cleanable.clean();
            }
        } finally {
            lock.unlock();
            Reference.reachabilityFence(this);
        }
    }

    /** Names the map: a number that no other map of the process has. */
    @Override
    public String toString() {
        return "OffHeapRangeMap#" + id;
    }

    private void beginChange(String operation) {
        lock.lock();
        try {
            requireChangeable(operation);
        } catch (RuntimeException e) {
            lock.unlock();
            throw e;
        }
        changing = true;
    }

    private void endChange() {
        changing = false;
        lock.unlock();
        Reference.reachabilityFence(this);
    }

    private void beginQuery(String operation) {
        lock.lock();
        try {
            requireReadable(operation);
        } catch (RuntimeException e) {
            lock.unlock();
            throw e;
        }
    }

    private void endQuery() {
        lock.unlock();
        Reference.reachabilityFence(this);
    }

    private void requireReadable(String operation) {
        if (closedBy != null) {
            throw new IllegalStateException(operation + ": " + this
                    + ": closed by thread " + closedBy + " (expected: open)");
        }
        // A buffer's own code is running inside a native call, with the map half changed.
        if (changing) {
            throw new ConcurrentModificationException(operation + ": " + this
                    + ": called back while it is being changed (expected: after the change)");
        }
    }

    private void requireChangeable(String operation) {
        requireReadable(operation);
        if (walks > 0) {
            throw new ConcurrentModificationException(operation + ": " + this
                    + ": called while it is being visited (expected: after the visit)");
        }
    }

    /**
     * Stores a range behind all others of a map that no other thread knows yet. Such a range covers
     * no end of another, so that no look at what it continues is needed.
     */
    void append(long offset, int len, byte number, int place, int majorVer, int minorVer) {
        fusions.noteInserts(offset, len,
                new FileLocation(Byte.toUnsignedInt(number), place, majorVer, minorVer));
        JniSkipListNative.insert(handle, offset, len, place, majorVer, minorVer, number);
    }

    private void insertNative(long offset, int len, FileLocation at) {
        JniSkipListNative.insert(handle, offset, len, at.offset(), at.majorVer(), at.minorVer(),
                (byte) at.number());
    }

    private void insertNative(long offset, int len, FileLocation at, ByteBuf buffer) {
        JniSkipListNative.insertWithBuff(handle, offset, len, at.offset(), at.majorVer(),
                at.minorVer(), (byte) at.number(), buffer);
    }

    /** As the native compareAndSet, with a look at what each part is joined to. */
    private boolean compareAndSetChecked(
            long offset, int len, FileLocation expected, FileLocation replacement) {
        long end = offset + len;
        MappedRange request = new MappedRange(offset, len, false, expected);
        long[] run = JniSkipListNative.getNodes(handle, offset, len);
        // All parts are found before the first insert changes what is there.
        List<MappedRange> parts = new ArrayList<>();
        for (long node = run[0]; node != run[1]; node = JniSkipListNative.nextNode(node)) {
            MappedRange range = MappedRange.read(node);
            if (fusions.isConnected(range, request)) {
                long from = Math.max(range.offset(), offset);
                long to = Math.min(range.end(), end);
                parts.add(new MappedRange(from, (int) (to - from), false,
                        replacement.plus(from - offset, sectorSize)));
            }
        }
        for (MappedRange part : parts) {
            fusions.check("compareAndSet", part.offset(), part.len(), part.location());
            insertNative(part.offset(), part.len(), part.location());
        }
        return !parts.isEmpty();
    }

    private void copyLocked(OffHeapRangeMap destination) {
        if (destination.fusions.noteCopy(fusions)) {
            copyChecked(destination);
            return;
        }
        // Matches nothing. Makes both maps call back on this thread, as the copy itself does not.
        JniSkipListNative.compareAndRelease(handle, 0, 0, 0, 0, 0, (byte) 0);
        JniSkipListNative.compareAndRelease(destination.handle, 0, 0, 0, 0, 0, (byte) 0);
        JniSkipListNative.copySkipList(handle, destination.handle);
    }

    /** As the native copy, with a look at what each range is joined to. */
    private void copyChecked(OffHeapRangeMap destination) {
        long[] run = JniSkipListNative.getAllNodes(handle);
        for (long node = run[0]; node != run[1]; node = JniSkipListNative.nextNode(node)) {
            MappedRange range = MappedRange.read(node);
            if (range.memoryType()) {
                destination.insertNative(range.offset(), range.len(), range.location(),
                        JniSkipListNative.getNodeFileBuff(node));
            } else {
                destination.fusions.check(
                        "copyTo", range.offset(), range.len(), range.location());
                destination.insertNative(range.offset(), range.len(), range.location());
            }
        }
    }

    private void walk(long[] run, Visitor visitor) {
        Visited visited = new Visited();
        walks++;
        try {
            for (long node = run[0]; node != run[1]; node = JniSkipListNative.nextNode(node)) {
                visited.node = node;
                visitor.visit(
                        JniSkipListNative.getNodeIndexOffset(node),
                        JniSkipListNative.getNodeIndexLen(node),
                        Byte.toUnsignedInt(JniSkipListNative.getNodeFileNumber(node)),
                        JniSkipListNative.getNodeFileOffset(node),
                        JniSkipListNative.getNodeFileMajorVer(node),
                        JniSkipListNative.getNodeFileMinorVer(node),
                        visited);
            }
        } finally {
            visited.node = 0;
            walks--;
        }
    }

    /** Gives the first range that ends after a position, which may be the end mark. */
    private long firstEndingAfter(long position) {
        return JniSkipListNative.getNodes(handle, position, 0)[0];
    }

    /**
     * Gives the range before a node that starts after a position or is the end mark, or that end
     * mark. Halves the stretch in which the range ends until it is followed by the node.
     */
    private long lastBefore(long node, long position) {
        long[] all = JniSkipListNative.getAllNodes(handle);
        if (all[0] == node) {
            return all[1];
        }
        // The range found at `low` is always before the node, that at `high` is the node.
        long candidate = all[0];
        long low = JniSkipListNative.getNodeIndexOffset(candidate);
        long high = position;
        while (JniSkipListNative.nextNode(candidate) != node) {
            long middle = low + (high - low >>> 1);
            long there = firstEndingAfter(middle);
            if (there == node) {
                high = middle;
            } else {
                candidate = there;
                low = middle;
            }
        }
        return candidate;
    }

    /** Reads a range; the end mark, the only one of length 0, is none. */
    private static Optional<MappedRange> found(long node) {
        return JniSkipListNative.getNodeIndexLen(node) == 0
                ? Optional.empty()
                : Optional.of(MappedRange.read(node));
    }
}
