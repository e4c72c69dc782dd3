package stor.device.skiplist;

import java.lang.ref.Reference;
import java.util.ConcurrentModificationException;
import java.util.concurrent.locks.ReentrantLock;

/**
 * The one way into a map and out of it: every call enters with what it is about to do, and leaves
 * with the same.
 *
 * <p>One call at a time is inside, whatever the threads. What a thread that is inside already may
 * do besides is told by {@link #requireReadable} and {@link #requireChangeable}: so nothing changes
 * while a node is in somebody's hand, and nothing reads a map that is half changed.
 *
 * <p>Who enters has stack enough to leave again. Keeps itself, and with it the map's native half,
 * which is freed when the guard is garbage, until every call has left.
 */
final class MapGuard {
    private static final int CHANGES_BETWEEN_SWEEPS = 256;

    private final ReentrantLock lock = new ReentrantLock();
    private final String map;

    // Written under the lock.
    private boolean changing;
    private int visits;
    private int changesToSweep;
    private volatile String closedBy;

    /** What a call does. */
    enum Access {
        /** Reads, and runs nobody else's code meanwhile. */
        QUERY,
        /** Reads while a visitor or a buffer runs code of its own. */
        VISIT,
        /** Changes the map, and may run the code of buffers when it is half changed. */
        CHANGE,
        /** Does whatever else it enters for, with no other thread in between. */
        ALL
    }

    /**
     * Makes the guard of an open map.
     *
     * @param map names it
     * @param number is another one for each map, so that the looks of many small maps at the
     *     memory in use are spread
     */
    MapGuard(String map, long number) {
        this.map = map;
        changesToSweep = (int) (number * 37 & CHANGES_BETWEEN_SWEEPS - 1);
    }

    /** Waits until no other thread is inside, and enters, or throws if the map refuses. */
    void enter(String operation, Access access) {
        StackReserve.require();
        lock.lock();
        boolean entered = false;
        try {
            begin(operation, access);
            entered = true;
        } finally {
            if (!entered) {
                lock.unlock();
            }
        }
    }

    /** Leaves. To be called by whoever has entered, and by nobody else. */
    void leave(Access access) {
        if (access == Access.CHANGE) {
            changing = false;
        } else if (access == Access.VISIT) {
            visits--;
        }
        lock.unlock();
        Reference.reachabilityFence(this);
    }

    /**
     * Enters two maps, to change both in the callbacks' view: the source is read, the destination
     * changed. Waits for one only while it holds none of the two that it did not hold before, so
     * that two threads cannot wait for each other here.
     */
    static void enterBoth(String operation, MapGuard source, MapGuard destination) {
        StackReserve.require();
        // What this thread is in already tells at once, without a wait for the other.
        if (destination.lock.isHeldByCurrentThread()) {
            destination.requireChangeable(operation);
        }
        MapGuard first = source;
        MapGuard second = destination;
        first.lock.lock();
        while (!second.lock.tryLock()) {
            first.lock.unlock();
            MapGuard awaited = second;
            second = first;
            first = awaited;
            first.lock.lock();
        }
        boolean entered = false;
        try {
            source.requireReadable(operation);
            destination.begin(operation, Access.CHANGE);
            source.changing = true;
            entered = true;
        } finally {
            if (!entered) {
                source.lock.unlock();
                destination.lock.unlock();
            }
        }
    }

    /** Leaves both. */
    static void leaveBoth(MapGuard source, MapGuard destination) {
        destination.leave(Access.CHANGE);
        source.leave(Access.CHANGE);
    }

    /** Enters to close the map, after which all others are refused; false if that is so already. */
    boolean enterToClose() {
        StackReserve.require();
        lock.lock();
        boolean entered = false;
        try {
            if (closedBy == null) {
                requireChangeable("close");
                closedBy = Thread.currentThread().getName();
                entered = true;
            }
        } finally {
            if (!entered) {
                lock.unlock();
            }
        }
        return entered;
    }

    boolean isClosed() {
        return closedBy != null;
    }

    /** Throws if the map is closed. Does not enter. */
    void requireOpen(String operation) {
        String closer = closedBy;
        if (closer != null) {
            throw new IllegalStateException(operation + ": " + map
                    + ": closed by thread " + closer + " (expected: open)");
        }
    }

    private void begin(String operation, Access access) {
        requireReadable(operation);
        if (access == Access.CHANGE) {
            requireUnvisited(operation);
            sweepNowAndThen();
            changing = true;
        } else if (access == Access.VISIT) {
            visits++;
        } else if (access == Access.ALL) {
            requireUnvisited(operation);
        }
    }

    private void requireReadable(String operation) {
        requireOpen(operation);
        if (changing) {
            throw new ConcurrentModificationException(operation + ": " + map
                    + ": called back while it is being changed (expected: after the change)");
        }
    }

    private void requireChangeable(String operation) {
        requireReadable(operation);
        requireUnvisited(operation);
    }

    private void requireUnvisited(String operation) {
        if (visits > 0) {
            throw new ConcurrentModificationException(operation + ": " + map
                    + ": called while it is being visited (expected: after the visit)");
        }
    }

    /** Lets the next change ask for a sweep, since memory was refused that may be free by then. */
    void sweepBeforeNextChange() {
        changesToSweep = 0;
    }

    private void sweepNowAndThen() {
        if (--changesToSweep < 0) {
            changesToSweep = CHANGES_BETWEEN_SWEEPS;
            NativeMemory.sweepIfDue();
        }
    }
}
