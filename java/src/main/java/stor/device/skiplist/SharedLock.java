package stor.device.skiplist;

import java.util.concurrent.atomic.AtomicLongArray;
import java.util.concurrent.locks.LockSupport;
import java.util.concurrent.locks.ReentrantLock;

/**
 * Lets any number of threads share something, or one have it alone.
 *
 * <p>Sharers count themselves in, spread over places by their threads: so they seldom meet in a line
 * of the cache while nobody wants to be alone. Who does takes his turn, which closes the way in, and
 * waits until the counts are 0. Meanwhile newcomers wait for a turn, too: sharers do not keep others
 * from being alone, however many there are. Nobody needs a carrier thread while he waits.
 *
 * <p>A thread may enter again what it is in, and share what it has alone. Who shares only must not
 * ask to be alone: he would wait for himself.
 *
 * <p>Costs a sharer two atomic additions, and a lock 16 bytes of counts; 128 bytes for each of some
 * four places a processor once two have shared it at a time.
 */
final class SharedLock {
    private static final int MOST_PLACES = 64;
    /** Two lines of the cache, since processors fetch them in pairs. */
    private static final int LONGS_PER_PLACE = 16;
    /** How often to look again before to sleep: longer than a query or a small change takes. */
    static final int LOOKS = 200;
    private static final int PLACES = Math.min(MOST_PLACES,
            Integer.highestOneBit(4 * Runtime.getRuntime().availableProcessors()));
    private static final int HASH_SHIFT = Long.numberOfLeadingZeros(PLACES) + 1;

    // Closes the way in while it is held.
    private final ReentrantLock turn = new ReentrantLock();
    private volatile Thread waiting;
    // Replaced by whoever is alone.
    private volatile AtomicLongArray sharers = new AtomicLongArray(1);
    private volatile boolean crowded;

    /** Enters to share, unless somebody has it alone or waits to; tells whether it did. */
    boolean tryEnterShared() {
        AtomicLongArray counts = sharers;
        long others = countIn(counts);
        if (!turn.isLocked() && counts == sharers) {
            if (others > 0 && counts.length() == 1) {
                crowded = true;
            }
            return true;
        }
        countOut(counts);
        return false;
    }

    /**
     * Enters to share, after whoever has it alone.
     *
     * @param again whether this thread shares already
     */
    void enterShared(boolean again) {
        if (again || isAlone()) {
            // Nobody to wait for, but maybe somebody who waits for this thread to leave.
            countIn(sharers);
            return;
        }
        for (int i = 0; i < LOOKS; i++) {
            Thread.onSpinWait();
            if (!turn.isLocked() && tryEnterShared()) {
                return;
            }
        }
        turn.lock();
        try {
            countIn(sharers);
        } finally {
            turn.unlock();
        }
    }

    void leaveShared() {
        if (countOut(sharers) == 0 && crowded) {
            spread();
        }
    }

    /** Enters to be alone. */
    void enterAlone() {
        turn.lock();
        boolean entered = false;
        try {
            if (turn.getHoldCount() == 1) {
                awaitEmpty();
            }
            entered = true;
        } finally {
            if (!entered) {
                turn.unlock();
            }
        }
    }

    /** Enters to be alone if that is so after a number of looks; tells whether it is. */
    boolean tryEnterAlone(int looks) {
        if (!turn.tryLock()) {
            return false;
        }
        if (turn.getHoldCount() > 1) {
            return true;
        }
        for (int i = 0; i < looks; i++) {
            if (isEmpty()) {
                return true;
            }
            Thread.onSpinWait();
        }
        turn.unlock();
        return false;
    }

    void leaveAlone() {
        turn.unlock();
    }

    /** Tells whether this thread has it alone. */
    boolean isAlone() {
        return turn.isHeldByCurrentThread();
    }

    private static long countIn(AtomicLongArray counts) {
        return counts.getAndIncrement(placeOfThread(counts));
    }

    private long countOut(AtomicLongArray counts) {
        long others = counts.decrementAndGet(placeOfThread(counts));
        Thread sleeper = waiting;
        if (sleeper != null) {
            LockSupport.unpark(sleeper);
        }
        return others;
    }

    /**
     * Spreads the threads with the golden ratio: those made one after another are far apart. The
     * first place is left out: before it lies the length, which all read.
     */
    private static int placeOfThread(AtomicLongArray counts) {
        return counts.length() == 1 ? 0
                : (int) (1 + (Thread.currentThread().getId() * 0x9E3779B97F4A7C15L >>> HASH_SHIFT))
                        * LONGS_PER_PLACE;
    }

    private boolean isEmpty() {
        AtomicLongArray counts = sharers;
        for (int i = 0; i < counts.length(); i += LONGS_PER_PLACE) {
            if (counts.get(i) != 0) {
                return false;
            }
        }
        return true;
    }

    private void awaitEmpty() {
        for (int i = 0; i < LOOKS; i++) {
            if (isEmpty()) {
                return;
            }
            Thread.onSpinWait();
        }
        boolean interrupted = false;
        waiting = Thread.currentThread();
        try {
            while (!isEmpty()) {
                LockSupport.park(this);
                interrupted |= Thread.interrupted();
            }
        } finally {
            waiting = null;
            if (interrupted) {
                Thread.currentThread().interrupt();
            }
        }
    }

    /** Gives each thread a place of its own, unless somebody is in just now: then the next time. */
    private void spread() {
        if (tryEnterAlone(1)) {
            try {
                if (turn.getHoldCount() == 1) {
                    sharers = new AtomicLongArray((1 + PLACES) * LONGS_PER_PLACE);
                }
            } catch (OutOfMemoryError e) {
                // One place serves as well, though not as fast.
            } finally {
                crowded = false;
                leaveAlone();
            }
        }
    }
}
