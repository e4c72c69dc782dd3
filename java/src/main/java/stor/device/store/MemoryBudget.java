package stor.device.store;

import stor.device.skiplist.NativeMemory;

/**
 * Makes the library's limit hold for what is in use now.
 *
 * <p>The library judges a charge against the bytes in use as of its last sweep, and sweeps at most
 * every 5 seconds: taken by itself, its limit comes late, and once reached keeps refusing for
 * seconds after memory was given back. The store knows how many ranges its own maps hold. So for
 * the insert of a write it sets the limit to the swept sum plus what is left of its budget, and the
 * library refuses exactly those writes for which nothing is left. Everything else, which is what
 * gives memory back, is admitted: a flush makes some file ranges before it drops as many buffered
 * ones.
 *
 * <p>The limit is one for the whole process: it fits one store at a time. All methods are called
 * with the store's lock held. A sweep elsewhere, between {@link #admitWrite} and the insert, would
 * shift the sum that the limit was reckoned from, and so refuse a write too early or too late.
 */
final class MemoryBudget {
    /** An insert makes up to three ranges before it drops what they replace. */
    private static final int INSERT_BYTES = 
            3 * (StoreStats.RANGE_BYTES + StoreStats.BUFFER_BYTES);
    private static final long DEFAULT_LIMIT = 10L << 30;

    private final long budget;

    MemoryBudget(long budget) {
        this.budget = budget;
        admitAll();
    }

    /** Lets the next insert through if the budget has room for it beside what is in use. */
    void admitWrite(long inUse) {
        long room = budget - inUse;
        // A limit of 0 is not accepted; no record is so small that it would pass at 1.
        NativeMemory.setLimit(Math.max(1, sweptBytes() + (room >= INSERT_BYTES ? room : 0)));
    }

    /** Lets everything through, but for what the library refuses by default. */
    void admitAll() {
        NativeMemory.setLimit(DEFAULT_LIMIT);
    }

    /** Tells whether this many bytes more would fit. */
    boolean hasRoom(long inUse, long more) {
        return budget - inUse >= more;
    }

    /** Reads the bytes in use in the whole process, as of the last sweep. */
    long sweptBytes() {
        return NativeMemory.bytesInUse();
    }
}
