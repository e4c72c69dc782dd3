package stor.device.skiplist;

import java.lang.System.Logger;
import java.lang.System.Logger.Level;
import java.util.Locale;
import java.util.concurrent.atomic.AtomicInteger;

/**
 * The native half of an {@link OffHeapRangeMap}: is destroyed once, when the map is closed or, as a
 * safety net that tells of it, when the map was lost. Must not refer to the map.
 */
final class NativeMap implements Runnable {
    private static final String LEVEL_PROPERTY = "skiplist.leakDetection";
    private static final int SAMPLING_INTERVAL = 64;
    private static final Logger LOGGER = System.getLogger(OffHeapRangeMap.class.getName());
    private static final LeakDetection DETECTION = level();
    private static final AtomicInteger CREATED = new AtomicInteger();

    private final long handle;
    private final String name;
    private final Throwable creationSite;
    private volatile boolean closed;

    private enum LeakDetection {
        OFF,
        SAMPLED,
        ALWAYS
    }

    NativeMap(long handle, String name) {
        this.handle = handle;
        this.name = name;
        boolean traced = DETECTION == LeakDetection.ALWAYS
                || DETECTION == LeakDetection.SAMPLED
                        && CREATED.getAndIncrement() % SAMPLING_INTERVAL == 0;
        creationSite = traced ? new Throwable(name + " was created here") : null;
    }

    long handle() {
        return handle;
    }

    boolean isClosed() {
        return closed;
    }

    /** Says that the coming end is intended. */
    void markClosed() {
        closed = true;
    }

    @Override
    public void run() {
        try {
            JniSkipListNative.destorySkipList(handle);
        } finally {
            if (!closed && DETECTION != LeakDetection.OFF) {
                report();
            }
        }
    }

    private void report() {
        String found = name + " was never closed; its native memory and its buffers were given back"
                + " when it was garbage collected";
        if (creationSite == null) {
            LOGGER.log(Level.WARNING, found + " (set " + LEVEL_PROPERTY
                    + "=always to see where it was created)");
        } else {
            LOGGER.log(Level.WARNING, found, creationSite);
        }
    }

    private static LeakDetection level() {
        String value = System.getProperty(LEVEL_PROPERTY, LeakDetection.SAMPLED.name());
        try {
            return LeakDetection.valueOf(value.toUpperCase(Locale.ROOT));
        } catch (IllegalArgumentException e) {
            LOGGER.log(Level.WARNING, LEVEL_PROPERTY + ": " + value
                    + " (expected: off, sampled or always); using sampled");
            return LeakDetection.SAMPLED;
        }
    }
}
