package stor.device.skiplist;

import java.util.concurrent.TimeUnit;
import java.util.concurrent.atomic.AtomicLong;

/**
 * The native memory that all maps of the process share: its limit, what is in use, and which maps
 * use it.
 *
 * <p>A charge is judged against the bytes in use as of the last sweep. Maps ask for a sweep by
 * themselves: when they are created and copied, and every few hundred changes, if nobody has asked
 * for a second. It is made if the last one is more than 5 seconds ago by the system's clock. So a
 * process that grows is held to its limit within about 6 seconds, but can by then be above it by
 * what it took in that time. What the limit refuses is an {@link OutOfMemoryError} in the call that
 * needed the memory; the next change of that map asks for a sweep, and so finds what was given back
 * meanwhile.
 *
 * <p>While the system's clock is set back, no sweep is made until it has caught up: the limit is
 * judged against the last count all that time. Callers of {@link JniSkipListNative} alone ask by
 * themselves, with {@link JniSkipListNative#getStats} or {@link #bytesInUse}.
 *
 * <p>All methods may be called from any thread at any time. The answers of {@link #limit} and
 * {@link #millisSinceSweep} hold as long as nobody calls {@link JniSkipListNative#init} or
 * {@link JniSkipListNative#getStats} beside this class, and nobody sets the system's clock.
 */
public final class NativeMemory {
    private static final long DEFAULT_LIMIT = 10L << 30;
    private static final long SWEEP_INTERVAL_MILLIS = 5000;
    private static final long ASK_INTERVAL_NANOS = TimeUnit.SECONDS.toNanos(1);
    private static final int BYTES_IN_USE = 6;

    private static final AtomicLong ASKED_AT_NANOS =
            new AtomicLong(System.nanoTime() - ASK_INTERVAL_NANOS);

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
        StackReserve.require();
        NativeLoader.load();
        // Looks at a map of its own, which this limit might refuse.
        JniSkipListNative.tryTest();
        NativeLayout.decide();
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
    public static long bytesInUse() {
        StackReserve.require();
        NativeLoader.load();
        return readBytesInUse();
    }

    private static synchronized long readBytesInUse() {
        long bytes = JniSkipListNative.getStats()[BYTES_IN_USE];
        if (!swept || millisSinceSweep() > SWEEP_INTERVAL_MILLIS) {
            swept = true;
            sweptAtNanos = System.nanoTime();
        }
        return bytes;
    }

    /**
     * Waits until a sweep is made, by this call as soon as one can be made or by another one
     * before, and reads the native bytes in use.
     *
     * @return the number of bytes at some moment of this call, which lasts up to 5 seconds
     * @throws InterruptedException if the thread is interrupted while it waits
     */
    public static long sweep() throws InterruptedException {
        long asked = System.nanoTime();
        for (;;) {
            long wait;
            synchronized (NativeMemory.class) {
                long bytes = bytesInUse();
                if (sweptAtNanos - asked >= 0) {
                    return bytes;
                }
                wait = SWEEP_INTERVAL_MILLIS + 1 - millisSinceSweep();
            }
            Thread.sleep(wait);
        }
    }

    /**
     * Reads how old the answer of {@link #bytesInUse} is.
     *
     * @return the milliseconds since the last sweep, or -1 if there has been none
     */
    public static synchronized long millisSinceSweep() {
        return swept ? TimeUnit.NANOSECONDS.toMillis(System.nanoTime() - sweptAtNanos) : -1;
    }

    /**
     * Counts the maps that have been created and not closed: what a test run that closes all its
     * maps asks at its end, and finds to be 0.
     *
     * @return the number of open maps, without those that were lost and have been freed
     */
    public static long openMaps() {
        return NativeMap.openMaps();
    }

    /**
     * Counts the maps that were never closed, and were freed when they had been garbage collected;
     * whatever {@code skiplist.leakDetection} says.
     *
     * @return the number of maps so far
     */
    public static long lostMaps() {
        return NativeMap.lostMaps();
    }

    /** Asks for a sweep if nobody has for a second. */
    static void sweepIfDue() {
        long now = System.nanoTime();
        long asked = ASKED_AT_NANOS.get();
        if (now - asked >= ASK_INTERVAL_NANOS && ASKED_AT_NANOS.compareAndSet(asked, now)) {
            readBytesInUse();
        }
    }
}
