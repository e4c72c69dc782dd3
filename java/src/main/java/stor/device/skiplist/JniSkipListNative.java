package stor.device.skiplist;

import io.netty.buffer.ByteBuf;

/**
 * Keeps ordered maps from logical byte ranges of a storage device to file locations, in native
 * memory.
 *
 * <p>A map stores disjoint, half-open ranges {@code [offset, offset + len)}. Each has a file
 * location (type, file number, file offset, major and minor version) and may hold the Netty buffer
 * that still has its bytes. Whatever a new range covers is taken away from the ranges stored
 * before, which are cut, shortened or dropped:
 *
 * <pre>
 *   stored   [0 ----------------------- 100)
 *   insert            [40 ---- 60)
 *   result   [0 -- 40)[40 ---- 60)[60 - 100)
 * </pre>
 *
 * <p>A file location advances with its range: the byte {@code skip} bytes after the start of a
 * range lies {@code skip + (skip / sectorSize) * 8} bytes after the range's file offset, because
 * every whole sector takes 8 bytes more in the file. Ranges of file type (made by {@link #insert}
 * and {@link #compareAndSet}) that touch and describe one continuous stretch of the same file and
 * versions become one range. Ranges of memory type (made by {@link #insertWithBuff}) never do. A
 * location whose file offset and two versions are all -1 is empty, whatever its type and number:
 * empty ranges that touch become one range, and none of them is ever joined to a range that is not
 * empty.
 *
 * <h2>Handles</h2>
 * <ul>
 * <li>A map handle comes from {@link #createSkipList}. Its owner passes it to
 * {@link #destorySkipList} exactly once and not to anything afterwards.
 * <li>A node handle comes from {@link #getNodes}, {@link #getAllNodes} or {@link #nextNode}. It is
 * borrowed from the map and ends with the next {@link #insert}, {@link #insertWithBuff},
 * {@link #compareAndSet}, {@link #copySkipList} into the map, or {@link #destorySkipList}. It
 * outlives {@link #compareAndRelease} and {@link #release}, which take buffers only.
 * <li>Handles are addresses and nothing checks them. A handle that is stale, foreign or (but for
 * {@link #destorySkipList}) 0 has undefined results, the end of the process among them.
 * </ul>
 *
 * <h2>Buffers</h2>
 *
 * <p>A map holds a retained slice of its own for each buffered range, and so keeps the caller's
 * buffer from being freed. What it retains and gives back:
 *
 * <table>
 * <caption>Buffer ownership</caption>
 * <tr><th>operation</th><th>slices</th></tr>
 * <tr><td>{@link #insertWithBuff}</td><td>retains one of the caller's buffer, who keeps his own
 * reference</td></tr>
 * <tr><td>a range is cut</td><td>retains a slice of its slice for each piece left, then gives its
 * own back</td></tr>
 * <tr><td>a range is replaced or dropped</td><td>gives its slice back</td></tr>
 * <tr><td>{@link #compareAndRelease}, {@link #release}</td><td>give the slice of each range
 * back</td></tr>
 * <tr><td>{@link #copySkipList}</td><td>retains a slice of the slice of each range, for the
 * destination</td></tr>
 * <tr><td>{@link #destorySkipList}</td><td>gives all slices back</td></tr>
 * <tr><td>{@link #getNodeFileBuff}</td><td>none: the result is borrowed</td></tr>
 * <tr><td>any of them, failing</td><td>gives back what it has retained, but for a slice that the
 * memory limit refuses: that one is lost, and its buffer is never freed</td></tr>
 * </table>
 *
 * <h2>Threads</h2>
 *
 * <p>A map has no lock. While a call changes a map, releases its buffers included, no other call
 * may be running on it or on its nodes; queries, counters and reads of nodes may run beside each
 * other. To this extent the caller serialises the calls, and one lock for each map, held around
 * every call and for as long as node handles and borrowed buffers are in use, is the recommended
 * way. {@link #copySkipList} occupies both of its maps. Calls on different maps, {@link #init},
 * {@link #tryTest} and {@link #getStats} need no serialising.
 *
 * <p>Java is called back (to slice and to release buffers) in the environment of the thread that
 * last made one of these calls on the map: {@link #createSkipList}, {@link #insert},
 * {@link #insertWithBuff}, {@link #compareAndSet}, {@link #compareAndRelease}, {@link #release},
 * {@link #destorySkipList}. Each sets it before it does anything else, so a map may move between
 * threads one after another, with a lock or another hand-over that orders memory. The exception is
 * {@link #copySkipList}, which sets it in neither map: a thread that copies must have made one of
 * those calls last on both maps, if either holds buffers. A copied buffer is given back through the
 * destination.
 *
 * <h2>Failure</h2>
 *
 * <p>Every failure is written to the standard error stream as one text and thrown as a new
 * exception: {@link OutOfMemoryError} when native memory or its limit (see {@link #init}) is
 * exhausted in a method that says so, {@link RuntimeException} otherwise, that of a {@code ByteBuf}
 * that cannot be sliced among them. Nothing is rolled back, but an insert that fails leaves the map
 * as it was, and the map stays usable after any failure. A buffer that throws when it is given back
 * (because someone has released the map's slice) does not stop the operation: that is completed,
 * and the buffer's exception is thrown after it.
 *
 * <h2>Loading</h2>
 *
 * <p>The system property {@code skiplist.native.library}, when set, is the absolute path of the
 * native library; no other place is tried. Otherwise it is the one inside the jar, copied to the
 * folder that the system property {@code skiplist.native.tmpdir} names (by default that of
 * {@code java.io.tmpdir}), loaded and deleted; and if that fails, {@code skiplistjni} on
 * {@code java.library.path}. If none can be loaded, the first use of this class throws an
 * {@link UnsatisfiedLinkError} that names each place with its reason, and the property to set.
 */
public final class JniSkipListNative {
    static {
        NativeLoader.load();
    }

    private JniSkipListNative() {
    }

    /**
     * Sets the limit of native memory and prepares the calls to {@link ByteBuf}. To be called once,
     * before anything else. Buffers work without it, too; the limit is then 10 GiB.
     *
     * <p>The limit holds for the whole process and is judged against the bytes in use as of the
     * last sweep (see {@link #getStats}), so that charges made since do not count yet.
     *
     * @param maxMem the limit in bytes; not checked. At 0 every further charge is refused
     * @return 0, or -1 if {@code ByteBuf} lacks a method that is needed; the exception of the
     *     failed lookup is then thrown
     * @throws RuntimeException on any other failure
     */
    public static native int init(long maxMem);

    /**
     * Makes an empty map, owned by the caller.
     *
     * @param height the number of levels of the map, at least 1; 12 serve 16 million ranges
     * @param sectorSize the logical bytes of a sector, at least 1
     * @return the map's handle. The negative results belong to the exceptions and are not seen by a
     *     Java caller: -1 and -2 for a height and a sector size below 1, -3 for a lack of memory,
     *     -4 and -5 for any other failure
     * @throws OutOfMemoryError if native memory is exhausted or at its limit; nothing stays behind
     * @throws RuntimeException if {@code height} or {@code sectorSize} is below 1, or on any other
     *     failure
     */
    public static native long createSkipList(int height, int sectorSize);

    /**
     * Destroys a map, and gives back the buffers that it still holds. Its handle and all its node
     * handles end here. The caller makes sure that no other call on the map is running or follows.
     *
     * @param handle the map, or 0, which does nothing
     * @throws RuntimeException on any failure
     */
    public static native void destorySkipList(long handle);

    /**
     * Stores a range of file type, without buffer. Takes the bytes that it covers away from the
     * ranges stored before, and joins the range with the neighbours that it continues. Ends the
     * map's node handles. The caller serialises the calls on the map.
     *
     * @param handle the map
     * @param offset the start of the range in bytes
     * @param len the length of the range in bytes; neither this nor the offset is checked
     * @param fileOffset the offset of the range's first byte in the file, in bytes
     * @param majorVer the major version of the file location
     * @param minorVer the minor version of the file location
     * @param number the file number; its 8 bits are stored
     * @throws OutOfMemoryError if native memory is exhausted or at its limit
     * @throws RuntimeException on any other failure
     */
    public static native void insert(
            long handle, long offset, int len, int fileOffset, int majorVer, int minorVer,
            byte number);

    /**
     * Stores a range of memory type. The map takes a retained slice of {@code buf}, from its reader
     * index to its writer index, and holds it until the range is replaced, released or destroyed;
     * when the range is cut, each piece holds its own slice. The caller keeps its own reference and
     * releases it when it likes, but must not write to the bytes or change the count beneath the
     * map. Ends the map's node handles. The caller serialises the calls on the map.
     *
     * @param handle the map
     * @param offset the start of the range in bytes
     * @param len the length of the range in bytes; not checked
     * @param fileOffset the offset of the range's first byte in the file, in bytes
     * @param majorVer the major version of the file location
     * @param minorVer the minor version of the file location
     * @param number the file number; its 8 bits are stored
     * @param buf the range's bytes, as many as {@code len}: a shorter buffer is stored, and makes
     *     the later operation fail that has to cut the range beyond the buffer's end. Null stores a
     *     range of memory type that holds no buffer
     * @throws OutOfMemoryError if native memory is exhausted or at its limit
     * @throws RuntimeException if a buffer cannot be sliced (it has been released, or a stored one
     *     is shorter than its range), or on any other failure
     */
    public static native void insertWithBuff(
            long handle, long offset, int len, int fileOffset, int majorVer, int minorVer,
            byte number, ByteBuf buf);

    /**
     * Redirects those parts of a range whose file location is still the expected one. Each of them
     * is stored as by {@link #insert}, at its own distance into the new location. Ranges of memory
     * type never match, except empty ones when the expected location is empty. Ends the map's node
     * handles if anything matched. The caller serialises the calls on the map.
     *
     * @param handle the map
     * @param offset the start of the range in bytes
     * @param len the length of the range in bytes
     * @param expFileOffset the expected file offset of the byte at {@code offset}
     * @param expMajorVer the expected major version
     * @param expMinorVer the expected minor version
     * @param expNumber the expected file number
     * @param newFileOffset the new file offset of the byte at {@code offset}
     * @param newMajorVer the new major version
     * @param newMinorVer the new minor version
     * @param newNumber the new file number
     * @return whether at least one part matched and was redirected
     * @throws OutOfMemoryError if native memory is exhausted or at its limit; the parts redirected
     *     so far stay so
     * @throws RuntimeException on any other failure, with the same state
     */
    public static native boolean compareAndSet(
            long handle, long offset, int len, int expFileOffset, int expMajorVer, int expMinorVer,
            byte expNumber, int newFileOffset, int newMajorVer, int newMinorVer, byte newNumber);

    /**
     * Gives back the buffers of those stored ranges that lie wholly inside a range and still have
     * the expected file location. They keep everything else, their memory type included, and node
     * handles stay valid; buffers borrowed from {@link #getNodeFileBuff} do not. The caller
     * serialises the calls on the map.
     *
     * @param handle the map
     * @param offset the start of the range in bytes
     * @param len the length of the range in bytes
     * @param fileOffset the expected file offset of the byte at {@code offset}
     * @param majorVer the expected major version
     * @param minorVer the expected minor version
     * @param number the expected file number
     * @return the summed lengths in bytes of the stored ranges whose buffer was given back
     * @throws OutOfMemoryError if native memory is exhausted or at its limit
     * @throws RuntimeException on any other failure; buffers given back so far stay so
     */
    public static native long compareAndRelease(
            long handle, long offset, int len, int fileOffset, int majorVer, int minorVer,
            byte number);

    /**
     * Gives back every buffer of a map. Its ranges keep everything else, and node handles stay
     * valid; buffers borrowed from {@link #getNodeFileBuff} do not. The caller serialises the calls
     * on the map.
     *
     * @param handle the map
     * @return the summed lengths in bytes of the stored ranges whose buffer was given back
     * @throws RuntimeException on any failure; buffers given back so far stay so
     */
    public static native long release(long handle);

    /**
     * Inserts a copy of every range of one map into another, in order, over whatever that one
     * holds. A copied buffer is a further retained slice, which the destination holds and gives
     * back. Ends the destination's node handles. The caller serialises the calls on both maps, and
     * must be the thread that last made a refreshing call on either (see the class comment) if
     * either holds buffers.
     *
     * @param srcHandle the map to read; not changed
     * @param dstHandle the map to insert into; not the same map
     * @throws OutOfMemoryError if native memory is exhausted or at its limit; the ranges copied so
     *     far stay in the destination
     * @throws RuntimeException if a buffer cannot be sliced, or on any other failure, with the same
     *     state
     */
    public static native void copySkipList(long srcHandle, long dstHandle);

    /**
     * Does nothing. Shows that the library is loaded.
     *
     * @return 0
     */
    public static native int tryTest();

    /**
     * Steps to the next range. The caller serialises the calls on the map.
     *
     * @param node a node handle
     * @return the node handle of the next range of the map, borrowed from the map; past the last
     *     range that of the map's end mark, and 0 past the end mark
     * @throws RuntimeException on any failure
     */
    public static native long nextNode(long node);

    /**
     * Reads the start of a range. The caller serialises the calls on the map.
     *
     * @param node a node handle
     * @return the start of the range in bytes; {@link Long#MAX_VALUE} for the map's end mark
     * @throws RuntimeException on any failure
     */
    public static native long getNodeIndexOffset(long node);

    /**
     * Reads the length of a range. The caller serialises the calls on the map.
     *
     * @param node a node handle
     * @return the length of the range in bytes; 0 for the map's end mark
     * @throws RuntimeException on any failure
     */
    public static native int getNodeIndexLen(long node);

    /**
     * Reads the type of a range. The caller serialises the calls on the map.
     *
     * @param node a node handle
     * @return true for memory type, also when the buffer has been given back; false for file type
     * @throws RuntimeException on any failure
     */
    public static native boolean getNodeFileType(long node);

    /**
     * Reads the file offset of a range. The caller serialises the calls on the map.
     *
     * @param node a node handle
     * @return the offset of the range's first byte in the file, in bytes
     * @throws RuntimeException on any failure
     */
    public static native int getNodeFileOffset(long node);

    /**
     * Reads the major version of a range's file location. The caller serialises the calls on the
     * map.
     *
     * @param node a node handle
     * @return the major version
     * @throws RuntimeException on any failure
     */
    public static native int getNodeFileMajorVer(long node);

    /**
     * Reads the minor version of a range's file location. The caller serialises the calls on the
     * map.
     *
     * @param node a node handle
     * @return the minor version
     * @throws RuntimeException on any failure
     */
    public static native int getNodeFileMinorVer(long node);

    /**
     * Reads the file number of a range. The caller serialises the calls on the map.
     *
     * @param node a node handle
     * @return the 8 bits of the file number: file 200 reads as -56
     * @throws RuntimeException on any failure
     */
    public static native byte getNodeFileNumber(long node);

    /**
     * Borrows the buffer of a range: the very slice that the map holds. The caller neither releases
     * it nor moves its indices, and stops using it before the call that makes the map give it back
     * ({@link #compareAndRelease}, {@link #release}, a change that replaces or cuts the range, or
     * {@link #destorySkipList}); who needs the bytes for longer retains the slice first. The caller
     * serialises the calls on the map.
     *
     * @param node a node handle
     * @return the slice with the range's bytes, or null if the range holds no buffer
     * @throws RuntimeException on any failure
     */
    public static native ByteBuf getNodeFileBuff(long node);

    /**
     * Reads how many bytes a map covers. The count leaves out gaps between stored ranges that were
     * filled by an insert which reached beyond one side of them only. The caller serialises the
     * calls on the map.
     *
     * @param handle the map
     * @return the summed lengths of the stored ranges in bytes, as counted by the inserts
     * @throws RuntimeException on any failure
     */
    public static native long getSkipListValidLen(long handle);

    /**
     * Reads how many bytes were ever inserted into a map, whatever they replaced. The parts that
     * {@link #compareAndSet} redirected and {@link #copySkipList} copied count as inserts. The
     * caller serialises the calls on the map.
     *
     * @param handle the map
     * @return the summed lengths of all inserted ranges in bytes
     * @throws RuntimeException on any failure
     */
    public static native long getSkipLIstRawLen(long handle);

    /**
     * Reads how many inserts a map has completed, those of {@link #compareAndSet} and
     * {@link #copySkipList} included. The caller serialises the calls on the map.
     *
     * @param handle the map
     * @return the number of inserts
     * @throws RuntimeException on any failure
     */
    public static native int getSkipListRawCount(long handle);

    /**
     * Reads how many ranges a map holds. The caller serialises the calls on the map.
     *
     * @param handle the map
     * @return the number of stored ranges
     * @throws RuntimeException on any failure
     */
    public static native int getSkipListSize(long handle);

    /**
     * Reads the statistics of native memory. May be called from any thread at any time. The bytes
     * in use are summed over all threads by a sweep, which this call makes if more than 5000
     * milliseconds have passed since the last one; between sweeps it repeats the last sum.
     *
     * @return 7 numbers: at index 6 the native bytes in use as of the last sweep, otherwise 0
     * @throws RuntimeException on any failure
     */
    public static native long[] getStats();

    /**
     * Finds the stored ranges that share at least one byte with a range. Those that only touch it
     * are left out. With length 0, finds the stored range that contains the byte at {@code offset}.
     * The caller serialises the calls on the map.
     *
     * @param handle the map
     * @param offset the start of the range in bytes
     * @param len the length of the range in bytes
     * @return 2 node handles, borrowed from the map: that of the first range found, and the one at
     *     which a walk with {@link #nextNode} stops, which may be the map's end mark. They are
     *     equal if nothing was found
     * @throws RuntimeException on any failure
     */
    public static native long[] getNodes(long handle, long offset, int len);

    /**
     * Finds all ranges of a map. The caller serialises the calls on the map.
     *
     * @param handle the map
     * @return 2 node handles, borrowed from the map: that of the first range, and that of the map's
     *     end mark, at which a walk with {@link #nextNode} stops. They are equal if the map is
     *     empty
     * @throws RuntimeException on any failure
     */
    public static native long[] getAllNodes(long handle);
}
