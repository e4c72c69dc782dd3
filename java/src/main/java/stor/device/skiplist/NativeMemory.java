package stor.device.skiplist;

import java.util.concurrent.TimeUnit;

/**
 * The native memory that all maps of the process share: its limit, and what is in use.
 *
 * <p>A charge is judged against the bytes in use as of the last sweep. Nothing sweeps but
 * {@link #bytesInUse}, and at most every 5 seconds: a process that wants its limit kept calls that
 * from time to time. What the limit refuses is an {@link OutOfMemoryError} in the call that needed
 * the memory.
 *
 * <p>All methods may be called from any thread at any time. The answers of {@link #limit} and
 * {@link #millisSinceSweep} hold as long as nobody calls {@link JniSkipListNative#init} or
 * {@link JniSkipListNative#getStats} beside this class.
 */
public final class NativeMemory {
    private static final long DEFAULT_LIMIT = 10L << 30;
    private static final long SWEEP_INTERVAL_MILLIS = 5000;
    private static final int BYTES_IN_USE = 6;

    // Under the lock of the class; no native call that waits is made with it.
    private static long limit = DEFAULT_LIMIT;
    private static boolean swept;
    private static long sweptAtNanos;

    private NativeMemory() {
    }

    /**
     * Reads the limit.
     *
     * @return the limit in bytes; 10 GiB unless another has been set
     */
    public static synchronized long limit() {
        return limit;
    }

    /**
     * Sets the limit for all maps, those that exist among them.
     *
     * @param bytes the limit in bytes, more than 0; what is in use beyond it stays
     * @throws IllegalArgumentException if {@code bytes} is not more than 0
     */
    public static synchronized void setLimit(long bytes) {
        if (bytes <= 0) {
            throw Arguments.illegal("setLimit", "bytes: " + bytes, "> 0");
        }
        JniSkipListNative.init(bytes);
        limit = bytes;
    }

    /**
     * Reads the native bytes in use: those of the maps' records, without the allocator's share and
     * without the buffers, which are Netty's.
     *
     * @return the number of bytes as of the last sweep, which this call makes if the last one is
     *     more than 5 seconds ago
     */
    public static synchronized long bytesInUse() {
        long bytes = JniSkipListNative.getStats()[BYTES_IN_USE];
        if (!swept || millisSinceSweep() > SWEEP_INTERVAL_MILLIS) {
            swept = true;
            sweptAtNanos = System.nanoTime();
        }
        return bytes;
    }

    /**
     * Reads how old the answer of {@link #bytesInUse} is.
     *
     * @return the milliseconds since the last sweep, or -1 if there has been none
     */
    public static synchronized long millisSinceSweep() {
        return swept ? TimeUnit.NANOSECONDS.toMillis(System.nanoTime() - sweptAtNanos) : -1;
    }
}
