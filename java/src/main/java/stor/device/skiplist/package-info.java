/**
 * Range maps in native memory.
 *
 * <p>{@link stor.device.skiplist.OffHeapRangeMap} is the class to use.
 * {@link stor.device.skiplist.JniSkipListNative} has the native methods that it is made of, for
 * callers who keep the rules themselves; {@link stor.device.skiplist.NativeMemory} has the limit
 * that all maps share.
 *
 * <h2>Priorities</h2>
 * <ol>
 * <li>No call of a public class other than {@code JniSkipListNative} ends the JVM or harms a map:
 * a mistake is an exception that says what was expected.
 * <li>No native memory and no reference to a buffer is lost, whatever fails.
 * <li>Time on the hot paths.
 * <li>Heap: no object for each stored range, none for each visited range.
 * <li>Convenience.
 * </ol>
 *
 * <h2>Hot paths</h2>
 *
 * <p>{@code insert}, {@code compareAndSet}, {@code compareAndRelease}, and all queries and walks.
 * Beside its search or native call each takes an uncontended lock and compares a few numbers.
 * Queries read native memory in place, without a native call, where the JVM allows it (see
 * {@link stor.device.skiplist.OffHeapRangeMap}). In a map whose ranges are spread over 2^31 bytes
 * and more, an insert costs two searches more from the first request on that does not begin and end
 * on a sector, or whose place does not lie within the first 2^31-1 bytes of its file; so does,
 * always, one of an empty location. Lists and {@code Optional} results make objects and are for
 * convenience.
 *
 * <h2>Threads</h2>
 *
 * <p>Queries of a map run at once; changes are alone in it, and queries that come while one waits
 * for those in progress let it go first. Different maps have nothing to do with each other. Platform
 * and virtual threads may be mixed. A virtual thread that waits for a map gives its carrier up, one
 * that is inside a native call keeps it. {@code NativeMemory} may be used by any thread.
 *
 * <h2>Exceptions</h2>
 *
 * <p>Arguments are checked first: {@link java.lang.NullPointerException} and
 * {@link java.lang.IllegalArgumentException}. The state of a map comes next:
 * {@link java.lang.IllegalStateException} when it is closed,
 * {@link java.util.ConcurrentModificationException} when it is being visited. Native memory that
 * is used up is an {@link java.lang.OutOfMemoryError}, any other native failure a
 * {@link java.lang.RuntimeException}. Each failure is a new exception. The native side also writes
 * its own to the standard error stream.
 */
package stor.device.skiplist;
