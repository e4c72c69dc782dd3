package stor.device.skiplist;

import java.lang.ref.Reference;
import java.util.ConcurrentModificationException;
import java.util.List;

/**
 * The one way into a map and out of it: every call enters with what it is about to do, and leaves
 * with the same.
 *
 * <p>Any number of threads read at once; who changes the map is alone in it. What a thread that is
 * inside already may do besides is told by {@link #requireReadable} and {@link #requireUnvisited}:
 * so nothing changes while a node is in somebody's hand, and nothing reads a map that is half
 * changed.
 *
 * <p>Who enters has stack enough to leave again. Keeps itself, and with it the map's native half,
 * which is freed when the guard is garbage, until every call has left.
 */
final class MapGuard {
    private static final int CHANGES_BETWEEN_SWEEPS = 256;
    /** How often a copy looks at most, for some ten milliseconds, whether it can enter a map. */
    private static final int MOST_LOOKS = 1 << 20;
    /**
     * The visits that each thread is inside: an array of one, the innermost. Its class keeps no
     * class loader of ours as long as the thread lives.
     */
    private static final ThreadLocal<Object[]> VISITS = ThreadLocal.withInitial(() -> new Object[1]);

    private final SharedLock lock = new SharedLock();
    private final String map;

    // Written by who is alone.
    private boolean changing;
    private int changesToSweep;
    private volatile String closedBy;

    /** A visit, and the one that it is inside. */
    private record Visit(MapGuard guard, Object around) {
    }

    /** What a call does. */
    enum Access {
        /** Reads, and runs nobody else's code meanwhile. */
        QUERY,
        /** Reads while a visitor or a buffer runs code of its own. */
        VISIT,
        /** Changes the map, alone, and may run the code of buffers when it is half changed. */
        CHANGE,
        /** Does whatever else it enters for, alone. */
        ALL;

        private boolean isAlone() {
            return this == CHANGE || this == ALL;
        }
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

    /** Waits for those who must not be inside at the same time, and enters, or throws. */
    void enter(String operation, Access access) {
        StackReserve.require();
        if (access.isAlone()) {
            requireUnvisited(operation);
            lock.enterAlone();
        } else if (!lock.tryEnterShared()) {
            lock.enterShared(isVisitedByThisThread());
        }
        boolean entered = false;
        try {
            begin(operation, access);
            entered = true;
        } finally {
            if (!entered) {
                unlock(access);
            }
        }
    }

    /** Leaves. To be called by whoever has entered, and by nobody else. */
    void leave(Access access) {
        if (access == Access.CHANGE) {
            changing = false;
        } else if (access == Access.VISIT) {
            Object[] visits = VISITS.get();
            visits[0] = ((Visit) visits[0]).around();
        }
        unlock(access);
        Reference.reachabilityFence(this);
    }

    /**
     * Enters two maps, to read one and change the other. Waits for one only while it is inside none
     * of the two that it was not inside before, so that two threads cannot wait for each other
     * here.
     *
     * @return how the source was entered: {@link Access#CHANGE}, since a copy has the buffers of
     *     both maps call back on this thread; or {@link Access#VISIT} if this thread visits it
     */
    static Access enterBoth(String operation, MapGuard source, MapGuard destination) {
        StackReserve.require();
        // What this thread is in already tells at once, without a wait for the other.
        destination.requireUnvisited(operation);
        for (MapGuard guard : List.of(source, destination)) {
            if (guard.lock.isAlone()) {
                guard.requireReadable(operation);
            }
        }
        if (source.isVisitedByThisThread()) {
            enterInTurn(operation, source, Access.VISIT, destination);
            return Access.VISIT;
        }
        enterAloneInBoth(source.lock, destination.lock);
        try {
            enterInTurn(operation, source, Access.CHANGE, destination);
        } finally {
            source.lock.leaveAlone();
            destination.lock.leaveAlone();
        }
        return Access.CHANGE;
    }

    private static void enterInTurn(
            String operation, MapGuard source, Access access, MapGuard destination) {
        source.enter(operation, access);
        boolean entered = false;
        try {
            destination.enter(operation, Access.CHANGE);
            entered = true;
        } finally {
            if (!entered) {
                source.leave(access);
            }
        }
    }

    private static void enterAloneInBoth(SharedLock one, SharedLock other) {
        SharedLock first = one;
        SharedLock second = other;
        first.enterAlone();
        // Each time for longer, since those who are in may stay: until it outlasts a usual walk.
        for (int looks = SharedLock.LOOKS; !second.tryEnterAlone(looks);
                looks = Math.min(2 * looks, MOST_LOOKS)) {
            first.leaveAlone();
            SharedLock awaited = second;
            second = first;
            first = awaited;
            first.enterAlone();
        }
    }

    /** Leaves both, of which the source was entered as told. */
    static void leaveBoth(MapGuard source, Access access, MapGuard destination) {
        destination.leave(Access.CHANGE);
        source.leave(access);
    }

    /** Enters to close the map, after which all others are refused; false if that is so already. */
    boolean enterToClose() {
        StackReserve.require();
        requireUnvisited("close");
        lock.enterAlone();
        boolean entered = false;
        try {
            if (closedBy == null) {
                requireReadable("close");
                closedBy = Thread.currentThread().getName();
                entered = true;
            }
        } finally {
            if (!entered) {
                lock.leaveAlone();
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
            sweepNowAndThen();
            changing = true;
        } else if (access == Access.VISIT) {
            Object[] visits = VISITS.get();
            visits[0] = new Visit(this, visits[0]);
        }
    }

    private void unlock(Access access) {
        if (access.isAlone()) {
            lock.leaveAlone();
        } else {
            lock.leaveShared();
        }
    }

    private void requireReadable(String operation) {
        requireOpen(operation);
        if (changing) {
            throw new ConcurrentModificationException(operation + ": " + map
                    + ": called back while it is being changed (expected: after the change)");
        }
    }

    private void requireUnvisited(String operation) {
        if (isVisitedByThisThread()) {
            throw new ConcurrentModificationException(operation + ": " + map
                    + ": called while it is being visited (expected: after the visit)");
        }
    }

    private boolean isVisitedByThisThread() {
        Visit visit = (Visit) VISITS.get()[0];
        while (visit != null && visit.guard() != this) {
            visit = (Visit) visit.around();
        }
        return visit != null;
    }

    /**
     * Lets the next change ask for a sweep, since memory was refused that may be free by then.
     *
     * @return the failure, to be thrown
     */
    OutOfMemoryError refused(OutOfMemoryError failure) {
        changesToSweep = 0;
        return failure;
    }

    private void sweepNowAndThen() {
        if (--changesToSweep < 0) {
            changesToSweep = CHANGES_BETWEEN_SWEEPS;
            NativeMemory.sweepIfDue();
        }
    }
}
