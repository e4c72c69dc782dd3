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
import java.util.function.Consumer;
import java.util.function.Supplier;
import stor.device.skiplist.MapGuard.Access;

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
 * <h2>Whole sectors</h2>
 *
 * <p>The file keeps 8 bytes of its own after every whole sector, counted from where the stored
 * range begins. A cut in the middle of a sector starts a new count there: where a byte behind it is
 * found then depends on the order of the writes. So {@link #create} makes maps that refuse every
 * change that is not in whole sectors. {@link #createUnaligned} is for those who know that their
 * places come out right.
 *
 * <h2>Holes</h2>
 *
 * <p>Ranges are not taken out of a map again. What is removed becomes a hole: a range of file type
 * whose location has both versions -1, as {@link FileLocation#EMPTY} has. Lookups that ask for
 * stored ranges ({@link #get}, {@link #floor}, {@link #lower}, {@link #ceiling}, {@link #higher},
 * {@link #first}, {@link #last}, {@link #ranges}, {@link #isEmpty}) pass over holes; walks
 * ({@link #forEach(Visitor) forEach}, {@link #forEachWhile}, {@link #forEachDescending},
 * {@link #read}) show them, {@link #copyTo} copies them, and the counters {@link #size},
 * {@link #coveredBytes}, {@link #insertedBytes} and {@link #insertCount} count them like other
 * ranges. {@link #remove} keeps at most one hole between two stored ranges, if its length can be
 * said in an {@code int}.
 *
 * <h2>Who owns a buffer</h2>
 *
 * <table>
 * <caption>Reference counts</caption>
 * <tr><th>operation</th><th>buffer</th></tr>
 * <tr><td>{@link #insert(long, int, FileLocation, ByteBuf) insert},
 * {@link #replace(long, int, FileLocation, ByteBuf, Consumer) replace}</td><td>the map retains a
 * slice of its own; the caller keeps and releases his reference</td></tr>
 * <tr><td>visit, {@link Visited#buffer()}</td><td>borrowed: nobody releases it, and it ends with
 * the visit</td></tr>
 * <tr><td>visit, {@link Visited#retainedBuffer()}; {@link #retainedBuffer(long)}</td><td>the
 * caller's to release, whatever becomes of the map</td></tr>
 * <tr><td>a range is overwritten, removed or dropped</td><td>the map releases its slice</td></tr>
 * <tr><td>a range is cut</td><td>the map retains a slice for each piece left and releases that of
 * the whole</td></tr>
 * <tr><td>{@link #compareAndRelease}, {@link #release}, {@link #releaseBuffers}</td><td>the
 * map releases the slice of each range found</td></tr>
 * <tr><td>{@link #copyTo}</td><td>the destination retains a slice for each range</td></tr>
 * <tr><td>{@link #clear}, {@link #close}, or the loss of an open map</td><td>the map releases all
 * its slices</td></tr>
 * <tr><td>an insert that fails</td><td>unchanged</td></tr>
 * </table>
 *
 * <p>A map {@linkplain ByteBuf#touch touches} the buffers it takes, so that Netty's leak reports
 * name it. Nobody writes to the bytes of a buffer that a map holds.
 *
 * <h2>Threads</h2>
 *
 * <p>Any thread may call any method at any time, virtual threads included. Queries and walks of one
 * map run side by side; a change, {@link #atomically(Runnable)}, {@link #copyTo} in both its maps,
 * and {@link #close} wait for those in progress and are alone in the map meanwhile. Queries that
 * come while one of them waits for those in progress let it go first. Where several wait, queries
 * may come in between two of them.
 *
 * <p>A visitor may query the map that it visits, and copy it to another one, but an attempt to
 * change or close that map, like one from inside a callback of a buffer, throws a
 * {@link ConcurrentModificationException} and changes nothing; and inside a callback of a buffer
 * whose map is being changed, queries of that map throw it too. A visitor that calls another map is
 * inside both, and so is a body of {@link #atomically(Runnable)}: two threads that do this in
 * opposite orders may block each other, and so may a visitor that waits for another thread which
 * uses the visited map. {@link #copyTo} takes no part in that: it never waits for one of its maps
 * while it is inside the other, unless its caller is inside that already.
 *
 * <h2>Cost</h2>
 *
 * <p>A search takes time in proportion to the logarithm of the number of ranges, a walk to the
 * ranges walked over, a change to the ranges replaced and a search. Queries read native memory in
 * place, with no call out of Java, where the JVM allows that without a warning: Java 17 to 23 do, if
 * they have the module {@code jdk.unsupported}, as all have for programs on the class path but
 * those made smaller; later ones do once they have let the library be loaded. Elsewhere, and with
 * the system property {@code skiplist.readInPlace} set to {@code false}, they call the library, with
 * the same results; {@link #floor}, {@link #lower}, {@link #last} and {@link #remove} then take up
 * to 64 searches.
 *
 * <h2>Failure</h2>
 *
 * <p>All methods check their arguments before they change anything and throw
 * {@link NullPointerException}, or {@link IllegalArgumentException} with what was expected. On a
 * closed map all but {@link #isClosed}, {@link #close} and {@link #toString} throw
 * {@link IllegalStateException}. Native memory that is used up is an {@link OutOfMemoryError}, and
 * any other native failure a {@link RuntimeException}; an insert has then changed nothing. What a
 * buffer throws that will not be sliced is the cause of that exception. What a buffer throws that
 * fails to be given back is passed on as it is, after the change, which is made all the same. A call
 * without stack enough to finish throws {@link StackOverflowError} before it does anything.
 *
 * <h2>Closing</h2>
 *
 * <p>A map is to be closed. One that is lost instead is freed after it has been garbage collected,
 * at a time that nobody knows, and logged as a warning. The system property
 * {@code skiplist.leakDetection} says how: {@code sampled} (default: with the place of creation of
 * one map in 64), {@code always} (of each) or {@code off} (freed without a word).
 * {@link NativeMemory#openMaps} and {@link NativeMemory#lostMaps} let a test run fail for it.
 */
public final class OffHeapRangeMap implements AutoCloseable {
    /** The most levels that a map may have. */
    public static final int MAX_HEIGHT = 64;
    /** The most logical bytes that a sector may have. */
    public static final int MAX_SECTOR_SIZE = 1 << 30;

    private static final int LONGEST = Integer.MAX_VALUE;
    private static final AtomicLong CREATED = new AtomicLong();

    // Under the lock of the class.
    private static Cleaner cleaner;

    private final long id = CREATED.incrementAndGet();
    private final int sectorSize;
    private final boolean aligned;
    private final NativeMap nativeMap;
    private final MapGuard guard;
    private final Cleaner.Cleanable cleanable;

    // Used inside the guard.
    private FusionGuard fusions;
    private HandedBuffer handed;

    private OffHeapRangeMap(int height, int sectorSize, boolean aligned) {
        this.sectorSize = sectorSize;
        this.aligned = aligned;
        fusions = new FusionGuard(sectorSize);
        nativeMap = new NativeMap(height, sectorSize, toString());
        guard = new MapGuard(toString(), id);
        // The guard, not the map: whoever is inside keeps it.
        cleanable = cleaner().register(guard, nativeMap);
        NativeMemory.sweepIfDue();
        nativeMap.open();
    }

    /**
     * Makes an empty map, which the caller closes. It refuses changes that are not in whole
     * sectors: offsets and lengths must be multiples of the sector size.
     *
     * @param height the number of levels, 1 to {@link #MAX_HEIGHT}; 12 serve 16 million ranges
     * @param sectorSize the logical bytes of a sector, 1 to {@link #MAX_SECTOR_SIZE}
     * @return the map
     * @throws IllegalArgumentException if an argument is out of its bounds
     * @throws OutOfMemoryError if native memory is exhausted or at its limit
     */
    public static OffHeapRangeMap create(int height, int sectorSize) {
        return create("create", height, sectorSize, true);
    }

    /**
     * Makes an empty map, which the caller closes, that takes ranges of any offset and length. Where
     * a byte is found then depends on how the ranges were cut: with sectors of 512, [0, 2048) in a
     * file at 0, and writes to [50, 100) and [550, 600), byte 600 is found at 600 of the file, and
     * at 608 if the two writes are swapped.
     *
     * @param height the number of levels, 1 to {@link #MAX_HEIGHT}; 12 serve 16 million ranges
     * @param sectorSize the logical bytes of a sector, 1 to {@link #MAX_SECTOR_SIZE}
     * @return the map
     * @throws IllegalArgumentException if an argument is out of its bounds
     * @throws OutOfMemoryError if native memory is exhausted or at its limit
     */
    public static OffHeapRangeMap createUnaligned(int height, int sectorSize) {
        return create("createUnaligned", height, sectorSize, false);
    }

    private static OffHeapRangeMap create(
            String operation, int height, int sectorSize, boolean aligned) {
        Arguments.within(operation, "height", height, 1, MAX_HEIGHT);
        Arguments.within(operation, "sectorSize", sectorSize, 1, MAX_SECTOR_SIZE);
        StackReserve.require();
        NativeLoader.load();
        return new OffHeapRangeMap(height, sectorSize, aligned);
    }

    /** Gives what frees lost maps: it has a thread, which the system may refuse for a while. */
    private static synchronized Cleaner cleaner() {
        if (cleaner == null) {
            cleaner = Cleaner.create();
        }
        return cleaner;
    }

    /**
     * Reads a map that {@link #save} has written. Reads exactly to its end, so that more may follow
     * in the channel.
     *
     * @param channel where the map begins; blocking
     * @return the map, with the height, the sector size and the ranges of the one saved, for the
     *     caller to close; it refuses what is not in whole sectors if that one did
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
     * @throws IllegalStateException if the map is closed
     */
    public int sectorSize() {
        guard.requireOpen("sectorSize");
        return sectorSize;
    }

    /**
     * Reads the number of levels that the map was made with.
     *
     * @return the number of levels
     * @throws IllegalStateException if the map is closed
     */
    public int height() {
        guard.requireOpen("height");
        return nativeMap.height();
    }

    // --- Changes ---------------------------------------------------------------------------------

    /**
     * Stores a range of file type: afterwards every lookup in it finds its location, and none
     * outside it finds anything new.
     *
     * @param offset the first byte
     * @param len the length in bytes, more than 0
     * @param location where the first byte lies; {@link FileLocation#EMPTY} for nowhere
     * @throws IllegalArgumentException if the range is empty, leaves the 64 bits of an offset, or is
     *     not made of whole sectors where they are asked for; or if it covers one end of a stored
     *     range that it continues, to more than 2^31-1 bytes in all
     * @throws IllegalStateException if the map is closed
     * @throws ConcurrentModificationException if the map is being visited by this thread
     * @throws OutOfMemoryError if native memory is exhausted or at its limit; nothing has changed
     */
    public void insert(long offset, int len, FileLocation location) {
        checkInsert("insert", offset, len, location);
        guard.enter("insert", Access.CHANGE);
        try {
            insertJoined("insert", offset, len, location);
        } finally {
            guard.leave(Access.CHANGE);
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
     * @throws IllegalArgumentException if the range is empty, leaves the 64 bits of an offset, or is
     *     not made of whole sectors where they are asked for, if both versions are -1, if the
     *     buffer has been released, or if it has fewer than {@code len} readable bytes
     * @throws IllegalStateException if the map is closed
     * @throws ConcurrentModificationException if the map is being visited by this thread
     * @throws OutOfMemoryError if native memory is exhausted or at its limit; nothing has changed
     */
    public void insert(long offset, int len, FileLocation location, ByteBuf buffer) {
        Arguments.notNull("insert", "buffer", buffer);
        checkInsert("insert", offset, len, location);
        checkBuffer("insert", len, location, buffer);
        guard.enter("insert", Access.CHANGE);
        try {
            insertBuffer(offset, len, location, buffer);
        } finally {
            guard.leave(Access.CHANGE);
            Reference.reachabilityFence(buffer);
        }
    }

    /**
     * Inserts as {@link #insert(long, int, FileLocation)}, and tells which pieces of stored ranges
     * have lost their bytes by it; holes are not told, pieces that lay at the same location are. A
     * log-structured store counts its garbage by them.
     *
     * @param offset the first byte
     * @param len the length in bytes, more than 0
     * @param location where the first byte lies; {@link FileLocation#EMPTY} for nowhere
     * @param displaced takes the pieces in order, after the insert and outside the map; what
     *     it throws is passed on, and the insert is done all the same
     * @throws IllegalArgumentException as {@link #insert(long, int, FileLocation)}, like the others
     */
    public void replace(long offset, int len, FileLocation location,
            Consumer<? super MappedRange> displaced) {
        Arguments.notNull("replace", "displaced", displaced);
        checkInsert("replace", offset, len, location);
        displace(offset, len, displaced, () -> insertJoined("replace", offset, len, location));
    }

    /**
     * Inserts as {@link #insert(long, int, FileLocation, ByteBuf)}, and tells which pieces of stored
     * ranges have lost their bytes by it; holes are not told.
     *
     * @param offset the first byte
     * @param len the length in bytes, more than 0
     * @param location where the first byte will lie; at least one version is not -1
     * @param buffer the bytes of the range are its first {@code len} readable ones; remains the
     *     caller's, indices and reference included
     * @param displaced takes the pieces in order, after the insert and outside the map; what
     *     it throws is passed on, and the insert is done all the same
     * @throws IllegalArgumentException as {@link #insert(long, int, FileLocation, ByteBuf)}, like
     *     the others
     */
    public void replace(long offset, int len, FileLocation location, ByteBuf buffer,
            Consumer<? super MappedRange> displaced) {
        Arguments.notNull("replace", "buffer", buffer);
        Arguments.notNull("replace", "displaced", displaced);
        checkInsert("replace", offset, len, location);
        checkBuffer("replace", len, location, buffer);
        displace(offset, len, displaced, () -> insertBuffer(offset, len, location, buffer));
    }

    /**
     * Makes a hole of what is stored in a range. Bytes there that are not stored stay as they are,
     * but for gaps and holes between the ranges removed and next to them, which become part of the
     * hole.
     *
     * <p>A hole is a range that takes native memory as others do: 104 bytes. A hole of more
     * than 2^31-1 bytes is made of several.
     *
     * @param offset the first byte
     * @param len the length in bytes, more than 0
     * @return the number of bytes that were stored and are so no more
     * @throws IllegalArgumentException if the range is empty, leaves the 64 bits of an offset, or is
     *     not made of whole sectors where they are asked for
     * @throws IllegalStateException if the map is closed
     * @throws ConcurrentModificationException if the map is being visited by this thread
     * @throws OutOfMemoryError if native memory is exhausted or at its limit; nothing has changed,
     *     but for holes of more than 2^31-1 bytes, of which the first may have been made
     * @throws RuntimeException if a buffer fails to be given back; the hole has been made, of several
     *     the first
     */
    public long remove(long offset, long len) {
        Arguments.range("remove", offset, len);
        checkAligned("remove", offset, len);
        guard.enter("remove", Access.CHANGE);
        try {
            return punchAll(offset, offset + len);
        } finally {
            guard.leave(Access.CHANGE);
        }
    }

    /**
     * Forgets all ranges, holes among them, gives their native memory and their buffers back, and
     * starts all counters again from 0: what is left is as a new map. Needs native memory for that
     * before it gives any back: at the limit only {@link #close} helps.
     *
     * @throws IllegalStateException if the map is closed
     * @throws ConcurrentModificationException if the map is being visited by this thread
     * @throws OutOfMemoryError if native memory is exhausted or at its limit; nothing has changed
     * @throws RuntimeException if a buffer that the map held fails to be given back; the map is
     *     cleared all the same
     */
    public void clear() {
        FusionGuard fresh = new FusionGuard(sectorSize);
        guard.enter("clear", Access.CHANGE);
        try {
            long old = nativeMap.handle();
            try {
                nativeMap.renew();
            } catch (OutOfMemoryError e) {
                throw guard.refused(e);
            } finally {
                if (nativeMap.handle() != old) {
                    fusions = fresh;
                }
            }
        } finally {
            guard.leave(Access.CHANGE);
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
        checkRedirect("compareAndSet", offset, len, expected, replacement);
        guard.enter("compareAndSet", Access.CHANGE);
        try {
            return redirectJoined("compareAndSet", offset, len, expected, replacement);
        } finally {
            guard.leave(Access.CHANGE);
        }
    }

    /**
     * Redirects as {@link #compareAndSet}, and tells how much.
     *
     * @param offset the first byte
     * @param len the length in bytes, more than 0
     * @param expected where the byte at {@code offset} is expected to lie
     * @param replacement where it lies from now on
     * @return the number of bytes redirected; 0 if no part matched
     * @throws IllegalArgumentException as {@link #compareAndSet}, like the others
     */
    public long redirect(long offset, int len, FileLocation expected, FileLocation replacement) {
        checkRedirect("redirect", offset, len, expected, replacement);
        guard.enter("redirect", Access.CHANGE);
        try {
            // Each part redirected is an insert of its bytes.
            long before = JniSkipListNative.getSkipLIstRawLen(nativeMap.handle());
            redirectJoined("redirect", offset, len, expected, replacement);
            return JniSkipListNative.getSkipLIstRawLen(nativeMap.handle()) - before;
        } finally {
            guard.leave(Access.CHANGE);
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
     * @throws IllegalArgumentException if the range is empty, leaves the 64 bits of an offset, or is
     *     not made of whole sectors where they are asked for
     * @throws IllegalStateException if the map is closed
     * @throws ConcurrentModificationException if the map is being visited by this thread
     */
    public long compareAndRelease(long offset, int len, FileLocation expected) {
        Arguments.range("compareAndRelease", offset, len);
        Arguments.notNull("compareAndRelease", "expected", expected);
        checkAligned("compareAndRelease", offset, len);
        guard.enter("compareAndRelease", Access.CHANGE);
        try {
            return releaseNative(offset, len, expected);
        } finally {
            guard.leave(Access.CHANGE);
        }
    }

    /**
     * Gives back the buffers of the ranges that lie wholly inside a range, wherever they lie in
     * files. They keep everything else.
     *
     * @param offset the first byte
     * @param len the length in bytes, more than 0
     * @return the summed lengths in bytes of the ranges whose buffer was given back
     * @throws IllegalArgumentException if the range is empty or leaves the 64 bits of an offset
     * @throws IllegalStateException if the map is closed
     * @throws ConcurrentModificationException if the map is being visited by this thread
     * @throws RuntimeException if a buffer fails to be given back; all others have been
     */
    public long releaseBuffers(long offset, long len) {
        Arguments.range("releaseBuffers", offset, len);
        guard.enter("releaseBuffers", Access.CHANGE);
        try {
            return releaseInside(offset, offset + len);
        } finally {
            guard.leave(Access.CHANGE);
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
        guard.enter("release", Access.CHANGE);
        try {
            return JniSkipListNative.release(nativeMap.handle());
        } finally {
            guard.leave(Access.CHANGE);
        }
    }

    /**
     * Inserts a copy of every range into another map, in order, over whatever that one holds. No
     * other call is inside one of the two maps meanwhile; but for queries of this one, if it is
     * being visited by this thread.
     *
     * @param destination another map with the same sector size; if it asks for whole sectors, one
     *     that does is copied only
     * @throws IllegalArgumentException if {@code destination} is this map or not as told, or as
     *     {@link #insert(long, int, FileLocation)} for the length of a joined range; the ranges
     *     copied so far stay in the destination
     * @throws IllegalStateException if either map is closed
     * @throws ConcurrentModificationException if the destination is being visited by this thread
     * @throws OutOfMemoryError if native memory is exhausted or at its limit; the ranges copied so
     *     far stay in the destination
     */
    public void copyTo(OffHeapRangeMap destination) {
        Arguments.notNull("copyTo", "destination", destination);
        checkDestination(destination);
        NativeMemory.sweepIfDue();
        Access access = MapGuard.enterBoth("copyTo", guard, destination.guard);
        try {
            copyInside(destination, access == Access.CHANGE);
        } finally {
            MapGuard.leaveBoth(guard, access, destination.guard);
        }
        NativeMemory.sweepIfDue();
    }

    /**
     * Does several operations with no other thread's in between, alone in the map. The body may
     * do whatever a caller may, calls of this map and of others included.
     *
     * @param body does them; what it throws is passed on
     * @throws IllegalStateException if the map is closed
     * @throws ConcurrentModificationException if the map is being visited by this thread
     */
    public void atomically(Runnable body) {
        Arguments.notNull("atomically", "body", body);
        guard.enter("atomically", Access.ALL);
        try {
            body.run();
        } finally {
            guard.leave(Access.ALL);
        }
    }

    /**
     * Does several operations with no other thread's in between, as {@link #atomically(Runnable)},
     * and gives their result.
     *
     * @param <T> the type of the result
     * @param body does them; what it throws is passed on
     * @return its result
     * @throws IllegalStateException if the map is closed
     * @throws ConcurrentModificationException if the map is being visited by this thread
     */
    public <T> T atomically(Supplier<T> body) {
        Arguments.notNull("atomically", "body", body);
        guard.enter("atomically", Access.ALL);
        try {
            return body.get();
        } finally {
            guard.leave(Access.ALL);
        }
    }

    // --- Walks -----------------------------------------------------------------------------------

    /**
     * Visits all ranges in order, holes among them.
     *
     * @param visitor takes them
     * @throws IllegalStateException if the map is closed
     */
    public void forEach(Visitor visitor) {
        Arguments.notNull("forEach", "visitor", visitor);
        Visited visited = new Visited();
        guard.enter("forEach", Access.VISIT);
        try {
            walk(MapSearch.first(nativeMap.handle()), Long.MAX_VALUE, visitor, visited);
        } finally {
            visited.moveTo(0);
            guard.leave(Access.VISIT);
        }
    }

    /**
     * Visits the ranges that share at least one byte with a range, holes among them, whole and in
     * order.
     *
     * @param offset the first byte
     * @param len the length in bytes, more than 0
     * @param visitor takes them
     * @throws IllegalArgumentException if the range is empty or leaves the 64 bits of an offset
     * @throws IllegalStateException if the map is closed
     */
    public void forEach(long offset, long len, Visitor visitor) {
        Arguments.range("forEach", offset, len);
        Arguments.notNull("forEach", "visitor", visitor);
        Visited visited = new Visited();
        guard.enter("forEach", Access.VISIT);
        try {
            walk(firstEndingAfter(offset), offset + len, visitor, visited);
        } finally {
            visited.moveTo(0);
            guard.leave(Access.VISIT);
        }
    }

    /**
     * Visits the ranges that share at least one byte with a range, holes among them, whole and in
     * order, until the visitor answers false.
     *
     * @param <E> what the visitor throws
     * @param offset the first byte
     * @param len the length in bytes, more than 0
     * @param visitor takes them
     * @return whether all were visited and the visitor answered true to each
     * @throws E if the visitor does
     * @throws IllegalArgumentException if the range is empty or leaves the 64 bits of an offset
     * @throws IllegalStateException if the map is closed
     */
    public <E extends Exception> boolean forEachWhile(
            long offset, long len, StoppableVisitor<E> visitor) throws E {
        Arguments.range("forEachWhile", offset, len);
        Arguments.notNull("forEachWhile", "visitor", visitor);
        Visited visited = new Visited();
        guard.enter("forEachWhile", Access.VISIT);
        try {
            boolean goesOn = true;
            for (long node = firstEndingAfter(offset);
                    goesOn && NodeReader.offset(node) < offset + len;
                    node = NodeReader.next(node)) {
                goesOn = visit(node, visitor, visited);
            }
            return goesOn;
        } finally {
            visited.moveTo(0);
            guard.leave(Access.VISIT);
        }
    }

    /**
     * Visits as {@link #forEachWhile}, from the last range to the first. Notes the ranges found
     * first, with 8 bytes of heap for each, since ranges know their successors only.
     *
     * @param <E> what the visitor throws
     * @param offset the first byte
     * @param len the length in bytes, more than 0
     * @param visitor takes the ranges
     * @return whether all were visited and the visitor answered true to each
     * @throws E if the visitor does
     * @throws IllegalArgumentException if the range is empty or leaves the 64 bits of an offset
     * @throws IllegalStateException if the map is closed
     */
    public <E extends Exception> boolean forEachDescending(
            long offset, long len, StoppableVisitor<E> visitor) throws E {
        Arguments.range("forEachDescending", offset, len);
        Arguments.notNull("forEachDescending", "visitor", visitor);
        Visited visited = new Visited();
        guard.enter("forEachDescending", Access.VISIT);
        try {
            long[] nodes = MapSearch.nodes(nativeMap.handle(), offset, offset + len);
            boolean goesOn = true;
            for (int i = nodes.length - 1; goesOn && i >= 0; i--) {
                goesOn = visit(nodes[i], visitor, visited);
            }
            return goesOn;
        } finally {
            visited.moveTo(0);
            guard.leave(Access.VISIT);
        }
    }

    /**
     * Fills a batch with the first ranges that share at least one byte with a range, holes among
     * them, whole and in order: as many as there are, or as fit. To go on, read what follows
     * {@link RangeBatch#end}; a range that has grown meanwhile may then begin before it.
     *
     * @param offset the first byte
     * @param len the length in bytes, more than 0
     * @param batch is filled anew; empty if nothing is found
     * @return whether there are more ranges than fit
     * @throws IllegalArgumentException if the range is empty or leaves the 64 bits of an offset
     * @throws IllegalStateException if the map is closed
     */
    public boolean read(long offset, long len, RangeBatch batch) {
        Arguments.range("read", offset, len);
        Arguments.notNull("read", "batch", batch);
        guard.enter("read", Access.QUERY);
        try {
            return batch.fill(firstEndingAfter(offset), offset + len);
        } finally {
            guard.leave(Access.QUERY);
        }
    }

    // --- Queries ---------------------------------------------------------------------------------

    /**
     * Lists the stored ranges that share at least one byte with a range, whole and in order.
     *
     * @param offset the first byte
     * @param len the length in bytes, more than 0
     * @return a copy that cannot be changed
     * @throws IllegalArgumentException if the range is empty or leaves the 64 bits of an offset
     * @throws IllegalStateException if the map is closed
     */
    public List<MappedRange> ranges(long offset, long len) {
        Arguments.range("ranges", offset, len);
        List<MappedRange> found = new ArrayList<>();
        guard.enter("ranges", Access.QUERY);
        try {
            for (long node = firstEndingAfter(offset); NodeReader.offset(node) < offset + len;
                    node = NodeReader.next(node)) {
                if (!NodeReader.isHole(node)) {
                    found.add(NodeReader.range(node));
                }
            }
        } finally {
            guard.leave(Access.QUERY);
        }
        return List.copyOf(found);
    }

    /**
     * Finds where a byte lies and how far the stored range goes on from there.
     *
     * @param position any position
     * @return the rest of the stored range that contains the position: starts there, with the
     *     location of that byte, and ends where the range does; or nothing if the byte is not
     *     stored
     * @throws IllegalStateException if the map is closed
     */
    public Optional<MappedRange> get(long position) {
        guard.enter("get", Access.QUERY);
        try {
            long node = containing(position);
            if (node == 0) {
                return Optional.empty();
            }
            FileLocation there = NodeReader.location(node)
                    .plus(position - NodeReader.offset(node), sectorSize);
            return Optional.of(new MappedRange(position, (int) (NodeReader.end(node) - position),
                    NodeReader.isMemoryType(node), there));
        } finally {
            guard.leave(Access.QUERY);
        }
    }

    /**
     * Takes a reference to the bytes from a position to the end of the stored range that contains
     * it; it outlives the map.
     *
     * @param position any position
     * @return a buffer whose readable bytes are these, for the caller to release; or null if the
     *     byte is not stored or its range holds no buffer
     * @throws io.netty.util.IllegalReferenceCountException if somebody has released the map's own
     *     slice
     * @throws IllegalStateException if the map is closed
     */
    public ByteBuf retainedBuffer(long position) {
        guard.enter("retainedBuffer", Access.VISIT);
        try {
            long node = containing(position);
            ByteBuf held = node == 0 ? null : NodeReader.buffer(node);
            if (held == null) {
                return null;
            }
            NodeReader.requireHeld(node, held);
            int skip = (int) (position - NodeReader.offset(node));
            return held.retainedSlice(held.readerIndex() + skip, NodeReader.len(node) - skip);
        } finally {
            guard.leave(Access.VISIT);
        }
    }

    /**
     * Finds the last stored range that starts at or before a position, with one search, and one
     * more for each hole in between.
     *
     * @param position any position
     * @return the range, or nothing if all stored ranges start after {@code position}
     * @throws IllegalStateException if the map is closed
     */
    public Optional<MappedRange> floor(long position) {
        guard.enter("floor", Access.QUERY);
        try {
            return storedUpTo(MapSearch.floor(nativeMap.handle(), position));
        } finally {
            guard.leave(Access.QUERY);
        }
    }

    /**
     * Finds the last stored range that starts before a position, at the cost of {@link #floor}.
     *
     * @param position any position
     * @return the range, or nothing if no stored range starts before {@code position}
     * @throws IllegalStateException if the map is closed
     */
    public Optional<MappedRange> lower(long position) {
        guard.enter("lower", Access.QUERY);
        try {
            // No range starts at the first position of all.
            long last = Math.max(position, Long.MIN_VALUE + 1) - 1;
            return storedUpTo(MapSearch.floor(nativeMap.handle(), last));
        } finally {
            guard.leave(Access.QUERY);
        }
    }

    /**
     * Finds the first stored range that starts at or after a position.
     *
     * @param position any position
     * @return the range, or nothing if all stored ranges start before {@code position}
     * @throws IllegalStateException if the map is closed
     */
    public Optional<MappedRange> ceiling(long position) {
        guard.enter("ceiling", Access.QUERY);
        try {
            return storedFrom(MapSearch.ceiling(nativeMap.handle(), position));
        } finally {
            guard.leave(Access.QUERY);
        }
    }

    /**
     * Finds the first stored range that starts after a position.
     *
     * @param position any position
     * @return the range, or nothing if no stored range starts after {@code position}
     * @throws IllegalStateException if the map is closed
     */
    public Optional<MappedRange> higher(long position) {
        guard.enter("higher", Access.QUERY);
        try {
            // No range starts at the last position of all.
            long first = Math.min(position, Long.MAX_VALUE - 1) + 1;
            return storedFrom(MapSearch.ceiling(nativeMap.handle(), first));
        } finally {
            guard.leave(Access.QUERY);
        }
    }

    /**
     * Finds the first stored range.
     *
     * @return the range, or nothing if no range is stored
     * @throws IllegalStateException if the map is closed
     */
    public Optional<MappedRange> first() {
        guard.enter("first", Access.QUERY);
        try {
            return storedFrom(MapSearch.first(nativeMap.handle()));
        } finally {
            guard.leave(Access.QUERY);
        }
    }

    /**
     * Finds the last stored range, at the cost of {@link #floor}.
     *
     * @return the range, or nothing if no range is stored
     * @throws IllegalStateException if the map is closed
     */
    public Optional<MappedRange> last() {
        guard.enter("last", Access.QUERY);
        try {
            return storedUpTo(MapSearch.last(nativeMap.handle()));
        } finally {
            guard.leave(Access.QUERY);
        }
    }

    /**
     * Tells whether no range is stored. A map may have holes and be empty.
     *
     * @return whether it is so
     * @throws IllegalStateException if the map is closed
     */
    public boolean isEmpty() {
        return first().isEmpty();
    }

    /**
     * Reads the number of ranges, holes among them.
     *
     * @return the number of ranges
     * @throws IllegalStateException if the map is closed
     */
    public int size() {
        guard.enter("size", Access.QUERY);
        try {
            return JniSkipListNative.getSkipListSize(nativeMap.handle());
        } finally {
            guard.leave(Access.QUERY);
        }
    }

    /**
     * Reads how many bytes are covered, holes among them, as counted by the inserts: without the
     * gaps between stored ranges that an insert closed which reached beyond one side of them only.
     * {@link #statistics} counts the bytes of the stored ranges exactly.
     *
     * @return the number of bytes
     * @throws IllegalStateException if the map is closed
     */
    public long coveredBytes() {
        guard.enter("coveredBytes", Access.QUERY);
        try {
            return JniSkipListNative.getSkipListValidLen(nativeMap.handle());
        } finally {
            guard.leave(Access.QUERY);
        }
    }

    /**
     * Reads how many bytes were ever inserted, redirected or copied into the map, or made holes.
     *
     * @return the number of bytes
     * @throws IllegalStateException if the map is closed
     */
    public long insertedBytes() {
        guard.enter("insertedBytes", Access.QUERY);
        try {
            return JniSkipListNative.getSkipLIstRawLen(nativeMap.handle());
        } finally {
            guard.leave(Access.QUERY);
        }
    }

    /**
     * Reads how many ranges were ever inserted, redirected or copied into the map, or made holes.
     * Wraps at 2^31.
     *
     * @return the number of inserts
     * @throws IllegalStateException if the map is closed
     */
    public int insertCount() {
        guard.enter("insertCount", Access.QUERY);
        try {
            return JniSkipListNative.getSkipListRawCount(nativeMap.handle());
        } finally {
            guard.leave(Access.QUERY);
        }
    }

    /**
     * Walks the whole map and counts what it holds.
     *
     * @return the counts as of this call
     * @throws IllegalStateException if the map is closed
     */
    public MapStatistics statistics() {
        guard.enter("statistics", Access.QUERY);
        try {
            return MapStatistics.count(nativeMap.handle());
        } finally {
            guard.leave(Access.QUERY);
        }
    }

    /**
     * Walks the whole map and compares: ranges are not empty, in order and disjoint; their number
     * is {@link #size}; {@link #coveredBytes} is not more than the sum of their lengths; each
     * buffer has the bytes of its range and has not been released.
     *
     * @throws AssertionError if something does not hold, with the numbers for a report
     * @throws IllegalStateException if the map is closed
     */
    public void checkInvariants() {
        guard.enter("checkInvariants", Access.VISIT);
        try {
            InvariantCheck.run(nativeMap.handle());
        } finally {
            guard.leave(Access.VISIT);
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
        MapFileWriter writer = new MapFileWriter(nativeMap.height(), sectorSize, aligned);
        guard.enter("save", Access.QUERY);
        try {
            writer.encode(nativeMap.handle(), buffered);
        } finally {
            guard.leave(Access.QUERY);
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
        return guard.isClosed();
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
        if (guard.enterToClose()) {
            try {
                nativeMap.markClosed();
                cleanable.clean();
            } finally {
                guard.leave(Access.ALL);
            }
        }
    }

    /** Names the map: a number that no other map of the process has. */
    @Override
    public String toString() {
        return "OffHeapRangeMap#" + id;
    }

    // --- Before a change -------------------------------------------------------------------------

    private void checkInsert(String operation, long offset, int len, FileLocation location) {
        Arguments.range(operation, offset, len);
        Arguments.notNull(operation, "location", location);
        checkAligned(operation, offset, len);
    }

    private void checkBuffer(String operation, int len, FileLocation location, ByteBuf buffer) {
        if (location.isUnversioned()) {
            throw Arguments.illegal(operation, "location: " + location + " with a buffer",
                    "a version other than -1, or no buffer");
        }
        Arguments.bytes(operation, buffer, len);
        buffer.touch(this);
    }

    private void checkRedirect(String operation, long offset, int len, FileLocation expected,
            FileLocation replacement) {
        Arguments.range(operation, offset, len);
        Arguments.notNull(operation, "expected", expected);
        Arguments.notNull(operation, "replacement", replacement);
        checkAligned(operation, offset, len);
    }

    private void checkAligned(String operation, long offset, long len) {
        if (aligned) {
            Arguments.aligned(operation, offset, len, sectorSize);
        }
    }

    private void checkDestination(OffHeapRangeMap destination) {
        if (destination == this) {
            throw Arguments.illegal("copyTo", "destination: " + this, "another map");
        }
        if (destination.sectorSize != sectorSize) {
            throw Arguments.illegal("copyTo", "destination: " + destination
                    + " with sectors of " + destination.sectorSize, "of " + sectorSize);
        }
        if (destination.aligned && !aligned) {
            throw Arguments.illegal("copyTo", "destination: " + destination
                    + ", which takes whole sectors only", "one made by createUnaligned");
        }
    }

    /** Something that appends to a map. */
    interface Appends {
        void run() throws IOException;
    }

    /** Enters the map once for any number of calls of {@link #append}. */
    void appendAll(Appends body) throws IOException {
        guard.enter("load", Access.CHANGE);
        try {
            body.run();
        } finally {
            guard.leave(Access.CHANGE);
        }
    }

    /**
     * Stores a range behind all others of a map that no other thread knows yet. Such a range covers
     * no end of another, so that no look at what it continues is needed.
     */
    void append(long offset, int len, FileLocation at) {
        fusions.noteInserts(offset, len, at);
        insertNative(offset, len, at);
    }

    // --- Inside the guard ------------------------------------------------------------------------

    private void insertJoined(String operation, long offset, int len, FileLocation location) {
        if (fusions.noteInserts(offset, len, location)) {
            fusions.check(operation, nativeMap.handle(), offset, len, location);
        }
        insertNative(offset, len, location);
    }

    private void insertNative(long offset, int len, FileLocation at) {
        try {
            JniSkipListNative.insert(nativeMap.handle(), offset, len, at.offset(), at.majorVer(),
                    at.minorVer(), (byte) at.number());
        } catch (RuntimeException e) {
            throw explained(e, null, offset, len);
        } catch (OutOfMemoryError e) {
            throw guard.refused(e);
        }
    }

    private void insertBuffer(long offset, int len, FileLocation at, ByteBuf buffer) {
        fusions.noteCut(offset, len);
        if (handed == null) {
            handed = new HandedBuffer();
        }
        handed.of(buffer, len);
        try {
            insertNative(offset, len, at, handed);
        } catch (RuntimeException e) {
            throw explained(e, handed.thrown(), offset, len);
        } catch (OutOfMemoryError e) {
            throw guard.refused(e);
        } finally {
            handed.forget();
        }
    }

    private void insertNative(long offset, int len, FileLocation at, ByteBuf buffer) {
        JniSkipListNative.insertWithBuff(nativeMap.handle(), offset, len, at.offset(),
                at.majorVer(), at.minorVer(), (byte) at.number(), buffer);
    }

    private RuntimeException explained(
            RuntimeException failure, Throwable ofCaller, long offset, int len) {
        return StoredSlices.explain(
                failure, ofCaller, firstEndingAfter(offset), offset + len);
    }

    /** Does an insert, and tells which pieces have lost their bytes once it is done. */
    private void displace(
            long offset, int len, Consumer<? super MappedRange> displaced, Runnable insert) {
        List<MappedRange> pieces = new ArrayList<>();
        boolean done = false;
        guard.enter("replace", Access.CHANGE);
        try {
            findStored(pieces, offset, len);
            int before = JniSkipListNative.getSkipListRawCount(nativeMap.handle());
            try {
                insert.run();
            } finally {
                // Is so, too, if a displaced buffer failed to be given back.
                done = JniSkipListNative.getSkipListRawCount(nativeMap.handle()) != before;
            }
        } finally {
            guard.leave(Access.CHANGE);
            if (done) {
                pieces.forEach(displaced);
            }
        }
    }

    /** Adds the pieces of a range that are stored. */
    private void findStored(List<MappedRange> pieces, long offset, int len) {
        long end = offset + len;
        for (long node = firstEndingAfter(offset); NodeReader.offset(node) < end;
                node = NodeReader.next(node)) {
            if (!NodeReader.isHole(node)) {
                long from = Math.max(offset, NodeReader.offset(node));
                long to = Math.min(end, NodeReader.end(node));
                pieces.add(new MappedRange(from, (int) (to - from), NodeReader.isMemoryType(node),
                        NodeReader.location(node)
                                .plus(from - NodeReader.offset(node), sectorSize)));
            }
        }
    }

    /** Makes holes, each as long as can be said, of what is stored before an end. */
    private long punchAll(long offset, long end) {
        long most = LONGEST / sectorSize * sectorSize;
        long removed = 0;
        long from = offset;
        while (from < end) {
            long node = firstEndingAfter(from);
            long start = Math.max(from, NodeReader.offset(MapSearch.storedFrom(node)));
            if (start >= end) {
                break;
            }
            long len = Math.min(most, end - start);
            removed += punch(start, len);
            from = start + len;
        }
        return removed;
    }

    /** Makes one hole of what is stored in a range, and of the holes next to it. */
    private long punch(long offset, long len) {
        HolePlan plan = HolePlan.of(nativeMap.handle(), offset, len);
        if (plan.removed() > 0) {
            // Covers whole holes only, and so joins none that it would make too long.
            fusions.noteInserts(plan.start(), plan.len(), FileLocation.EMPTY);
            insertNative(plan.start(), plan.len(), FileLocation.EMPTY);
        }
        return plan.removed();
    }

    private boolean redirectJoined(String operation, long offset, int len, FileLocation expected,
            FileLocation replacement) {
        if (fusions.noteInserts(offset, len, replacement)) {
            return redirectChecked(operation, offset, len, expected, replacement);
        }
        try {
            return JniSkipListNative.compareAndSet(nativeMap.handle(), offset, len,
                    expected.offset(), expected.majorVer(), expected.minorVer(),
                    (byte) expected.number(), replacement.offset(), replacement.majorVer(),
                    replacement.minorVer(), (byte) replacement.number());
        } catch (OutOfMemoryError e) {
            throw guard.refused(e);
        }
    }

    /** As the native compareAndSet, with a look at what each part is joined to. */
    private boolean redirectChecked(String operation, long offset, int len, FileLocation expected,
            FileLocation replacement) {
        long end = offset + len;
        MappedRange request = new MappedRange(offset, len, false, expected);
        // All parts are found before the first insert changes what is there.
        List<MappedRange> parts = new ArrayList<>();
        for (long node = firstEndingAfter(offset); NodeReader.offset(node) < end;
                node = NodeReader.next(node)) {
            MappedRange range = NodeReader.range(node);
            if (fusions.isConnected(range, request)) {
                long from = Math.max(range.offset(), offset);
                long to = Math.min(range.end(), end);
                parts.add(new MappedRange(from, (int) (to - from), false,
                        replacement.plus(from - offset, sectorSize)));
            }
        }
        for (MappedRange part : parts) {
            fusions.check(operation, nativeMap.handle(), part.offset(), part.len(),
                    part.location());
            insertNative(part.offset(), part.len(), part.location());
        }
        return !parts.isEmpty();
    }

    /** Gives back each buffer between two positions, whatever the others throw. */
    private long releaseInside(long offset, long end) {
        long released = 0;
        RuntimeException failure = null;
        // Nodes stay where they are when their buffers go.
        for (long node = firstEndingAfter(offset); NodeReader.offset(node) < end;
                node = NodeReader.next(node)) {
            if (NodeReader.offset(node) >= offset && NodeReader.end(node) <= end
                    && NodeReader.isMemoryType(node)) {
                try {
                    released += releaseNative(NodeReader.offset(node), NodeReader.len(node),
                            NodeReader.location(node));
                } catch (RuntimeException e) {
                    failure = e;
                }
            }
        }
        if (failure != null) {
            throw failure;
        }
        return released;
    }

    private long releaseNative(long offset, int len, FileLocation expected) {
        return JniSkipListNative.compareAndRelease(nativeMap.handle(), offset, len,
                expected.offset(), expected.majorVer(), expected.minorVer(),
                (byte) expected.number());
    }

    private void copyInside(OffHeapRangeMap destination, boolean isAlone) {
        try {
            if (destination.fusions.noteCopy(fusions) || !isAlone) {
                copyChecked(destination);
                return;
            }
            // Matches nothing. Makes both maps call back on this thread, as the copy does not.
            releaseNative(0, 0, FileLocation.EMPTY);
            destination.releaseNative(0, 0, FileLocation.EMPTY);
            JniSkipListNative.copySkipList(nativeMap.handle(), destination.nativeMap.handle());
        } catch (RuntimeException e) {
            throw StoredSlices.explain(
                    e, null, MapSearch.first(nativeMap.handle()), Long.MAX_VALUE);
        } catch (OutOfMemoryError e) {
            throw destination.guard.refused(e);
        }
    }

    /**
     * As the native copy, with a look at what each range is joined to. Calls no buffer through this
     * map, which others may be reading.
     */
    private void copyChecked(OffHeapRangeMap destination) {
        for (long node = MapSearch.first(nativeMap.handle()); !NodeReader.isEndMark(node);
                node = NodeReader.next(node)) {
            MappedRange range = NodeReader.range(node);
            if (range.memoryType()) {
                destination.insertNative(range.offset(), range.len(), range.location(),
                        NodeReader.buffer(node));
            } else {
                destination.fusions.check("copyTo", destination.nativeMap.handle(),
                        range.offset(), range.len(), range.location());
                destination.insertNative(range.offset(), range.len(), range.location());
            }
        }
    }

    private static void walk(long first, long end, Visitor visitor, Visited visited) {
        for (long node = first; NodeReader.offset(node) < end; node = NodeReader.next(node)) {
            visited.moveTo(node);
            visitor.visit(NodeReader.offset(node), NodeReader.len(node),
                    NodeReader.fileNumber(node), NodeReader.fileOffset(node),
                    NodeReader.majorVer(node), NodeReader.minorVer(node), visited);
        }
    }

    private static <E extends Exception> boolean visit(
            long node, StoppableVisitor<E> visitor, Visited visited) throws E {
        visited.moveTo(node);
        return visitor.visit(NodeReader.offset(node), NodeReader.len(node),
                NodeReader.fileNumber(node), NodeReader.fileOffset(node),
                NodeReader.majorVer(node), NodeReader.minorVer(node), visited);
    }

    private long firstEndingAfter(long position) {
        return MapSearch.firstEndingAfter(nativeMap.handle(), position);
    }

    /** Gives the stored range that contains a position, or 0. */
    private long containing(long position) {
        long node = firstEndingAfter(position);
        boolean stored = NodeReader.offset(node) <= position && !NodeReader.isEndMark(node)
                && !NodeReader.isHole(node);
        return stored ? node : 0;
    }

    private Optional<MappedRange> storedUpTo(long node) {
        return found(MapSearch.storedUpTo(nativeMap.handle(), node));
    }

    private static Optional<MappedRange> storedFrom(long node) {
        return found(MapSearch.storedFrom(node));
    }

    private static Optional<MappedRange> found(long node) {
        return NodeReader.isEndMark(node)
                ? Optional.empty()
                : Optional.of(NodeReader.range(node));
    }
}
