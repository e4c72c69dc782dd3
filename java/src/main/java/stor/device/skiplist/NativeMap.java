package stor.device.skiplist;

import java.lang.System.Logger;
import java.lang.System.Logger.Level;
import java.util.Locale;
import java.util.concurrent.atomic.AtomicInteger;
import java.util.concurrent.atomic.AtomicLong;

/**
 * The native half of an {@link OffHeapRangeMap}: is destroyed once, when the map is closed or, as a
 * safety net that tells of it, when the map was lost. Must refer neither to the map nor to its
 * guard. The map's guard keeps changes apart.
 */
final class NativeMap implements Runnable {
    private static final String LEVEL_PROPERTY = "skiplist.leakDetection";
    private static final int SAMPLING_INTERVAL = 64;
    private static final LeakDetection DETECTION = level();
    private static final AtomicInteger CREATED = new AtomicInteger();
    private static final AtomicLong OPEN = new AtomicLong();
    private static final AtomicLong LOST = new AtomicLong();

    private final int height;
    private final int sectorSize;
    private final String name;
    private final Throwable creationSite;
    private long handle;
    private boolean closed;

    private enum LeakDetection {
        OFF,
        SAMPLED,
        ALWAYS
    }

    /** Makes what will hold the native half, and has none yet. */
    NativeMap(int height, int sectorSize, String name) {
        this.height = height;
        this.sectorSize = sectorSize;
        this.name = name;
        boolean traced = DETECTION == LeakDetection.ALWAYS
                || DETECTION == LeakDetection.SAMPLED
                        && CREATED.getAndIncrement() % SAMPLING_INTERVAL == 0;
        creationSite = traced ? new Throwable(name + " was created here") : null;
    }

    /** Gives the maps of the process that are neither closed nor freed. */
    static long openMaps() {
        return OPEN.get();
    }

    /** Gives the maps of the process that were lost and have been freed. */
    static long lostMaps() {
        return LOST.get();
    }

    /** Makes the native half. */
    void open() {
        handle = JniSkipListNative.createSkipList(height, sectorSize);
        OPEN.incrementAndGet();
        // Here rather than in the first query, which may be deep in a stack.
        NativeLayout.decide();
    }

    long handle() {
        return handle;
    }

    int height() {
        return height;
    }

    /** Takes an empty native half in place of this one, which is destroyed. */
    void renew() {
        long old = handle;
        handle = JniSkipListNative.createSkipList(height, sectorSize);
        JniSkipListNative.destorySkipList(old);
    }

    /** Says that the coming end is intended. */
    void markClosed() {
        closed = true;
    }

    @Override
    public void run() {
        if (handle == 0) {
            return;
        }
        OPEN.decrementAndGet();
        try {
            JniSkipListNative.destorySkipList(handle);
        } finally {
            if (!closed) {
                LOST.incrementAndGet();
                report();
            }
        }
    }

    private void report() {
        if (DETECTION == LeakDetection.OFF) {
            return;
        }
        String found = name + " was never closed; its native memory and its buffers were given back"
                + " when it was garbage collected";
        if (creationSite == null) {
            logger().log(Level.WARNING, found + " (set " + LEVEL_PROPERTY
                    + "=always to see where it was created)");
        } else {
            logger().log(Level.WARNING, found, creationSite);
        }
    }

    /** Asked for when there is something to say: not every JVM has one. */
    private static Logger logger() {
        return System.getLogger(OffHeapRangeMap.class.getName());
    }

    private static LeakDetection level() {
        String value = System.getProperty(LEVEL_PROPERTY, LeakDetection.SAMPLED.name());
        try {
            return LeakDetection.valueOf(value.toUpperCase(Locale.ROOT));
        } catch (IllegalArgumentException e) {
            logger().log(Level.WARNING, LEVEL_PROPERTY + ": " + value
                    + " (expected: off, sampled or always); using sampled");
            return LeakDetection.SAMPLED;
        }
    }
}
